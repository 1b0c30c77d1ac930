#pragma once

#include "platform/Error.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

namespace florvane {

// The tasks that the container's transfer agent has for a background session, also those whose process is gone. An
// agent that is needed and does not run is started. All wait for its answer, at most 10 seconds; thread-safe.
class DCAgentTasks {
 public:
  // Whether there is a program to start. Without one uploads go on only while a process of their session lives.
  static bool isAgentInstalled();
  // An error when the agent could not be asked, or will not start for a store that a newer version wrote: that is not
  // "none".
  static Result<std::size_t> numberOfTasksInSession(const std::string& sessionIdentifier);
  // How far those are that are being sent, by task identifier.
  struct Progress {
    std::int64_t bytesSent = 0, bytesExpected = 0;
  };
  static Result<std::unordered_map<std::int64_t, Progress>> progressOfTasksInSession(
      const std::string& sessionIdentifier);
  // Lets the agent forget what has ended in a session that nobody is attached to, for one whose account is gone: what
  // the tasks came to is told to nobody.
  static void forgetEndedTasksInSession(const std::string& sessionIdentifier);
  // Every task of the session, whoever made it.
  static Result<void> cancelTasksInSession(const std::string& sessionIdentifier);
};

}  // namespace florvane
