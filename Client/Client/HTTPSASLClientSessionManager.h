#pragma once

#include "Client/Client/DCService.h"
#include "Client/Client/HTTPSASLClientSession.h"
#include "platform/Clock.h"
#include "platform/NotificationCenter.h"

#include <memory>
#include <mutex>
#include <optional>

namespace florvane {

// One client session a service: runs its exchange for callers that wait, and shares cookie and pin with the other
// processes through the preferences. Thread-safe.
class HTTPSASLClientSessionManager : public std::enable_shared_from_this<HTTPSASLClientSessionManager> {
 public:
  using Ptr = std::shared_ptr<HTTPSASLClientSessionManager>;

  // The one of that service, made on first demand; what the preferences hold is taken over at every call.
  static Ptr HTTPSASLClientSessionManagerForService(const std::shared_ptr<DCService>& service);
  explicit HTTPSASLClientSessionManager(std::shared_ptr<DCService> service, Clock& clock = Clock::system());

  const std::shared_ptr<DCService>& service() const { return service_; }
  const std::shared_ptr<HTTPSASLClientSession>& clientSession() const { return clientSession_; }

  // For so long after a failure to sign in the same error is answered at once, so that a server that swallows
  // connections does not hold up every request in turn.
  static constexpr Duration failureIsRepeatedFor = std::chrono::seconds(5);
  // Signs in with the account's credentials and waits without limit; never to be called on the exchange's own queue.
  // Callers that come together share one exchange. Errors as of HTTPSASLClientSession::startAuthWithURL.
  Result<void> authenticateClientSessionWithError();
  // Reads cookie and pin from the preferences into the client session; not while an exchange runs.
  void restoreCachedCookieAndCertDataFromPreferences();
  // Forgets a refused cookie and its pin, here and in the preferences, unless another has taken its place meanwhile.
  void clearAuthentication(const Secret& refusedCookie);

 private:
  void subscribe();
  void defaultsDidChange();
  Result<void> runExchange();
  void exchangeDidEnd(const HTTPSASLAuthentication* authentication);

  const std::shared_ptr<DCService> service_;
  const std::shared_ptr<HTTPSASLClientSession> clientSession_;
  Clock& clock_;
  std::unique_ptr<NotificationCenter::Observation> observation_;

  std::mutex exchangeMutex_;  // held by whoever runs an exchange; guards the last failure
  std::optional<Error> lastFailure_;
  MonotonicTime lastFailureTime_;

  std::mutex stateMutex_;  // makes reading the preferences and applying them one step
  bool exchangeRunning_ = false;
  bool unsaved_ = false;  // the preferences could not be written, so memory wins
};

}  // namespace florvane
