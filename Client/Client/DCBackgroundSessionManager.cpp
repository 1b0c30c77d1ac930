#include "Client/Client/DCBackgroundSessionManager.h"

#include "Client/Client/DCBackgroundSessionIdentifier.h"
#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCPath.h"
#include "Client/Client/DCPreferences.h"
#include "Client/Client/DCRemoteDocumentManager.h"
#include "Client/Client/DCServiceRegistry.h"
#include "Client/Client/DCUploadAnswer.h"
#include "common/FVFGenerationIdentifierUtils.h"
#include "common/FVFQueueManager.h"
#include "platform/Format.h"

#include <utility>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCBackgroundSessionManager";
constexpr char kSeparator = '~';
// Far more than can end while a list of tasks is on its way.
constexpr std::size_t kMostEndedTasks = 256;

DCServiceRegistry<DCBackgroundSessionManager>& registry() {
  static auto* shared = new DCServiceRegistry<DCBackgroundSessionManager>;
  return *shared;
}

struct Settings {
  std::mutex mutex;  // guards the others
  DCBackgroundSessionManager::FinishUploadHandler finishUploadHandler;
  std::vector<std::string> relaunchCommand;
  static Settings& shared() {
    static auto* instance = new Settings;
    return *instance;
  }
};

std::shared_ptr<FVFDispatchQueue> queueOf(const DCService& service) {
  return FVFQueueManager::sharedQueueManager().queueForServiceWithUniqueIdentifier(service.uniqueIdentifier());
}

URLSessionConfiguration configurationFor(const std::string& sessionIdentifier) {
  auto configuration = URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(sessionIdentifier);
  configuration.sharedContainerIdentifier = DCAppGroupIdentifier;
  return configuration;
}

BackgroundTransferService transfersOf(const DCService& service) {
  const URL url = service.url();
  return {url.host(), url.effectivePort(), service.uniqueIdentifier() + kSeparator};
}

}  // namespace

std::string DCBackgroundSessionManager::sessionIdentifierForService(const DCService& service,
                                                                    const std::string& bundleIdentifier) {
  return DCBackgroundSessionIdentifier(service, bundleIdentifier);
}

std::optional<std::string> DCBackgroundSessionManager::serviceIdentifierFromBackgroundSessionIdentifier(
    const std::string& identifier) {
  const std::size_t separator = identifier.find(kSeparator);
  return separator == std::string::npos ? std::nullopt : std::optional(identifier.substr(0, separator));
}

std::optional<std::string> DCBackgroundSessionManager::bundleIdentifierFromBackgroundSessionIdentifier(
    const std::string& identifier) {
  const std::size_t separator = identifier.rfind(kSeparator);
  return separator == std::string::npos ? std::nullopt : std::optional(identifier.substr(separator + 1));
}

DCBackgroundSessionManager::Ptr DCBackgroundSessionManager::backgroundSessionManagerForService(
    const std::shared_ptr<DCService>& service, const std::optional<std::string>& bundleIdentifier) {
  DCLogTrace("+[DCBackgroundSessionManager backgroundSessionManagerForService:bundleIdentifier:]",
             {{"service", service}, {"bundleIdentifier", bundleIdentifier}});
  DCAssert(service, kSource);
  DCAssert(bundleIdentifier, kSource);
  if (!service || !bundleIdentifier) return nullptr;
  return registry().objectForKey(sessionIdentifierForService(*service, *bundleIdentifier), [&] {
    auto manager = std::make_shared<DCBackgroundSessionManager>(service, *bundleIdentifier);
    manager->open();
    return manager;
  });
}

void DCBackgroundSessionManager::removeInvalidatedSessionForService(const std::shared_ptr<DCService>& service,
                                                                    const std::string& bundleIdentifier) {
  DCLogTrace("+[DCBackgroundSessionManager removeInvalidatedSessionForService:bundleIdentifier:]",
             {{"service", service}, {"bundleIdentifier", bundleIdentifier}});
  registry().removeObjectForKey(sessionIdentifierForService(*service, bundleIdentifier));
}

void DCBackgroundSessionManager::setFinishUploadHandler(FinishUploadHandler handler) {
  auto& settings = Settings::shared();
  std::lock_guard lock(settings.mutex);
  settings.finishUploadHandler = std::move(handler);
}

