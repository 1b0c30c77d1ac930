#pragma once

#include "platform/Clock.h"
#include "platform/Data.h"
#include "platform/Secret.h"
#include "sasl/SRPContext.h"
#include "server/Administration.h"
#include "server/AttemptLimiter.h"
#include "server/HTTPMessage.h"

#include <cstddef>
#include <list>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace florvane {

// What "/sasl" answers: signs users in by the mechanisms SRP and PLAIN. The messages of an SRP exchange are tied
// together by a cookie; an exchange leaves the table with each of its messages and comes back with the next cookie, so
// none can be repeated. Exchanges last a minute, and at most 4,096 are kept. Thread-safe; computes for long.
class SASLEndpoint {
 public:
  struct Answer {
    HTTPResponse response;
    Duration delay{};  // to be waited for before the response is sent
  };

  // The others outlive this.
  SASLEndpoint(std::vector<std::string> mechanisms, Administration& administration, Data certificateDER, Clock& clock);
  // The body of one POST, with the cookies that came with it and the peer's address.
  Answer answer(const HTTPRequestHead& head, const Secret& body, const std::string& address);

  static constexpr std::size_t kMaximumMessageSize = 64U << 10;

 private:
  struct Exchange {
    SRPContextPtr context;
    std::string address;
    MonotonicTime started;
    bool isProved = false;  // only the protected final message is left to send
    std::list<std::string>::iterator place;
  };

  Answer start(std::string_view mechanism, std::string_view initialData, const std::string& address);
  Answer startSRP(std::string_view clientData, const std::string& address);
  Answer plain(std::string_view message, const std::string& address);
  HTTPResponse proceed(Exchange exchange, std::string_view message);
  HTTPResponse finish(Exchange exchange);
  HTTPResponse keep(Exchange exchange, std::span<const std::uint8_t> message);
  std::optional<Exchange> take(const std::string& token);

  const std::vector<std::string> mechanisms_;
  Administration& administration_;
  const Data certificateDER_;
  Clock& clock_;
  AttemptLimiter limiter_;
  std::mutex mutex_;  // guards the two below
  std::unordered_map<std::string, Exchange> exchanges_;
  std::list<std::string> byAge_;  // oldest first
};

}  // namespace florvane
