#include "Client/Client/HTTPSASLClientSession.h"
#include "tests/support/Certificates.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"

#include <cstdlib>
#include <future>

#include <gtest/gtest.h>

namespace florvane {
namespace {

using test::Certificate;
using test::ScriptedServer;

struct ExchangeResult {
  std::optional<Error> error;
  std::optional<Secret> cookie;
  bool pinned = false;
};

ExchangeResult signIn(const ScriptedServer& server) {
  auto session = std::make_shared<HTTPSASLClientSession>();
  auto promise = std::make_shared<std::promise<ExchangeResult>>();
  session->startAuthWithURL(*URL::fromString(server.url("")), "ada", Secret("open sesame"),
                            [promise](const std::optional<Error>& error, const HTTPSASLAuthentication* authentication) {
                              ExchangeResult result{error, std::nullopt, false};
                              if (authentication) result.cookie = authentication->cookie;
                              if (authentication) result.pinned = authentication->sessionDelegate != nullptr;
                              promise->set_value(std::move(result));
                            });
  return promise->get_future().get();
}

// Answers SRP with 401 and the header as given, and PLAIN with the fields as given.
ScriptedServer::Script refusing(const std::optional<std::string>& mechanisms, const std::string& plainFields,
                                int plainStatus = 200) {
  return ScriptedServer::answering([=](const ScriptedServer::Request& request) -> std::string {
    if (request.body.starts_with(std::string("PLAIN\0", 6))) {
      return "HTTP/1.1 " + std::to_string(plainStatus) + " X\r\nContent-Length: 0\r\n" + plainFields + "\r\n";
    }
    std::string header = mechanisms ? "X-SASL-Mechanisms: " + *mechanisms + "\r\n" : "";
    return "HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n" + header + "\r\n";
  });
}

// Makes the system trust one certificate, for this process.
class TrustedCertificate {
 public:
  TrustedCertificate() : certificate(test::makeCertificate({.authority = true})) {
    test::writeText(folder_.file("anchors.pem"), certificate.pem());
    setenv("SSL_CERT_FILE", folder_.file("anchors.pem").c_str(), 1);
  }
  const Certificate certificate;

 private:
  test::TemporaryDirectory folder_;
};

TEST(Fallback, EveryRowOfTheDecision) {
  TrustedCertificate trusted;
  struct Row {
    std::optional<std::string> mechanisms;
    std::int64_t code;
    std::string text;
  };
  for (const Row& row : std::vector<Row>{
           {std::nullopt, 3, "No mechanisms to try"},
           {"", 3, "Unrecognized individual mechanism: "},
           {"SRP", 5, "Fallback allowed from server trust, but no mechs enabled on server to continue: SRP"},
           {"PLAIN", 3, "Unrecognized individual mechanism: PLAIN"},
           {"SRP DIGEST-MD5", 3, "Unsupported fallback mechanisms SRP DIGEST-MD5"},
       }) {
    ScriptedServer server(refusing(row.mechanisms, "Set-Cookie: k=abc\r\n"), trusted.certificate);
    auto result = signIn(server);
    ASSERT_TRUE(result.error) << row.text;
    EXPECT_TRUE(result.error->is(HTTPSASLErrorDomain, row.code)) << result.error->description();
    EXPECT_EQ(result.error->localizedDescription(), row.text);
    EXPECT_EQ(server.requests().size(), 1U);
  }
}

TEST(Fallback, PlainSignsInWhereTheSystemTrustsTheServer) {
  TrustedCertificate trusted;
  ScriptedServer server(refusing("SRP PLAIN", "Set-Cookie: k=abc; Path=/\r\n"), trusted.certificate);
  auto result = signIn(server);
  ASSERT_FALSE(result.error) << result.error->description();
  EXPECT_EQ(result.cookie->reveal(), "k=abc; Path=/");
  EXPECT_FALSE(result.pinned);
  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[1].target, "/sasl");
  EXPECT_EQ(requests[1].body, std::string("PLAIN\0ada\0ada\0open sesame", 25));
}

TEST(Fallback, WhatAServerMayAnswerToPlain) {
  TrustedCertificate trusted;
  ScriptedServer noCookie(refusing("SRP PLAIN", ""), trusted.certificate);
  EXPECT_TRUE(signIn(noCookie).error->is(HTTPSASLErrorDomain, 6));
  ScriptedServer refused(refusing("SRP PLAIN", "X-SASL-Mechanisms: SRP PLAIN\r\n", 401), trusted.certificate);
  auto unauthorized = signIn(refused);
  EXPECT_TRUE(unauthorized.error->is(HTTPSASLErrorDomain, 2));
  EXPECT_EQ(unauthorized.error->localizedDescription(), "Unauthorized");
  EXPECT_EQ(refused.requests().size(), 2U);
  ScriptedServer broken(refusing("SRP PLAIN", "", 503), trusted.certificate);
  EXPECT_EQ(signIn(broken).error->localizedDescription(), "Authentication in progress failed with HTTP 503");
}

TEST(Fallback, AnUntrustedServerNeverSeesThePassword) {
  ScriptedServer server(refusing("SRP PLAIN", "Set-Cookie: k=abc\r\n"), test::makeCertificate());
  auto result = signIn(server);
  ASSERT_TRUE(result.error->is(HTTPSASLErrorDomain, 4));
  EXPECT_EQ(result.error->localizedDescription(),
            "Secure authentication failed (pkiEvaluationResult=5, mechs=SRP PLAIN)");
  EXPECT_EQ(server.requests().size(), 1U);
}

// The first connection is judged trusted, and the one that would carry the password goes to an impostor.
TEST(Fallback, AnImpostorOnTheSecondConnectionNeverSeesThePassword) {
  TrustedCertificate trusted;
  auto answerOnceAndClose = [](ScriptedServer::Connection& connection) {
    if (!connection.read()) return;
    connection.send("HTTP/1.1 401 X\r\nConnection: close\r\nContent-Length: 0\r\nX-SASL-Mechanisms: SRP PLAIN\r\n\r\n");
    connection.cut();
  };
  // Trusted for another host only, as a certificate is that somebody else owns.
  Certificate elsewhere = test::makeCertificate({.commonName = "elsewhere.example",
                                                 .alternativeNames = {"DNS:elsewhere.example"},
                                                 .issuer = &trusted.certificate});
  ScriptedServer impostor(answerOnceAndClose, elsewhere);
  auto result = signIn(impostor);
  ASSERT_TRUE(result.error->is(HTTPSASLErrorDomain, 4)) << result.error->description();
  for (const auto& request : impostor.requests()) EXPECT_EQ(request.body.find("open sesame"), std::string::npos);
}

TEST(Fallback, AContinuationThatIsRefusedNeverFallsBack) {
  TrustedCertificate trusted;
  ScriptedServer server(ScriptedServer::answering([](const ScriptedServer::Request& request) -> std::string {
                          if (request.body.starts_with("SRP")) return test::okAnswer("no message of the mechanism");
                          return "HTTP/1.1 401 X\r\nContent-Length: 0\r\nX-SASL-Mechanisms: SRP PLAIN\r\n\r\n";
                        }),
                        trusted.certificate);
  auto result = signIn(server);
  ASSERT_TRUE(result.error->is(HTTPSASLErrorDomain, 2));
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST(Fallback, TransportErrorsComeThroughUnchanged) {
  auto server = std::make_unique<ScriptedServer>([](ScriptedServer::Connection& connection) { connection.cut(true); },
                                                 test::makeCertificate());
  EXPECT_EQ(signIn(*server).error->domain(), URLErrorDomain);
}

}  // namespace
}  // namespace florvane
