#include "tests/support/ManualClock.h"

namespace florvane::test {

struct ManualClock::State {
  mutable std::mutex mutex;
  Date date;
  MonotonicTime monotonic;
  std::uint64_t nextIdentifier = 0;
  std::map<std::pair<MonotonicTime, std::uint64_t>, WorkItem> timers;
};

class ManualClock::ManualTimer : public Timer {
 public:
  ManualTimer(std::weak_ptr<State> state, std::pair<MonotonicTime, std::uint64_t> key)
      : state_(std::move(state)), key_(key) {}
  ~ManualTimer() override { cancel(); }
  void cancel() override {
    WorkItem dropped;
    if (auto state = state_.lock()) {
      std::lock_guard lock(state->mutex);
      if (auto node = state->timers.extract(key_)) dropped = std::move(node.mapped());
    }
  }

 private:
  std::weak_ptr<State> state_;
  std::pair<MonotonicTime, std::uint64_t> key_;
};

ManualClock::ManualClock(Date start) : state_(std::make_shared<State>()) { state_->date = start; }

Date ManualClock::now() const {
  std::lock_guard lock(state_->mutex);
  return state_->date;
}

MonotonicTime ManualClock::monotonicNow() const {
  std::lock_guard lock(state_->mutex);
  return state_->monotonic;
}

std::unique_ptr<Timer> ManualClock::schedule(MonotonicTime deadline, Duration /*leeway*/, WorkItem handler) {
  std::lock_guard lock(state_->mutex);
  std::pair key(deadline, state_->nextIdentifier++);
  state_->timers.emplace(key, std::move(handler));
  return std::make_unique<ManualTimer>(state_, key);
}

void ManualClock::advance(Duration duration) {
  std::unique_lock lock(state_->mutex);
  MonotonicTime target = state_->monotonic + duration;
  while (!state_->timers.empty() && state_->timers.begin()->first.first <= target) {
    auto node = state_->timers.extract(state_->timers.begin());
    MonotonicTime deadline = std::max(node.key().first, state_->monotonic);
    state_->date = state_->date + std::chrono::duration_cast<Duration>(deadline - state_->monotonic);
    state_->monotonic = deadline;
    lock.unlock();
    node.mapped()();
    lock.lock();
  }
  state_->date = state_->date + std::chrono::duration_cast<Duration>(target - state_->monotonic);
  state_->monotonic = target;
}

std::size_t ManualClock::pendingTimers() const {
  std::lock_guard lock(state_->mutex);
  return state_->timers.size();
}

}  // namespace florvane::test
