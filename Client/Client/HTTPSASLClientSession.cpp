#include "Client/Client/HTTPSASLClientSession.h"

#include "Client/Client/DCLog.h"
#include "platform/Encoding.h"
#include "sasl/SRPClientMechanism.h"
#include "sasl/SRPSecurityLayer.h"

namespace florvane {

namespace {

constexpr char kMechanismSRP[] = "SRP";
constexpr char kMechanismPLAIN[] = "PLAIN";
constexpr std::size_t kCookieKeyLength = 32;
constexpr int kFirstServerError = 500;
constexpr Duration kTimeout = std::chrono::seconds(30);

// States of an exchange: which answer is waited for.
constexpr int kStateFirst = 0;
constexpr int kStateContinuation = 1;
constexpr int kStateFinal = 2;

template <typename... Args>
Error saslError(HTTPSASLErrorCode code, std::string_view text, const Args&... arguments) {
  return Error(HTTPSASLErrorDomain, code, format(text, arguments...));
}

Error notTrusted(TrustResult result, const std::optional<std::string>& mechanisms) {
  return saslError(HTTPSASLErrorServerNotTrusted, "Secure authentication failed (pkiEvaluationResult=%d, mechs=%@)",
                   result, mechanisms);
}

// Split at single spaces, so that an empty text is one empty name.
std::vector<std::string> splitAtSpaces(std::string_view text) {
  std::vector<std::string> names;
  while (true) {
    std::size_t space = text.find(' ');
    names.emplace_back(text.substr(0, space));
    if (space == std::string_view::npos) return names;
    text.remove_prefix(space + 1);
  }
}

}  // namespace

// The delegate of the exchange's HTTP session: trust as UnauthHTTPSSessionDelegate, and the answer of the one task that
// runs at a time. A message that holds the password leaves only on a connection that the system itself trusts.
class HTTPSASLClientSession::ExchangeDelegate : public UnauthHTTPSSessionDelegate {
 public:
  ExchangeDelegate(std::weak_ptr<HTTPSASLClientSession> owner, bool requiresTrust)
      : owner_(std::move(owner)), requiresTrust_(requiresTrust) {}

  void setState(int state) {
    state_ = state;
    data_.clear();
  }
  std::optional<Error> shouldSendRequest(SessionRef /*session*/, TaskRef /*task*/, const ServerTrust* trust) override {
    if (!requiresTrust_) return std::nullopt;
    auto result = trust ? trust->evaluate().value_or(TrustResult::Invalid) : TrustResult::Invalid;
    if (isTrusted(result)) return std::nullopt;
    return notTrusted(result, kMechanismPLAIN);
  }
  void didReceiveData(SessionRef /*session*/, TaskRef /*task*/, const Data& data) override { data_ += data.view(); }
  void didCompleteWithError(SessionRef /*session*/, TaskRef task, const std::optional<Error>& error) override {
    auto owner = owner_.lock();
    if (owner && owner->authDelegate_.get() == this) {
      owner->authStepDidComplete(state_, Data::fromString(data_), task->response(), error);
    }
  }

