#include "platform/Encoding.h"
#include "sasl/SRPClientMechanism.h"
#include "server/Administration.h"
#include "server/AttemptLimiter.h"
#include "tests/server/HTTPClient.h"
#include "tests/support/ManualClock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace florvane::test {
namespace {

using namespace std::chrono_literals;

std::string firstMessage(const std::string& mechanism, const std::string& data) {
  return mechanism + std::string(1, '\0') + data;
}

std::string plainMessage(const std::string& user, const std::string& password) {
  return firstMessage("PLAIN", user + std::string(1, '\0') + user + std::string(1, '\0') + password);
}

// The client's side of one SRP exchange, up to its second message.
struct Exchange {
  Exchange(TestServer& server, const std::string& user, const std::string& password) : client(server, false) {
    client.keepCookies();
    EXPECT_EQ(srp_client_mech_new(context, user, user, Secret(password)), 0);
    Data initial;
    EXPECT_EQ(srp_nsdata_client_step(context.get(), Data(), &initial), SRPContinue);
    offer = client.post("/sasl", firstMessage("SRP", std::string(initial.view())));
    if (offer.status != 200) return;
    EXPECT_EQ(srp_nsdata_client_step(context.get(), Data::fromString(offer.body), &proof), SRPContinue);
  }
  HTTPAnswer sendProof() { return client.post("/sasl", std::string(proof.view())); }

