#include "Client/Client/DCLog.h"
#include "Client/Client/DCPath.h"
#include "platform/Exceptions.h"
#include "tests/support/Process.h"
#include "tests/support/RecordingSystemLog.h"
#include "tests/support/TestContainer.h"

#include <filesystem>
#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {
namespace {

using testing::HasSubstr;

class DCServiceTest : public testing::Test {
 protected:
  static Account account() {
    Account account;
    account.identifier = "8C3F0B1E";
    account.name = "work";
    account.hostName = "own.example";
    return account;
  }
  static void postPort(const Dictionary& userInfo) {
    std::promise<void> over;
    auto& center = NotificationCenter::shared();
    auto ending = center.addObserver("over", [&](const Notification&) { over.set_value(); });
    center.post(FlorvanePortNumberDidChangeNotification, std::nullopt, userInfo);
    center.post("over");
    over.get_future().wait();
  }

  test::TestContainer container_;
  test::RecordingSystemLog log_;
};

TEST_F(DCServiceTest, OfAURLIsNamedByItsText) {
  auto url = URL::fromString("https://server.example:10548");
  auto service = DCService::serviceWithURL(url, "keychain");
  EXPECT_EQ(service->url(), *url);
  EXPECT_EQ(service->keychainItemIdentifier(), "keychain");
  auto judged = test::runPython("import hashlib;print(hashlib.sha1(b'https://server.example:10548').hexdigest())");
  EXPECT_EQ(service->uniqueIdentifier() + "\n", judged.standardOutput);
  EXPECT_EQ(DCService::serviceWithURL(url, "other")->uniqueIdentifier(), service->uniqueIdentifier());
  for (const char* differing : {"https://server.example:10549", "https://server.example:10548/"}) {
    EXPECT_NE(DCService::serviceWithURL(URL::fromString(differing), "k")->uniqueIdentifier(),
              service->uniqueIdentifier());
  }
  EXPECT_EQ(service->description(),
            baseDescription("DCService", service.get()).insert(0, "<") + " url=https://server.example:10548, " +
                "uniqueIdentifier=" + service->uniqueIdentifier() + ", keychain-identifier=keychain>");
}

TEST_F(DCServiceTest, OfAHostNameUsesTheDefaultPort) {
  auto service = DCService::serviceWithHostName("server.example", "identifier");
  EXPECT_EQ(service->url().absoluteString(), "https://server.example:10548");
  EXPECT_EQ(service->keychainItemIdentifier(), "server.example");
  EXPECT_EQ(service->uniqueIdentifier(), "identifier");
  auto literal = DCService::serviceWithHostName("fe80::1", "six");
  EXPECT_EQ(literal->url().absoluteString(), "https://[fe80::1]:10548");
  EXPECT_EQ(literal->url().host(), "fe80::1");
  EXPECT_EQ(literal->keychainItemIdentifier(), "fe80::1");
}

TEST_F(DCServiceTest, OfAnAccountPrefersItsDataClass) {
  Account both = account();
  EXPECT_EQ(DCService::serviceWithAccount(both)->url().absoluteString(), "https://own.example:10548");
  both.dataClassHostName = "class.example";
  both.dataClassPortNumber = 4711;
  auto service = DCService::serviceWithAccount(both);
  EXPECT_EQ(service->url().absoluteString(), "https://class.example:4711");
  EXPECT_EQ(service->keychainItemIdentifier(), "class.example");
  EXPECT_EQ(service->uniqueIdentifier(), both.identifier);
}

template <typename Make>
std::string refusal(Make make) {
  try {
    make();
  } catch (const InvalidArgumentException& exception) {
    return exception.reason();
  }
  return "none";
}

TEST_F(DCServiceTest, RefusesMissingArguments) {
  auto url = URL::fromString("https://server.example");
  EXPECT_EQ(refusal([] { DCService::serviceWithURL(std::nullopt, std::nullopt); }), "Illegal nil url");
  for (const std::optional<std::string>& empty : {std::optional<std::string>(), std::optional<std::string>("")}) {
    EXPECT_EQ(refusal([&] { DCService::serviceWithURL(url, empty); }), "Illegal empty keychainItemIdentifier");
    EXPECT_EQ(refusal([&] { DCService::serviceWithHostName("h", empty); }), "Illegal empty uniqueIdentifier");
  }
  EXPECT_EQ(refusal([] { DCService::serviceWithHostName(std::nullopt, "i"); }), "Illegal nil hostname");
  EXPECT_EQ(refusal([] { DCService::serviceWithHostName("no host name", "i"); }), "Illegal nil url");
  EXPECT_EQ(refusal([] { DCService::serviceWithAccount(std::nullopt); }), "Illegal nil account");
  Account nameless = account();
  nameless.hostName.reset();
  EXPECT_EQ(refusal([&] { DCService::serviceWithAccount(nameless); }), "Illegal nil hostname");
}

TEST_F(DCServiceTest, MakesItsFoldersAndGoesOnWithoutThem) {
  DCService::serviceWithHostName("host", "one");
  EXPECT_TRUE(std::filesystem::is_directory(container_.file("File Provider Storage/one")));
  EXPECT_TRUE(std::filesystem::is_directory(container_.file("Metadata/one")));
  test::writeText(container_.file("Metadata/two"), "in the way");
  auto service = DCService::serviceWithHostName("host", "two");
  EXPECT_EQ(service->uniqueIdentifier(), "two");
  auto messages = log_.messages();
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_THAT(messages[0].text, HasSubstr("Unable to create directory '" + container_.file("Metadata/two") + "': "));
  EXPECT_EQ(messages[0].level, 4);
  EXPECT_THAT(messages[1].text, testing::MatchesRegex("Client/Client/DCService:[0-9]+: failed assertion '!error'\n"));
}

TEST_F(DCServiceTest, OfAnAccountFollowsItsPort) {
  dc_log_set_level(dc_log_default_category(), 6);
  auto service = DCService::serviceWithAccount(account());
  auto fixed = DCService::serviceWithHostName("own.example", "fixed");
  for (const Dictionary& ignored :
       {Dictionary{{FlorvaneAccountIdentifierKey, "another"}, {FlorvaneNewPortNumberKey, 1}},
        Dictionary{{FlorvaneNewPortNumberKey, 1}}, Dictionary{{FlorvaneAccountIdentifierKey, account().identifier}},
        Dictionary{{FlorvaneAccountIdentifierKey, account().identifier}, {FlorvaneNewPortNumberKey, 65536}},
        Dictionary{{FlorvaneAccountIdentifierKey, "fixed"}, {FlorvaneNewPortNumberKey, 1}}}) {
    postPort(ignored);
  }
  EXPECT_EQ(service->url().absoluteString(), "https://own.example:10548");
  postPort({{FlorvaneAccountIdentifierKey, account().identifier}, {FlorvaneNewPortNumberKey, 4711}});
  EXPECT_EQ(service->url().absoluteString(), "https://own.example:4711");
  EXPECT_EQ(fixed->url().absoluteString(), "https://own.example:10548");
  EXPECT_EQ(log_.waitFor("Updating service URL due to port change: https://own.example:4711").level, 6);
}

TEST_F(DCServiceTest, FindsTheServersFolderOfAFile) {
  auto identifier = [](const std::string& path) { return DCService::serverIdentifierForURL(URL::fileURL(path)); };
  EXPECT_EQ(identifier(container_.file("Metadata/server/0a1b/name")), "server");
  EXPECT_EQ(identifier("/nowhere-at-all/b/c/"), "nowhere-at-all");
  EXPECT_EQ(identifier("/nowhere-at-all/b"), std::nullopt);
  EXPECT_EQ(identifier("/"), std::nullopt);
  EXPECT_EQ(identifier("/nowhere-at-all/../b/c"), std::nullopt);
  EXPECT_EQ(DCService::serverIdentifierForURL(*URL::fromString("https://h/a/b/c")), std::nullopt);
}

TEST_F(DCServiceTest, TracesItsConstruction) {
  dc_log_set_level(dc_log_default_category(), 7);
  dc_log_trace_enabled = true;
  EXPECT_THROW(DCService::serviceWithURL(std::nullopt, "k"), InvalidArgumentException);
  log_.waitFor("-[DCService _initWithURL:keychainItemIdentifier:] (url=(null), keychainItemIdentifier=k)");
  DCService::serviceWithHostName("h", "i");
  log_.waitFor("-[DCService _initWithHostName:uniqueIdentifier:] (hostName=h, uniqueIdentifier=i)");
}

}  // namespace
}  // namespace florvane
