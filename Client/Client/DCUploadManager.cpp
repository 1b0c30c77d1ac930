#include "Client/Client/DCUploadManager.h"

#include "Client/Client/DCBackgroundSessionManager.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCServiceRegistry.h"
#include "common/FVFQueueManager.h"
#include "platform/Format.h"

#include <utility>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCUploadManager";

DCServiceRegistry<DCUploadManager>& registry() {
  static auto* shared = new DCServiceRegistry<DCUploadManager>;
  return *shared;
}

}  // namespace

DCUploadManager::Ptr DCUploadManager::uploadManagerForService(const std::shared_ptr<DCService>& service) {
  DCLogTrace("+[DCUploadManager uploadManagerForService:]", {{"service", service}});
  return registry().objectForKey(service->uniqueIdentifier(), [&] { return make(service); });
}

DCUploadManager::Ptr DCUploadManager::make(const std::shared_ptr<DCService>& service) {
  auto manager = std::make_shared<DCUploadManager>(service);
  manager->observe();
  return manager;
}

DCUploadManager::DCUploadManager(std::shared_ptr<DCService> service)
    : service_(std::move(service)),
      queue_(FVFQueueManager::sharedQueueManager().queueForServiceWithUniqueIdentifier(service_->uniqueIdentifier())),
      connectivityTracker_(DCConnectivityTracker::connectivityTrackerForService(service_)),
      signInQueue_(SerialQueue::create("quorl.florvane.upload-sign-in." + service_->uniqueIdentifier())) {
  DCLogTrace("-[DCUploadManager _initWithService:]", {{"service", service_}});
}

DCUploadManager::~DCUploadManager() { connectivityTracker_->removeDelegate(this); }

// What other processes do to the records of transfers that they made is heard of by these.
void DCUploadManager::observe() {
  connectivityTracker_->addDelegate(shared_from_this());
  auto check = [weak = weak_from_this()](const Notification&) {
    auto self = weak.lock();
    if (!self) return;
    std::lock_guard lock(self->mutex_);
    if (self->transfersOfOthers_ == 0 || std::exchange(self->isCheckQueued_, true)) return;
    self->queue_->dispatchAsynchronousBlock([weak] {
      if (auto manager = weak.lock()) manager->checkTransfersOfOthers();
    });
  };
  uploadsObservation_ = NotificationCenter::shared().addObserver(FlorvaneDidAddOrRemoveUploadsNotification, check);
  failuresObservation_ = NotificationCenter::shared().addObserver(FlorvaneUploadDidFailNotification, check);
}

DCDatabase& DCUploadManager::database() const { return *DCDatabase::databaseForService(service_); }

void DCUploadManager::setUploadDidEndHandler(EndHandler handler) {
  std::lock_guard lock(mutex_);
  endHandler_ = std::move(handler);
}

void DCUploadManager::setRestartHandler(std::function<void()> handler) {
  std::lock_guard lock(mutex_);
  restartHandler_ = std::move(handler);
}

bool DCUploadManager::isUploadingFile(const DCCachedFile& file) const {
  DCLogTrace("-[DCUploadManager isUploadingFile:]", {{"file", file.description()}});
  return _isUploadingFileAtPath(file.relativePath()->string());
}

bool DCUploadManager::_isUploadingFileAtPath(const std::string& path) const {
  std::lock_guard lock(mutex_);
  if (uploadTasks_.contains(path) || settling_.contains(path)) return true;
  if (auto handlers = uploadingFiles_.find(path); handlers != uploadingFiles_.end() && !handlers->second.empty()) {
    return true;
  }
  auto upload = database().knownUploadForPath(path);
  return upload && upload->taskIdentifier() && upload->sessionIdentifier();
}

std::shared_ptr<DCManagedUpload> DCUploadManager::uploadForItemAtPath(const std::string& path) const {
  DCLogTrace("-[DCUploadManager uploadForItemAtPath:]", {{"path", path}});
  return database().uploadForPath(path);
}

