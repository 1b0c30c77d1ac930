#pragma once

#include "platform/Error.h"

#include <cstddef>
#include <string>

namespace florvane {

// The tasks that the container's transfer agent has for a background session, also those whose process is gone. An
// agent that is needed and does not run is started. Both wait for its answer, at most 10 seconds; thread-safe.
class DCAgentTasks {
 public:
  // An error when the agent could not be asked, or will not start for a store that a newer version wrote: that is not
  // "none".
  static Result<std::size_t> numberOfTasksInSession(const std::string& sessionIdentifier);
  // Every task of the session, whoever made it.
  static Result<void> cancelTasksInSession(const std::string& sessionIdentifier);
};

}  // namespace florvane
