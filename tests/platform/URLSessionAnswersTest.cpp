#include "platform/HTTPCookieStore.h"
#include "tests/platform/URLSessionRecorder.h"

#include <gmock/gmock.h>

namespace florvane::test {
namespace {

using Calls = std::vector<std::string>;
using Connection = ScriptedServer::Connection;
using Request = ScriptedServer::Request;

class URLSessionAnswersTest : public URLSessionTest {
 protected:
  // What a data task and a download make of these bytes, after which the connection closes.
  std::pair<std::int64_t, std::int64_t> codesFor(const std::string& answer, bool reset = false) {
    ScriptedServer server([&](Connection& connection) {
      connection.read();
      connection.send(answer);
      if (reset) connection.cut(true);
    });
    auto session = makeSession();
    return {get(session, server.url("/")).code(), download(session, server.url("/")).code()};
  }
};

TEST_F(URLSessionAnswersTest, NeverTakesPartOfABodyForTheWhole) {
  auto lost = std::pair(URLErrorNetworkConnectionLost, URLErrorNetworkConnectionLost);
  EXPECT_EQ(codesFor("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n12345"), lost);
  EXPECT_EQ(codesFor("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n12345", true), lost);
  EXPECT_EQ(codesFor("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n12345\r\n"), lost);
  EXPECT_EQ(codesFor("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n12345\r\n", true), lost);
  EXPECT_EQ(codesFor("HTTP/1.1 200 OK\r\nX: no end of the head"), lost);
  EXPECT_EQ(codesFor(""), lost);
  auto fine = std::pair<std::int64_t, std::int64_t>(0, 0);
  EXPECT_EQ(codesFor("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n12345\r\n0\r\n\r\n"), fine);
  EXPECT_EQ(codesFor("HTTP/1.1 200 OK\r\n\r\nuntil the connection ends"), fine);
  // Bytes beyond the length are not the body's.
  ScriptedServer longer([](Connection& connection) {
    connection.read();
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n12345HTTP/1.1 999 Evil\r\n\r\n");
  });
  EXPECT_EQ(get(makeSession(), longer.url("/")).body, "12345");

  ScriptedServer overTLS(
      [](Connection& connection) {
        connection.read();
        connection.send("HTTP/1.1 200 OK\r\n\r\nuntil the line is cut");
        connection.cut();
      },
      makeCertificate());
  EXPECT_EQ(get(makeSession(), overTLS.url("/")).code(), URLErrorNetworkConnectionLost);
}

TEST_F(URLSessionAnswersTest, RefusesWhatIsNoAnswerOrTooLarge) {
  auto refused = std::pair(URLErrorCannotParseResponse, URLErrorCannotParseResponse);
  EXPECT_EQ(codesFor("SSH-2.0-OpenSSH_9.2\r\n"), refused);
  EXPECT_EQ(codesFor("HTTP/1.1 200 OK\r\nContent-Length: many\r\n\r\n"), refused);
  std::string manyFields = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; i < 300; ++i) manyFields += "X-" + std::to_string(i) + ": " + std::string(1016, 'h') + "\r\n";
  EXPECT_EQ(codesFor(manyFields + "\r\n"), refused);
  EXPECT_EQ(codesFor("HTTP/1.1 200 OK\r\nX: " + std::string(307'200, 'h') + "\r\n\r\n"), refused);

  ScriptedServer server(ScriptedServer::answering([](const Request&) { return okAnswer(std::string(2000, 'b')); }));
  URLSessionConfiguration configuration;
  configuration.maximumDataTaskBytes = 1999;
  auto session = makeSession(configuration);
  EXPECT_EQ(get(session, server.url("/")).code(), URLErrorDataLengthExceedsMaximum);
  EXPECT_EQ(download(session, server.url("/")).code(), 0);
}

TEST_F(URLSessionAnswersTest, SaysWhyNothingCouldBeReached) {
  std::uint16_t closedPort = ScriptedServer([](Connection&) {}).port();
  auto session = makeSession();
  EXPECT_EQ(get(session, "http://127.0.0.1:" + std::to_string(closedPort) + "/").code(), URLErrorCannotConnectToHost);
  EXPECT_EQ(get(session, "http://no-such-host.invalid/").code(), URLErrorDNSLookupFailed);
  ScriptedServer plain([](Connection& connection) { connection.send("not TLS at all, whatever was asked for\r\n"); });
  EXPECT_EQ(get(session, "https://127.0.0.1:" + std::to_string(plain.port()) + "/").code(),
            URLErrorSecureConnectionFailed);
  ScriptedServer hangsUp([](Connection&) {});
  EXPECT_EQ(get(session, "https://127.0.0.1:" + std::to_string(hangsUp.port()) + "/").code(),
            URLErrorNetworkConnectionLost);
}

TEST_F(URLSessionAnswersTest, FollowsRedirectsAtTheSameServerOnly) {
  ScriptedServer elsewhere(ScriptedServer::answering([](const Request&) { return okAnswer("stolen"); }));
  ScriptedServer server(ScriptedServer::answering([&](const Request& seen) {
    auto redirect = [](const std::string& to) {
      return "HTTP/1.1 302 Found\r\nLocation: " + to + "\r\nContent-Length: 5\r\n\r\nmoved";
    };
    if (seen.target == "/elsewhere") return redirect(elsewhere.url("/"));
    if (seen.target == "/loop") return redirect("/loop");
    if (seen.target.starts_with("/hop")) {
      int left = std::stoi(seen.target.substr(4));
      return redirect(left > 1 ? "hop" + std::to_string(left - 1) : "/end?q");
    }
    return okAnswer(seen.target + " " + (seen.headers.contains("cookie") ? seen.headers.at("cookie") : ""));
  }));
  auto session = makeSession();
  auto withCookie = [&](const std::string& target, const std::string& method) {
    URLRequest made = request(server.url(target), method);
    made.headers.set("Cookie", "k=1");
    return session->dataTask(made);
  };
  auto followed = withCookie("/hop5", "GET");
  EXPECT_EQ(run(followed).body, "/end?q k=1");
  EXPECT_EQ(followed->response()->url().absoluteString(), server.url("/end?q"));
  EXPECT_EQ(run(withCookie("/hop6", "GET")).code(), URLErrorHTTPTooManyRedirects);
  EXPECT_EQ(run(withCookie("/loop", "GET")).code(), URLErrorHTTPTooManyRedirects);

  for (const auto& task : {withCookie("/elsewhere", "GET"), withCookie("/hop1", "POST")}) {
    auto record = run(task);
    EXPECT_EQ(record.code(), 0);
    EXPECT_EQ(record.body, "moved");
    EXPECT_EQ(task->response()->statusCode(), 302);
  }
  EXPECT_EQ(elsewhere.connections(), 0);
}

TEST_F(URLSessionAnswersTest, NeverSendsAPostTwice) {
  // Every connection answers once and dies when it is used again.
  ScriptedServer server([](Connection& connection) {
    connection.read();
    connection.respond("first");
    connection.read();
    connection.cut();
  });
  URLSessionConfiguration configuration;
  configuration.connectionPool = "reused";
  auto session = makeSession(configuration);
  EXPECT_EQ(get(session, server.url("/")).body, "first");
  auto post = run(session->dataTask(request(server.url("/"), "POST", "once")));
  EXPECT_EQ(post.code(), URLErrorNetworkConnectionLost);
  int posts = 0;
  for (const auto& seen : server.requests()) posts += seen.method == "POST" ? 1 : 0;
  EXPECT_EQ(posts, 1);
  // A GET may be asked again, and is.
  EXPECT_EQ(get(session, server.url("/")).body, "first");
  EXPECT_EQ(get(session, server.url("/")).body, "first");
}

TEST_F(URLSessionAnswersTest, ReturnsCookiesOfAnEphemeralSessionWhileItLives) {
  ScriptedServer server(ScriptedServer::answering([](const Request& seen) {
    return okAnswer(seen.headers.contains("cookie") ? seen.headers.at("cookie") : "none",
                    "Set-Cookie: fvsasl=abc; Path=/sasl; HttpOnly\r\n");
  }));
  auto ephemeral = makeSession(URLSessionConfiguration::ephemeralConfiguration());
  EXPECT_EQ(get(ephemeral, server.url("/sasl")).body, "none");
  EXPECT_EQ(get(ephemeral, server.url("/sasl")).body, "fvsasl=abc");
  EXPECT_EQ(get(ephemeral, server.url("/other")).body, "none");
  EXPECT_EQ(get(makeSession(), server.url("/sasl")).body, "none");
}

TEST(HTTPCookieStoreTest, GivesCookiesBackWhereTheyBelong) {
  Date now = Date::fromMicroseconds(1'700'000'000'000'000);
  HTTPCookieStore store;
  auto url = [](const char* text) { return URL::fromString(text).value(); };
  auto set = [&](const char* from, const char* field) {
    HTTPHeaders headers;
    headers.add("set-cookie", field);
    store.store(headers, url(from), now);
  };
  auto field = [&](const char* to) { return store.cookieField(url(to), now).value_or("none"); };

  set("https://h/a/b", "root=1; Path=/; Secure; HttpOnly");
  set("https://h/a/b", "near=2; Max-Age=60");
  set("https://h/a/b", "foreign=3; Domain=example.org");
  set("https://h/a/b", "own=4; Domain=.H; Path=/own");
  set("http://h/", "insecure=5; Secure");
  set("https://h/", "no equals sign");
  EXPECT_EQ(field("https://h/a/c"), "near=2; root=1");
  EXPECT_EQ(field("https://h/a"), "near=2; root=1");
  EXPECT_EQ(field("https://h/ab"), "root=1");
  EXPECT_EQ(field("http://h/a/"), "near=2");
  EXPECT_EQ(field("https://sub.h/a/"), "none");
  EXPECT_EQ(field("https://h/own/x"), "own=4; root=1");
  set("https://h/", "root=9; Path=/; Expires=Thu, 01 Jan 1970 00:00:00 GMT");
  now = now + std::chrono::seconds(61);
  EXPECT_EQ(field("https://h/a/c"), "none");
}

}  // namespace
}  // namespace florvane::test
