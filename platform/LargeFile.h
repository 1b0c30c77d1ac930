#pragma once

#include "platform/Error.h"

#include <string>

namespace florvane {

// As removeItem, for a file that may be large: its name is gone on return. Its bytes, which can keep the file system
// busy for a good part of a second, are freed by a thread of their own, or when the process ends. Thread-safe.
Result<void> removeLargeFile(const std::string& path);

}  // namespace florvane
