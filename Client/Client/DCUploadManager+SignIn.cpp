#include "Client/Client/DCBackgroundSessionManager.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCUploadManager.h"
#include "Client/Client/HTTPSASLClientSessionManager.h"

namespace florvane {

namespace {

// The first refused login may only have been an old one.
constexpr int kRefusalsBeforeWaiting = 2;
constexpr std::int64_t kFirstServerError = 500;

// The server could not be asked, or was in no state to answer: no word on the login.
bool isWantOfConnection(const Error& error) {
  // Signing in says by the error below its own what kept it from asking.
  if (error.domain() == HTTPSASLErrorDomain && error.underlyingError()) {
    return isWantOfConnection(*error.underlyingError());
  }
  if (error.domain() != URLErrorDomain || error.userInfo().contains(URLErrorFailingPeerTrustKey)) return false;
  if (error.code() >= kFirstServerError) return true;
  return error.code() <= URLErrorTimedOut && error.code() >= URLErrorCannotParseResponse;
}

}  // namespace

bool DCUploadManager::isSignedIn() const {
  auto manager = HTTPSASLClientSessionManager::HTTPSASLClientSessionManagerForService(service_);
  return manager->clientSession()->authenticatedCookie().has_value();
}

void DCUploadManager::waitForSignIn(const Order& order) {
  waitingForSignIn_.insert_or_assign(order.file->relativePath()->string(), order);
  if (isSigningIn_ || signInTimer_) return;
  if (refusals_ < kRefusalsBeforeWaiting) {
    signIn();
  } else {
    DCLogInfo("Uploads wait before they sign in again, since the server refused the last logins");
    signInAfter(signInBackOff_.next());
  }
}

// On a queue of its own: an exchange with a server that does not answer takes long, and the service's queue serves
// readers of the cache meanwhile.
void DCUploadManager::signIn() {
  isSigningIn_ = true;
  signInQueue_->async([weak = weak_from_this(), service = service_, queue = queue_] {
    auto result = HTTPSASLClientSessionManager::HTTPSASLClientSessionManagerForService(service)
                      ->authenticateClientSessionWithError();
    std::optional<Error> error;
    if (!result) error = result.error();
    queue->dispatchAsynchronousBlock([weak, error] {
      if (auto self = weak.lock()) self->signInDidEnd(error);
    });
  });
}

void DCUploadManager::signInDidEnd(const std::optional<Error>& error) {
  std::lock_guard lock(mutex_);
  isSigningIn_ = false;
  if (!error) {
    if (refusals_ == 0) signInBackOff_.reset();
    if (!uploadTasks_.empty()) backgroundSessionManager()->useNewAuthentication();
    startWaiting();
    return;
  }
  if (waitingForSignIn_.empty()) return;
  if (isWantOfConnection(*error)) {
    DCLogInfo("Uploads wait for signing in: %@", *error);
    signInAfter(signInBackOff_.next());
    return;
  }
  auto waiting = std::exchange(waitingForSignIn_, {});
  for (const auto& [path, order] : waiting) failLater(order.file, *error);
}

void DCUploadManager::signInAfter(Duration pause) {
  Clock& clock = service_->clock();
  signInTimer_ = clock.schedule(clock.monotonicNow() + pause, {}, [weak = weak_from_this(), queue = queue_] {
    queue->dispatchAsynchronousBlock([weak] {
      auto self = weak.lock();
      if (!self) return;
      std::lock_guard lock(self->mutex_);
      self->signInTimer_.reset();
      if (self->waitingForSignIn_.empty() || self->isSigningIn_) return;
      self->signIn();
    });
  });
}

void DCUploadManager::startWaiting() {
  signInTimer_.reset();
  auto waiting = std::exchange(waitingForSignIn_, {});
  for (const auto& [waitingPath, waitingOrder] : waiting) {
    queue_->dispatchAsynchronousBlock([weak = weak_from_this(), order = waitingOrder] {
      auto self = weak.lock();
      if (!self) return;
      std::lock_guard lock(self->mutex_);
      const std::string path = order.file->relativePath()->string();
      if (self->uploadTasks_.contains(path) || self->settling_.contains(path)) return;
      if (!self->uploadForItemAtPath(path)) {
        self->callLater(self->_handlersToCallForItemAtSubpath(path), Error(URLErrorDomain, URLErrorCancelled));
        return;
      }
      self->start(order);
    });
  }
}

void DCUploadManager::didUpdateConnectionStatus(const std::shared_ptr<DCConnectivityTracker>& /*connectivityTracker*/,
                                                bool isConnected) {
  if (!isConnected) return;
  std::function<void()> restart;
  {
    std::lock_guard lock(mutex_);
    restart = restartHandler_;
    if (database().numberOfPendingUploads() == 0) return;
    if (!waitingForSignIn_.empty() && !isSigningIn_ && refusals_ < kRefusalsBeforeWaiting) {
      signInTimer_.reset();
      signIn();
    }
  }
  const URL url = service_->url();
  backgroundSessionManager()->backgroundSession()->retryWaitingTasks(url.host(), url.effectivePort());
  if (restart) restart();
}

}  // namespace florvane