void DCBackgroundSessionManager::setRelaunchCommand(std::vector<std::string> command) {
  auto& settings = Settings::shared();
  std::lock_guard lock(settings.mutex);
  settings.relaunchCommand = std::move(command);
}

Result<void> DCBackgroundSessionManager::removeCookiesOfService(const std::shared_ptr<DCService>& service) {
  DCLogTrace("+[DCBackgroundSessionManager removeCookiesOfService:]", {{"service", service}});
  auto session = BackgroundURLSession::create(
      configurationFor(sessionIdentifierForService(*service, DCMainBundleIdentifier())), nullptr);
  auto removed = session->removeCookie(transfersOf(*service));
  session->finishTasksAndInvalidate();
  return removed;
}

std::optional<Error> DCBackgroundSessionManager::reasonForTransfersInThisProcess() {
  return BackgroundURLSession::reasonForTransfersInThisProcess();
}

DCBackgroundSessionManager::DCBackgroundSessionManager(std::shared_ptr<DCService> service, std::string bundleIdentifier)
    : service_(std::move(service)),
      bundleIdentifier_(std::move(bundleIdentifier)),
      sessionIdentifier_(sessionIdentifierForService(*service_, bundleIdentifier_)) {
  DCLogTrace("-[DCBackgroundSessionManager initWithService:bundleIdentifier:]",
             {{"service", service_}, {"bundleIdentifier", bundleIdentifier_}});
}

DCBackgroundSessionManager::~DCBackgroundSessionManager() = default;

void DCBackgroundSessionManager::open() {
  auto configuration = configurationFor(sessionIdentifier_);
  {
    auto& settings = Settings::shared();
    std::lock_guard lock(settings.mutex);
    configuration.relaunchCommand = settings.relaunchCommand;
  }
  configuration.clock = &service_->clock();
  // Callbacks wait for the queue, so that nothing is told before this manager is complete when that queue makes it.
  backgroundSession_ =
      BackgroundURLSession::create(std::move(configuration), shared_from_this(), queueOf(*service_)->queue());
  auto& center = NotificationCenter::shared();
  cancelObservation_ = center.addObserver(DCBackgroundSessionManagerShouldCancelUploadNotification,
                                          [weak = weak_from_this()](const Notification& notification) {
                                            if (auto self = weak.lock()) self->cancelUpload(notification);
                                          });
  eventsObservation_ = center.addObserver(DCBackgroundSessionManagerShouldCallBackgroundEventsCompletionHandler,
                                          [weak = weak_from_this()](const Notification&) {
                                            if (auto self = weak.lock()) self->callBackgroundEventsCompletionHandler();
                                          });
  loginObservation_ =
      center.addObserver(DCPreferencesDidChangeNotification, [weak = weak_from_this()](const Notification&) {
        auto self = weak.lock();
        if (!self) return;
        // Giving the agent a cookie waits for it.
        queueOf(*self->service_)->dispatchAsynchronousBlock([weak] {
          if (auto manager = weak.lock()) manager->useNewAuthentication();
        });
      });
}

std::shared_ptr<DCDatabase> DCBackgroundSessionManager::database() const {
  return DCDatabase::databaseForService(service_);
}

std::shared_ptr<HTTPSASLClientSessionManager> DCBackgroundSessionManager::sessionManager() const {
  return HTTPSASLClientSessionManager::HTTPSASLClientSessionManagerForService(service_);
}

void DCBackgroundSessionManager::useNewAuthentication() {
  URLRequest request(service_->url());
  auto authentication = sessionManager()->clientSession()->addAuthenticationToRequest(request);
  if (!authentication) return;
  {
    std::lock_guard lock(mutex_);
    if (givenCookie_ && givenCookie_->reveal() == authentication->cookie.reveal()) return;
    givenCookie_ = authentication->cookie;
  }
  auto pin = authentication->sessionDelegate ? std::optional(authentication->sessionDelegate->trustedCertData())
                                             : std::nullopt;
  auto replaced = backgroundSession_->replaceCookie(transfersOf(*service_),
                                                    Secret(request.headers.value("Cookie").value_or("")), pin);
  if (!replaced) DCLogInfo("Could not give waiting uploads the new login: %@", replaced.error());
}

// Requests

