#include "server/RequestParser.h"

#include <gtest/gtest.h>

namespace florvane {
namespace {

using Outcome = RequestParser::Outcome;

// Feeds the text in pieces of a size and answers how it ended.
Outcome feed(RequestParser& parser, std::string_view text, std::size_t size, std::string& body) {
  std::string waiting;
  Outcome outcome = Outcome::NeedMore;
  while (outcome != Outcome::Malformed && outcome != Outcome::HeadTooLarge && outcome != Outcome::Done) {
    auto step = parser.step({reinterpret_cast<const std::uint8_t*>(waiting.data()), waiting.size()}, body);
    waiting.erase(0, step.consumed);
    outcome = step.outcome;
    if (outcome == Outcome::Head && parser.isDone()) return Outcome::Done;
    if (outcome != Outcome::NeedMore) continue;
    if (text.empty()) break;
    waiting += text.substr(0, size);
    text.remove_prefix(std::min(size, text.size()));
  }
  return outcome;
}

TEST(RequestParser, ReadsBodiesInPiecesOfAnySize) {
  std::string plain = "POST /a?b HTTP/1.1\r\nHost: h\r\ncontent-length: 11\r\n\r\nhello world";
  std::string chunked =
      "POST /a?b HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n6;x=y\r\n world\r\n0\r\nLate: "
      "1\r\n\r\n";
  for (std::size_t size : {1UL, 2UL, 7UL, 1000UL}) {
    for (const std::string& text : {plain, chunked}) {
      RequestParser parser;
      std::string body;
      ASSERT_EQ(feed(parser, text, size, body), Outcome::Done) << text << size;
      EXPECT_EQ(body, "hello world");
      EXPECT_EQ(parser.head().method, "POST");
      EXPECT_EQ(parser.head().target, "/a?b");
      EXPECT_EQ(parser.head().contentLength.has_value(), text == plain);
      EXPECT_EQ(parser.head().fields.size(), 2U);
    }
  }
}

TEST(RequestParser, TakesAFieldOfOneMebibyteAndNoMore) {
  std::string field(1U << 20, 'x');
  std::string body;
  RequestParser parser;
  EXPECT_EQ(feed(parser, "GET / HTTP/1.1\r\nM: " + field + "\r\n\r\n", 16384, body), Outcome::Done);
  EXPECT_EQ(*parser.head().field("m"), field);
  RequestParser second;
  EXPECT_EQ(feed(second, "GET / HTTP/1.1\r\nM: " + field + "\r\nN: " + field + "\r\n\r\n", 16384, body),
            Outcome::HeadTooLarge);
  RequestParser endless;
  EXPECT_EQ(feed(endless, "GET /" + field + field, 16384, body), Outcome::HeadTooLarge);
  std::string many;
  for (int i = 0; i < 300; ++i) many += "A: b\r\n";
  RequestParser crowded;
  EXPECT_EQ(feed(crowded, "GET / HTTP/1.1\r\n" + many + "\r\n", 16384, body), Outcome::HeadTooLarge);
}

TEST(RequestParser, RefusesWhatIsAmbiguous) {
  for (std::string text :
       {"nonsense\r\n\r\n", "POST / HTTP/1.1\r\nContent-Length: 5\r\nContent-Length: 6\r\n\r\nabcdef",
        "POST / HTTP/1.1\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
        "POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n", "GET / HTTP/2.0\r\n\r\n"}) {
    RequestParser parser;
    std::string body;
    EXPECT_EQ(feed(parser, text, 1000, body), Outcome::Malformed) << text;
  }
  RequestParser parser;
  std::string body, extension(1U << 20, 'x');
  EXPECT_EQ(feed(parser, "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5;" + extension, 4096, body),
            Outcome::Malformed);
}

TEST(HTTPRequestHead, FindsCookiesAmongOthers) {
  HTTPRequestHead head;
  head.fields = {{"cookie", "a=1; k=first==;kk=no; k"}, {"Cookie", " k=second "}, {"Cookies", "k=no"}};
  EXPECT_EQ(head.cookies("k"), (std::vector<std::string_view>{"first==", "second"}));
}

TEST(HTTPResponse, NeverLetsAValueBreakTheHead) {
  HTTPResponse response = HTTPResponse::sentence(409, "No.");
  response.fields.emplace_back("X", "a\r\nSet-Cookie: k=evil");
  EXPECT_EQ(response.head(true).find("evil"), std::string::npos);
}

}  // namespace
}  // namespace florvane
