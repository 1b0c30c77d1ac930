#include "server/RequestParser.h"

#include <boost/beast/http/basic_parser.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/rfc7230.hpp>

namespace florvane {

namespace {

namespace http = boost::beast::http;
using boost::beast::error_code;
using boost::beast::string_view;

constexpr std::size_t kMaximumFields = 256;
constexpr std::size_t kMaximumChunkHeaderSize = 16U << 10;

std::string text(string_view view) { return {view.data(), view.size()}; }

}  // namespace

// The library's own message type holds fields of at most 64 KiB, so the fields are kept here.
struct RequestParser::Parser final : http::basic_parser<true> {
  Parser() {
    header_limit(kMaximumRequestHeadSize);
    body_limit(boost::none);  // whoever takes the body knows how much it may be
  }

  void on_request_impl(http::verb, string_view method, string_view target, int, error_code&) override {
    head.method = text(method);
    head.target = text(target);
  }
  void on_response_impl(int, string_view, int, error_code&) override {}
  void on_field_impl(http::field field, string_view name, string_view value, error_code& error) override {
    if (is_header_done()) return;  // a field that trails a chunked body
    if (head.fields.size() >= kMaximumFields) {
      error = http::error::header_limit;
      return;
    }
    if (field == http::field::expect) head.expectsContinue = boost::beast::iequals(value, "100-continue");
    head.fields.emplace_back(text(name), text(value));
  }
  void on_header_impl(error_code&) override {
    if (!chunked()) head.contentLength = content_length() ? *content_length() : 0;
    head.keepAlive = keep_alive();
  }
  void on_body_init_impl(const boost::optional<std::uint64_t>&, error_code&) override {}
  std::size_t on_body_impl(string_view bytes, error_code&) override {
    body->append(bytes.data(), bytes.size());
    return bytes.size();
  }
  void on_chunk_header_impl(std::uint64_t, string_view, error_code&) override {}
  std::size_t on_chunk_body_impl(std::uint64_t, string_view bytes, error_code& error) override {
    return on_body_impl(bytes, error);
  }
  void on_finish_impl(error_code&) override {}

  HTTPRequestHead head;
  std::size_t headSize = 0;  // so far, without what is not used up yet
  std::string* body = nullptr;
};

RequestParser::RequestParser() : parser_(std::make_unique<Parser>()) {}
RequestParser::~RequestParser() = default;

RequestParser::Step RequestParser::step(std::span<const std::uint8_t> input, std::string& body) {
  bool hadHead = parser_->is_header_done();
  if (hadHead && parser_->is_done()) return {Outcome::Done};
  if (input.empty()) return {Outcome::NeedMore};
  parser_->body = &body;
  error_code error;
  std::size_t consumed = parser_->put(boost::asio::const_buffer(input.data(), input.size()), error);
  if (!hadHead) {
    parser_->headSize += consumed;
    std::size_t waiting = error == http::error::need_more ? input.size() - consumed : 0;
    if (parser_->headSize + waiting > kMaximumRequestHeadSize) error = http::error::header_limit;
  } else if (error == http::error::need_more && input.size() - consumed > kMaximumChunkHeaderSize) {
    return {Outcome::Malformed, consumed};
  }
  if (error == http::error::need_more) return {Outcome::NeedMore, consumed};
  if (error == http::error::header_limit) return {Outcome::HeadTooLarge, consumed};
  if (error) return {Outcome::Malformed, consumed};
  if (!hadHead) return {parser_->is_header_done() ? Outcome::Head : Outcome::NeedMore, consumed};
  return {parser_->is_done() ? Outcome::Done : Outcome::Body, consumed};
}

const HTTPRequestHead& RequestParser::head() const { return parser_->head; }
bool RequestParser::isDone() const { return parser_->is_done(); }

}  // namespace florvane