void DCBackgroundSessionManager::handleEventsForBackgroundURLSessionWithServerRequestResponseHandler(
    ServerRequestResponseHandler handler) {
  DCLogTrace("-[DCBackgroundSessionManager handleEventsForBackgroundURLSessionWithServerRequestResponseHandler:]");
  std::lock_guard lock(mutex_);
  serverRequestResponseHandler_ = std::move(handler);
}

void DCBackgroundSessionManager::setServerRequest(const DCServerRequest::Ptr& request,
                                                  std::uint64_t forTaskIdentifier) {
  DCLogTrace("-[DCBackgroundSessionManager setServerRequest:forTaskIdentifier:]",
             {{"request", request->description()}, {"taskIdentifier", static_cast<std::int64_t>(forTaskIdentifier)}});
  std::lock_guard lock(mutex_);
  currentTasks_[forTaskIdentifier] = request;
}

DCServerRequest::Ptr DCBackgroundSessionManager::serverRequestForTaskIdentifier(std::uint64_t taskIdentifier) {
  DCLogTrace("-[DCBackgroundSessionManager serverRequestForTaskIdentifier:]",
             {{"taskIdentifier", static_cast<std::int64_t>(taskIdentifier)}});
  {
    std::lock_guard lock(mutex_);
    if (auto found = currentTasks_.find(taskIdentifier); found != currentTasks_.end()) return found->second;
  }
  if (!database()->uploadForTaskIdentifier(static_cast<std::int64_t>(taskIdentifier), sessionIdentifier_)) {
    DCLogInfo("No server request for task identifier %ld in session %@", static_cast<long>(taskIdentifier),
              sessionIdentifier_);
    return nullptr;
  }
  std::lock_guard lock(mutex_);
  auto& request = currentTasks_[taskIdentifier];
  if (!request) {
    request = DCServerRequest::make();
    DCServerRequestResponseHandler handler;
    if (serverRequestResponseHandler_) handler = serverRequestResponseHandler_;
    request->continueUploadForBackgroundURLSessionWithService(service_, backgroundSession_, std::move(handler));
  }
  return request;
}

BackgroundURLSessionPtr DCBackgroundSessionManager::sessionForIdentifier(const std::string& sessionIdentifier) {
  if (sessionIdentifier == sessionIdentifier_) return backgroundSession_;
  // Without a delegate: this process does not want to hear of another application's transfers.
  auto session = BackgroundURLSession::create(configurationFor(sessionIdentifier), nullptr);
  if (!session) DCLogInfo("Could not create session for identifier: %@", sessionIdentifier);
  return session;
}

void DCBackgroundSessionManager::tasksOfSession(
    const std::string& sessionIdentifier,
    std::function<void(const Result<std::vector<URLSessionTaskPtr>>& tasks)> handler) {
  auto session = sessionForIdentifier(sessionIdentifier);
  auto queue = queueOf(*service_);
  if (!session) {
    queue->dispatchAsynchronousBlock(
        [handler = std::move(handler)] { handler(Failure(Error(URLErrorDomain, URLErrorCannotConnectToHost))); });
    return;
  }
  session->getAllTasksWithCompletionHandler(
      [session, queue, isOwn = session == backgroundSession_, sessionIdentifier,
       handler = std::move(handler)](const Result<std::vector<URLSessionTaskPtr>>& tasks) {
        DCLogDebug("Got all tasks for session with identifier %@: %@", sessionIdentifier,
                   tasks ? format("%lu", static_cast<unsigned long>(tasks->size())) : tasks.error().description());
        queue->dispatchAsynchronousBlock([session, isOwn, tasks, handler] {
          handler(tasks);
          if (!isOwn) session->finishTasksAndInvalidate();
        });
      });
}

