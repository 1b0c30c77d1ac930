#pragma once

#include "platform/Clock.h"

#include <chrono>
#include <memory>

namespace florvane {

// How long an entry stays, in seconds.
using FVFObjectLifetime = std::chrono::duration<double>;

// What the fresh-object containers have in common: the lifetime, and the one-shot timer that flushes them. Ages are
// measured on the monotonic clock, so that setting the calendar neither drops entries nor keeps them. Guarded by its
// container's lock.
class FVFFreshObjectFlusher {
 public:
  FVFFreshObjectFlusher(FVFObjectLifetime lifetime, Clock& clock) : lifetime_(lifetime), clock_(clock) {}

  FVFObjectLifetime lifetime() const { return lifetime_; }
  Clock& clock() const { return clock_; }
  bool isExpired(MonotonicTime storedAt, MonotonicTime now) const { return now - storedAt > lifetime_; }
  // Calls `flush` once, a lifetime from now, or up to a tenth of that later; an earlier call's timer is cancelled.
  void renew(WorkItem flush);
  void cancel() { timer_.reset(); }

 private:
  FVFObjectLifetime lifetime_;
  Clock& clock_;
  std::unique_ptr<Timer> timer_;
};

}  // namespace florvane
