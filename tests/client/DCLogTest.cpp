#include "Client/Client/DCLog.h"
#include "Client/Client/DCPreferences.h"
#include "platform/NotificationCenter.h"
#include "platform/PreferencesStore.h"
#include "platform/Secret.h"
#include "platform/SerialQueue.h"
#include "platform/SoftAssertion.h"
#include "tests/support/RecordingSystemLog.h"
#include "tests/support/TestContainer.h"

#include <filesystem>
#include <future>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace florvane {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class DCLogTest : public testing::Test {
 protected:
  std::string field(const SystemLogMessage& message, std::string_view name) {
    for (const auto& [key, value] : message.fields) {
      if (key == name) return value;
    }
    return "none";
  }
  // What another process has left in the preferences.
  void prefer(const Dictionary& preferences) {
    std::filesystem::create_directories(container_.file("Preferences"));
    PreferencesStore store(container_.file("Preferences/group.quorl.Florvane.plist"));
    ASSERT_TRUE(store.update([&](Dictionary& contents) { contents = preferences; }));
  }
  // Returns when everything posted so far has been delivered.
  static void waitForDelivery() {
    std::promise<void> over;
    auto& center = NotificationCenter::shared();
    auto ending = center.addObserver("over", [&](const Notification&) { over.set_value(); });
    center.post("over");
    over.get_future().wait();
  }
  std::vector<std::string> texts() {
    std::vector<std::string> texts;
    for (const auto& message : log_.messages()) texts.push_back(message.text);
    return texts;
  }

  test::TestContainer container_;
  test::RecordingSystemLog log_;
};

TEST_F(DCLogTest, WritesMessagesOfTheCategorysLevelWithTheirOrigin) {
  int unused = 0;
  auto queue = SerialQueue::create("work");
  queue->async([&] {
    DCLogInfo("not %d", ++unused);
    DCLogNotice("file %@ of %lld bytes", "a", 12);
  });
  queue->sync([] {});
  DCLogWarning("from the main thread");
  auto messages = log_.messages();
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_EQ(messages[0].text, "file a of 12 bytes");
  EXPECT_EQ(messages[0].level, 5);
  EXPECT_EQ(field(messages[0], "Facility"), "quorl.florvane.dclog");
  EXPECT_EQ(field(messages[0], "DispatchQueue"), "work");
  EXPECT_THAT(field(messages[0], "ThreadID"), HasSubstr("0x"));
  EXPECT_EQ(field(messages[1], "ThreadID"), "main");
  EXPECT_EQ(field(messages[1], "DispatchQueue"), "");
  EXPECT_GE(std::stoull(field(messages[1], "MachAbsoluteTime")), std::stoull(field(messages[0], "MachAbsoluteTime")));
}

TEST_F(DCLogTest, KeepsFourCategoriesAndSendsOthersToTheFirst) {
  int ours = dc_log_default_category();
  EXPECT_EQ(dc_log_find_category("quorl.florvane.dclog"), ours);
  EXPECT_STREQ(dc_log_get_category_name(dc_log_callbacks_category()), "quorl.florvane.dc.callbacks");
  EXPECT_STREQ(dc_log_get_facility_name(dc_log_trace_category()), "quorl.florvane.dc.trace");
  EXPECT_EQ(dc_log_find_category("fourth"), -1);
  EXPECT_EQ(dc_log_get_category("fourth"), 3);
  EXPECT_EQ(dc_log_get_category("fourth"), 3);
  EXPECT_EQ(dc_log_get_category("fifth"), -1);
  EXPECT_EQ(dc_log_find_category("fifth"), -1);
  EXPECT_EQ(dc_log_get_category_name(4), nullptr);
  EXPECT_EQ(dc_log_get_category_name(-1), nullptr);
  dc_log(-1, 5, "astray");
  EXPECT_EQ(field(log_.waitFor("astray"), "Facility"), "quorl.florvane.dclog");
  EXPECT_EQ(dc_log_find_category(nullptr), -1);
  EXPECT_THAT(texts().back(), HasSubstr("failed assertion 'catname != 0'"));
}

TEST_F(DCLogTest, MasksAndLevelsStandForEachOther) {
  int category = dc_log_default_category();
  EXPECT_EQ(dc_log_get_mask(category), 63);
  EXPECT_EQ(dc_log_get_mask(-1), 0);
  EXPECT_EQ(dc_log_get_mask(9), 63);
  EXPECT_EQ(dc_log_get_level(9), -1);
  dc_log_set_mask(category, 256);
  EXPECT_EQ(dc_log_get_mask(category), 63);
  dc_log_set_mask(category, 256 | DCLogMaskDebug);
  EXPECT_EQ(dc_log_get_mask(category), 128);
  EXPECT_EQ(dc_log_get_level(category), 7);
  dc_log(category, 3, "its bit is not set");
  dc_log(category, 99, "clamped to debug");
  EXPECT_THAT(texts(), ElementsAre("clamped to debug"));
  dc_log_set_level(category, -4);
  EXPECT_EQ(dc_log_get_mask(category), 1);
  dc_log_set_level(category, 12);
  EXPECT_EQ(dc_log_get_mask(category), 255);
  dc_log_set_level(9, 3);
  EXPECT_THAT(texts().back(), HasSubstr("failed assertion 'dc_log_get_level(category) == level'\n"));
}

