#pragma once

#include "platform/Clock.h"

#include <map>
#include <memory>
#include <mutex>

namespace florvane::test {

// A clock that stands still until a test moves it. Timers that fall due run in the thread that calls advance().
class ManualClock : public Clock {
 public:
  explicit ManualClock(Date start = Date::fromMicroseconds(1'700'000'000'000'000));
  Date now() const override;
  MonotonicTime monotonicNow() const override;
  std::unique_ptr<Timer> schedule(MonotonicTime deadline, Duration leeway, WorkItem handler) override;

  // Moves both clocks and fires what falls due, in order of deadlines, each at its own moment.
  void advance(Duration duration);
  std::size_t pendingTimers() const;

 private:
  struct State;
  class ManualTimer;
  std::shared_ptr<State> state_;
};

}  // namespace florvane::test
