#include "platform/Container.h"
#include "tests/platform/URLSessionRecorder.h"

#include <atomic>
#include <cstdlib>
#include <filesystem>

#include <gmock/gmock.h>

namespace florvane::test {
namespace {

using Connection = ScriptedServer::Connection;
using Request = ScriptedServer::Request;

ScriptedServer::Script ok() {
  return ScriptedServer::answering([](const Request&) { return okAnswer("ok"); });
}

TEST_F(URLSessionTest, AsksTheDelegateOncePerHandshakeAndShowsTheChainBeforeSending) {
  Certificate root = makeCertificate({.commonName = "root", .alternativeNames = {}, .authority = true});
  Certificate leaf = makeCertificate({.issuer = &root});
  ScriptedServer server(ok(), leaf, true);
  std::atomic<int> sent = 0;
  recorder_->mayBeSent = [&](const ServerTrust* trust) -> std::optional<Error> {
    EXPECT_TRUE(trust && trust->host() == "::1" && trust->certificates() == std::vector<Data>{leaf.der()});
    ++sent;
    return std::nullopt;
  };
  auto session = makeSession();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(get(session, server.url("/")).body, "ok");
  EXPECT_EQ(recorder_->challenges(), 1);
  EXPECT_EQ(sent, 3);
  EXPECT_EQ(server.connections(), 1);
}

TEST_F(URLSessionTest, EndsWithAnErrorOfTrustWhenTheServerIsRefused) {
  Certificate certificate = makeCertificate();
  ScriptedServer server(ok(), certificate);
  for (auto disposition : {ChallengeDisposition::CancelAuthenticationChallenge,
                           ChallengeDisposition::RejectProtectionSpace, ChallengeDisposition::PerformDefaultHandling}) {
    recorder_->judge = [&](const ServerTrust&) { return disposition; };
    auto record = get(makeSession(), server.url("/"));
    ASSERT_TRUE(record.error);
    EXPECT_EQ(record.error->domain(), URLErrorDomain);
    EXPECT_TRUE(record.code() <= URLErrorServerCertificateHasBadDate && record.code() >= -1206) << record.code();
    auto chain = record.error->userInfo().array(URLErrorFailingPeerTrustKey);
    ASSERT_TRUE(chain && chain->size() == 1);
    EXPECT_EQ((*chain)[0].asData(), certificate.der());
  }
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(URLSessionTest, KeepsTheRequestWhenTheDelegateForbidsItsConnection) {
  ScriptedServer server(ok(), makeCertificate());
  recorder_->mayBeSent = [](const ServerTrust*) { return Error("Forbidden", 7); };
  EXPECT_TRUE(get(makeSession(), server.url("/")).error->is("Forbidden", 7));
  EXPECT_TRUE(server.requests().empty());
}

// A connection that one pin accepted must not carry the cookie of a session whose pin would refuse it.
TEST_F(URLSessionTest, NeverUsesAConnectionOfAnotherPool) {
  Certificate certificate = makeCertificate();
  ScriptedServer server(ok(), certificate);
  auto withPool = [&](const std::string& name) {
    URLSessionConfiguration configuration;
    configuration.connectionPool = name;
    return makeSession(configuration);
  };
  EXPECT_EQ(get(withPool("pin one"), server.url("/")).body, "ok");
  recorder_->judge = [](const ServerTrust&) { return ChallengeDisposition::CancelAuthenticationChallenge; };
  EXPECT_EQ(get(withPool("pin one"), server.url("/")).body, "ok");
  for (const char* name : {"pin two", ""}) {
    auto record = get(withPool(name), server.url("/secret"));
    EXPECT_TRUE(record.error && record.error->userInfo().contains(URLErrorFailingPeerTrustKey)) << name;
  }
  EXPECT_EQ(server.requests().size(), 2U);
}

class ServerTrustTest : public ::testing::Test {
 protected:
  ServerTrustTest() {
    writeText(anchors_.file("anchors.pem"), root_.pem());
    Container::setDirectory(anchors_.path());
    setenv("SSL_CERT_FILE", anchors_.file("anchors.pem").c_str(), 1);
  }
  ~ServerTrustTest() override {
    unsetenv("SSL_CERT_FILE");
    Container::setDirectory({});
  }
  std::pair<TrustResult, std::int64_t> judge(const CertificateOptions& options, const std::string& host = "localhost") {
    ServerTrust trust(host, {makeCertificate(options).der()});
    return {trust.evaluate().value(), trust.errorCode()};
  }

  TemporaryDirectory anchors_;
  Certificate root_ = makeCertificate({.commonName = "root", .alternativeNames = {}, .authority = true});
};

TEST_F(ServerTrustTest, JudgesChainDatesAndHost) {
  using enum TrustResult;
  EXPECT_EQ(judge({.issuer = &root_}).first, Unspecified);
  EXPECT_EQ(judge({.issuer = &root_}, "::1").first, Unspecified);
  EXPECT_EQ(judge({.issuer = &root_}, "127.0.0.1").first, Unspecified);
  auto recoverable = [](std::int64_t code) { return std::pair(RecoverableTrustFailure, code); };
  EXPECT_EQ(judge({.issuer = &root_}, "127.0.0.2"), recoverable(URLErrorServerCertificateUntrusted));
  EXPECT_EQ(judge({.issuer = &root_}, "example.org"), recoverable(URLErrorServerCertificateUntrusted));
  EXPECT_EQ(judge({.issuer = &root_}, ""), recoverable(URLErrorServerCertificateUntrusted));
  EXPECT_EQ(judge({.validUntilSeconds = -60, .issuer = &root_}), recoverable(URLErrorServerCertificateHasBadDate));
  EXPECT_EQ(judge({.validFromSeconds = 3600, .issuer = &root_}), recoverable(URLErrorServerCertificateNotYetValid));
  EXPECT_EQ(judge({}), recoverable(URLErrorServerCertificateHasUnknownRoot));

  Certificate impostor = makeCertificate({.commonName = "root", .alternativeNames = {}, .authority = true});
  EXPECT_NE(judge({.issuer = &impostor}).first, Unspecified);
  Certificate noAuthority = makeCertificate({.issuer = &root_});
  ServerTrust chain("localhost", {makeCertificate({.issuer = &noAuthority}).der(), noAuthority.der()});
  EXPECT_GE(chain.evaluate().value(), RecoverableTrustFailure);
  EXPECT_FALSE(ServerTrust("localhost", {}).evaluate());
  EXPECT_FALSE(ServerTrust("localhost", {Data::fromString("no certificate")}).evaluate());
}

TEST_F(ServerTrustTest, TrustsWhatStandsInTheUsersListOrInChangedAnchors) {
  Certificate self = makeCertificate();
  std::filesystem::create_directory(anchors_.file("Trusted Certificates"));
  writeText(anchors_.file("Trusted Certificates/two.pem"), makeCertificate().pem() + self.pem());
  EXPECT_EQ(ServerTrust("anywhere", {self.der()}).evaluate().value(), TrustResult::Proceed);
  EXPECT_EQ(judge({}).first, TrustResult::RecoverableTrustFailure);

  Certificate other = makeCertificate({.commonName = "other", .alternativeNames = {}, .authority = true});
  EXPECT_EQ(judge({.issuer = &other}).first, TrustResult::RecoverableTrustFailure);
  writeText(anchors_.file("anchors.pem"), root_.pem() + other.pem());
  EXPECT_EQ(judge({.issuer = &other}).first, TrustResult::Unspecified);
}

}  // namespace
}  // namespace florvane::test