TEST_F(DCLogTest, FiltersFollowTheSwitches) {
  int category = dc_log_default_category();
  dc_log_set_level(category, 7);
  dc_log_set_force_remote_level(true);
  DCLogDebug("forced");
  DCLogError("urgent");
  EXPECT_EQ(dc_log_get_system_filter(category), 256 | 255);
  dc_log_set_force_remote_level(false);
  DCLogDebug("kept");
  EXPECT_EQ(dc_log_get_system_filter(category), 256 | 255);
  dc_log_clear_force_remote_level();
  EXPECT_EQ(dc_log_get_system_filter(category), 255);
  dc_log_disable_system_logging();
  EXPECT_FALSE(dc_log_system_logging_is_enabled());
  EXPECT_EQ(dc_log_get_system_filter(category), 0);
  DCLogError("unheard");
  dc_log_enable_system_logging();
  std::vector<int> levels;
  for (const auto& message : log_.messages()) levels.push_back(message.level);
  EXPECT_THAT(texts(), ElementsAre("forced", "urgent", "kept"));
  EXPECT_THAT(levels, ElementsAre(5, 3, 7));
}

TEST_F(DCLogTest, StandardErrorGetsOneLineAMessage) {
  testing::internal::CaptureStderr();
  DCLogNotice("before");
  DCLogEnableDebug(true);
  EXPECT_EQ(dc_log_get_level(dc_log_callbacks_category()), 7);
  EXPECT_EQ(dc_log_get_level(dc_log_trace_category()), 5);
  SerialQueue::create("work")->sync([] { DCLogDebug("a name\nof two lines, \x1b[31m and red\n"); });
  DCLogEnableDebug(false);
  EXPECT_FALSE(dc_log_stderr_logging_is_enabled());
  EXPECT_EQ(dc_log_get_level(dc_log_default_category()), 5);
  DCLogNotice("after");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "debug quorl.florvane.dclog [work] a name\\nof two lines, \\x1b[31m and red\n");
}

TEST_F(DCLogTest, FollowsThePreferences) {
  prefer({{"LogLevel", "TRACE"}, {"LogTrace", true}});
  EXPECT_EQ(dc_log_get_level(dc_log_default_category()), 7);
  EXPECT_TRUE(dc_log_trace_is_on());
  EXPECT_THAT(texts(), ElementsAre());
  auto preferences = DCPreferences::preferences();
  ASSERT_TRUE(preferences->setTraceLogsEnabled(false));
  EXPECT_EQ(log_.waitFor("Detailed logging disabled").level, 5);
  EXPECT_FALSE(dc_log_trace_is_on());
  ASSERT_TRUE(preferences->setLogLevel("warning"));
  EXPECT_EQ(log_.waitFor("Setting log level to 4").level, 5);
  ASSERT_TRUE(preferences->setLogLevel("5"));
  waitForDelivery();
  EXPECT_EQ(dc_log_get_level(dc_log_default_category()), 5);
  EXPECT_EQ(log_.countOf("Setting log level to 5"), 0U) << "level 4 drops what is said at level 5";
  ASSERT_TRUE(preferences->setLogLevel("6"));
  log_.waitFor("Setting log level to 6");
}

// Reading the preferences for the first time says something itself.
TEST_F(DCLogTest, AnUnknownLevelAtFirstUseIsToldAndMeansNotice) {
  prefer({{"LogLevel", "0"}});
  DCLogNotice("first");
  EXPECT_THAT(texts(), ElementsAre("Unknown loglevel \"0\"", "first"));
  EXPECT_EQ(dc_log_get_level(dc_log_default_category()), 5);
}

TEST_F(DCLogTest, UnreadablePreferencesAreToldOnceAndLeaveTheDefaults) {
  prefer({{"LogLevel", "debug"}});
  test::writeText(container_.file("Preferences/group.quorl.Florvane.plist"), "damaged");
  DCLogNotice("first");
  DCLogNotice("second");
  ASSERT_EQ(texts().size(), 3U);
  EXPECT_THAT(texts()[0], HasSubstr("Unable to read the preferences: "));
  EXPECT_EQ(dc_log_get_mask(dc_log_default_category()), 63);
}