void DCBackgroundSessionManager::cancelUpload(std::uint64_t taskIdentifier, const std::string& sessionIdentifier,
                                              std::function<void(bool didCancel)> completionHandler) {
  DCLogTrace("-[DCBackgroundSessionManager cancelUploadWithTaskIdentifier:sessionIdentifier:completionHandler:]",
             {{"taskIdentifier", static_cast<std::int64_t>(taskIdentifier)}, {"sessionIdentifier", sessionIdentifier}});
  if (serviceIdentifierFromBackgroundSessionIdentifier(sessionIdentifier) != service_->uniqueIdentifier()) return;
  tasksOfSession(sessionIdentifier, [self = shared_from_this(), taskIdentifier, sessionIdentifier,
                                     completionHandler = std::move(completionHandler)](
                                        const Result<std::vector<URLSessionTaskPtr>>& tasks) {
    bool found = false;
    for (const auto& task : tasks ? *tasks : std::vector<URLSessionTaskPtr>()) {
      if (task->taskIdentifier() != taskIdentifier) continue;
      found = true;
      DCLogInfo("Cancelling cancelled task with identifier %ld in session %@", static_cast<long>(taskIdentifier),
                sessionIdentifier);
      task->cancel();
      auto upload =
          self->database()->uploadForTaskIdentifier(static_cast<std::int64_t>(taskIdentifier), sessionIdentifier);
      if (upload) (void)self->database()->removeCancelledUpload(upload);
    }
    if (tasks && !found) {
      // It has ended, so that no callback will find the mark.
      auto upload =
          self->database()->uploadForTaskIdentifier(static_cast<std::int64_t>(taskIdentifier), sessionIdentifier);
      if (upload && upload->cancelled()) (void)self->database()->removeCancelledUpload(upload);
    }
    if (completionHandler) completionHandler(found);
  });
}

void DCBackgroundSessionManager::cancelUpload(const Notification& notification) {
  if (notification.missedSome) return;  // the record's mark is found with the task's next callback
  auto taskIdentifier = notification.userInfo.integer(DCBackgroundSessionManagerTaskIdentifierKey);
  auto sessionIdentifier = notification.userInfo.string(DCBackgroundSessionManagerSessionIdentifierKey);
  DCLogInfo("Received should cancel upload notification with taskIdentifier %@ in session %@", taskIdentifier,
            sessionIdentifier);
  if (!taskIdentifier || !sessionIdentifier) {
    DCLogDebug("Not enough information to cancel upload: %@", DCStringFromCollection(notification.userInfo));
    return;
  }
  cancelUpload(static_cast<std::uint64_t>(*taskIdentifier), *sessionIdentifier, {});
}

bool DCBackgroundSessionManager::cancelTaskIfNecessary(const URLSessionTaskPtr& task) {
  auto upload =
      database()->uploadForTaskIdentifier(static_cast<std::int64_t>(task->taskIdentifier()), sessionIdentifier_);
  if (!upload || !upload->cancelled()) return false;
  DCLogInfo("Cancelling cancelled task with identifier %ld in session %@", static_cast<long>(task->taskIdentifier()),
            sessionIdentifier_);
  task->cancel();
  (void)database()->removeCancelledUpload(upload);
  DCServerRequest::Ptr request;
  {
    std::lock_guard lock(mutex_);
    if (auto found = currentTasks_.extract(task->taskIdentifier())) request = std::move(found.mapped());
  }
  // Whoever waits for it would take it for running for ever. Trust is asked for outside of the queue.
  if (request && request->hasResponseHandler()) {
    queueOf(*service_)->dispatchAsynchronousBlock([request, session = backgroundSession_, task] {
      request->didCompleteWithError(session, task, Error(URLErrorDomain, URLErrorCancelled));
    });
  }
  return true;
}

// The events of a relaunch

std::function<void()> DCBackgroundSessionManager::takeBackgroundEventsCompletionHandler() {
  std::lock_guard lock(mutex_);
  return std::exchange(backgroundEventsCompletionHandler_, nullptr);
}

void DCBackgroundSessionManager::setBackgroundEventsCompletionHandler(std::function<void()> handler) {
  {
    std::lock_guard lock(mutex_);
    if (!eventsAreFinished_) {
      backgroundEventsCompletionHandler_ = std::move(handler);
      return;
    }
    eventsAreFinished_ = false;
  }
  if (handler) handler();
}

void DCBackgroundSessionManager::didFinishEventsForBackgroundURLSession(SessionRef session) {
  if (session != backgroundSession_) return;
  auto handler = takeBackgroundEventsCompletionHandler();
  DCLogInfo("Background session did finish events for background URL session: %@. Calling completion handler: %@",
            session, handler ? std::optional<std::string>("handler") : std::nullopt);
  if (handler) {
    handler();
    return;
  }
  {
    std::lock_guard lock(mutex_);
    eventsAreFinished_ = true;
  }
  DCLogInfo("Background session posting notification");
  NotificationCenter::shared().post(DCBackgroundSessionManagerShouldCallBackgroundEventsCompletionHandler);
}

