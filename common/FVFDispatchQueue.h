#pragma once

#include "platform/Clock.h"
#include "platform/SerialQueue.h"

#include <memory>
#include <string>
#include <string_view>

namespace florvane {

// The key under which code that runs on a queue finds the queue's label with SerialQueue::specific().
inline constexpr char FV_QUEUE_CONTEXT_KEY[] = "QueueContextKey";

// A named serial work queue. Work that is queued keeps it alive until it has run. Thread-safe.
class FVFDispatchQueue : public std::enable_shared_from_this<FVFDispatchQueue> {
 public:
  static std::shared_ptr<FVFDispatchQueue> queueWithLabel(std::string label, Clock& clock = Clock::system());
  // Only inside a shared_ptr. The clock is that of dispatchWhen() and outlives the queue.
  explicit FVFDispatchQueue(std::string label, Clock& clock = Clock::system());

  const std::string& label() const { return queue_->label(); }
  const std::shared_ptr<SerialQueue>& queue() const { return queue_; }
  // Runs the block on the queue and returns when it has ended, passing on what it throws. Not to be called from the
  // queue itself.
  void dispatchSynchronousBlock(WorkItem block);
  void dispatchAsynchronousBlock(WorkItem block);
  // Runs the block on the queue, not before `when`.
  void dispatchWhen(MonotonicTime when, WorkItem block);

  // For code bound to this queue: true when it runs there, else a soft assertion of that source and line.
  bool checkIsCurrent(std::string_view source, unsigned line) const;
  std::string description() const;

 private:
  std::shared_ptr<SerialQueue> queue_;
};

}  // namespace florvane
