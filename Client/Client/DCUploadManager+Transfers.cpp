#include "Client/Client/DCBackgroundSessionIdentifier.h"
#include "Client/Client/DCBackgroundSessionManager.h"
#include "Client/Client/DCCachedItemManager.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCTakeInLock.h"
#include "Client/Client/DCUploadManager.h"
#include "Client/Client/DCUploadOutcome.h"
#include "common/FVFMetadataUtils.h"
#include "platform/Format.h"
#include "platform/LargeFile.h"
#include "platform/ResourceValues.h"

#include <array>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCUploadManager";
constexpr std::array<std::string_view, 3> kAttributesToSend = {
    ResourceAddedToDirectoryDateKey, ResourceContentModificationDateKey, ResourceCreationDateKey};
constexpr std::array<std::string_view, 2> kAttributesOfSource = {ResourceFileSizeKey,
                                                                 ResourceContentModificationDateKey};

}  // namespace

std::string DCUploadManager::taskKey(std::uint64_t taskIdentifier, const std::string& sessionIdentifier) {
  return std::to_string(taskIdentifier) + " " + sessionIdentifier;
}

std::shared_ptr<DCBackgroundSessionManager> DCUploadManager::backgroundSessionManager() const {
  return DCBackgroundSessionManager::backgroundSessionManagerForService(service_, DCMainBundleIdentifier());
}

void DCUploadManager::forgetTransfer(const std::string& path) {
  auto transfer = uploadTasks_.find(path);
  if (transfer == uploadTasks_.end()) return;
  if (!transfer->second.isOwn) --transfersOfOthers_;
  pathsByTask_.erase(taskKey(transfer->second.taskIdentifier, transfer->second.sessionIdentifier));
  uploadTasks_.erase(transfer);
}

void DCUploadManager::uploadFile(const DCCachedFile::Ptr& file,
                                 const DCRemoteDocumentManager::Ptr& usingRemoteFileManager,
                                 const DCActivityInfo::Ptr& activityInfo, DCUploadCompletionHandler completionHandler) {
  DCLogTrace("-[DCUploadManager uploadFile:usingRemoteFileManager:activityInfo:completionHandler:]",
             {{"file", file->description()}, {"activityInfo", activityInfo}});
  (void)queue_->checkIsCurrent(kSource, __LINE__);
  std::lock_guard lock(mutex_);
  _removePendingCompletionHandlersForCompletedUploads();
  if (file->hasBeenRemoved()) DCAssertionFailed(kSource, __LINE__, "!file.hasBeenRemoved");
  const std::string path = file->relativePath()->string();
  const Order order{file, usingRemoteFileManager, activityInfo};
  if (settling_.contains(path)) {
    // What ended is being decided; whether it was these bytes is known afterwards.
    Repetition& repetition = afterSettling_[path];
    repetition.order = order;
    repetition.handlers.push_back(std::move(completionHandler));
    return;
  }
  if (waitingForSignIn_.contains(path)) {
    (void)_needsToStartUploadingItemAtSubpath(path, std::move(completionHandler));
    if (isSignedIn()) startWaiting();
    return;
  }
  // Another process saw to its end, to that of the item, or sends it by now.
  dropOutdatedTransfer(path);
  if (_isUploadingFileAtPath(path) && !replacesRunningUpload(file, path)) {
    const bool isFirst = _needsToStartUploadingItemAtSubpath(path, std::move(completionHandler));
    // A transfer that this process did not start has no handler of ours before.
    const auto transfer = uploadTasks_.find(path);
    const bool count = !isFirst || transfer == uploadTasks_.end() || !transfer->second.isOwn;
    if (!count) DCAssertionFailed(kSource, __LINE__, "count > 1");
    if (transfer == uploadTasks_.end()) joinTransferOfOthers(order);
    return;
  }
  (void)_needsToStartUploadingItemAtSubpath(path, std::move(completionHandler));
  start(order);
}

// What it comes to is heard of when its record changes; when it has ended before that can be heard, it is as if it had
// not been there.
void DCUploadManager::joinTransferOfOthers(const Order& order) {
  recoverTasks([weak = weak_from_this(), order](const std::optional<Error>& /*error*/) {
    auto self = weak.lock();
    if (!self) return;
    std::lock_guard lock(self->mutex_);
    const std::string path = order.file->relativePath()->string();
    const bool isUnderWay =
        self->uploadTasks_.contains(path) || self->settling_.contains(path) || self->waitingForSignIn_.contains(path);
    if (isUnderWay || !self->uploadingFiles_.contains(path)) return;
    const auto upload = self->uploadForItemAtPath(path);
    if (upload && !upload->task() && !order.file->hasBeenRemoved()) {
      self->start(order);
    } else {
      self->callLater(self->_handlersToCallForItemAtSubpath(path), Error(URLErrorDomain, URLErrorCancelled));
    }
  });
}

