#include "Client/Client/HTTPSASLClientSessionManager.h"

#include "Client/Client/DCLog.h"
#include "Client/Client/DCPreferences.h"
#include "Client/Client/DCServiceRegistry.h"
#include "platform/AccountStore.h"

#include <future>

namespace florvane {

namespace {

DCServiceRegistry<HTTPSASLClientSessionManager>& registry() {
  static auto* shared = new DCServiceRegistry<HTTPSASLClientSessionManager>;
  return *shared;
}

struct Credentials {
  std::optional<std::string> userName;
  std::optional<Secret> password;
};

// What cannot be read counts as missing; the exchange then says so.
Credentials credentialsOfAccount(const std::string& identifier) {
  Credentials credentials;
  auto store = AccountStore::shared();
  if (!store) {
    DCLogError("Could not open the account store: %@", store.error());
    return credentials;
  }
  auto account = (*store)->accountWithIdentifier(identifier);
  if (!account) {
    DCLogError("Could not read the account: %@", account.error());
  } else if (*account) {
    credentials.userName = (*account)->userName;
  }
  auto password = (*store)->credentials().password(identifier);
  if (password) {
    credentials.password = *password;
  } else {
    DCLogError("Could not read the password: %@", password.error());
  }
  return credentials;
}

std::optional<Data> pinOf(const HTTPSASLAuthentication& authentication) {
  if (!authentication.sessionDelegate) return std::nullopt;
  return authentication.sessionDelegate->trustedCertData();
}

}  // namespace

HTTPSASLClientSessionManager::Ptr HTTPSASLClientSessionManager::HTTPSASLClientSessionManagerForService(
    const std::shared_ptr<DCService>& service) {
  DCLogTrace("+[HTTPSASLClientSessionManager HTTPSASLClientSessionManagerForService:]", {{"service", service}});
  auto manager = registry().objectForKey(service->uniqueIdentifier(), [&] {
    auto made = std::make_shared<HTTPSASLClientSessionManager>(service, service->clock());
    made->subscribe();
    return made;
  });
  manager->restoreCachedCookieAndCertDataFromPreferences();
  auto pinned = manager->clientSession_->authenticatedSessionDelegate();
  DCLogDebug("Saved cookie %@, trustedCertData %@", manager->clientSession_->authenticatedCookie(),
             pinned ? std::optional(pinned->trustedCertData()) : std::nullopt);
  return manager;
}

HTTPSASLClientSessionManager::HTTPSASLClientSessionManager(std::shared_ptr<DCService> service, Clock& clock)
    : service_(std::move(service)), clientSession_(std::make_shared<HTTPSASLClientSession>()), clock_(clock) {
  DCLogTrace("-[HTTPSASLClientSessionManager initWithService:]", {{"service", service_}});
  restoreCachedCookieAndCertDataFromPreferences();
}

void HTTPSASLClientSessionManager::subscribe() {
  observation_ = NotificationCenter::shared().addObserver(DCPreferencesDidChangeNotification,
                                                          [weak = weak_from_this()](const Notification&) {
                                                            if (auto manager = weak.lock())
                                                              manager->defaultsDidChange();
                                                          });
}

void HTTPSASLClientSessionManager::defaultsDidChange() {
  DCLogTrace("-[HTTPSASLClientSessionManager defaultsDidChange:]");
  restoreCachedCookieAndCertDataFromPreferences();
}

void HTTPSASLClientSessionManager::restoreCachedCookieAndCertDataFromPreferences() {
  DCLogTrace("-[HTTPSASLClientSessionManager restoreCachedCookieAndCertDataFromPreferences]");
  std::lock_guard lock(stateMutex_);
  if (exchangeRunning_ || unsaved_) return;
  auto saved = DCPreferences::preferences()->authCookieAndTrustedCertDataForService(service_);
  clientSession_->restoreCachedAuthenticatedCookie(saved.cookie, saved.trustedCertData);
}

Result<void> HTTPSASLClientSessionManager::authenticateClientSessionWithError() {
  DCLogTrace("-[HTTPSASLClientSessionManager authenticateClientSessionWithError:]");
  std::lock_guard exchange(exchangeMutex_);
  restoreCachedCookieAndCertDataFromPreferences();
  if (clientSession_->authenticatedCookie()) return {};  // another caller or process has signed in meanwhile
  if (lastFailure_ && clock_.monotonicNow() - lastFailureTime_ < failureIsRepeatedFor) return Failure(*lastFailure_);
  auto result = runExchange();
  lastFailure_ = result ? std::nullopt : std::optional(result.error());
  lastFailureTime_ = clock_.monotonicNow();
  return result;
}

Result<void> HTTPSASLClientSessionManager::runExchange() {
  {
    std::lock_guard lock(stateMutex_);
    exchangeRunning_ = true;
  }
  Credentials credentials = credentialsOfAccount(service_->uniqueIdentifier());
  auto ended = std::make_shared<std::promise<std::optional<Error>>>();
  clientSession_->startAuthWithURL(service_->url(), std::move(credentials.userName), std::move(credentials.password),
                                   [self = shared_from_this(), ended](const std::optional<Error>& error,
                                                                      const HTTPSASLAuthentication* authentication) {
                                     self->exchangeDidEnd(authentication);
                                     ended->set_value(error);
                                   });
  auto error = ended->get_future().get();
  if (error) return Failure(*error);
  return {};
}

void HTTPSASLClientSessionManager::exchangeDidEnd(const HTTPSASLAuthentication* authentication) {
  std::lock_guard lock(stateMutex_);
  exchangeRunning_ = false;
  if (!authentication) return;
  auto pin = pinOf(*authentication);
  DCLogDebug("Saving new auth cookie %@, trustedCertData %@", authentication->cookie, pin);
  auto stored = DCPreferences::preferences()->setAuthCookie(authentication->cookie, pin, service_);
  unsaved_ = !stored;
}

void HTTPSASLClientSessionManager::clearAuthentication(const Secret& refusedCookie) {
  std::lock_guard lock(stateMutex_);
  if (clientSession_->clearAuthenticationIfCookie(refusedCookie)) unsaved_ = false;
  DCPreferences::preferences()->clearAuthCookieAndTrustedCertDataForService(service_, refusedCookie);
}

}  // namespace florvane
