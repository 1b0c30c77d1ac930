#pragma once

#include "platform/Data.h"
#include "platform/Date.h"
#include "platform/URL.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace florvane {

// As field names compare: without regard to the case of ASCII letters.
bool equalIgnoringCase(std::string_view a, std::string_view b);

// Header fields in the order in which they were set; names compare without regard to case.
class HTTPHeaders {
 public:
  using Field = std::pair<std::string, std::string>;
  // The first field of that name; absent is not empty.
  std::optional<std::string> value(std::string_view name) const;
  // Replaces any field of that name.
  void set(std::string_view name, std::string_view value);
  void add(std::string_view name, std::string_view value) { fields_.emplace_back(name, value); }
  void remove(std::string_view name);
  const std::vector<Field>& fields() const { return fields_; }

 private:
  std::vector<Field> fields_;
};

// One HTTP request. No cache exists here, so every request goes to the server. Fields named Cookie print as their
// size only.
struct URLRequest {
  explicit URLRequest(URL requestUrl) : url(std::move(requestUrl)) {}

  URL url;
  std::string method = "GET";
  HTTPHeaders headers;
  std::optional<Data> body;
  // Longest silence (no byte either way) before the task fails with URLErrorTimedOut; zero means no limit.
  Duration timeoutInterval = std::chrono::seconds(60);

  std::string description() const;
};

// The head of an answer. Immutable.
class HTTPURLResponse {
 public:
  HTTPURLResponse(URL url, int statusCode, HTTPHeaders headers)
      : url_(std::move(url)), statusCode_(statusCode), headers_(std::move(headers)) {}
  const URL& url() const { return url_; }
  int statusCode() const { return statusCode_; }
  const HTTPHeaders& headers() const { return headers_; }
  std::optional<std::string> header(std::string_view name) const { return headers_.value(name); }
  // "<HTTPURLResponse: 0x... { URL: ... } { Status Code: 200 }>"; never the fields, which may hold secrets.
  std::string description() const;

 private:
  URL url_;
  int statusCode_;
  HTTPHeaders headers_;
};

}  // namespace florvane
