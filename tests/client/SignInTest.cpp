#include "platform/SystemLog.h"
#include "tests/client/RemoteClient.h"
#include "tests/support/TestServer.h"

#include <atomic>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace florvane {
namespace {

using test::RemoteClient;
using test::TestServer;
using ::testing::HasSubstr;
using ::testing::Not;

TEST(SignIn, ByTheProtocolThenListsAndReads) {
  TestServer server;
  test::writeText(server.files() + "/a.txt", "contents");
  RemoteClient client(server.port());
  auto share = client.share("Files");
  EXPECT_EQ(share.transferType, FVFResponseContainerTransferTypeFull);
  EXPECT_EQ(client.cat(client.entry(share, "a.txt")).body, "contents");
  EXPECT_EQ(client.sessionManager->clientSession()->authMechanism(), "SRP");
  EXPECT_EQ(client.sessionManager->clientSession()->authenticatedSessionDelegate()->trustedCertData(),
            server->certificateDER());
  EXPECT_TRUE(client.list(*share.metadata, share.metadata->data(FVVersionIdentifierKey)).isNotModified());
  auto missing = client.cat(Dictionary{{FVDocumentIdentifierKey, Data("\x01\x02", 2)}});
  ASSERT_TRUE(missing.failedWith(URLErrorDomain, 404));
  EXPECT_FALSE(missing.error->localizedDescription().empty());
}

TEST(SignIn, WrongPasswordAndUnknownUserFailAlike) {
  TestServer server;
  RemoteClient wrong(server.port(), "ada", "guess");
  auto first = wrong.root();
  EXPECT_TRUE(first.failedWith(HTTPSASLErrorDomain, HTTPSASLErrorAuthenticationFailed)) << first.error->description();
  // The same answer at once, without another exchange.
  server.stop();
  EXPECT_TRUE(wrong.root().failedWith(HTTPSASLErrorDomain, HTTPSASLErrorAuthenticationFailed));
}

TEST(SignIn, UnknownUser) {
  TestServer server;
  RemoteClient client(server.port(), "nobody");
  EXPECT_TRUE(client.root().failedWith(HTTPSASLErrorDomain, HTTPSASLErrorAuthenticationFailed));
}

TEST(SignIn, MissingPasswordIsSaidBeforeAnythingIsSent) {
  TestServer server;
  RemoteClient client(server.port());
  ASSERT_TRUE((*AccountStore::shared())->credentials().removePassword(client.service->uniqueIdentifier()));
  auto outcome = client.root();
  ASSERT_TRUE(outcome.failedWith(HTTPSASLErrorDomain, HTTPSASLErrorMissingCredentials));
  EXPECT_TRUE(outcome.error->userInfo().empty());
}

TEST(SignIn, ARefusedCookieIsForgottenBeforeTheHandlerHearsAndTheNextRequestSignsInAgain) {
  TestServer server;
  RemoteClient client(server.port());
  ASSERT_FALSE(client.root().error);
  ASSERT_TRUE(server->revokeAllSessions());
  std::optional<Secret> cookieInHandler = Secret("unset");
  auto refused = client.wait([&](DCRemoteCompletionHandler handler) {
    auto shared = std::make_shared<DCRemoteCompletionHandler>(std::move(handler));
    client.manager->contentsOfRootDirectoryUnlessVersionIdentifier(
        std::nullopt, client.activityInfo,
        [&, shared](const FVFResponseContainer::Ptr& container, const std::optional<Error>& error) {
          cookieInHandler = client.sessionManager->clientSession()->authenticatedCookie();
          (*shared)(container, error);
        });
  });
  EXPECT_TRUE(refused.failedWith(URLErrorDomain, 401));
  EXPECT_EQ(cookieInHandler, std::nullopt);
  EXPECT_EQ(DCPreferences::preferences()->authCookieForService(client.service), std::nullopt);
  EXPECT_EQ(DCPreferences::preferences()->trustedCertDataForService(client.service), std::nullopt);
  EXPECT_FALSE(client.root().error);
}

TEST(SignIn, AServerThatShowsAnotherCertificateGetsNoCookieAndIsSignedInToAfresh) {
  TestServer server;
  RemoteClient client(server.port());
  ASSERT_FALSE(client.root().error);
  Data before = server->certificateDER();
  server.stop();
  server.forgetCertificate();
  server.restart();
  ASSERT_NE(server->certificateDER(), before);
  EXPECT_TRUE(client.root().failedWith(URLErrorDomain, 401));
  EXPECT_EQ(client.sessionManager->clientSession()->authenticatedCookie(), std::nullopt);
  EXPECT_FALSE(client.root().error);
  EXPECT_EQ(DCPreferences::preferences()->trustedCertDataForService(client.service), server->certificateDER());
}

// Twenty requests that were refused with the old cookie must not take away the login that the first of them led to.
TEST(SignIn, OldRefusalsLeaveTheNewLoginAlone) {
  TestServer server;
  RemoteClient client(server.port());
  ASSERT_FALSE(client.root().error);
  Secret old = *client.sessionManager->clientSession()->authenticatedCookie();
  ASSERT_TRUE(server->revokeAllSessions());
  constexpr int kRequests = 20;
  std::vector<std::future<bool>> answers;
  answers.reserve(kRequests);
  for (int i = 0; i < kRequests; ++i) {
    answers.push_back(std::async(std::launch::async, [&] {
      auto outcome = client.root();
      return outcome.failedWith(URLErrorDomain, 401) ? !client.root().error : !outcome.error;
    }));
  }
  for (auto& answer : answers) EXPECT_TRUE(answer.get());
  Secret fresh = *client.sessionManager->clientSession()->authenticatedCookie();
  EXPECT_FALSE(fresh == old);
  client.sessionManager->clearAuthentication(old);
  EXPECT_EQ(client.sessionManager->clientSession()->authenticatedCookie(), fresh);
  EXPECT_EQ(DCPreferences::preferences()->authCookieForService(client.service), fresh);
}

// Every line of every level, with the arguments of every operation, while secrets known to the test are used.
class EveryLine : public SystemLog {
 public:
  EveryLine() { setShared(this); }
  ~EveryLine() override { setShared(nullptr); }
  void write(const SystemLogMessage& message) override {
    std::lock_guard lock(mutex_);
    text_ += message.text + "\n";
    for (const auto& [name, value] : message.fields) text_.append(name).append("=").append(value).append("\n");
  }
  std::string text() const {
    std::lock_guard lock(mutex_);
    return text_;
  }

