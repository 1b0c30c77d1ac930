#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace florvane {

// The bundle version ("1.1") of the application of that identifier; absent for one that does not come with this
// library. Thread-safe.
std::optional<std::string> bundleVersionOfApplication(std::string_view bundleIdentifier);

}  // namespace florvane
