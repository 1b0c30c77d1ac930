#include "platform/URLSessionProgress.h"

#include "platform/NetworkURLSession.h"

namespace florvane {

namespace {

constexpr auto kPace = std::chrono::milliseconds(100);

}  // namespace

void URLSessionProgress::setExpected(std::int64_t bytes) {
  std::lock_guard lock(mutex_);
  expected_ = bytes;
}

std::int64_t URLSessionProgress::total() const {
  std::lock_guard lock(mutex_);
  return total_;
}

void URLSessionProgress::advanceTo(std::int64_t total, NetworkURLSession& session, const std::shared_ptr<void>& owner,
                                   bool last) {
  MonotonicTime now = session.clock().monotonicNow();
  {
    std::lock_guard lock(mutex_);
    total_ = total;
    if (queued_ || total_ == told_) return;  // a report that is queued tells the newest count
    if (!last && lastQueued_ && now - *lastQueued_ < kPace) return;
    queued_ = true;
  }
  lastQueued_ = now;
  // The owner is what the report speaks of and must outlive it.
  session.tell([self = shared_from_this(), owner](URLSessionDelegate& delegate, const URLSessionPtr& told) {
    std::int64_t bytes = 0, all = 0, expected = 0;
    {
      std::lock_guard lock(self->mutex_);
      self->queued_ = false;
      all = self->total_;
      bytes = all - std::exchange(self->told_, all);
      expected = self->expected_;
    }
    self->report_(delegate, told, bytes, all, expected);
  });
}

}  // namespace florvane
