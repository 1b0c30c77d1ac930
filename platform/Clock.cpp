#include "platform/Clock.h"

#include "platform/BackgroundThread.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <utility>

namespace florvane {

namespace {

// Never destroyed: timers of detached threads may outlive every static object.
class SystemClock final : public Clock {
 public:
  Date now() const override { return Date::now(); }
  MonotonicTime monotonicNow() const override { return std::chrono::steady_clock::now(); }
  std::unique_ptr<Timer> schedule(MonotonicTime deadline, Duration leeway, WorkItem handler) override;

 private:
  using Moment = std::pair<MonotonicTime, std::uint64_t>;
  struct Pending {
    Moment latest;
    WorkItem handler;
  };
  class SystemTimer;

  void cancel(const Moment& key);
  void run();

  std::mutex mutex_;  // guards everything below
  std::condition_variable changed_;
  std::uint64_t nextIdentifier_ = 0;
  bool threadStarted_ = false;
  // The thread sleeps until the first moment at which some timer has no leeway left, then fires all that are due, so
  // that timers with leeway share wake-ups.
  std::map<Moment, Pending> byDeadline_;
  std::set<Moment> byLatest_;
};

class SystemClock::SystemTimer final : public Timer {
 public:
  SystemTimer(SystemClock& clock, Moment key) : clock_(clock), key_(key) {}
  ~SystemTimer() override { clock_.cancel(key_); }
  void cancel() override { clock_.cancel(key_); }

 private:
  SystemClock& clock_;
  Moment key_;
};

std::unique_ptr<Timer> SystemClock::schedule(MonotonicTime deadline, Duration leeway, WorkItem handler) {
  std::lock_guard lock(mutex_);
  if (!threadStarted_) {
    startBackgroundThread("timers", [this] { run(); });
    threadStarted_ = true;
  }
  Moment key(deadline, nextIdentifier_++);
  MonotonicTime limit = MonotonicTime::max() - leeway;
  Moment latest(deadline < limit ? deadline + leeway : MonotonicTime::max(), key.second);
  auto timer = std::make_unique<SystemTimer>(*this, key);
  bool isNext = byLatest_.empty() || latest < *byLatest_.begin();
  byDeadline_.emplace(key, Pending{latest, std::move(handler)});
  byLatest_.insert(latest);
  if (isNext) changed_.notify_one();
  return timer;
}

void SystemClock::cancel(const Moment& key) {
  WorkItem dropped;  // what the handler captured may have a destructor that sets timers
  std::lock_guard lock(mutex_);
  auto entry = byDeadline_.find(key);
  if (entry == byDeadline_.end()) return;
  byLatest_.erase(entry->second.latest);
  dropped = std::move(entry->second.handler);
  byDeadline_.erase(entry);
}

void SystemClock::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    if (byLatest_.empty()) {
      changed_.wait(lock);
      continue;
    }
    MonotonicTime wakeUp = byLatest_.begin()->first;
    if (monotonicNow() < wakeUp) {
      // A wait up to the clock's end would overflow inside the library.
      changed_.wait_until(lock, std::min(wakeUp, monotonicNow() + std::chrono::hours(24)));
      continue;
    }
    while (!byDeadline_.empty() && byDeadline_.begin()->first.first <= monotonicNow()) {
      auto node = byDeadline_.extract(byDeadline_.begin());
      byLatest_.erase(node.mapped().latest);
      lock.unlock();
      runGuarded(node.mapped().handler, "timers");
      node = {};
      lock.lock();
    }
  }
}

}  // namespace

Clock& Clock::system() {
  static Clock& clock = *new SystemClock;
  return clock;
}

}  // namespace florvane