// Another process has taken the upload over, or ended it.
void DCUploadManager::dropOutdatedTransfer(const std::string& path) {
  const auto transfer = uploadTasks_.find(path);
  if (transfer == uploadTasks_.end()) return;
  const auto upload = uploadForItemAtPath(path);
  const DCUploadTask task{static_cast<std::int64_t>(transfer->second.taskIdentifier),
                          transfer->second.sessionIdentifier};
  if (!upload || upload->task() != task) dropTransfer(path);
}

// Whether there was an upload of older contents; it has been cancelled then.
bool DCUploadManager::replacesRunningUpload(const DCCachedFile::Ptr& file, const std::string& path) {
  auto local = file->_localGenerationIdentifier();
  if (!local) {
    // Another process may be giving the file its place as a document.
    const DCTakeInLock lock(service_);
    local = file->_localGenerationIdentifier();
  }
  auto upload = uploadForItemAtPath(path);
  // It has come to its end, or begun anew, in another process since.
  if (!upload || !upload->task()) return false;
  const auto sent = upload->generationIdentifier();
  if (!sent) DCAssertionFailed(kSource, __LINE__, "upload.generationIdentifier");
  if (!local) DCAssertionFailed(kSource, __LINE__, "file._localGenerationIdentifier");
  if (sent && local && *sent == *local) return false;
  return _cancelExistingUpload(upload, file);
}

// The mark and the record that takes the marked one's place are one save: a kill finds the file queued in any case.
// False when another process has begun anew meanwhile.
bool DCUploadManager::_cancelExistingUpload(const std::shared_ptr<DCManagedUpload>& upload,
                                            const DCCachedFile::Ptr& file) {
  const std::string path = file->relativePath()->string();
  const auto task = upload->task();
  const auto fullPath = file->fullPath();
  std::optional<URL> copy;
  bool isMarked = false;
  DCDatabase& database = this->database();
  (void)database.performBatch([&] {
    isMarked = !upload->isDeleted() && upload->path() == path && upload->task() == task;
    if (!isMarked) return;
    DCLogInfo("Marking existing upload as cancelled for file at '%@'", path);
    const std::string source = fullPath ? fullPath->string() : upload->fileURL().value_or("");
    const auto retries = upload->numberOfRetries();
    const auto base = upload->baseVersionIdentifier();
    const auto attempts = upload->attempts();
    copy = DCManagedUpload::temporaryUploadFileURLForItemAtPath(path, upload->generationIdentifier());
    upload->markAsCancelled();
    (void)database.saveUploadFileURL(URL::fileURL(source), path);
    auto successor = database.uploadForPath(path);
    if (!successor) return;
    successor->setNumberOfRetries(retries);
    successor->setBaseVersionIdentifier(base);
    // What was sent before may have been stored: its entry is still ours.
    for (const DCUploadAttempt& attempt : attempts) successor->addAttempt(attempt);
  });
  if (!isMarked) return false;
  cancelTransferOfRecord(upload, path);
  if (copy) (void)removeLargeFile(copy->path());
  return true;
}

void DCUploadManager::cancelTransferOfRecord(const std::shared_ptr<DCManagedUpload>& upload, const std::string& path) {
  const auto taskIdentifier = upload->taskIdentifier();
  const auto sessionIdentifier = upload->sessionIdentifier();
  auto transfer = uploadTasks_.find(path);
  if (transfer != uploadTasks_.end() && transfer->second.task) {
    DCLogInfo("Cancelled task using reference from _uploadTask for '%@'", path);
    auto task = transfer->second.task;
    forgetTransfer(path);
    task->cancel();
    (void)database().removeCancelledUpload(upload);
    return;
  }
  forgetTransfer(path);
  if (!taskIdentifier || !sessionIdentifier) {
    (void)database().removeCancelledUpload(upload);
    return;
  }
  backgroundSessionManager()->cancelUpload(
      static_cast<std::uint64_t>(*taskIdentifier), *sessionIdentifier,
      [path, taskIdentifier = *taskIdentifier, sessionIdentifier = *sessionIdentifier](bool didCancel) {
        DCLogInfo("Cancelled existing upload for '%@': %d", path, didCancel ? 1 : 0);
        if (didCancel) return;
        Dictionary userInfo;
        userInfo.set(DCBackgroundSessionManagerTaskIdentifierKey, taskIdentifier);
        userInfo.set(DCBackgroundSessionManagerSessionIdentifierKey, sessionIdentifier);
        NotificationCenter::shared().post(DCBackgroundSessionManagerShouldCancelUploadNotification, std::nullopt,
                                          userInfo);
      });
}

