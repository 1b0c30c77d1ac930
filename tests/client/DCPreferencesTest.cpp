#include "Client/Client/DCPreferences.h"
#include "platform/NotificationCenter.h"
#include "tests/support/Process.h"
#include "tests/support/RecordingSystemLog.h"
#include "tests/support/TestContainer.h"

#include <future>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace florvane {
namespace {

using testing::HasSubstr;

class DCPreferencesTest : public testing::Test {
 protected:
  std::string file() const { return container_.file("Preferences/group.quorl.Florvane.plist"); }
  // The keys on disk as an outside reader sees them.
  std::string keysOnDisk() const {
    return test::runPython(
               "import plistlib,sys\n"
               "print(' '.join(sorted(plistlib.load(open(sys.argv[1],'rb')))))",
               {file()})
        .standardOutput;
  }
  // Returns when everything posted so far has been delivered.
  static void waitForDelivery() {
    std::promise<void> over;
    auto& center = NotificationCenter::shared();
    auto ending = center.addObserver("over", [&](const Notification&) { over.set_value(); });
    center.post("over");
    over.get_future().wait();
  }
  // Posts that `change` brings about.
  template <typename Change>
  int postsOf(Change change) {
    waitForDelivery();
    int posts = 0;
    auto& center = NotificationCenter::shared();
    auto counting = center.addObserver("DCPreferencesDidChangeNotification", [&](const Notification& notification) {
      EXPECT_FALSE(notification.object);
      ++posts;
    });
    EXPECT_TRUE(change());
    waitForDelivery();
    return posts;
  }