 private:
  mutable std::mutex mutex_;
  std::string text_;
};

TEST(SignIn, NoLineOfTheLogHoldsASecret) {
  EveryLine log;
  TestServer server;
  RemoteClient client(server.port());
  ASSERT_TRUE(DCPreferences::preferences()->setTraceLogsEnabled(true));
  ASSERT_TRUE(DCPreferences::preferences()->setLogLevel("debug"));
  dc_log_set_level(dc_log_default_category(), 7);
  dc_log_set_level(dc_log_callbacks_category(), 7);
  client.share("Files");
  Secret cookie = *client.sessionManager->clientSession()->authenticatedCookie();
  ASSERT_TRUE(server->revokeAllSessions());
  client.root();
  client.share("Files");
  Secret second = *client.sessionManager->clientSession()->authenticatedCookie();

  std::string lines = log.text();
  EXPECT_THAT(lines, HasSubstr("Decrypted key: <32 bytes>"));
  EXPECT_THAT(lines, HasSubstr("cookie = <"));
  std::string password = TestServer::password;
  EXPECT_THAT(lines, Not(HasSubstr(password)));
  EXPECT_THAT(lines, Not(HasSubstr(base64Encode(Data::fromString(password)))));
  EXPECT_THAT(lines, Not(HasSubstr(hexEncode(Data::fromString(password)))));
  for (const Secret& each : {cookie, second}) {
    std::string key(each.reveal().substr(2));
    EXPECT_THAT(lines, Not(HasSubstr(key)));
    EXPECT_THAT(lines, Not(HasSubstr(hexEncode(*base64Decode(key)))));
  }
}

}  // namespace
}  // namespace florvane
