#pragma once

#include "platform/Clock.h"

#include <mutex>
#include <optional>
#include <string>

namespace florvane {

// Removes from the container's temporary directory what killed processes left: answers of requests, files that were to
// take another's place, and stable copies for uploads that no record of any service names, when nothing has happened to
// them for an hour; what a command took from its standard input after a day. What cannot be removed is left for the
// next time. Thread-safe.
class DCTemporarySweeper {
 public:
  static DCTemporarySweeper& shared();

  // At most once an hour of that clock; on the caller's thread.
  void sweepIfDue(const Clock& clock);
  // Of that folder, as of now; the stores of the services are those of the container.
  static void sweep(const std::string& folder, Date now);

 private:
  std::mutex mutex_;
  std::optional<MonotonicTime> lastSweep_;
};

}  // namespace florvane