  HTTPClient client;
  SRPContextPtr context;
  HTTPAnswer offer;
  Data proof;
};

TEST(SignIn, AnSRPExchangeGivesCookieKeyAndCertificate) {
  TestServer server;
  Exchange exchange(server, TestServer::user, TestServer::password);
  EXPECT_THAT(exchange.offer.field("Set-Cookie"),
              testing::MatchesRegex("fvsasl=[0-9a-f]{32}; Path=/sasl; Secure; HttpOnly"));
  HTTPAnswer evidence = exchange.sendProof();
  ASSERT_EQ(evidence.status, 200);
  Data nothing;
  ASSERT_EQ(srp_nsdata_client_step(exchange.context.get(), Data::fromString(evidence.body), &nothing), SRPDone);
  HTTPAnswer last = exchange.client.post("/sasl", "");
  ASSERT_EQ(last.status, 200);
  Secret message;
  Data packet = Data::fromString(last.body);
  ASSERT_EQ(srp_decode(exchange.context.get(), packet.span(), &message), 0);
  ASSERT_GT(message.size(), 32U);
  EXPECT_EQ(message.revealData().subdata(32), server->certificateDER());

  HTTPClient signedIn(server, false);
  signedIn.setCookie("k=" + base64Encode(message.revealData().subdata(0, 32)));
  EXPECT_EQ(signedIn.get("/fv/v1/root").status, 200);
  EXPECT_EQ(exchange.client.post("/sasl", "").status, 401) << "the exchange is over";
}

TEST(SignIn, WrongEvidenceIsRefusedAndNoMessageCanBeRepeated) {
  TestServer server;
  Exchange wrong(server, TestServer::user, "not the password");
  EXPECT_EQ(wrong.sendProof().status, 401);
  EXPECT_EQ(wrong.sendProof().status, 401);
  Exchange stranger(server, "nobody", TestServer::password);
  EXPECT_EQ(stranger.offer.status, 200) << "who exists is not told";
  EXPECT_EQ(stranger.sendProof().status, 401);
  Exchange early(server, TestServer::user, TestServer::password);
  EXPECT_EQ(early.client.post("/sasl", "").status, 400);
  EXPECT_EQ(early.sendProof().status, 401);
  HTTPClient client(server, false);
  EXPECT_EQ(client.post("/sasl", firstMessage("SRP", "garbage")).status, 400);
  EXPECT_EQ(client.get("/sasl").status, 405);
  EXPECT_EQ(client.post("/sasl", std::string(100'000, 'x')).status, 413);
}

TEST(SignIn, OnlyARefusedMechanismIs401AtOnce) {
  TestServer server([](ServerOptions& options) { options.mechanisms = {"SRP", "PLAIN"}; });
  HTTPClient client(server, false);
  HTTPAnswer refused = client.post("/sasl", firstMessage("CRAM-MD5", "x"));
  EXPECT_EQ(refused.status, 401);
  EXPECT_EQ(refused.field("X-SASL-Mechanisms"), "SRP PLAIN");
  server.restart([](ServerOptions& options) { options.mechanisms = {"SRP"}; });
  refused = client.post("/sasl", plainMessage(TestServer::user, TestServer::password));
  EXPECT_EQ(refused.status, 401);
  EXPECT_EQ(refused.field("X-SASL-Mechanisms"), "SRP");
}

TEST(SignIn, PlainGivesABareCookie) {
  TestServer server([](ServerOptions& options) { options.mechanisms = {"PLAIN"}; });
  HTTPClient client(server, false);
  HTTPAnswer answer = client.post("/sasl", plainMessage(TestServer::user, TestServer::password));
  EXPECT_EQ(answer.status, 200);
  EXPECT_THAT(answer.field("Set-Cookie"), testing::MatchesRegex("k=[A-Za-z0-9+/]{43}="));
  client.setCookie(answer.field("Set-Cookie"));
  EXPECT_EQ(client.get("/fv/v1/root").status, 200);
  EXPECT_EQ(client.post("/sasl", plainMessage(TestServer::user, "wrong")).status, 401);
  EXPECT_EQ(client.post("/sasl", plainMessage("nobody", TestServer::password)).status, 401);
  EXPECT_EQ(client.post("/sasl", firstMessage("PLAIN", "ada")).status, 400);
  std::string asSomebodyElse = std::string("root") + '\0' + TestServer::user + '\0' + TestServer::password;
  EXPECT_EQ(client.post("/sasl", firstMessage("PLAIN", asSomebodyElse)).status, 401);
}

TEST(AttemptLimiter, SpacesGuessesOutButForgets) {
  ManualClock clock;
  AttemptLimiter limiter(clock);
  for (int i = 0; i < 12; ++i) limiter.failed("ada", "192.0.2.1");
  auto first = limiter.delayForAttempt("ada", "192.0.2.1"), second = limiter.delayForAttempt("ada", "192.0.2.1");
  ASSERT_TRUE(first && second);
  EXPECT_GE(*second, *first + 8s) << "side by side is not faster than one after another";
  std::optional<Duration> last;
  for (int i = 0; i < 10; ++i) last = limiter.delayForAttempt("ada", "192.0.2.1");
  EXPECT_FALSE(last) << "who waits already is enough";
  EXPECT_LE(limiter.delayForAttempt("ada", "192.0.2.2"), 2s) << "nobody else is shut out";
  EXPECT_EQ(limiter.delayForAttempt("grace", "192.0.2.2"), 0s);
  limiter.succeeded("ada");
  EXPECT_EQ(limiter.delayForAttempt("ada", "192.0.2.2"), 0s);
  clock.advance(16min);
  EXPECT_EQ(limiter.delayForAttempt("ada", "192.0.2.1"), 0s);
}

TEST(SessionStore, KeepsSessionsInUseAndNoMoreThanItShould) {
  TemporaryDirectory folder;
  ManualClock clock;
  auto administration = Administration::open(folder.file("state"), clock);
  ASSERT_TRUE(administration);
  SessionStore& sessions = (*administration)->sessions();
  Secret used = *sessions.create("ada"), unused = *sessions.create("ada"), other = *sessions.create("grace");
  for (int day = 0; day < 40; ++day) {
    clock.advance(24h);
    EXPECT_EQ(sessions.user(used), "ada");
  }
  EXPECT_EQ(sessions.user(unused), std::nullopt);
  EXPECT_EQ(sessions.user(other), std::nullopt);
  for (const char* file : {"sessions.sqlite", "sessions.sqlite-wal"}) {
    EXPECT_EQ(readText(folder.file("state") + "/" + file).find(used.reveal()), std::string::npos);
  }
  clock.advance(1h);
  for (int i = 0; i < 256; ++i) ASSERT_TRUE(sessions.create("ada"));
  EXPECT_EQ(sessions.user(used), std::nullopt) << "the one unused for longest made room";
  EXPECT_EQ(sessions.revokeAll(), 256U);
}

TEST(Administration, UsersComeAndGo) {
  TemporaryDirectory folder;
  ManualClock clock;
  auto administration = Administration::open(folder.file("state"), clock);
  ASSERT_TRUE(administration);
  UserStore& users = (*administration)->users();
  std::string name = "Zoë /..% x";
  ASSERT_TRUE(users.add(name, Secret("one")));
  EXPECT_EQ(users.add(name, Secret("two")).error().code(), static_cast<int>(ServerErrorCode::AlreadyExists));
  EXPECT_EQ(users.names(), std::vector{name});
  EXPECT_TRUE(users.verify(name, Secret("one")));
  Secret session = *(*administration)->sessions().create(name);
  ASSERT_TRUE((*administration)->setPassword(name, Secret("two")));
  EXPECT_FALSE(users.verify(name, Secret("one")));
  EXPECT_EQ((*administration)->sessions().user(session), std::nullopt);
  ASSERT_TRUE((*administration)->removeUser(name));
  EXPECT_FALSE(users.verify(name, Secret("two")));
  EXPECT_EQ((*administration)->removeUser(name).error().code(), static_cast<int>(ServerErrorCode::NotFound));
  for (const std::string& bad : {std::string(), std::string(81, 'x'), std::string("a\nb"), std::string("\xff")}) {
    EXPECT_EQ(users.add(bad, Secret("x")).error().code(), static_cast<int>(ServerErrorCode::InvalidArgument));
  }
}

}  // namespace
}  // namespace florvane::test
