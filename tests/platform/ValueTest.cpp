#include "platform/Value.h"

#include <thread>

#include <gtest/gtest.h>

namespace florvane {
namespace {

TEST(Value, CopiesAreIndependentOnceWritten) {
  Dictionary original{{"list", Array{1, 2}}, {"name", "a"}};
  Dictionary copy = original;
  copy.set("name", "b");
  Array list = *copy.array("list");
  list.append(3);
  EXPECT_EQ(original.string("name"), "a");
  EXPECT_EQ(original.array("list")->size(), 2U);
  EXPECT_EQ(list.size(), 3U);
}

TEST(Value, AbsentEmptyAndOtherKindsDiffer) {
  Dictionary dictionary{{"empty", ""}, {"data", Data()}, {"one", 1}, {"real", 1.0}, {"yes", true}};
  EXPECT_EQ(dictionary.string("empty"), "");
  EXPECT_EQ(dictionary.string("absent"), std::nullopt);
  EXPECT_EQ(dictionary.data("data"), Data());
  EXPECT_FALSE(*dictionary.find("empty") == *dictionary.find("data"));
  EXPECT_FALSE(*dictionary.find("one") == *dictionary.find("real"));
  EXPECT_FALSE(*dictionary.find("one") == *dictionary.find("yes"));
  EXPECT_EQ(dictionary.integer("yes"), std::nullopt);
}

TEST(Value, LargeDictionariesFindReplaceAndRemove) {
  Dictionary large;
  for (int i = 0; i < 10000; ++i) large.set("key" + std::to_string(i), i);
  large.set("key77", "replaced");
  EXPECT_TRUE(large.remove("key5000"));
  EXPECT_FALSE(large.remove("key5000"));
  EXPECT_EQ(large.size(), 9999U);
  EXPECT_EQ(large.string("key77"), "replaced");
  EXPECT_EQ(large.integer("key9999"), 9999);
  Dictionary reversed;
  for (int i = 9999; i >= 0; --i) {
    if (i != 5000) reversed.set("key" + std::to_string(i), i == 77 ? Value("replaced") : Value(i));
  }
  EXPECT_TRUE(large == reversed);
}

TEST(Value, KeysAreInternedAndForgottenFromManyThreads) {
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 20000; ++i) {
        Key key("shared" + std::to_string(i % 3));
        Dictionary dictionary{{key, i}};
        ASSERT_EQ(dictionary.integer(key.text()), i);
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

TEST(Date, RendersAndRoundTripsBeforeAndAfterTheEpoch) {
  EXPECT_EQ(Date::fromMicroseconds(1).description(), "1970-01-01T00:00:00.000001Z");
  EXPECT_EQ(Date::fromMicroseconds(-1).description(), "1969-12-31T23:59:59.999999Z");
  Date date = Date::fromMicroseconds(1'700'000'000'123'457);
  EXPECT_EQ(Date::fromTimespec(date.toTimespec()), date);
  EXPECT_EQ(Date::fromSeconds(date.secondsSince1970()), date);
}

}  // namespace
}  // namespace florvane