void DCUploadManager::cancelAllUploadTasks() {
  DCLogTrace("-[DCUploadManager cancelAllUploadTasks]");
  std::lock_guard lock(mutex_);
  const Error cancelled(URLErrorDomain, URLErrorCancelled);
  for (auto& [path, transfer] : uploadTasks_) {
    if (transfer.task) transfer.task->cancel();
  }
  // Those of earlier processes that this one has not taken on.
  for (const auto& upload : database().allUploads()) {
    const auto task = upload->taskIdentifier();
    const auto session = upload->sessionIdentifier();
    if (!task || !session || pathsByTask_.contains(taskKey(static_cast<std::uint64_t>(*task), *session))) continue;
    backgroundSessionManager()->tasksOfSession(*session, [identifier = static_cast<std::uint64_t>(*task)](
                                                             const Result<std::vector<URLSessionTaskPtr>>& tasks) {
      for (const auto& each : tasks ? *tasks : std::vector<URLSessionTaskPtr>()) {
        if (each->taskIdentifier() == identifier) each->cancel();
      }
    });
  }
  uploadTasks_.clear();
  pathsByTask_.clear();
  transfersOfOthers_ = 0;
  waitingForSignIn_.clear();
  signInTimer_.reset();
  Handlers all;
  for (auto& [path, handlers] : uploadingFiles_) {
    // What has ended already is told its own outcome.
    if (settling_.contains(path)) continue;
    for (auto& handler : handlers) all.push_back(std::move(handler));
    handlers.clear();
  }
  std::erase_if(uploadingFiles_, [](const auto& entry) { return entry.second.empty(); });
  callLater(std::move(all), cancelled);
}

// Bookkeeping

std::string DCUploadManager::describedHandlers(const std::string& subpath) const {
  Array list;
  if (auto handlers = uploadingFiles_.find(subpath); handlers != uploadingFiles_.end()) {
    for (const auto& handler : handlers->second) list.append(baseDescription("Block", &handler));
  }
  return DCStringFromCollection(list);
}

std::size_t DCUploadManager::_addHandlerToCallForItemAtSubpath(const std::optional<std::string>& subpath,
                                                               DCUploadCompletionHandler completionHandler) {
  DCAssert(subpath, kSource);
  if (!subpath) {
    Handlers handlers;
    handlers.push_back(std::move(completionHandler));
    callLater(std::move(handlers), Error(URLErrorDomain, URLErrorCancelled));
    return 0;
  }
  Handlers& handlers = uploadingFiles_[*subpath];
  handlers.push_back(std::move(completionHandler));
  const std::size_t count = handlers.size();
  DCLogDebug("%s: Pending completion handlers for item '%@': %@",
             "-[DCUploadManager _addHandlerToCallForItemAtSubpath:completionHandler:]", *subpath,
             describedHandlers(*subpath));
  return count;
}

bool DCUploadManager::_needsToStartUploadingItemAtSubpath(const std::optional<std::string>& subpath,
                                                          DCUploadCompletionHandler completionHandler) {
  const std::size_t count = _addHandlerToCallForItemAtSubpath(subpath, std::move(completionHandler));
  const bool needsToStart = count == 1;
  DCLogInfo("Will%@ start uploading item at '%@' due to %u pending completion handler(s)", needsToStart ? "" : " not",
            subpath, static_cast<unsigned>(count));
  return needsToStart;
}

DCUploadManager::Handlers DCUploadManager::_handlersToCallForItemAtSubpath(const std::string& subpath) {
  auto entry = uploadingFiles_.find(subpath);
  if (entry == uploadingFiles_.end()) return {};
  Handlers handlers = std::move(entry->second);
  uploadingFiles_.erase(entry);
  return handlers;
}

// Only the paths whose records went since the last look are looked at: with thousands of uploads under way, looking at
// all of them for each new one would take for ever.
void DCUploadManager::_removePendingCompletionHandlersForCompletedUploads() {
  for (const std::string& path : database().takePathsOfRemovedUploads()) {
    if (settling_.contains(path) || (!uploadingFiles_.contains(path) && !uploadTasks_.contains(path))) continue;
    if (!database().uploadForPath(path)) forgetUploadWithoutRecord(path);
  }
}

void DCUploadManager::forgetUploadWithoutRecord(const std::string& path) {
  DCLogInfo("Removing old completion handlers for path: %@", path);
  if (auto transfer = uploadTasks_.find(path); transfer != uploadTasks_.end()) {
    if (transfer->second.task) transfer->second.task->cancel();
    forgetTransfer(path);
  }
  waitingForSignIn_.erase(path);
  callLater(_handlersToCallForItemAtSubpath(path), Error(URLErrorDomain, URLErrorCancelled));
}

void DCUploadManager::callLater(Handlers handlers, const Error& error) {
  if (handlers.empty()) return;
  auto shared = std::make_shared<Handlers>(std::move(handlers));
  queue_->dispatchAsynchronousBlock([shared, error] {
    for (auto& handler : *shared) {
      if (handler) handler(error);
    }
  });
}

}  // namespace florvane