TEST_F(DCLogTest, LevelsHaveNamesAndNumbers) {
  EXPECT_EQ(_LogLevelByName("EMERG"), 0);
  EXPECT_EQ(_LogLevelByName("Emergency"), 0);
  EXPECT_EQ(_LogLevelByName("alert"), 1);
  EXPECT_EQ(_LogLevelByName("critical"), 2);
  EXPECT_EQ(_LogLevelByName("err"), 3);
  EXPECT_EQ(_LogLevelByName("warning"), 4);
  EXPECT_EQ(_LogLevelByName("info"), 6);
  EXPECT_EQ(_LogLevelByName("Trace"), 7);
  EXPECT_EQ(_LogLevelByName(" 12 of them"), 12);
  EXPECT_EQ(_LogLevelByName("-3"), -3);
  EXPECT_GE(_LogLevelByName("99999999999999999999"), 7);
  EXPECT_TRUE(log_.messages().empty());
  for (const char* unknown : {"0", "", "loud", "infos"}) {
    EXPECT_EQ(_LogLevelByName(unknown), 5);
    EXPECT_EQ(log_.messages().back().text, format("Unknown loglevel \"%@\"", unknown));
  }
}

TEST_F(DCLogTest, TraceLinesNameTheirArgumentsOnlyWhileWanted) {
  int looked = 0;
  auto count = [&] { return ++looked; };
  DCLogTrace("-[DCThing count:]", {{"count", count()}});
  dc_log_trace_enabled = true;
  DCLogTrace("-[DCThing count:]", {{"count", count()}});
  EXPECT_EQ(looked, 0) << "the default category does not write debug messages yet";
  dc_log_set_level(dc_log_default_category(), 7);
  std::optional<Secret> cookie = Secret("k=0123456789");
  std::shared_ptr<const Error> none;
  DCLogTrace("-[DCThing count:name:none:cookie:identifier:list:absent:]", {{"count", count()},
                                                                           {"name", "a"},
                                                                           {"none", none},
                                                                           {"cookie", cookie},
                                                                           {"identifier", Data::fromString("\x01\xff")},
                                                                           {"list", Value(Array{1, 2})},
                                                                           {"absent", std::optional<std::string>()}});
  DCLogTrace("-[DCThing none]");
  EXPECT_EQ(looked, 1);
  ASSERT_EQ(log_.messages().size(), 2U);
  EXPECT_EQ(texts()[0],
            "-[DCThing count:name:none:cookie:identifier:list:absent:] (count=1, name=a, none=(null), "
            "cookie=<12 bytes>, identifier=" +
                Value(Data::fromString("\x01\xff")).description() + ", list=" + DCStringFromCollection(Array{1, 2}) +
                ", absent=(null))");
  EXPECT_EQ(texts()[1], "-[DCThing none] ()");
  EXPECT_EQ(_DCLogStringWithArguments(Array{"a", 1, "b"}), "a=1, b=(null)");
}

TEST_F(DCLogTest, FailedAssertionsOfAllLayersComeHere) {
  DCAssert(log_.messages().size() == 1, "Client/Client/DCThing");
  reportSoftAssertion("platform/Thing", 12, "is there");
  DCAssertionFailed("Client/Client/DCThing", 34, "!error");
  dc_log_set_mask(dc_log_default_category(), 255 & ~DCLogMaskCritical);
  DCAssertionFailed("Client/Client/DCThing", 35, "unwanted");
  ASSERT_EQ(texts().size(), 3U);
  EXPECT_THAT(texts()[0], testing::MatchesRegex("Client/Client/DCThing:[0-9]+: failed assertion "
                                                "'log_.messages\\(\\).size\\(\\) == 1'\n"));
  EXPECT_EQ(texts()[1], "platform/Thing:12: failed assertion 'is there'\n");
  EXPECT_EQ(texts()[2], "Client/Client/DCThing:34: failed assertion '!error'\n");
  EXPECT_EQ(log_.messages()[2].level, 2);
}

TEST_F(DCLogTest, ALogThatLogsItselfNeitherWaitsNorGoesOnForEver) {
  log_.setOnWrite([] { DCLogError("about that"); });
  DCLogError("message");
  EXPECT_THAT(texts(), ElementsAre("message", "about that"));
}

TEST_F(DCLogTest, EveryMessageOfManyThreadsAtFirstUseArrivesWhole) {
  std::vector<std::thread> threads;
  threads.reserve(8);
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([thread] {
      for (int message = 0; message < 50; ++message) {
        DCLogNotice("%d of %d", message, thread);
        reportSoftAssertion("platform/Thing", 1, "thread");
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int thread = 0; thread < 8; ++thread) {
    for (int message = 0; message < 50; ++message) EXPECT_EQ(log_.countOf(format("%d of %d", message, thread)), 1U);
  }
}

TEST(DCLogDeathTest, MessagesWhileTheProcessEndsGoOut) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  test::TestContainer container;
  EXPECT_EXIT(
      {
        std::atexit([] { DCLogNotice("the last one"); });
        dc_log_enable_stderr_logging();
        DCLogNotice("the first one");
        std::exit(0);
      },
      testing::ExitedWithCode(0), "the first one\n(.|\n)*the last one");
}

}  // namespace
}  // namespace florvane