void DCBackgroundSessionManager::callBackgroundEventsCompletionHandler() {
  DCLogInfo("Background session received notification");
  auto handler = takeBackgroundEventsCompletionHandler();
  if (!handler) return;
  DCLogInfo("Background session did finish events from another process. Calling completion handler: %@", "handler");
  handler();
}

// Callbacks

bool DCBackgroundSessionManager::hasEnded(std::uint64_t taskIdentifier) const {
  std::lock_guard lock(mutex_);
  return endedTasks_.contains(taskIdentifier);
}

// A process was killed when it had made the task and before it could note that in the record: the record still says
// what it was about to send. Otherwise the task's end would be told to nobody.
void DCBackgroundSessionManager::adoptRecord(const URLSessionTaskPtr& task) {
  const auto* transfer = task->backgroundTransfer();
  if (!transfer || task->state() == URLSessionTaskState::Canceling) return;
  {
    std::lock_guard lock(mutex_);
    if (currentTasks_.contains(task->taskIdentifier()) || endedTasks_.contains(task->taskIdentifier())) return;
  }
  auto upload = database()->uploadForPath(transfer->path);
  const auto source = upload ? upload->fileURL() : std::nullopt;
  if (!source || upload->cancelled() || upload->isConflict() || upload->taskIdentifier()) return;
  if (upload->attempts().empty() || upload->sentGenerationIdentifier() != transfer->generationIdentifier) return;
  // A record that took the place of the task's is one of newer contents.
  auto present = FVFGenerationIdentifierUtils::versionIdentifierForFileWithURL(URL::fileURL(*source));
  if (!present || *present != transfer->generationIdentifier) return;
  (void)database()->performBatch([&] {
    upload->setTaskIdentifier(static_cast<std::int64_t>(task->taskIdentifier()));
    upload->setSessionIdentifier(sessionIdentifier_);
    upload->setGenerationIdentifier(transfer->generationIdentifier);
  });
}

template <typename... Args>
DCServerRequest::Ptr DCBackgroundSessionManager::requestForCallback(SessionRef session, TaskRef task, const char* text,
                                                                    const Args&... arguments) {
  if (cancelTaskIfNecessary(task) || session != backgroundSession_) return nullptr;
  if (text) DCLogInfo(text, arguments...);
  adoptRecord(task);
  return serverRequestForTaskIdentifier(task->taskIdentifier());
}

void DCBackgroundSessionManager::didBecomeInvalidWithError(SessionRef session, const std::optional<Error>& error) {
  if (session != backgroundSession_) return;
  DCLogInfo("Background session did become invalid with error: %@", error);
  if (auto bundle = bundleIdentifierFromBackgroundSessionIdentifier(session->configuration().identifier)) {
    removeInvalidatedSessionForService(service_, *bundle);
  }
}

void DCBackgroundSessionManager::didReceiveChallenge(SessionRef session, const URLAuthenticationChallenge& challenge,
                                                     const ChallengeCompletion& completionHandler) {
  DCLogInfo("Background session didReceiveChallenge: %@", challenge);
  auto pinned = sessionManager()->clientSession()->authenticatedSessionDelegate();
  if (pinned) {
    pinned->didReceiveChallenge(session, challenge, completionHandler);
  } else {
    completionHandler(ChallengeDisposition::PerformDefaultHandling, nullptr);
  }
}

void DCBackgroundSessionManager::didReceiveChallenge(SessionRef session, TaskRef task,
                                                     const URLAuthenticationChallenge& challenge,
                                                     const ChallengeCompletion& completionHandler) {
  auto request =
      requestForCallback(session, task, "Background session didReceiveChallenge: %@ for task: %@", challenge, task);
  if (request) {
    request->didReceiveChallenge(session, task, challenge, completionHandler);
  } else {
    completionHandler(ChallengeDisposition::PerformDefaultHandling, nullptr);
  }
}

