#include "Client/Client/DCBackgroundSessionManager.h"
#include "Client/Client/DCDocumentManager+Handlers.h"
#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/DCError.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCUploadOutcome.h"
#include "platform/Exceptions.h"
#include "platform/FileSystem.h"

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCDocumentManager";

}  // namespace

DCUploadManager::Ptr DCDocumentManager::_uploadManager() {
  auto manager = DCUploadManager::uploadManagerForService(service_);
  static std::once_flag first;
  std::call_once(first, [] {
    DCBackgroundSessionManager::setFinishUploadHandler(
        [](const std::shared_ptr<DCService>& service, std::uint64_t taskIdentifier,
           const std::string& sessionIdentifier, const FVFResponseContainer::Ptr& container,
           const OptionalError& error) {
          documentManagerForService(service)->_finishUploadFileForTaskIdentifier(taskIdentifier, sessionIdentifier,
                                                                                 container, error);
        });
  });
  manager->setUploadDidEndHandler(
      [weak = weak_from_this()](const DCUploadManager::End& end, DCUploadCompletionHandler settled) {
        if (auto self = weak.lock()) {
          self->_uploadDidEnd(end, std::move(settled));
        } else {
          settled(end.error);
        }
      });
  manager->setRestartHandler([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->restartUploads();
  });
  return manager;
}

void DCDocumentManager::restartUploads() {
  DCLogTrace("-[DCDocumentManager restartUploads]");
  queue_->dispatchAsynchronousBlock([self = shared_from_this()] {
    // What the transfer agent has is known first, so that nothing is sent twice.
    self->_uploadManager()->recoverTasks([self](const OptionalError& error) {
      if (error) DCLogInfo("Could not ask for the background uploads: %@", *error);
      self->_restartUploads();
    });
  });
}

void DCDocumentManager::_restartUploads() {
  auto uploads = _uploadManager();
  database()->refresh();
  // Pauses after lost connections are over: whoever restarts has reason to.
  for (auto& [path, loss] : std::exchange(uploadLosses_, {})) {
    if (loss.work) queue_->dispatchAsynchronousBlock(loss.work);
  }
  std::lock_guard lock(uploads->lock());
  std::vector<std::string> gone;
  for (const auto& upload : database()->allUploads()) _restartUploadOfRecord(upload, gone);
  for (const std::string& path : gone) (void)database()->removeUploadForPath(path);
}

// Nobody can send it; whoever asks is told, and nobody waits for it.
void DCDocumentManager::_abandonUpload(DCManagedUpload& upload, const Error& error) {
  if (DCUploadOutcome::hasGivenUp(upload)) return;
  upload.setError(DCUploadOutcome::textOfError(error));
  upload.setNumberOfRetries(DCFileUploadMaxNumberOfRetries + 1);
  (void)database()->save();
  NotificationCenter::shared().post(FlorvaneUploadDidFailNotification);
}

void DCDocumentManager::_restartUploadOfRecord(const std::shared_ptr<DCManagedUpload>& upload,
                                               std::vector<std::string>& gone) {
  const auto path = upload->path();
  if (!path) return;
  DCCachedFile::Ptr file;
  try {
    file = DCCachedItemManager::fileAtRelativePath(DCRelativePath::relativePathWithString(*path, service_));
  } catch (const InvalidArgumentException& exception) {
    DCLogError("Ignoring an upload of '%@': %s", *path, exception.reason());
    _abandonUpload(*upload, DCError::errorInvalidArgumentWithUserInfo(DCError::userInfoWithArgument(*path)));
    return;
  }
  DCAssert(file, kSource);
  if (!file) {
    _abandonUpload(*upload, DCError::errorMistmatchedTypeWithUserInfo(DCError::userInfoWithArgument(*path)));
    return;
  }
  if (auto fullPath = file->fullPathIfKnown(); fullPath && !upload->taskIdentifier()) {
    // Whoever is writing the file at this moment is waited for.
    bool wasUndone = false;
    (void)cachedItemManager()->coordinateWritingItemAtURL(
        fullPath->url(), FileCoordinatorWritingOptions::None,
        [&](const URL&) { wasUndone = file->undoInterruptedWrite(); });
    if (wasUndone) return;
  }
  if (!_findUploadSource(*file, upload)) {
    gone.push_back(*path);
    return;
  }
  const bool isUnderWay = _uploadManager()->isUploadingFile(*file) || undecidedUploads_.contains(*path);
  if (isUnderWay || upload->isConflict() || DCUploadOutcome::hasGivenUp(*upload)) return;
  _startUploadingFile(file, nullptr);
}