 private:
  const std::weak_ptr<HTTPSASLClientSession> owner_;
  const bool requiresTrust_;
  int state_ = kStateFirst;
  std::string data_;
};

void HTTPSASLClientSession::startAuthWithURL(const URL& url, std::optional<std::string> username,
                                             std::optional<Secret> password, AuthCompletionHandler completionHandler) {
  // The password is nobody's to trace.
  DCLogTrace("-[HTTPSASLClientSession startAuthWithURL:username:password:completionHandler:]",
             {{"url", url}, {"username", username}});
  _startAuthWithURL(url, kMechanismSRP, std::move(username), std::move(password), std::move(completionHandler));
}

void HTTPSASLClientSession::_startAuthWithURL(const URL& url, const std::string& mechanism,
                                              std::optional<std::string> username, std::optional<Secret> password,
                                              AuthCompletionHandler completionHandler) {
  if (!username || !password) {
    if (completionHandler) completionHandler(Error(HTTPSASLErrorDomain, HTTPSASLErrorMissingCredentials), nullptr);
    return;
  }
  DCLogDebug("Client starting");
  {
    std::lock_guard lock(mutex_);
    authenticatedCookie_.reset();
    authenticatedSessionDelegate_.reset();
    authMechanism_ = mechanism;
  }
  if (!completionHandler) DCLogError("completionHandler parameter is required");
  endExchange();
  serverURL_ = url;
  authURL_ = URL::fromString(format("%@://%@:%@/sasl", url.scheme(), bracketedHost(url.host()), url.effectivePort()));
  authUsername_ = std::move(username);
  authPassword_ = std::move(password);
  authCompletionHandler_ = std::move(completionHandler);
  authDelegate_ = std::make_shared<ExchangeDelegate>(weak_from_this(), mechanism == kMechanismPLAIN);
  authSession_ = URLSession::create(URLSessionConfiguration::ephemeralConfiguration(), authDelegate_);

  std::string initialData;
  if (mechanism == kMechanismSRP) {
    int result = srp_client_mech_new(srpContext_, authUsername_, authUsername_, authPassword_);
    if (result != 0) {
      completeAuthWithError(saslError(HTTPSASLErrorAuthenticationFailed, "srp_client_mech_new failed: %d %s\n", result,
                                      srp_errdetail(srpContext_.get())));
      return;
    }
    Data output;
    result = srp_nsdata_client_step(srpContext_.get(), Data(), &output);
    if (result != SRPContinue) {
      completeAuthWithError(
          saslError(HTTPSASLErrorAuthenticationFailed, "Unexpected srp_nsdata_client_step result %d", result));
      return;
    }
    DCLogDebug("initial client data: %@", output);
    initialData = output.view();
  } else if (mechanism == kMechanismPLAIN) {
    DCLogInfo("Attempting PLAIN authentication");
    initialData = *authUsername_ + '\0' + *authUsername_ + '\0' + std::string(authPassword_->reveal());
  } else {
    DCLogInfo("Unsupported client mechanism %@", mechanism);
    completeAuthWithError(saslError(HTTPSASLErrorNoUsableMechanism, "Unsupported client mechanism %@", mechanism));
    return;
  }
  _authStep(Data::fromString(mechanism + '\0' + initialData), kStateFirst);
}

void HTTPSASLClientSession::_authStep(const Data& message, int state) {
  URLRequest request(*authURL_);
  request.method = "POST";
  request.body = message;
  request.timeoutInterval = kTimeout;
  DCLogDebug("Sending request");
  authDelegate_->setState(state);
  authSession_->dataTask(std::move(request))->resume();
}

void HTTPSASLClientSession::authStepDidComplete(int state, const Data& data,
                                                const std::shared_ptr<const HTTPURLResponse>& response,
                                                const std::optional<Error>& error) {
  DCLogDebug("task complete, data = %@, response = %@, error = %@", data, response, error);
  if (error || !response) {
    completeAuthWithError(error ? *error : Error(URLErrorDomain, URLErrorCannotParseResponse));
    return;
  }
  std::string mechanism = authMechanism();
  if (int status = response->statusCode(); status != 200) {
    if (status == 401 && state == kStateFirst && mechanism == kMechanismSRP) {
      _tryAuthFallbackIfAllowed(*response);
    } else if (status == 401) {
      completeAuthWithError(saslError(HTTPSASLErrorAuthenticationFailed, "Unauthorized"));
    } else {
      const Error failed =
          saslError(HTTPSASLErrorAuthenticationFailed, "Authentication in progress failed with HTTP %ld", status);
      // A server that is in no state to answer has not refused anybody.
      completeAuthWithError(status < kFirstServerError ? failed
                                                       : failed.withUnderlyingError(Error(URLErrorDomain, status)));
    }
    return;
  }
  if (state == kStateFinal) {
    DCLogDebug("Received encrypted data %@", data);
    srpComplete(data);
  } else if (mechanism == kMechanismPLAIN) {
    plainStep(*response);
  } else {
    srpStep(data);
  }
}

void HTTPSASLClientSession::_tryAuthFallbackIfAllowed(const HTTPURLResponse& response) {
  auto header = response.header("X-SASL-Mechanisms");
  auto mechanisms = header ? splitAtSpaces(*header) : std::vector<std::string>();
  if (!authDelegate_->pkiIsTrusted()) {
    Error error = notTrusted(authDelegate_->pkiEvaluationResult(), header);
    DCLogInfo("%@", error.localizedDescription());
    completeAuthWithError(error);
  } else if (mechanisms.empty()) {
    DCLogInfo("No mechanisms to try");
    completeAuthWithError(saslError(HTTPSASLErrorNoUsableMechanism, "No mechanisms to try"));
  } else if (mechanisms.size() == 1 && mechanisms[0] == kMechanismSRP) {
    DCLogInfo("Fallback allowed, but no mechs to continue: %@", *header);
    completeAuthWithError(
        saslError(HTTPSASLErrorOnlySRPOffered,
                  "Fallback allowed from server trust, but no mechs enabled on server to continue: %@", *header));
  } else if (mechanisms.size() == 1) {
    DCLogInfo("Unrecognized individual mechanism: %@", *header);
    completeAuthWithError(saslError(HTTPSASLErrorNoUsableMechanism, "Unrecognized individual mechanism: %@", *header));
  } else if (std::find(mechanisms.begin(), mechanisms.end(), kMechanismPLAIN) != mechanisms.end()) {
    _startAuthWithURL(URL(*serverURL_), kMechanismPLAIN, authUsername_, authPassword_,
                      std::exchange(authCompletionHandler_, nullptr));
  } else {
    DCLogInfo("Unsupported fallback mechanisms: %@", *header);
    completeAuthWithError(saslError(HTTPSASLErrorNoUsableMechanism, "Unsupported fallback mechanisms %@", *header));
  }
}

void HTTPSASLClientSession::srpStep(const Data& body) {
  Data output;
  int result = srp_nsdata_client_step(srpContext_.get(), body, &output);
  DCLogDebug("srp_nsdata_clientstep result = %d, outData = %@\n", result, output);
  if (result == SRPContinue) {
    _authStep(output, kStateContinuation);
  } else if (result != SRPDone) {
    // The mechanism's own words (a wrong password, a spoofed server) say more than the number, so they follow it.
    DCLogInfo("srp_errdetail: %s", srp_errdetail(srpContext_.get()));
    completeAuthWithError(
        saslError(HTTPSASLErrorAuthenticationFailed, "Unexpected srp_nsdata_client_step result %d", result));
  } else if (!output.empty()) {
    completeAuthWithError(saslError(HTTPSASLErrorAuthenticationFailed,
                                    "Expected no outData from AUTH_OK client step, but got %@", output));
  } else {
    DCLogDebug("Authentication complete");
    _authStep(Data(), kStateFinal);
  }
}

void HTTPSASLClientSession::srpComplete(const Data& body) {
  Secret decoded;
  int result = srp_decode(srpContext_.get(), body.span(), &decoded);
  if (result != 0) {
    completeAuthWithError(saslError(HTTPSASLErrorAuthenticationFailed, "srp_decode failed: %d %s", result,
                                    srp_errdetail(srpContext_.get())));
    return;
  }
  if (decoded.size() < kCookieKeyLength) {
    completeAuthWithError(saslError(HTTPSASLErrorAuthenticationFailed,
                                    "srp_decode unexpectedly insufficient length: %d", kCookieKeyLength));
    return;
  }
  Secret key(decoded.reveal().substr(0, kCookieKeyLength));
  Data serverCertData = Data::fromString(decoded.reveal().substr(kCookieKeyLength));
  DCLogDebug("Decrypted key: %@", key);
  DCLogDebug("serverCertData = %@", serverCertData);
  completeAuth({Secret(format("k=%@", base64Encode(key.revealData()))),
                std::make_shared<PinnedHTTPSSessionDelegate>(std::move(serverCertData))});
}

void HTTPSASLClientSession::plainStep(const HTTPURLResponse& response) {
  DCLogDebug("Received plain response: %@", response);
  auto cookie = response.header("Set-Cookie");
  if (!cookie) {
    completeAuthWithError(saslError(HTTPSASLErrorPlainFailed, "Plain auth failed"));
  } else if (cookie->starts_with("k=")) {
    completeAuth({Secret(*cookie), nullptr});
  } else {
    // Nobody is told: who waits for this exchange goes on waiting.
    DCLogInfo("Unexpected authentication cookie: %@", Secret(*cookie));
  }
}

void HTTPSASLClientSession::completeAuthWithError(const Error& error) {
  auto handler = std::exchange(authCompletionHandler_, nullptr);
  endExchange();
  if (handler) handler(error, nullptr);
}

void HTTPSASLClientSession::completeAuth(const HTTPSASLAuthentication& authentication) {
  {
    std::lock_guard lock(mutex_);
    authenticatedCookie_ = authentication.cookie;
    authenticatedSessionDelegate_ = authentication.sessionDelegate;
  }
  auto handler = std::exchange(authCompletionHandler_, nullptr);
  endExchange();
  if (handler) handler(std::nullopt, &authentication);
}

void HTTPSASLClientSession::endExchange() {
  authPassword_.reset();
  authDelegate_.reset();
  srpContext_.reset();
  if (auto session = std::exchange(authSession_, nullptr)) session->invalidateAndCancel();
}

std::optional<HTTPSASLAuthentication> HTTPSASLClientSession::addAuthenticationToRequest(URLRequest& request) const {
  DCLogTrace("-[HTTPSASLClientSession addAuthenticationToRequest:]", {{"request", request}});
  std::optional<HTTPSASLAuthentication> authentication;
  {
    std::lock_guard lock(mutex_);
    if (authenticatedCookie_) authentication = {*authenticatedCookie_, authenticatedSessionDelegate_};
  }
  if (!authentication) {
    DCLogError("addAuthenticationToRequest: called before authentication complete");
    return std::nullopt;
  }
  DCLogDebug("cookie = %@", authentication->cookie);
  request.headers.set("Cookie", authentication->cookie.reveal());
  return authentication;
}

void HTTPSASLClientSession::restoreCachedAuthenticatedCookie(const std::optional<Secret>& cookie,
                                                             const std::optional<Data>& andTrustedCertData) {
  DCLogTrace("-[HTTPSASLClientSession restoreCachedAuthenticatedCookie:andTrustedCertData:]",
             {{"authenticatedCookie", cookie}, {"trustedCertData", andTrustedCertData}});
  DCLogDebug("Restoring previously saved auth cookie %@, trustedCertData: %@", cookie, andTrustedCertData);
  std::lock_guard lock(mutex_);
  authenticatedCookie_ = cookie;
  if (!andTrustedCertData) {
    authenticatedSessionDelegate_.reset();
  } else if (!authenticatedSessionDelegate_ ||
             authenticatedSessionDelegate_->trustedCertData() != *andTrustedCertData) {
    authenticatedSessionDelegate_ = std::make_shared<PinnedHTTPSSessionDelegate>(*andTrustedCertData);
  }
}

bool HTTPSASLClientSession::clearAuthenticationIfCookie(const Secret& cookie) {
  std::lock_guard lock(mutex_);
  if (!authenticatedCookie_ || !(*authenticatedCookie_ == cookie)) return false;
  authenticatedCookie_.reset();
  authenticatedSessionDelegate_.reset();
  return true;
}

std::optional<Secret> HTTPSASLClientSession::authenticatedCookie() const {
  std::lock_guard lock(mutex_);
  return authenticatedCookie_;
}

std::shared_ptr<PinnedHTTPSSessionDelegate> HTTPSASLClientSession::authenticatedSessionDelegate() const {
  std::lock_guard lock(mutex_);
  return authenticatedSessionDelegate_;
}

std::string HTTPSASLClientSession::authMechanism() const {
  std::lock_guard lock(mutex_);
  return authMechanism_;
}

}  // namespace florvane
