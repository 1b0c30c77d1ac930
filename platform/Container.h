#pragma once

#include "platform/Error.h"

#include <optional>
#include <string>

namespace florvane {

// The folder that the application, its file provider and the agent share: $FLORVANE_CONTAINER, else
// $XDG_DATA_HOME/florvane/group.quorl.Florvane, else ~/.local/share/florvane/group.quorl.Florvane. Mode 0700, made on
// first use. Thread-safe.
class Container {
 public:
  // Overrides the environment for this process; before first use. For --container.
  static void setDirectory(std::string path);
  // The folder's path, made when missing; absent when there is no home or it cannot be made.
  static std::optional<std::string> directory();
  // directory() or an error that says why.
  static Result<std::string> requireDirectory();
};

// A UUID made once per container and kept in its file "Device Identifier". Absent when there is no container.
std::optional<std::string> deviceIdentifier();

}  // namespace florvane
