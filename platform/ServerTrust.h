#pragma once

#include "platform/Data.h"
#include "platform/Error.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace florvane {

// Result of evaluating a server's certificate chain.
enum class TrustResult : std::uint32_t {
  Invalid = 0,
  Proceed = 1,  // trusted by an explicit setting of the user
  Deny = 3,
  Unspecified = 4,              // trusted through the system's anchors, host name or address included
  RecoverableTrustFailure = 5,  // unknown issuer, other host, expired
  FatalTrustFailure = 6,
  OtherError = 7,
};

// The certificates that a server showed in one handshake, and for which host. Immutable, thread-safe.
class ServerTrust {
 public:
  ServerTrust(std::string host, std::vector<Data> certificates);
  const std::string& host() const { return host_; }
  // DER, leaf first; may be empty.
  const std::vector<Data>& certificates() const { return certificates_; }
  // Checks chain, dates and host against the system's anchors ($SSL_CERT_FILE and $SSL_CERT_DIR honoured) and the
  // user's own list ("Trusted Certificates" in the container, PEM files: a leaf that is one of them gives Proceed).
  // Computed once. The error says that the evaluation itself failed.
  Result<TrustResult> evaluate() const;
  // The code in URLErrorDomain that tells best what evaluate() found wrong.
  std::int64_t errorCode() const;
  std::string description() const;

 private:
  struct Evaluation;
  std::string host_;
  std::vector<Data> certificates_;
  std::shared_ptr<Evaluation> evaluation_;
};

enum class ChallengeDisposition {
  UseCredential,
  PerformDefaultHandling,
  CancelAuthenticationChallenge,
  RejectProtectionSpace
};

// "Accept this server"; made of the trust that was judged.
struct URLCredential {
  std::shared_ptr<const ServerTrust> trust;
};

inline constexpr char AuthenticationMethodServerTrust[] = "AuthenticationMethodServerTrust";
inline constexpr char AuthenticationMethodHTTPBasic[] = "AuthenticationMethodHTTPBasic";

struct URLAuthenticationChallenge {
  std::string authenticationMethod;
  std::string host;
  std::uint16_t port = 0;
  std::shared_ptr<const ServerTrust> serverTrust;  // null for other methods
  std::string description() const;
};

// Must be called before the delegate's operation returns: the handshake is waiting. Not called means cancelled.
using ChallengeCompletion = std::function<void(ChallengeDisposition, const URLCredential*)>;

}  // namespace florvane
