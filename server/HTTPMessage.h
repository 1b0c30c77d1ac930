#pragma once

#include "platform/Data.h"
#include "platform/Date.h"
#include "platform/FileSystem.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace florvane {

// What stands before a request's body.
struct HTTPRequestHead {
  std::string method;
  std::string target;  // as it was sent
  std::vector<std::pair<std::string, std::string>> fields;
  std::optional<std::uint64_t> contentLength;  // absent for a chunked body, 0 without one
  bool keepAlive = true;
  bool expectsContinue = false;

  // The first field of that name in any case; null when there is none. Valid while this head lives.
  const std::string* field(std::string_view name) const;
  // The values of all cookies of exactly that name, in their order.
  std::vector<std::string_view> cookies(std::string_view name) const;
};

// An answer; its body is bytes, or a file from its start when there is one.
struct HTTPResponse {
  unsigned status = 200;
  std::vector<std::pair<std::string, std::string>> fields;
  Data body;
  std::shared_ptr<const FileDescriptor> file;
  std::uint64_t fileSize = 0;

  // A refusal or failure with one sentence as body.
  static HTTPResponse sentence(unsigned status, std::string_view text);
  std::uint64_t bodySize() const { return file ? fileSize : body.size(); }
  // Status line and fields up to the empty line. Fields whose values would break the line are a programmer's fault and
  // are left out.
  std::string head(bool keepAlive) const;
};

// "Sun, 22 Nov 2026 20:41:00 GMT"
std::string httpDate(Date date);

}  // namespace florvane
