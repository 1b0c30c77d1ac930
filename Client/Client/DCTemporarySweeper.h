#pragma once

#include "platform/Clock.h"

#include <mutex>
#include <optional>
#include <string>

namespace florvane {

// Removes from the container's temporary directory what killed processes left: answers of requests and files that were
// to take another's place, when nothing has happened to them for an hour. Never a stable copy that is being sent. What
// cannot be removed is left for the next time. Thread-safe.
class DCTemporarySweeper {
 public:
  static DCTemporarySweeper& shared();

  // At most once an hour of that clock; on the caller's thread.
  void sweepIfDue(const Clock& clock);
  // Of that folder, as of now.
  static void sweep(const std::string& folder, Date now);

 private:
  std::mutex mutex_;
  std::optional<MonotonicTime> lastSweep_;
};

}  // namespace florvane
