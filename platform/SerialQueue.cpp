#include "platform/SerialQueue.h"

#include "platform/BackgroundThread.h"
#include "platform/Exceptions.h"
#include "platform/Format.h"
#include "platform/SoftAssertion.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <system_error>
#include <utility>

namespace florvane {

namespace {

constexpr char kSource[] = "platform/SerialQueue";
constexpr auto kMainQueuePatience = std::chrono::seconds(5);

}  // namespace

// Shared by the queue object and its thread, so that either may end first.
struct SerialQueue::State : std::enable_shared_from_this<SerialQueue::State> {
  State(std::string name, Clock& time, bool main) : label(std::move(name)), clock(time), isMain(main) {}

  void push(std::shared_ptr<SerialQueue> queue, WorkItem item);
  void startThreadLocked();
  void runThread();
  // Runs the first item with the lock given back meanwhile.
  void runFirst(std::unique_lock<std::mutex>& lock);
  // Runs the item on the caller's thread, if it is its turn already.
  bool runInPlace(const std::shared_ptr<SerialQueue>& queue, WorkItem& item);
  void watchMainQueueLocked();

  const std::string label;
  Clock& clock;
  const bool isMain;

  std::mutex mutex;  // guards everything below
  std::condition_variable changed;
  std::deque<WorkItem> items;
  // The queue itself while it has items, so that they run however soon it is dropped.
  std::shared_ptr<SerialQueue> keptAlive;
  bool busy = false;  // an item is running
  bool threadStarted = false;
  bool closing = false;
  std::map<std::string, std::string, std::less<>> specifics;
  std::uint64_t nextTimer = 0;
  std::map<std::uint64_t, std::unique_ptr<Timer>> timers;

  // Of the main queue only.
  bool running = false;
  std::optional<int> stopResult;
  std::uint64_t runs = 0;
  bool unattendedReported = false;
  std::unique_ptr<Timer> watch;