  test::TestContainer container_;
  test::RecordingSystemLog log_;
};

TEST_F(DCPreferencesTest, HaveDefaultsAndKeepWhatIsSet) {
  auto preferences = DCPreferences::preferences();
  EXPECT_FALSE(preferences->traceLogsEnabled());
  EXPECT_FALSE(preferences->xmlPropertyLists());
  EXPECT_EQ(preferences->logLevel(), std::nullopt);
  EXPECT_EQ(preferences->currentDataVersionNumber(), std::nullopt);
  ASSERT_TRUE(preferences->setTraceLogsEnabled(true));
  ASSERT_TRUE(preferences->setLogLevel("debug"));
  ASSERT_TRUE(preferences->setCurrentDataVersionNumber("1.1"));
  ASSERT_TRUE(preferences->setXmlPropertyLists(true));
  auto others = DCPreferences::preferences();
  EXPECT_NE(others, preferences);
  EXPECT_TRUE(others->traceLogsEnabled());
  EXPECT_TRUE(others->xmlPropertyLists());
  EXPECT_EQ(others->logLevel(), "debug");
  EXPECT_EQ(others->currentDataVersionNumber(), "1.1");
  EXPECT_EQ(keysOnDisk(), "CurrentDataVersionKey LogLevel LogTrace XMLPropertyLists\n");
  struct stat status{};
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  ASSERT_TRUE(others->setLogLevel(std::nullopt));
  EXPECT_EQ(preferences->logLevel(), std::nullopt);
}

TEST_F(DCPreferencesTest, EverySetterTellsOnceButThatOfThePropertyLists) {
  auto preferences = DCPreferences::preferences();
  auto service = DCService::serviceWithHostName("host", "identifier");
  EXPECT_EQ(postsOf([&] { return preferences->setTraceLogsEnabled(false); }), 1);
  EXPECT_EQ(postsOf([&] { return preferences->setTraceLogsEnabled(false); }), 1) << "though nothing changes";
  EXPECT_EQ(postsOf([&] { return preferences->setLogLevel("info"); }), 1);
  EXPECT_EQ(postsOf([&] { return preferences->setCurrentDataVersionNumber("1.1"); }), 1);
  EXPECT_EQ(postsOf([&] { return preferences->setXmlPropertyLists(true); }), 0);
  EXPECT_EQ(postsOf([&] { return preferences->setAuthCookie(Secret("c"), std::nullopt, service); }), 1);
  EXPECT_EQ(postsOf([&] { return preferences->clearAuthCookieAndTrustedCertDataForService(service); }), 1);
  EXPECT_EQ(postsOf([&] { return preferences->clearAllAuthCookiesAndTrustedCertData(); }), 1);
}

TEST_F(DCPreferencesTest, KeepEachServicesCookieAndCertificate) {
  auto preferences = DCPreferences::preferences();
  auto one = DCService::serviceWithHostName("host", "one");
  auto two = DCService::serviceWithHostName("host", "two");
  Data certificate = Data::fromString("\x30\x82");
  EXPECT_EQ(preferences->authCookieForService(one), std::nullopt);
  ASSERT_TRUE(preferences->setAuthCookie(Secret("k=1"), certificate, one));
  ASSERT_TRUE(preferences->setAuthCookie(Secret("k=2"), std::nullopt, two));
  ASSERT_TRUE(preferences->setLogLevel("info"));
  EXPECT_EQ(keysOnDisk(), "AuthenticatedCookie_one AuthenticatedCookie_two LogLevel TrustedCertData_one\n");
  auto saved = preferences->authCookieAndTrustedCertDataForService(one);
  EXPECT_EQ(saved.cookie, Secret("k=1"));
  EXPECT_EQ(saved.trustedCertData, certificate);
  EXPECT_EQ(preferences->trustedCertDataForService(two), std::nullopt);
  ASSERT_TRUE(preferences->setAuthCookie(std::nullopt, certificate, two));
  EXPECT_EQ(preferences->authCookieForService(two), std::nullopt);
  ASSERT_TRUE(preferences->clearAuthCookieAndTrustedCertDataForService(two));
  EXPECT_EQ(keysOnDisk(), "AuthenticatedCookie_one LogLevel TrustedCertData_one\n");
  ASSERT_TRUE(preferences->clearAllAuthCookiesAndTrustedCertData());
  EXPECT_EQ(keysOnDisk(), "LogLevel\n");
}

TEST_F(DCPreferencesTest, ARefusedCookieRemovesOnlyItself) {
  auto preferences = DCPreferences::preferences();
  auto service = DCService::serviceWithHostName("host", "one");
  Data certificate = Data::fromString("certificate");
  ASSERT_TRUE(preferences->setAuthCookie(Secret("new"), certificate, service));
  EXPECT_EQ(postsOf([&] {
              auto removed = preferences->clearAuthCookieAndTrustedCertDataForService(service, Secret("old"));
              return removed && !*removed;
            }),
            0);
  EXPECT_EQ(preferences->authCookieAndTrustedCertDataForService(service).trustedCertData, certificate);
  EXPECT_EQ(postsOf([&] {
              auto removed = preferences->clearAuthCookieAndTrustedCertDataForService(service, Secret("new"));
              return removed && *removed;
            }),
            1);
  EXPECT_EQ(keysOnDisk(), "\n");
}

// Of two that refuse old cookies and one that signs in again and again, nobody ever removes what is newer.
TEST_F(DCPreferencesTest, NoLoginIsLostToALateRefusal) {
  auto service = DCService::serviceWithHostName("host", "one");
  std::thread refusing([&] {
    for (int round = 0; round < 40; ++round) {
      auto preferences = DCPreferences::preferences();
      EXPECT_TRUE(preferences->clearAuthCookieAndTrustedCertDataForService(service, Secret(std::to_string(round))));
    }
  });
  for (int round = 0; round < 40; ++round) {
    Secret cookie("login " + std::to_string(round));
    auto preferences = DCPreferences::preferences();
    ASSERT_TRUE(preferences->setAuthCookie(cookie, cookie.revealData(), service));
    auto saved = preferences->authCookieAndTrustedCertDataForService(service);
    ASSERT_EQ(saved.cookie, cookie);
    ASSERT_EQ(saved.trustedCertData, cookie.revealData());
  }
  refusing.join();
}

TEST_F(DCPreferencesTest, ADamagedFileGivesDefaultsAndIsNeverOverwritten) {
  auto preferences = DCPreferences::preferences();
  ASSERT_TRUE(preferences->setXmlPropertyLists(true));
  test::writeText(file(), "damaged");
  EXPECT_FALSE(preferences->xmlPropertyLists());
  EXPECT_FALSE(DCPreferences::preferences()->traceLogsEnabled());
  EXPECT_FALSE(preferences->currentDataVersion()) << "unreadable, not missing";
  EXPECT_FALSE(preferences->setLogLevel("debug"));
  EXPECT_EQ(test::readText(file()), "damaged");
  int reads = 0;
  for (const auto& message : log_.messages()) reads += message.text.starts_with("Unable to read the preferences: ");
  EXPECT_EQ(reads, 1);
  EXPECT_THAT(log_.messages().back().text, HasSubstr("Unable to write the preferences: "));
}

}  // namespace
}  // namespace florvane