void DCDocumentManager::handleEventsForBackgroundURLSession(const std::string& identifier,
                                                            std::function<void()> completionHandler) {
  DCLogTrace("-[DCDocumentManager handleEventsForBackgroundURLSession:completionHandler:]",
             {{"identifier", identifier},
              {"completionHandler",
               completionHandler ? std::optional(baseDescription("Block", &completionHandler)) : std::nullopt}});
  (void)_uploadManager();
  auto bundleIdentifier = DCBackgroundSessionManager::bundleIdentifierFromBackgroundSessionIdentifier(identifier);
  DCAssert(bundleIdentifier, kSource);
  if (!bundleIdentifier) return;
  // On the queue, so that no callback is told before both handlers are set.
  auto attach = [&] {
    auto manager = DCBackgroundSessionManager::backgroundSessionManagerForService(service_, bundleIdentifier);
    manager->setBackgroundEventsCompletionHandler(std::move(completionHandler));
    DCRemoteDocumentManager::remoteDocumentManagerForService(service_)->handleEventsForBackgroundURLSession(
        identifier,
        [weak = weak_from_this(), identifier](std::uint64_t taskIdentifier, const FVFResponseContainer::Ptr& container,
                                              const OptionalError& error) {
          if (auto self = weak.lock()) {
            self->_finishUploadFileForTaskIdentifier(taskIdentifier, identifier, container, error);
          }
        });
  };
  if (queue_->queue()->isCurrent()) {
    attach();
  } else {
    queue_->dispatchSynchronousBlock(attach);
  }
}

void DCDocumentManager::allPendingUploadsWithCompletionHandler(UploadsHandler completionHandler) {
  static constexpr char function[] = "-[DCDocumentManager allPendingUploadsWithCompletionHandler:]";
  auto handler = shareHandler(std::move(completionHandler));
  DCLogTrace(function, {{"userCompletionHandler", handlerText(*handler)}});
  queue_->dispatchAsynchronousBlock([self = shared_from_this(), handler] {
    callUserHandler(*self, handler, function, __LINE__, self->database()->allUploads());
  });
}

bool DCDocumentManager::hasPendingUploads() {
  DCLogTrace("-[DCDocumentManager hasPendingUploads]");
  bool hasAny = false;
  queue_->dispatchSynchronousBlock([&] { hasAny = !database()->uploadPaths().empty(); });
  return hasAny;
}

DCServerRequest::Ptr DCDocumentManager::downloadTaskForItemAtPath(const std::string& path) {
  static constexpr char function[] = "-[DCDocumentManager downloadTaskForItemAtPath:]";
  DCLogTrace(function, {{"path", path}});
  DCServerRequest::Ptr task;
  queue_->dispatchSynchronousBlock([&] {
    auto checks = _performPreOperationChecksWithPath(path, ItemClass::Any, false);
    _logFunction(function, path, checks.item, checks.relativePath);
    if (checks.error) return;
    task = DCDownloadManager::downloadManagerForService(service_)->downloadTaskForItemAtPath(
        checks.relativePath->string());
  });
  return task;
}

std::shared_ptr<DCManagedUpload> DCDocumentManager::uploadForItemAtPath(const std::string& path) {
  DCLogTrace("-[DCDocumentManager uploadForItemAtPath:]", {{"path", path}});
  std::shared_ptr<DCManagedUpload> upload;
  queue_->dispatchSynchronousBlock([&] { upload = _uploadManager()->uploadForItemAtPath(path); });
  return upload;
}

}  // namespace florvane