  static thread_local SerialQueue* current;
};

thread_local SerialQueue* SerialQueue::State::current = nullptr;

void SerialQueue::State::startThreadLocked() {
  if (isMain || threadStarted) return;
  startBackgroundThread(label, [state = shared_from_this()] { state->runThread(); });
  threadStarted = true;
}

void SerialQueue::State::push(std::shared_ptr<SerialQueue> queue, WorkItem item) {
  std::unique_lock lock(mutex);
  items.push_back(std::move(item));
  if (!keptAlive) keptAlive = std::move(queue);
  if (isMain) watchMainQueueLocked();
  if (items.size() == 1 && !busy) changed.notify_one();
  try {
    startThreadLocked();
  } catch (const std::system_error& error) {
    lock.unlock();
    // The item stays; the next submission tries again.
    reportSoftAssertion(kSource, __LINE__, format("thread of queue '%@' starts: %s", label, error.what()));
  }
}

void SerialQueue::State::runFirst(std::unique_lock<std::mutex>& lock) {
  WorkItem item = std::move(items.front());
  items.pop_front();
  SerialQueue* outer = std::exchange(current, keptAlive.get());
  busy = true;
  lock.unlock();
  runGuarded(item, label);
  item = nullptr;  // what it captured goes while its queue is still the current one
  lock.lock();
  busy = false;
  current = outer;
  if (!items.empty()) return;
  auto dropped = std::move(keptAlive);
  lock.unlock();
  dropped.reset();  // may end the queue, which takes the lock
  lock.lock();
}

bool SerialQueue::State::runInPlace(const std::shared_ptr<SerialQueue>& queue, WorkItem& item) {
  {
    std::lock_guard lock(mutex);
    if (isMain || busy || !items.empty()) return false;
    busy = true;
  }
  struct Turn {
    State& state;
    SerialQueue* outer;
    ~Turn() {
      current = outer;
      std::lock_guard lock(state.mutex);
      state.busy = false;
      if (!state.items.empty()) state.changed.notify_one();
    }
  } turn{*this, std::exchange(current, queue.get())};
  item();
  item = nullptr;
  return true;
}

void SerialQueue::State::runThread() {
  std::unique_lock lock(mutex);
  for (;;) {
    changed.wait(lock, [this] { return (!items.empty() && !busy) || closing; });
    if (items.empty()) return;
    runFirst(lock);
  }
}

// An application that forgot to run its main queue would wait for its handlers without a word.
void SerialQueue::State::watchMainQueueLocked() {
  if (running || watch || unattendedReported) return;
  watch = clock.schedule(clock.monotonicNow() + kMainQueuePatience, Duration::zero(), [this, armedAt = runs] {
    std::unique_lock inner(mutex);
    auto spent = std::move(watch);
    if (running || items.empty()) return;
    if (runs != armedAt) {  // it was run meanwhile: these items have not waited as long
      watchMainQueueLocked();
      return;
    }
    unattendedReported = true;
    inner.unlock();
    reportSoftAssertion(kSource, __LINE__, "runMainQueue() is called while the main queue has items");
  });
}

SerialQueue::SerialQueue(std::shared_ptr<State> state) : state_(std::move(state)) {}

SerialQueue::~SerialQueue() {
  std::lock_guard lock(state_->mutex);
  state_->closing = true;
  state_->changed.notify_one();
}

std::shared_ptr<SerialQueue> SerialQueue::create(std::string label, Clock& clock) {
  return std::shared_ptr<SerialQueue>(new SerialQueue(std::make_shared<State>(std::move(label), clock, false)));
}

std::shared_ptr<SerialQueue> SerialQueue::main() {
  // Never destroyed: threads may submit to it while the process ends.
  static const auto& queue =
      *new std::shared_ptr<SerialQueue>(new SerialQueue(std::make_shared<State>("main", Clock::system(), true)));
  return queue;
}

const std::string& SerialQueue::label() const { return state_->label; }

void SerialQueue::async(WorkItem item) { state_->push(shared_from_this(), std::move(item)); }

void SerialQueue::sync(WorkItem item) {
  if (isCurrent()) {
    reportSoftAssertion(kSource, __LINE__, format("sync is not called from queue '%@' itself", label()));
    item();
    return;
  }
  if (state_->runInPlace(shared_from_this(), item)) return;
  if (!state_->isMain) {
    std::lock_guard lock(state_->mutex);
    state_->startThreadLocked();  // throws rather than wait for a thread that cannot be had
  }
  std::mutex mutex;
  std::condition_variable changed;
  bool done = false;
  std::exception_ptr thrown;
  async([&] {
    std::exception_ptr caught;
    try {
      item();
    } catch (...) {
      caught = std::current_exception();
    }
    std::lock_guard lock(mutex);
    thrown = std::move(caught);
    done = true;
    changed.notify_one();  // under the lock: the waiter's frame ends as soon as it has it
  });
  std::unique_lock lock(mutex);
  changed.wait(lock, [&] { return done; });
  if (thrown) std::rethrow_exception(std::move(thrown));
}

void SerialQueue::at(MonotonicTime deadline, WorkItem item) {
  std::uint64_t identifier = 0;
  {
    std::lock_guard lock(state_->mutex);
    identifier = state_->nextTimer++;
    state_->timers.emplace(identifier, nullptr);
  }
  auto fire = [queue = shared_from_this(), identifier, item = std::move(item)]() mutable {
    queue->async(std::move(item));
    std::unique_ptr<Timer> spent;
    std::lock_guard lock(queue->state_->mutex);
    if (auto node = queue->state_->timers.extract(identifier)) spent = std::move(node.mapped());
  };
  auto timer = state_->clock.schedule(deadline, Duration::zero(), std::move(fire));
  std::lock_guard lock(state_->mutex);
  auto place = state_->timers.find(identifier);
  if (place != state_->timers.end()) place->second = std::move(timer);  // else it has fired already
}

bool SerialQueue::isCurrent() const { return State::current == this; }

std::shared_ptr<SerialQueue> SerialQueue::current() {
  return State::current ? State::current->shared_from_this() : nullptr;
}

std::string SerialQueue::currentLabel() { return State::current ? State::current->label() : std::string(); }

void SerialQueue::setSpecific(std::string key, std::string value) {
  std::lock_guard lock(state_->mutex);
  state_->specifics.insert_or_assign(std::move(key), std::move(value));
}

std::optional<std::string> SerialQueue::specific(std::string_view key) {
  if (!State::current) return std::nullopt;
  State& state = *State::current->state_;
  std::lock_guard lock(state.mutex);
  auto entry = state.specifics.find(key);
  if (entry == state.specifics.end()) return std::nullopt;
  return entry->second;
}

std::string SerialQueue::description() const {
  return format("%@ { label: %@ }", baseDescription("SerialQueue", this), label());
}

int runMainQueue() {
  SerialQueue::State& state = *SerialQueue::main()->state_;
  std::unique_lock lock(state.mutex);
  if (state.running) throw InternalInconsistencyException("The main queue is run by another thread already");
  state.running = true;
  ++state.runs;
  for (;;) {
    state.changed.wait(lock, [&] { return !state.items.empty() || state.stopResult; });
    if (state.stopResult) break;
    state.runFirst(lock);
  }
  state.running = false;
  int result = *std::exchange(state.stopResult, std::nullopt);
  if (!state.items.empty()) state.watchMainQueueLocked();
  return result;
}

void stopMainQueue(int result) {
  SerialQueue::State& state = *SerialQueue::main()->state_;
  std::lock_guard lock(state.mutex);
  state.stopResult = result;
  state.changed.notify_one();
}

}  // namespace florvane
