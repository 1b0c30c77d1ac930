#include "common/FVFFreshObjectCache.h"
#include "common/FVFFreshObjectQueue.h"
#include "tests/support/ManualClock.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace florvane {
namespace {

using std::chrono::seconds;
using test::ManualClock;
using Queue = FVFFreshObjectQueue<std::string, int>;
using Cache = FVFFreshObjectCache<std::string, std::string, std::string>;

TEST(FreshObjectCache, DropsAnEntryOnlyWhenItIsOlderThanTheLifetime) {
  ManualClock clock;
  Cache cache(seconds(60), {}, clock);
  cache.setObject("object", "metadata", "key");
  Date stored = clock.now();
  clock.advance(seconds(59));
  std::optional<std::string> metadata;
  Date refreshed;
  EXPECT_EQ(cache.objectForKey("key", &metadata, &refreshed), "object");
  EXPECT_EQ(metadata, "metadata");
  EXPECT_EQ(refreshed, stored);
  EXPECT_EQ(cache.objectForMetadata("metadata"), std::nullopt) << "no index was asked for";
  clock.advance(seconds(1));
  EXPECT_EQ(cache.objectForKey("key"), "object") << "exactly as old as the lifetime";
  clock.advance(seconds(1));
  EXPECT_EQ(cache.allKeys().size(), 1U);
  EXPECT_EQ(cache.objectForKey("key"), std::nullopt);
  EXPECT_EQ(cache.expiredObjectsCount(), 1U);
  EXPECT_EQ(cache.allKeys().size(), 0U);
  EXPECT_EQ(clock.pendingTimers(), 0U);
}

TEST(FreshObjectCache, KeepsWhatIsReadWhenRefreshIsEnabled) {
  ManualClock clock;
  Cache cache(seconds(60), {.enableObjectForMetadata = true, .enableRefresh = true}, clock);
  cache.setObject("object", "metadata", "key");
  cache.setObject("unread", "other", "unread");
  for (int read = 0; read < 10; ++read) {
    clock.advance(seconds(30));
    ASSERT_EQ(read % 2 ? cache.objectForKey("key") : cache.objectForMetadata("metadata"), "object");
  }
  EXPECT_EQ(cache.count(), 1U);
  EXPECT_EQ(cache.expiredObjectsCount(), 1U);
  EXPECT_EQ(cache.objectForMetadata("other"), std::nullopt);
}

TEST(FreshObjectCache, KeepsBothIndexesInStep) {
  ManualClock clock;
  Cache cache(seconds(60), {.enableObjectForMetadata = true}, clock);
  try {
    cache.setObject("object", "key");
    FAIL();
  } catch (const InvalidArgumentException& exception) {
    EXPECT_EQ(exception.reason(), "null metadata");
  }
  EXPECT_EQ(cache.count(), 0U);

  cache.setObject("one", "old", "key");
  cache.setObject("two", "new", "key");
  EXPECT_EQ(cache.objectForMetadata("old"), std::nullopt);
  std::optional<std::string> key;
  EXPECT_EQ(cache.objectForMetadata("new", &key), "two");
  EXPECT_EQ(key, "key");

  cache.setObject("three", "new", "third");
  cache.removeObjectForKey("key");
  EXPECT_EQ(cache.objectForMetadata("new"), "three") << "the entry that took the metadata over";
  clock.advance(seconds(61));
  EXPECT_EQ(cache.objectForMetadata("new"), std::nullopt);
  cache.setObject("four", "x", "key");
  cache.removeAllObjects();
  EXPECT_EQ(cache.objectForMetadata("x"), std::nullopt);
  EXPECT_EQ(cache.expiredObjectsCount(), 1U);
  EXPECT_EQ(clock.pendingTimers(), 0U);
}

TEST(FreshObjectQueue, FlushesByItsTimerAndHoldsOneOnlyWhileThereAreEntries) {
  ManualClock clock;
  Queue queue(seconds(60), clock);
  EXPECT_EQ(clock.pendingTimers(), 0U);
  queue.addObject("first");
  clock.advance(seconds(30));
  queue.addObject("second");
  EXPECT_EQ(clock.pendingTimers(), 1U);
  clock.advance(seconds(30));  // fires at the very end of the first entry's life and is set again
  EXPECT_EQ(clock.pendingTimers(), 1U);
  EXPECT_EQ(queue.expiredObjectsCount(), 0U);
  clock.advance(seconds(60));
  EXPECT_EQ(queue.expiredObjectsCount(), 2U);
  EXPECT_EQ(clock.pendingTimers(), 0U);
}

TEST(FreshObjectQueue, AnswersByIndexFromTheEndAndByEntry) {
  ManualClock clock;
  Queue queue(seconds(60), clock);
  auto first = queue.addObject("first", 1);
  Date firstDate = clock.now();
  clock.advance(seconds(1));
  queue.addObject("second");
  queue.addObject("third", 3);

  std::optional<int> metadata;
  Date date;
  EXPECT_EQ(queue.objectAtIndex(0, &metadata, &date), "first");
  EXPECT_EQ(metadata, 1);
  EXPECT_EQ(date, firstDate);
  EXPECT_EQ(queue.objectAtIndex(1, &metadata), "second");
  EXPECT_EQ(metadata, std::nullopt);
  EXPECT_EQ(queue.objectAtIndex(3), std::nullopt);

  EXPECT_FALSE(queue.containsObject(std::string("first")));
  queue.removeObject(std::string("first"));
  EXPECT_EQ(queue.count(), 3U);
  Queue::Entry entry{"first", firstDate, 1};
  EXPECT_TRUE(queue.containsObject(entry));
  queue.removeObject(entry);
  EXPECT_FALSE(queue.removeEntry(first));

  std::vector<std::string> walked;
  queue.forEachFromNewest([&](const Queue::Entry& visited) {
    walked.push_back(visited.object);
    return true;
  });
  EXPECT_EQ(walked, (std::vector<std::string>{"third", "second"}));
  queue.removeLastObject();
  EXPECT_EQ(queue.lastObject(), "second");
  clock.advance(seconds(61));
  EXPECT_EQ(queue.lastObject(), std::nullopt);
  queue.removeLastObject();
  EXPECT_EQ(queue.count(), 0U);
}

TEST(FreshObjectQueue, DoesNotReturnAnExpiredObjectThatNoTimerHasFlushedYet) {
  // A clock whose timers never fire, as on a machine that was busy when they fell due.
  class LateClock final : public Clock {
   public:
    Date now() const override { return Date::fromMicroseconds(0); }
    MonotonicTime monotonicNow() const override { return moment; }
    std::unique_ptr<Timer> schedule(MonotonicTime, Duration, WorkItem) override { return nullptr; }
    MonotonicTime moment;
  } clock;
  Queue queue(seconds(60), clock);
  queue.addObject("object");
  clock.moment += seconds(61);
  EXPECT_EQ(queue.objectAtIndex(0), "object") << "the index does not flush";
  EXPECT_EQ(queue.lastObject(), std::nullopt);
  EXPECT_EQ(queue.expiredObjectsCount(), 1U);
}

TEST(FreshObjectQueue, MayGoWhileItsTimerFires) {
  for (int round = 0; round < 50; ++round) {
    Queue queue(std::chrono::microseconds(1));
    std::thread other([&] {
      for (int i = 0; i < 20; ++i) queue.addObject("object", i);
    });
    for (int i = 0; i < 20; ++i) queue.count();
    other.join();
  }
}

}  // namespace
}  // namespace florvane
