#include "platform/SystemLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace florvane {
namespace {

TEST(SystemLog, JournalFieldsKeepToNamesOfOurOwn) {
  SystemLogMessage message{9,
                           "two\nlines",
                           {{"Facility", "f"},
                            {"ThreadID", "1=2"},
                            {"MachAbsoluteTime", ""},
                            {"HTTPStatus", "200"},
                            {"_odd name", "x"},
                            {std::string(99, 'a'), "long"}}};
  EXPECT_THAT(journalFields(message),
              testing::ElementsAre("MESSAGE=two\nlines", "PRIORITY=7", "SYSLOG_IDENTIFIER=platform_tests",
                                   "FLORVANE_FACILITY=f", "FLORVANE_THREAD_ID=1=2",
                                   "FLORVANE_MACH_ABSOLUTE_TIME=", "FLORVANE_HTTP_STATUS=200", "FLORVANE__ODD_NAME=x",
                                   "FLORVANE_" + std::string(55, 'A') + "=long"));
}

TEST(SystemLog, ASinkTakesTheSystemsPlaceUntilItIsTakenAway) {
  struct Sink : SystemLog {
    void write(const SystemLogMessage& message) override { texts.push_back(message.text); }
    std::vector<std::string> texts;
  } sink;
  SystemLog::setShared(&sink);
  SystemLog::shared().write({6, "one", {}});
  SystemLog::setShared(nullptr);
  SystemLog::shared().write({7, "two", {}});
  EXPECT_THAT(sink.texts, testing::ElementsAre("one"));
}

}  // namespace
}  // namespace florvane
