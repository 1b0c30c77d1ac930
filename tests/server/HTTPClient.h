#pragma once

#include "platform/Value.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestServer.h"

#include <optional>
#include <string>
#include <vector>

namespace florvane::test {

struct HTTPAnswer {
  int status = 0;
  std::string header;  // all of it, as it came
  std::string body;

  // The value of a field, by its exact name; "" without one.
  std::string field(const std::string& name) const;
  // Body and metadata field as property lists; null when they are none.
  Value list() const;
  Dictionary metadata() const;
};

// Asks a test server by the program curl, the cookie of a session with every request.
class HTTPClient {
 public:
  explicit HTTPClient(TestServer& server, bool isSignedIn = true);

  // Further arguments of curl come before the URL.
  HTTPAnswer get(const std::string& target, std::vector<std::string> arguments = {});
  HTTPAnswer post(const std::string& target, const std::string& body, std::vector<std::string> arguments = {});
  // Identifiers and versions in hexadecimal, as they travel.
  struct Item {
    std::string identifier, version;
  };
  // With the version of its listing.
  Item share(const std::string& name);
  // As its parent's listing has it.
  std::optional<Item> child(const std::string& directory, const std::string& name);
  // Cookies that the server sets are kept and sent again.
  void keepCookies() { keepsCookies_ = true; }
  const std::string& cookie() const { return cookie_; }
  void setCookie(const std::string& cookie) { cookie_ = cookie; }

 private:
  HTTPAnswer request(const std::string& target, std::vector<std::string> arguments);

  TestServer& server_;
  TemporaryDirectory folder_;
  std::string cookie_;
  bool keepsCookies_ = false;
};

}  // namespace florvane::test
