#include "server/SASLEndpoint.h"

#include "platform/Crypto.h"
#include "platform/Encoding.h"
#include "platform/SystemLog.h"
#include "sasl/SRPSecurityLayer.h"
#include "sasl/SRPServerMechanism.h"

#include <algorithm>
#include <chrono>

namespace florvane {

namespace {

constexpr Duration kExchangeLifetime = std::chrono::minutes(1);
constexpr std::size_t kMaximumExchanges = 4096;
constexpr std::size_t kTokenLength = 16;
constexpr char kExchangeCookie[] = "fvsasl";
constexpr char kUnauthorized[] = "The user name or the password is wrong.";

std::span<const std::uint8_t> bytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

HTTPResponse octets(std::span<const std::uint8_t> message) {
  HTTPResponse response;
  response.fields.emplace_back("Content-Type", "application/octet-stream");
  response.body = Data(message);
  return response;
}

HTTPResponse internalFailure(const std::string& detail) {
  SystemLog::shared().write({3, "Signing in failed: " + detail, {}});
  return HTTPResponse::sentence(500, "Signing in failed on the server.");
}

// Begins a first message: registered mechanism names are upper-case letters, digits, "-" and "_". A further message of
// SRP begins with a length below 2^24, so with a zero byte.
std::optional<std::string_view> mechanismName(std::string_view body) {
  std::size_t end = body.find('\0');
  if (end == std::string_view::npos || end == 0 || end > 20) return std::nullopt;
  std::string_view name = body.substr(0, end);
  bool isLegal = std::ranges::all_of(
      name, [](char c) { return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_'; });
  return isLegal ? std::optional(name) : std::nullopt;
}

}  // namespace

SASLEndpoint::SASLEndpoint(std::vector<std::string> mechanisms, Administration& administration, Data certificateDER,
                           Clock& clock)
    : mechanisms_(std::move(mechanisms)),
      administration_(administration),
      certificateDER_(std::move(certificateDER)),
      clock_(clock),
      limiter_(clock) {}

SASLEndpoint::Answer SASLEndpoint::answer(const HTTPRequestHead& head, const Secret& body, const std::string& address) {
  std::optional<Exchange> exchange;
  for (std::string_view token : head.cookies(kExchangeCookie)) {
    if (!exchange) exchange = take(std::string(token));
  }
  std::string_view message = body.reveal();
  if (auto name = mechanismName(message)) return start(*name, message.substr(name->size() + 1), address);
  if (!exchange) return {HTTPResponse::sentence(401, "This exchange is unknown or has ended."), {}};
  if (exchange->isProved) {
    if (!message.empty()) return {HTTPResponse::sentence(400, "The last message of an exchange is empty."), {}};
    return {finish(std::move(*exchange)), {}};
  }
  return {proceed(std::move(*exchange), message), {}};
}

SASLEndpoint::Answer SASLEndpoint::start(std::string_view mechanism, std::string_view initialData,
                                         const std::string& address) {
  if (std::ranges::find(mechanisms_, mechanism) != mechanisms_.end()) {
    return mechanism == "SRP" ? startSRP(initialData, address) : plain(initialData, address);
  }
  HTTPResponse refusal = HTTPResponse::sentence(401, "This mechanism is not offered here.");
  std::string offered;
  for (const std::string& each : mechanisms_) offered += (offered.empty() ? "" : " ") + each;
  refusal.fields.emplace_back("X-SASL-Mechanisms", offered);
  return {refusal, {}};
}

SASLEndpoint::Answer SASLEndpoint::startSRP(std::string_view clientData, const std::string& address) {
  Exchange exchange;
  exchange.address = address;
  SRPServerSettings settings;
  settings.verifierRecord = [this](std::string_view name) { return administration_.users().record(name); };
  settings.unknownUserSecret = administration_.users().unknownUserSecret();
  std::span<const std::uint8_t> output;
  if (srp_server_mech_new(exchange.context, std::move(settings)) != 0) {
    return {internalFailure(srp_errdetail(exchange.context.get())), {}};
  }
  if (srp_server_mech_step(exchange.context.get(), bytes(clientData), &output) != SRPContinue) {
    return {HTTPResponse::sentence(400, "The first message of the exchange cannot be understood."), {}};
  }
  auto delay = limiter_.delayForAttempt(srp_authentication_id(*exchange.context), address);
  if (!delay) return {HTTPResponse::sentence(429, "Too many attempts to sign in; try again later."), {}};
  return {keep(std::move(exchange), output), *delay};
}

HTTPResponse SASLEndpoint::proceed(Exchange exchange, std::string_view message) {
  std::span<const std::uint8_t> output;
  const std::string& user = srp_authentication_id(*exchange.context);
  int result = srp_server_mech_step(exchange.context.get(), bytes(message), &output);
  if (result == SRPAuthenticationFailed) {
    limiter_.failed(user, exchange.address);
    return HTTPResponse::sentence(401, kUnauthorized);
  }
  if (result != SRPDone) {
    return HTTPResponse::sentence(400, "The exchange ended: " + srp_errdetail(exchange.context.get()));
  }
  limiter_.succeeded(user);
  exchange.isProved = true;
  return keep(std::move(exchange), output);
}

HTTPResponse SASLEndpoint::finish(Exchange exchange) {
  auto key = administration_.sessions().create(srp_authentication_id(*exchange.context));
  if (!key) return internalFailure(key.error().localizedDescription());
  std::string text(key->reveal());
  text.append(certificateDER_.view());
  Secret plaintext(text);
  std::fill(text.begin(), text.end(), '\0');
  std::span<const std::uint8_t> packet;
  if (srp_encode(exchange.context.get(), bytes(plaintext.reveal()), &packet) != 0) {
    return internalFailure(srp_errdetail(exchange.context.get()));
  }
  return octets(packet);
}

SASLEndpoint::Answer SASLEndpoint::plain(std::string_view message, const std::string& address) {
  std::size_t first = message.find('\0');
  std::size_t second = first == std::string_view::npos ? first : message.find('\0', first + 1);
  if (second == std::string_view::npos || message.find('\0', second + 1) != std::string_view::npos) {
    return {HTTPResponse::sentence(400, "The message of the mechanism PLAIN cannot be understood."), {}};
  }
  std::string_view authorization = message.substr(0, first);
  std::string user(message.substr(first + 1, second - first - 1));
  auto delay = limiter_.delayForAttempt(user, address);
  if (!delay) return {HTTPResponse::sentence(429, "Too many attempts to sign in; try again later."), {}};
  bool isRight = administration_.users().verify(user, Secret(message.substr(second + 1)));
  if (!isRight || (!authorization.empty() && authorization != user)) {
    limiter_.failed(user, address);
    return {HTTPResponse::sentence(401, kUnauthorized), *delay};
  }
  limiter_.succeeded(user);
  auto key = administration_.sessions().create(user);
  if (!key) return {internalFailure(key.error().localizedDescription()), *delay};
  HTTPResponse response;
  // Without attributes: the client keeps this field's whole value as its cookie.
  response.fields.emplace_back("Set-Cookie", "k=" + base64Encode(key->revealData()));
  return {response, *delay};
}

HTTPResponse SASLEndpoint::keep(Exchange exchange, std::span<const std::uint8_t> message) {
  auto random = randomBytes(kTokenLength);
  if (!random) return internalFailure(random.error().localizedDescription());
  std::string token = hexEncode(*random);
  HTTPResponse response = octets(message);
  response.fields.emplace_back("Set-Cookie",
                               std::string(kExchangeCookie) + "=" + token + "; Path=/sasl; Secure; HttpOnly");
  MonotonicTime now = clock_.monotonicNow();
  if (!exchange.isProved) exchange.started = now;
  std::vector<Exchange> dropped;  // freed without the lock
  std::lock_guard lock(mutex_);
  while (!byAge_.empty()) {
    auto oldest = exchanges_.find(byAge_.front());
    if (exchanges_.size() < kMaximumExchanges && now - oldest->second.started < kExchangeLifetime) break;
    dropped.push_back(std::move(oldest->second));
    exchanges_.erase(oldest);
    byAge_.pop_front();
  }
  exchange.place = byAge_.insert(byAge_.end(), token);
  exchanges_.emplace(token, std::move(exchange));
  return response;
}

std::optional<SASLEndpoint::Exchange> SASLEndpoint::take(const std::string& token) {
  std::lock_guard lock(mutex_);
  auto found = exchanges_.find(token);
  if (found == exchanges_.end()) return std::nullopt;
  Exchange exchange = std::move(found->second);
  byAge_.erase(exchange.place);
  exchanges_.erase(found);
  if (clock_.monotonicNow() - exchange.started >= kExchangeLifetime) return std::nullopt;
  return exchange;
}

}  // namespace florvane
