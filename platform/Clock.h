#pragma once

#include "platform/Date.h"
#include "platform/UniqueFunction.h"

#include <memory>

namespace florvane {

// A one-shot timer that has been set; destroying or cancelling it keeps it from firing. Thread-safe. A cancel from
// another thread does not wait for a handler that is already running.
class Timer {
 public:
  virtual ~Timer() = default;
  virtual void cancel() = 0;
};

// Where time comes from: the calendar, the monotonic clock, and one-shot timers. Whatever depends on time is handed a
// Clock, so that tests can hand in one that they move themselves. Thread-safe.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual Date now() const = 0;
  virtual MonotonicTime monotonicNow() const = 0;
  // Calls the handler once, at the deadline or up to leeway later, on a background thread of the clock's own. The
  // handler must be short and must not throw.
  virtual std::unique_ptr<Timer> schedule(MonotonicTime deadline, Duration leeway, WorkItem handler) = 0;

  // The machine's clock; one timer thread a process, started with the first timer.
  static Clock& system();
};

}  // namespace florvane
