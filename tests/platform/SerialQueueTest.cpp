#include "platform/SerialQueue.h"
#include "platform/SoftAssertion.h"
#include "tests/support/ManualClock.h"

#include <array>
#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>

namespace florvane {
namespace {

std::atomic<int> assertions = 0;

class SerialQueueTest : public testing::Test {
 protected:
  SerialQueueTest() {
    assertions = 0;
    setSoftAssertionHandler([](std::string_view, unsigned, std::string_view) { ++assertions; });
  }
  ~SerialQueueTest() override { setSoftAssertionHandler(nullptr); }
};

TEST_F(SerialQueueTest, RunsItemsOfManySubmittersOneAtATimeAndInEachOnesOrder) {
  constexpr int kSubmitters = 4, kItems = 2000;
  auto queue = SerialQueue::create("ordered");
  std::vector<int> last(kSubmitters, -1);  // touched only on the queue: a second thread in it would be a race
  int disorder = 0;
  std::vector<std::thread> submitters;
  submitters.reserve(kSubmitters);
  for (int submitter = 0; submitter < kSubmitters; ++submitter) {
    submitters.emplace_back([&, submitter] {
      for (int item = 0; item < kItems; ++item) {
        queue->async([&, submitter, item] {
          if (last[submitter] != item - 1) ++disorder;
          last[submitter] = item;
        });
      }
    });
  }
  for (auto& thread : submitters) thread.join();
  queue->sync([] {});
  EXPECT_EQ(disorder, 0);
  EXPECT_EQ(last, std::vector<int>(kSubmitters, kItems - 1));
}

TEST_F(SerialQueueTest, DroppedQueueStillRunsWhatIsQueuedAndMayBeDroppedByItsOwnItem) {
  std::promise<void> gate;
  std::promise<std::string> label;
  auto queue = SerialQueue::create("dropped");
  std::weak_ptr<SerialQueue> weak = queue;
  queue->async([open = gate.get_future().share()] { open.wait(); });
  queue->async([&label] { label.set_value(SerialQueue::current()->label()); });
  queue.reset();
  gate.set_value();
  EXPECT_EQ(label.get_future().get(), "dropped");

  // The item owns the last reference, so the queue ends on its own thread.
  auto owner = std::make_shared<std::shared_ptr<SerialQueue>>(SerialQueue::create("self"));
  std::promise<std::weak_ptr<SerialQueue>> ended;
  SerialQueue& self = **owner;
  self.async([owner = std::move(owner), &ended]() mutable {
    std::weak_ptr<SerialQueue> reference = *owner;
    owner.reset();
    ended.set_value(reference);
  });
  auto last = ended.get_future().get();
  while (auto alive = last.lock()) std::this_thread::yield();
  while (auto alive = weak.lock()) std::this_thread::yield();
}

TEST_F(SerialQueueTest, SyncWaitsPassesExceptionsAndRunsInPlaceFromTheQueueItself) {
  auto queue = SerialQueue::create("sync");
  EXPECT_THROW(queue->sync([] { throw std::out_of_range("passed on"); }), std::out_of_range);
  EXPECT_EQ(assertions, 0);
  bool inner = false;
  queue->sync([&] { queue->sync([&] { inner = queue->isCurrent(); }); });
  EXPECT_TRUE(inner);
  EXPECT_EQ(assertions, 1);

  // Two queues that ask each other in turn are not the queue itself.
  auto other = SerialQueue::create("other");
  std::string label;
  queue->sync([&] { other->sync([&] { label = SerialQueue::currentLabel(); }); });
  EXPECT_EQ(label, "other");
  EXPECT_EQ(assertions, 1);
}

TEST_F(SerialQueueTest, ReportsWhatAnItemThrowsAndGoesOn) {
  auto queue = SerialQueue::create("throwing");
  queue->async([] { throw std::runtime_error("lost"); });
  queue->async([] { throw 7; });
  bool ran = false;
  queue->sync([&] { ran = true; });
  EXPECT_TRUE(ran);
  EXPECT_EQ(assertions, 2);
}

TEST_F(SerialQueueTest, TellsCodeWhichQueueItRunsOn) {
  auto queue = SerialQueue::create("a label longer than a thread's name");
  queue->setSpecific("key", "value");
  EXPECT_EQ(SerialQueue::current(), nullptr);
  EXPECT_EQ(SerialQueue::currentLabel(), "");
  EXPECT_EQ(SerialQueue::specific("key"), std::nullopt);
  EXPECT_FALSE(queue->isCurrent());
  queue->sync([&] {
    EXPECT_TRUE(queue->isCurrent());
    EXPECT_EQ(SerialQueue::current(), queue);
    EXPECT_EQ(SerialQueue::currentLabel(), queue->label());
    EXPECT_EQ(SerialQueue::specific("key"), "value");
    EXPECT_EQ(SerialQueue::specific("other"), std::nullopt);
  });
  EXPECT_EQ(SerialQueue::current(), nullptr);
  std::promise<std::string> name;
  queue->async([&] {
    std::array<char, 16> text{};
    pthread_getname_np(pthread_self(), text.data(), text.size());
    name.set_value(text.data());
  });
  EXPECT_EQ(name.get_future().get(), "a label longer ");
}

TEST_F(SerialQueueTest, RunsWhatIsWaitedForInPlaceWhileItIsIdleAndInItsTurnOtherwise) {
  auto queue = SerialQueue::create("in place");
  queue->sync([caller = std::this_thread::get_id()] { EXPECT_EQ(std::this_thread::get_id(), caller); });
  std::promise<void> begun, gate;
  std::vector<int> order;
  std::thread first([&] {
    queue->sync([&] {
      begun.set_value();
      gate.get_future().wait();
      order.push_back(1);
    });
  });
  begun.get_future().wait();
  queue->async([&] { order.push_back(2); });
  std::thread second([&] { queue->sync([&] { order.push_back(3); }); });
  gate.set_value();
  first.join();
  second.join();
  EXPECT_EQ(order, (std::vector{1, 2, 3}));
  // What is thrown in place leaves the queue as it was.
  EXPECT_THROW(queue->sync([] { throw 7; }), int);
  EXPECT_EQ(SerialQueue::current(), nullptr);
  std::promise<void> ran;
  queue->async([&] { ran.set_value(); });
  ran.get_future().get();
}

TEST_F(SerialQueueTest, RunsDelayedItemsByTheClockThatItWasGiven) {
  test::ManualClock clock;
  auto queue = SerialQueue::create("delayed", clock);
  std::vector<int> order;
  queue->at(clock.monotonicNow() + std::chrono::seconds(2), [&] { order.push_back(2); });
  queue->at(clock.monotonicNow() + std::chrono::seconds(1), [&] { order.push_back(1); });
  clock.advance(std::chrono::milliseconds(999));
  queue->sync([&] { EXPECT_TRUE(order.empty()); });
  clock.advance(std::chrono::seconds(2));
  queue->sync([&] { EXPECT_EQ(order, (std::vector{1, 2})); });

  // The delayed item keeps the queue.
  std::promise<bool> ran;
  queue->at(clock.monotonicNow() + std::chrono::hours(1),
            [&] { ran.set_value(SerialQueue::currentLabel() == "delayed"); });
  queue.reset();
  clock.advance(std::chrono::hours(1));
  EXPECT_TRUE(ran.get_future().get());
}

TEST_F(SerialQueueTest, MainQueueRunsInTheThreadThatRunsIt) {
  auto mainThread = std::this_thread::get_id();
  std::thread::id ranIn;
  std::string label;
  std::thread poster([&] {
    SerialQueue::main()->sync([&] {
      ranIn = std::this_thread::get_id();
      label = SerialQueue::currentLabel();
      EXPECT_THROW(runMainQueue(), std::exception);
    });
    stopMainQueue(5);
  });
  EXPECT_EQ(runMainQueue(), 5);
  poster.join();
  EXPECT_EQ(ranIn, mainThread);
  EXPECT_EQ(label, "main");
  EXPECT_FALSE(SerialQueue::main()->isCurrent());

  // A stop that comes before the run counts; what it leaves queued runs next time.
  int ran = 0;
  SerialQueue::main()->async([&] { ++ran; });
  stopMainQueue(1);
  EXPECT_EQ(runMainQueue(), 1);
  EXPECT_EQ(ran, 0);
  SerialQueue::main()->async([] { stopMainQueue(2); });
  EXPECT_EQ(runMainQueue(), 2);
  EXPECT_EQ(ran, 1);
}

TEST(SystemClock, FiresInOrderOfDeadlinesAndNotAfterACancel) {
  Clock& clock = Clock::system();
  auto past = clock.monotonicNow() - std::chrono::seconds(1);
  std::promise<void> entered, gate, done;
  auto holder = clock.schedule(past, {}, [&] {
    entered.set_value();
    gate.get_future().wait();
  });
  entered.get_future().wait();  // the timer thread is held, so everything below falls due together
  std::vector<int> fired;
  using std::chrono::milliseconds;
  auto third = clock.schedule(past + milliseconds(3), {}, [&] { done.set_value(); });
  auto second = clock.schedule(past + milliseconds(2), {}, [&] { fired.push_back(2); });
  auto cancelled = clock.schedule(past + milliseconds(2), {}, [&] { fired.push_back(0); });
  auto first = clock.schedule(past + milliseconds(1), milliseconds(5), [&] { fired.push_back(1); });
  auto never = clock.schedule(MonotonicTime::max(), std::chrono::hours(1), [&] { fired.push_back(9); });
  clock.schedule(past, {}, [&] { fired.push_back(8); });  // dropped at once
  cancelled->cancel();
  gate.set_value();
  done.get_future().wait();
  EXPECT_EQ(fired, (std::vector{1, 2}));

  std::promise<MonotonicTime> firedAt;
  auto deadline = clock.monotonicNow() + milliseconds(1);
  auto later = clock.schedule(deadline, {}, [&] { firedAt.set_value(clock.monotonicNow()); });
  EXPECT_GE(firedAt.get_future().get(), deadline);
}

}  // namespace
}  // namespace florvane
