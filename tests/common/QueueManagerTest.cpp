#include "common/FVFActivityInfo.h"
#include "common/FVFQueueManager.h"
#include "platform/Format.h"
#include "platform/SoftAssertion.h"
#include "tests/support/ManualClock.h"

#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace florvane {
namespace {

std::string reported;

TEST(QueueManager, GivesEachServiceOneQueueEvenWhenManyAskAtOnce) {
  auto& manager = FVFQueueManager::sharedQueueManager();
  std::vector<std::shared_ptr<FVFDispatchQueue>> queues(4);
  std::vector<std::thread> threads;
  threads.reserve(queues.size());
  for (auto& queue : queues) {
    threads.emplace_back([&] { queue = manager.queueForServiceWithUniqueIdentifier("service"); });
  }
  for (auto& thread : threads) thread.join();
  for (const auto& queue : queues) EXPECT_EQ(queue, queues[0]);
  EXPECT_EQ(queues[0]->label(), "service");
  EXPECT_EQ(queues[0]->description(),
            format("<%@ queue=service>", baseDescription("FVFDispatchQueue", queues[0].get())));
  EXPECT_NE(manager.queueForServiceWithUniqueIdentifier("other"), queues[0]);
  EXPECT_EQ(manager.queueForServiceWithUniqueIdentifier(std::nullopt), nullptr);
}

TEST(DispatchQueue, CompletesItsWorkWhenDroppedAndTellsItsLabel) {
  test::ManualClock clock;
  std::vector<std::string> labels;
  std::promise<void> done;
  auto queue = FVFDispatchQueue::queueWithLabel("label", clock);
  auto note = [&] { labels.push_back(SerialQueue::specific(FV_QUEUE_CONTEXT_KEY).value_or("none")); };
  queue->dispatchWhen(clock.monotonicNow() + std::chrono::seconds(1), [&] {
    note();
    done.set_value();
  });
  queue->dispatchAsynchronousBlock(note);
  queue->dispatchSynchronousBlock(note);
  std::weak_ptr<FVFDispatchQueue> weak = queue;
  queue.reset();
  EXPECT_FALSE(weak.expired());
  clock.advance(std::chrono::seconds(1));
  done.get_future().wait();
  EXPECT_EQ(labels, (std::vector<std::string>{"label", "label", "label"}));
}

TEST(DispatchQueue, ReportsCodeThatRunsElsewhere) {
  reported.clear();
  auto queue = FVFDispatchQueue::queueWithLabel("here");
  setSoftAssertionHandler([](std::string_view, unsigned, std::string_view condition) { reported = condition; });
  queue->dispatchSynchronousBlock([&] { EXPECT_TRUE(queue->checkIsCurrent("source", 1)); });
  EXPECT_EQ(reported, "");
  FVFDispatchQueue::queueWithLabel("there")->dispatchSynchronousBlock(
      [&] { EXPECT_FALSE(queue->checkIsCurrent("source", 1)); });
  setSoftAssertionHandler(nullptr);
  EXPECT_EQ(reported, "queue 'here' is current, not 'there'");
}

TEST(ActivityInfo, DescribesItsQueueAndLeavesTheBracketOpen) {
  auto queue = FVFDispatchQueue::queueWithLabel("q");
  FVFActivityInfo info(queue);
  EXPECT_EQ(info.description(),
            "<" + baseDescription("FVFActivityInfo", &info) + " queue='" + queue->description() + "'");
}

}  // namespace
}  // namespace florvane