void DCUploadManager::start(const Order& order) {
  const std::string path = order.file->relativePath()->string();
  if (!isSignedIn()) {
    auto upload = uploadForItemAtPath(path);
    // A start like any other: the failure before it is counted, or a refused password would be tried for ever.
    if (upload && upload->error()) {
      upload->resetAndIncrementNumberOfRetries();
      (void)database().save();
    }
    // What was edited in its place has no record yet, and what waits is found by its record.
    if (const auto fullPath = order.file->fullPathIfKnown(); fullPath && !upload) {
      if (auto saved = database().saveUploadFileURL(fullPath->url(), path); !saved) {
        failLater(order.file, saved.error());
        return;
      }
    }
    waitForSignIn(order);
    return;
  }
  DCLogInfo("Starting upload of file at '%@'", path);
  identifyNewFile(*order.file);
  auto read = DCCachedItemManager::cachedItemManagerForService(service_)->coordinateReadingForUploadingItem(
      order.file,
      [&](const URL& source, const Data& generationIdentifier) { send(order, source, generationIdentifier); });
  if (read) return;
  if (auto upload = uploadForItemAtPath(path)) {
    upload->setNumberOfRetries(upload->numberOfRetries().value_or(0) + 1);
    upload->setError(DCUploadOutcome::textOfError(read.error()));
    (void)database().save();
  }
  failLater(order.file, read.error());
}

// Another process that takes in a listing shows it before it records which document is where; whoever looks in between
// would send a file as a new one that is none.
void DCUploadManager::identifyNewFile(DCCachedFile& file) const {
  if (file.documentIdentifier() || !file.parentContentsMetadata()) return;
  const DCTakeInLock lock(service_);
  if (file.documentIdentifier()) return;
  const auto entry = file.parentContentsMetadata();
  const auto identifier = entry ? entry->data(FVDocumentIdentifierKey) : std::nullopt;
  if (identifier && file.updateDocumentIdentifier(identifier)) return;
  const auto remoteMetadata = file.remoteMetadata();
  if (remoteMetadata && !remoteMetadata->empty())
    DCAssertionFailed(kSource, __LINE__, "file.remoteMetadata.count == 0");
  if (entry) DCAssertionFailed(kSource, __LINE__, "!file.parentContentsMetadata");
}

std::optional<Data> DCUploadManager::versionToReplace(const DCCachedFile& file, const DCManagedUpload& upload) {
  // Empty stands for a file that was new when it was written. The listing's own version is not asked for: it may be
  // somebody else's of a later time.
  if (auto base = upload.baseVersionIdentifier()) return base->empty() ? std::nullopt : base;
  return file.lastRemoteMetadataVersionIdentifier();
}

// What is sent is in the record before the task exists, so that its entry is recognised whatever is lost. It is on
// stable storage when recordTask() returns, before the first byte is sent.
DCUploadManager::Preparation DCUploadManager::prepareRecord(const Order& order, const URL& source,
                                                            const Data& generationIdentifier) {
  const std::string path = order.file->relativePath()->string();
  Preparation preparation;
  Dictionary& attributes = preparation.attributes;
  if (auto local = order.file->localMetadata()) {
    for (auto key : kAttributesToSend) {
      if (auto date = local->date(key)) attributes.set(key, *date);
    }
  }
  auto sourceValues = resourceValues(source.path(), kAttributesOfSource);
  const auto size = sourceValues ? sourceValues->integer(ResourceFileSizeKey) : std::nullopt;
  const auto date = sourceValues ? sourceValues->date(ResourceContentModificationDateKey) : std::nullopt;
  if (date) attributes.set(ResourceContentModificationDateKey, *date);
  DCDatabase& database = this->database();
  auto saved = database.performPreparingBatch([&] {
    auto upload = database.uploadForPath(path);
    if (!upload) {
      const auto fullPath = order.file->fullPathIfKnown();
      (void)database.saveUploadFileURL(fullPath ? fullPath->url() : source, path);
      upload = database.uploadForPath(path);
    }
    if (!upload) return;
    preparation.isTaken = upload->task().has_value();
    if (preparation.isTaken) return;
    upload->resetAndIncrementNumberOfRetries();
    upload->setBaseVersionIdentifier(versionToReplace(*order.file, *upload).value_or(Data()));
    if (size && date) upload->addAttempt({*size, *date, generationIdentifier});
    preparation.upload = upload;
  });
  if (!saved) preparation.error = saved.error();
  return preparation;
}

