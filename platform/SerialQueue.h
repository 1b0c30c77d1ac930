#pragma once

#include "platform/Clock.h"
#include "platform/UniqueFunction.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace florvane {

// A serial work queue: items run one at a time, in the order of their submission, on the queue's own thread, but for
// those that are waited for while the queue is idle: these run where they are waited for. Queues never share threads,
// so an item may block for long. The thread starts when it is first needed and ends when the last reference to the
// queue is gone and everything queued has run; that last reference may be dropped by an item running on the queue
// itself. An exception that leaves an item is caught here and reported. Thread-safe.
class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
 public:
  static std::shared_ptr<SerialQueue> create(std::string label, Clock& clock = Clock::system());
  // The main queue: its items run in the thread that calls runMainQueue(). Labelled "main". Items that wait while
  // nobody has called it for a while are reported once.
  static std::shared_ptr<SerialQueue> main();
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const std::string& label() const;
  void async(WorkItem item);
  // Runs the item and returns when it has ended, passing on what it throws. On the caller's thread when nothing else is
  // running or waiting, which saves two changes of threads; the main queue's never. From an item of the same queue: a
  // soft assertion, and the item runs in place rather than deadlock.
  void sync(WorkItem item);
  // Runs the item on the queue, not before the deadline. The queue lives until then.
  void at(MonotonicTime deadline, WorkItem item);

  // Whether the caller is an item of this queue.
  bool isCurrent() const;
  // The queue whose item is running on this thread; null outside.
  static std::shared_ptr<SerialQueue> current();
  // Its label; "" outside.
  static std::string currentLabel();
  // A value that code running on the queue can read under the key with specific(). Set before the first item.
  void setSpecific(std::string key, std::string value);
  static std::optional<std::string> specific(std::string_view key);
  std::string description() const;

 private:
  struct State;
  explicit SerialQueue(std::shared_ptr<State> state);
  std::shared_ptr<State> state_;
  friend int runMainQueue();
  friend void stopMainQueue(int);
};

// Runs the main queue's items in this thread until stopMainQueue; returns the value given there.
int runMainQueue();
// From any thread: makes runMainQueue return once the item that is running has ended.
void stopMainQueue(int result = 0);

}  // namespace florvane