void DCBackgroundSessionManager::didFinishDownloadingToURL(SessionRef session, TaskRef downloadTask,
                                                           const URL& location) {
  if (auto request =
          requestForCallback(session, downloadTask, "Background session task %@ did finish downloading to URL: %@",
                             downloadTask, location)) {
    request->didFinishDownloadingToURL(session, downloadTask, location);
  }
}

void DCBackgroundSessionManager::didWriteData(SessionRef session, TaskRef downloadTask, std::int64_t bytesWritten,
                                              std::int64_t totalBytesWritten, std::int64_t totalBytesExpectedToWrite) {
  if (auto request =
          requestForCallback(session, downloadTask, "Background session task %@ did write data", downloadTask)) {
    request->didWriteData(session, downloadTask, bytesWritten, totalBytesWritten, totalBytesExpectedToWrite);
  }
}

void DCBackgroundSessionManager::didResumeAtOffset(SessionRef session, TaskRef downloadTask, std::int64_t fileOffset,
                                                   std::int64_t expectedTotalBytes) {
  if (auto request = requestForCallback(session, downloadTask, nullptr)) {
    request->didResumeAtOffset(session, downloadTask, fileOffset, expectedTotalBytes);
  }
}

void DCBackgroundSessionManager::didSendBodyData(SessionRef session, TaskRef task, std::int64_t bytesSent,
                                                 std::int64_t totalBytesSent, std::int64_t totalBytesExpectedToSend) {
  if (auto request = requestForCallback(session, task, "Background session task %@ did send data: %lld of %lld", task,
                                        static_cast<long long>(totalBytesSent),
                                        static_cast<long long>(totalBytesExpectedToSend))) {
    request->didSendBodyData(session, task, bytesSent, totalBytesSent, totalBytesExpectedToSend);
  }
}

void DCBackgroundSessionManager::didReceiveData(SessionRef session, TaskRef dataTask, const Data& data) {
  if (auto request = requestForCallback(session, dataTask, "Background session task %@ did receive data", dataTask)) {
    request->didReceiveData(session, dataTask, data);
  }
}

void DCBackgroundSessionManager::didReceiveResponse(SessionRef session, TaskRef dataTask,
                                                    const HTTPURLResponse& response) {
  if (auto request = requestForCallback(session, dataTask, "Background session task %@ did receive response: %@",
                                        dataTask, response)) {
    request->didReceiveResponse(session, dataTask, response);
  }
}

DCServerRequestResponseHandler DCBackgroundSessionManager::handlerForTaskOfEarlierProcess() const {
  return [service = service_, sessionIdentifier = sessionIdentifier_](
             const std::optional<std::uint64_t>& taskIdentifier, const std::shared_ptr<const HTTPURLResponse>& response,
             const std::optional<URL>& location, const std::optional<Error>& error) {
    DCUploadAnswer answer(location);
    FinishUploadHandler finish;
    {
      auto& settings = Settings::shared();
      std::lock_guard lock(settings.mutex);
      finish = settings.finishUploadHandler;
    }
    if (!finish || !taskIdentifier) return;
    DCRemoteDocumentManager::remoteDocumentManagerForService(service)->handleResponse(
        response, location, error,
        [&](const FVFResponseContainer::Ptr& container, const std::optional<Error>& failure) {
          finish(service, *taskIdentifier, sessionIdentifier, container, failure);
        });
  };
}

void DCBackgroundSessionManager::didCompleteWithError(SessionRef session, TaskRef task,
                                                      const std::optional<Error>& error) {
  auto request =
      requestForCallback(session, task, "Background session task %@ did complete with error: %@", task, error);
  if (session == backgroundSession_) {
    std::lock_guard lock(mutex_);
    if (endedTasks_.insert(task->taskIdentifier()).second) endedTasksInOrder_.push_back(task->taskIdentifier());
    if (endedTasksInOrder_.size() > kMostEndedTasks) {
      endedTasks_.erase(endedTasksInOrder_.front());
      endedTasksInOrder_.pop_front();
    }
  }
  if (!request) return;
  if (!request->hasResponseHandler()) {
    request->continueUploadForBackgroundURLSessionWithService(service_, backgroundSession_,
                                                              handlerForTaskOfEarlierProcess());
  }
  request->didCompleteWithError(session, task, error);
  std::lock_guard lock(mutex_);
  currentTasks_.erase(task->taskIdentifier());
}

}  // namespace florvane