// Of two processes that have made a task for one file, the second takes its own back before it is sent.
bool DCUploadManager::recordTask(const std::string& path, std::uint64_t taskIdentifier,
                                 const Data& generationIdentifier) {
  DCDatabase& database = this->database();
  bool isTaken = false;
  // A record that cannot be written is found again by the path and the generation that the task carries.
  (void)database.performBatch([&] {
    auto upload = database.uploadForPath(path);
    const auto source = upload ? upload->fileURL() : std::nullopt;
    isTaken = !source || upload->task();
    if (isTaken) return;
    (void)database.saveUploadFileURL(URL::fileURL(*source), generationIdentifier,
                                     static_cast<std::int64_t>(taskIdentifier), path);
  });
  return !isTaken;
}

void DCUploadManager::send(const Order& order, const URL& source, const Data& generationIdentifier) {
  const auto& file = order.file;
  const std::string path = file->relativePath()->string();
  const auto parent = file->parent();
  const auto documentIdentifier = file->documentIdentifier();
  const auto parentDocumentIdentifier = parent ? parent->documentIdentifier() : std::nullopt;
  const auto parentVersionIdentifier = parent ? parent->versionIdentifier() : std::nullopt;
  DCAssert(documentIdentifier || parentDocumentIdentifier, kSource);
  if (file->hasBeenRemoved()) DCAssertionFailed(kSource, __LINE__, "!file.hasBeenRemoved");
  const Preparation preparation = prepareRecord(order, source, generationIdentifier);
  if (preparation.isTaken) {
    joinTransferOfOthers(order);
    return;
  }
  if (preparation.error || !preparation.upload) {
    failLater(file, preparation.error.value_or(Error(QuilbarErrorDomain, FileWriteUnknownError)));
    return;
  }
  const BackgroundTransfer transfer{path, generationIdentifier, std::nullopt};
  const std::string sessionIdentifier = DCBackgroundSessionIdentifier(*service_, DCMainBundleIdentifier());
  struct Start {
    std::optional<std::uint64_t> task;
    bool isTaken = false;
  };
  auto started = std::make_shared<Start>();
  auto willStart = [this, path, generationIdentifier, started](std::uint64_t taskIdentifier) {
    started->isTaken = !recordTask(path, taskIdentifier, generationIdentifier);
    return !started->isTaken;
  };
  auto ended = [weak = weak_from_this(), file, started, sessionIdentifier](const FVFResponseContainer::Ptr& container,
                                                                           const std::optional<Error>& error) {
    auto self = weak.lock();
    if (!self || started->isTaken) return;
    if (started->task) {
      self->transferDidEnd(*started->task, sessionIdentifier, container, error);
    } else if (error) {
      self->failLater(file, *error);
    }
  };
  DCServerRequest::Ptr request;
  if (documentIdentifier) {
    DCLogDebug("%s: Attempting upload of file at '%@' with documentIdentifier = %@",
               "-[DCUploadManager uploadFile:usingRemoteFileManager:activityInfo:completionHandler:]", path,
               *documentIdentifier);
    request = order.remoteFileManager->writeToFileWithDocumentIdentifier(
        *documentIdentifier, versionToReplace(*file, *preparation.upload), parentDocumentIdentifier,
        parentVersionIdentifier, order.activityInfo, source, preparation.attributes, transfer, std::move(ended),
        willStart);
  } else {
    DCLogDebug("%s: Attempting upload of file at '%@' with parentDocumentIdentifier = %@",
               "-[DCUploadManager uploadFile:usingRemoteFileManager:activityInfo:completionHandler:]", path,
               parentDocumentIdentifier);
    request = order.remoteFileManager->writeToFileWithName(
        file->relativePath()->lastPathComponent(), parentDocumentIdentifier, parentVersionIdentifier,
        order.activityInfo, source, preparation.attributes, transfer, std::move(ended), willStart);
  }
  if (started->isTaken) {
    joinTransferOfOthers(order);
    return;
  }
  auto task = request ? request->task() : nullptr;
  if (!task) return;
  started->task = task->taskIdentifier();
  uploadTasks_[path] = {file, task, task->taskIdentifier(), sessionIdentifier, true};
  pathsByTask_[taskKey(task->taskIdentifier(), sessionIdentifier)] = path;
}

void DCUploadManager::failLater(const DCCachedFile::Ptr& file, const Error& error,
                                const std::optional<DCUploadTask>& task) {
  queue_->dispatchAsynchronousBlock([weak = weak_from_this(), file, error, task] {
    if (auto self = weak.lock()) self->settle({file, task, nullptr, error}, file->relativePath()->string());
  });
}

}  // namespace florvane
