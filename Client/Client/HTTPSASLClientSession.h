#pragma once

#include "Client/Client/PinnedHTTPSSessionDelegate.h"
#include "Client/Client/UnauthHTTPSSessionDelegate.h"
#include "platform/Secret.h"
#include "platform/URLSession.h"
#include "sasl/SRPContext.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace florvane {

inline constexpr char HTTPSASLErrorDomain[] = "HTTPSASLErrorDomain";

// Codes in HTTPSASLErrorDomain; every error but the last carries its text.
enum HTTPSASLErrorCode : std::int64_t {
  HTTPSASLErrorAuthenticationFailed = 2,
  HTTPSASLErrorNoUsableMechanism = 3,
  HTTPSASLErrorServerNotTrusted = 4,
  HTTPSASLErrorOnlySRPOffered = 5,
  HTTPSASLErrorPlainFailed = 6,
  HTTPSASLErrorMissingCredentials = 7,
};

// What a successful exchange yields, and what a request travels with: the cookie, and the pin that came with it (null
// after PLAIN).
struct HTTPSASLAuthentication {
  Secret cookie;
  std::shared_ptr<PinnedHTTPSSessionDelegate> sessionDelegate;
};

// Obtains an authentication cookie by a SASL exchange over HTTPS: SRP, or PLAIN where the server refuses SRP and the
// system trusts its certificate. The exchange runs on a queue of its own; accessors are thread-safe. One exchange at a
// time: HTTPSASLClientSessionManager sees to that.
class HTTPSASLClientSession : public std::enable_shared_from_this<HTTPSASLClientSession> {
 public:
  // Called once, on the exchange's queue (at once when credentials are missing), with an error or what was obtained.
  // An answer of PLAIN with a cookie of another kind calls nobody.
  using AuthCompletionHandler =
      std::function<void(const std::optional<Error>& error, const HTTPSASLAuthentication* authentication)>;

  // Signs in at the URL's server. Errors: HTTPSASLErrorDomain (codes above), URLErrorDomain for transport.
  void startAuthWithURL(const URL& url, std::optional<std::string> username, std::optional<Secret> password,
                        AuthCompletionHandler completionHandler);
  void _startAuthWithURL(const URL& url, const std::string& mechanism, std::optional<std::string> username,
                         std::optional<Secret> password, AuthCompletionHandler completionHandler);

  // Sets the request's Cookie field and returns the cookie together with its pin, as one snapshot; absent, with the
  // request untouched, before authentication.
  std::optional<HTTPSASLAuthentication> addAuthenticationToRequest(URLRequest& request) const;
  // Takes over what was saved before. The pinned delegate stays when its certificate is the same.
  void restoreCachedAuthenticatedCookie(const std::optional<Secret>& cookie,
                                        const std::optional<Data>& andTrustedCertData);
  // Forgets cookie and pin if the cookie is still that one. True when it was.
  bool clearAuthenticationIfCookie(const Secret& cookie);

  std::optional<Secret> authenticatedCookie() const;
  // Null when not authenticated and after PLAIN.
  std::shared_ptr<PinnedHTTPSSessionDelegate> authenticatedSessionDelegate() const;
  // "SRP" or "PLAIN"; "" before the first exchange.
  std::string authMechanism() const;

 private:
  class ExchangeDelegate;

  void _authStep(const Data& message, int state);
  void authStepDidComplete(int state, const Data& data, const std::shared_ptr<const HTTPURLResponse>& response,
                           const std::optional<Error>& error);
  void _tryAuthFallbackIfAllowed(const HTTPURLResponse& response);
  void srpStep(const Data& body);
  void srpComplete(const Data& body);
  void plainStep(const HTTPURLResponse& response);
  void completeAuthWithError(const Error& error);
  void completeAuth(const HTTPSASLAuthentication& authentication);
  void endExchange();

  mutable std::mutex mutex_;  // guards the three that outlive the exchange
  std::optional<Secret> authenticatedCookie_;
  std::shared_ptr<PinnedHTTPSSessionDelegate> authenticatedSessionDelegate_;
  std::string authMechanism_;

  // Of the exchange in progress; touched by whoever starts it, then on its queue only.
  std::optional<URL> serverURL_, authURL_;
  std::optional<std::string> authUsername_;
  std::optional<Secret> authPassword_;
  AuthCompletionHandler authCompletionHandler_;
  std::shared_ptr<ExchangeDelegate> authDelegate_;
  URLSessionPtr authSession_;
  SRPContextPtr srpContext_;
};

}  // namespace florvane
