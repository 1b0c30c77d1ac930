#include "Client/Client/DCCachedItemManager.h"
#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCTakeInLock.h"
#include "Client/Client/DCUploadOutcome.h"
#include "common/FVFMetadataUtils.h"
#include "platform/BackgroundThread.h"
#include "platform/FileSystem.h"
#include "platform/PropertyList.h"
#include "platform/ResourceValues.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include <fcntl.h>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCDocumentManager";
constexpr std::int64_t kUnauthorized = 401;
constexpr std::int64_t kConflict = 409;
// How many turns of the queue an answer lets go first at most.
constexpr unsigned kTurnsForOthers = 32;

// When the directory was as a listing shows it. A directory's content date moves with every entry that is added,
// replaced or removed; which of two listings of one moment is the newer cannot be told.
std::optional<Date> dateOfListing(const std::optional<Dictionary>& metadata) {
  if (!metadata) return std::nullopt;
  auto content = metadata->date(ResourceContentModificationDateKey);
  auto attributes = metadata->date(ResourceAttributeModificationDateKey);
  if (content && attributes) return std::max(*content, *attributes);
  return content ? content : attributes;
}

std::optional<Data> versionOf(const std::optional<Dictionary>& metadata) {
  return metadata ? metadata->data(FVVersionIdentifierKey) : std::nullopt;
}

std::optional<Dictionary> entryNamed(const DCDirectoryContents::Ptr& contents, const std::string& name) {
  const Value* entry = contents ? contents->entryNamed(name) : nullptr;
  return entry ? entry->asDictionary() : std::nullopt;
}

DCDirectoryContents::Ptr contentsOf(const FVFResponseContainer& container) {
  if (!container.url()) return nullptr;
  auto bytes = readFile(container.url()->path());
  auto list = bytes ? readPropertyList(*bytes) : Result<Value>(Value());
  auto entries = list ? list->asArray() : std::nullopt;
  return entries ? DCDirectoryContents::contentsWithEntries(*entries) : nullptr;
}

}  // namespace

void DCDocumentManager::_finishUploadFile(const DCCachedFile::Ptr& file, const FVFResponseContainer::Ptr& container,
                                          const OptionalError& error) {
  // The record's present transfer, whichever that is.
  auto upload = database()->uploadForPath(file->relativePath()->string());
  _uploadDidEnd({file, upload ? upload->task() : std::nullopt, container, error}, nullptr);
}

void DCDocumentManager::_finishUploadFileForTaskIdentifier(std::uint64_t taskIdentifier,
                                                           const std::string& sessionIdentifier,
                                                           const FVFResponseContainer::Ptr& responseContainer,
                                                           const OptionalError& error) {
  DCLogInfo("Handling completion of background upload for task: %@, service %@, error: %@",
            static_cast<std::int64_t>(taskIdentifier), service_, error);
  auto file = DCCachedItemManager::fileForUploadTaskIdentifier(static_cast<std::int64_t>(taskIdentifier),
                                                               sessionIdentifier, service_);
  DCAssert(file, kSource);
  if (file) _uploadManager()->taskDidEnd(file, taskIdentifier, sessionIdentifier, responseContainer, error);
}

void DCDocumentManager::_uploadDidEnd(const DCUploadManager::End& end, ErrorHandler settled) {
  const auto& [file, task, container, error] = end;
  DCLogTrace("-[DCDocumentManager _finishUploadFile:container:error:]",
             {{"file", file}, {"container", container}, {"error", error}});
  (void)queue_->checkIsCurrent(kSource, __LINE__);
  auto shared = std::make_shared<ErrorHandler>(std::move(settled));
  if (error) {
    _uploadDidFail(file, task, *error, shared);
    return;
  }
  uploadLosses_.erase(file->relativePath()->string());
  UploadAnswer answer{file, task, container, nullptr, shared, service_->clock().now()};
  // The answer's file goes with this call, and is read in another turn.
  if (container && container->url()) {
    const std::string path = container->url()->path();
    auto kept = DCTemporaryFile::linkedTo(path, path + "-kept");
    if (kept) {
      answer.body = std::make_shared<DCTemporaryFile>(std::move(*kept));
      answer.container = FVFResponseContainer::containerWithURL(URL::fileURL(answer.body->path()),
                                                                container->transferType(), container->metadata());
    } else {
      DCLogError("Could not keep the answer to an upload: %@", kept.error());
    }
  }
  _uploadDidSucceed(answer);
}

// Failures

// Whether there is anything to send. Record and file are brought together where one of them has moved without the
// other.
bool DCDocumentManager::_findUploadSource(const DCCachedFile& file, const std::shared_ptr<DCManagedUpload>& upload) {
  const auto recorded = upload ? upload->fileURL() : std::nullopt;
  const auto fullPath = file.fullPathIfKnown();
  const bool isRecordedThere = recorded && fileExists(*recorded);
  if (!fullPath || recorded == fullPath->string()) return isRecordedThere;
  const std::string& target = fullPath->string();
  if (!fileExists(target)) {
    if (!isRecordedThere) return false;
    auto moved = createDirectories(folderOf(target));
    if (moved && renameat2(AT_FDCWD, recorded->c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) != 0) {
      moved = Failure(Error::fileWrite(errno, target));
    }
    if (!moved) {
      DCLogWarning("Failed to rename '%@' to '%@': %@", *recorded, target, moved.error());
      return true;
    }
  } else if (isRecordedThere) {
    return true;
  }
  if (upload && upload->path()) (void)database()->saveUploadFileURL(fullPath->url(), *upload->path());
  return true;
}

void DCDocumentManager::_uploadDidFail(const DCCachedFile::Ptr& file, const UploadTask& task, const Error& error,
                                       const std::shared_ptr<ErrorHandler>& settled) {
  auto answer = [&] {
    if (*settled) (*settled)(error);
  };
  auto database = this->database();
  const std::string path = file->relativePath()->string();
  const bool isSourceMissing =
      error.is(QuilbarErrorDomain, FileReadNoSuchFileError) || error.is(URLErrorDomain, URLErrorFileDoesNotExist);
  // What the listing is still to decide is no failure yet: a kill meanwhile must not make it count as one.
  const bool isUndecided = DCUploadOutcome::isLostReply(error) || error.is(URLErrorDomain, kConflict);
  std::shared_ptr<DCManagedUpload> upload;
  bool isSuperseded = false;
  (void)database->performBatch([&] {
    upload = database->uploadForPath(path);
    isSuperseded = upload && upload->task() != task;
    if (!upload || isSuperseded) return;
    upload->setTaskIdentifier({});
    upload->setSessionIdentifier({});
    upload->setError(isUndecided ? std::nullopt : std::optional(DCUploadOutcome::textOfError(error)));
  });
  if (isSuperseded) {
    answer();
    return;
  }
  // Only the copy that was to be sent may be gone; then there is another to be made.
  if (isSourceMissing && !_findUploadSource(*file, upload)) {
    const auto fullPath = file->fullPathIfKnown();
    DCLogInfo("The file we're trying to upload (%@) doesn't exist at '%@'", file->relativePath(),
              fullPath ? std::optional(fullPath->string()) : (upload ? upload->fileURL() : std::nullopt));
    (void)database->removeUploadForPath(path);
    answer();
    return;
  }
  if (!upload) {
    answer();
    return;
  }
  if (error.is(URLErrorDomain, kUnauthorized)) {
    DCLogInfo("Got an authentication error. Retrying upload of file at '%@'", file->relativePath());
    answer();
    _restartUpload(file);
  } else if (isUndecided) {
    _reconcileUpload(file, error, settled);
  } else if (isSourceMissing) {
    answer();
    _restartUploadAfterLoss(file);
  } else {
    answer();
    _countFailureOfUpload(file, error);
  }
}

void DCDocumentManager::_countFailureOfUpload(const DCCachedFile::Ptr& file, const Error& error) {
  auto upload = database()->uploadForPath(file->relativePath()->string());
  if (!upload) return;
  uploadLosses_.erase(file->relativePath()->string());
  upload->setError(DCUploadOutcome::textOfError(error));
  (void)database()->save();
  const std::int64_t retries = upload->numberOfRetries().value_or(0);
  if (retries >= DCFileUploadMaxNumberOfRetries) {
    _giveUpUpload(file, *upload, error);
    return;
  }
  const auto text = upload->error();
  DCLogInfo("Upload for %@ failed with error %@. Retry #%ld", file->relativePath(), text,
            static_cast<long>(retries + 1));
  // A record counts its failure when the next attempt starts, unless the text speaks of a refused login; what some
  // server happens to write does not make this one.
  if (text && text->find("401") != std::string::npos) {
    upload->setNumberOfRetries(retries + 1);
    (void)database()->save();
  }
  _restartUpload(file);
}

void DCDocumentManager::_giveUpUpload(const DCCachedFile::Ptr& file, DCManagedUpload& upload, const Error& error) {
  upload.setNumberOfRetries(upload.numberOfRetries().value_or(0) + 1);
  (void)database()->save();
  NotificationCenter::shared().post(FlorvaneUploadDidFailNotification);
  const std::string path = file->relativePath()->string();
  _dispatchMaybeCallSelector("documentManager:didFailToUpdateItemAtPath:error:", path,
                             "-[DCDocumentManager _finishUploadFile:container:error:]", __LINE__,
                             [self = shared_from_this(), path, error](DCDocumentManagerDelegate& delegate) {
                               delegate.didFailToUpdateItemAtPath(*self, path, error);
                             });
}

void DCDocumentManager::_restartUpload(const DCCachedFile::Ptr& file) {
  queue_->dispatchAsynchronousBlock([self = shared_from_this(), file] {
    if (file->hasBeenRemoved() || !self->database()->uploadForPath(file->relativePath()->string())) return;
    self->_startUploadingFile(file, nullptr);
  });
}

void DCDocumentManager::_restartUploadAfterLoss(const DCCachedFile::Ptr& file) {
  const std::string path = file->relativePath()->string();
  if (auto upload = database()->uploadForPath(path)) {
    // Only what the server refuses counts.
    upload->setError({});
    (void)database()->save();
  }
  _afterPause(path, [self = shared_from_this(), file] { self->_restartUpload(file); });
}

// The first time at once.
void DCDocumentManager::_afterPause(const std::string& path, std::function<void()> work) {
  const bool isFirst = !uploadLosses_.contains(path);
  Loss& loss = uploadLosses_[path];
  if (isFirst) {
    queue_->dispatchAsynchronousBlock(std::move(work));
    return;
  }
  loss.work = std::move(work);
  Clock& clock = service_->clock();
  loss.timer =
      clock.schedule(clock.monotonicNow() + loss.backOff.next(), {}, [weak = weak_from_this(), path, queue = queue_] {
        queue->dispatchAsynchronousBlock([weak, path] {
          auto self = weak.lock();
          auto due = self ? self->uploadLosses_.find(path) : decltype(self->uploadLosses_.end())();
          if (!self || due == self->uploadLosses_.end() || !due->second.work) return;
          due->second.timer.reset();
          auto pending = std::exchange(due->second.work, nullptr);
          pending();
        });
      });
}

// Successes

void DCDocumentManager::_uploadDidSucceed(const UploadAnswer& answer) {
  const bool isListing =
      answer.container && answer.container->transferType() != FVFResponseContainerTransferTypeDropBoxFile;
  const auto parent = answer.file->parent();
  if (!isListing || !parent || answer.file->hasBeenRemoved()) {
    _completeUpload(answer, answer.container ? answer.container->metadata() : std::nullopt, false);
    return;
  }
  // Every answer carries the whole listing. Of those of a directory that come together only the newest is taken in, and
  // all of them wait for the disk once.
  const bool isFirst = uploadAnswers_.empty();
  uploadAnswers_[parent->relativePath()->string()].push_back(answer);
  if (isFirst) _takeInUploadAnswersAfter(kTurnsForOthers);
}

// Who waits on the queue goes first: writes are answered sooner, and more answers come together.
void DCDocumentManager::_takeInUploadAnswersAfter(unsigned turns) {
  queue_->dispatchAsynchronousBlock([self = shared_from_this(), turns] {
    if (turns > 0) {
      self->_takeInUploadAnswersAfter(turns - 1);
      return;
    }
    (void)self->database()->performGroup([&] {
      const auto waiting = std::exchange(self->uploadAnswers_, {});
      for (const auto& entry : waiting) {
        // What one directory's answers come to keeps no other's from being taken in.
        WorkItem item = [&] { self->_takeInUploadAnswers(entry.second); };
        runGuarded(item, kSource);
      }
    });
  });
}

void DCDocumentManager::_takeInUploadAnswers(const std::vector<UploadAnswer>& answers) {
  // The listing that is taken in is the one that the files are looked up in.
  const DCTakeInLock lock(service_);

  auto newest = std::max_element(answers.begin(), answers.end(), [](const UploadAnswer& a, const UploadAnswer& b) {
    return dateOfListing(a.container->metadata()) < dateOfListing(b.container->metadata());
  });
  auto directory = newest->file->parent();
  if (!directory || directory->hasBeenRemoved()) {
    for (const UploadAnswer& answer : answers) {
      const std::string name = answer.file->relativePath()->lastPathComponent();
      _completeUpload(answer, entryNamed(contentsOf(*answer.container), name), false);
    }
    return;
  }
  const auto known = directory->remoteMetadata();
  const auto newestDate = dateOfListing(newest->container->metadata()), knownDate = dateOfListing(known);
  const bool isKnown = versionOf(known) == versionOf(newest->container->metadata());
  std::optional<Dictionary> entryOfNewest;
  if (!isKnown && (!knownDate || (newestDate && *newestDate > *knownDate))) {
    auto failed = _updateFreshlyDownloadedDirectory(directory, newest->container, newest->file, &entryOfNewest);
    if (failed) DCLogError("Could not take in the listing that came with an upload: %@", *failed);
  }
  const auto contents = directory->directoryContents();
  std::vector<UploadAnswer> unclear;
  for (const UploadAnswer& answer : answers) {
    auto upload = database()->uploadForPath(answer.file->relativePath()->string());
    auto entry = entryNamed(contents, answer.file->relativePath()->lastPathComponent());
    if (DCUploadOutcome::isEntryOfLastAttempt(entry, upload)) {
      _completeUpload(answer, entry, true);
    } else {
      unclear.push_back(answer);
    }
  }
  if (!unclear.empty()) _listForUploadAnswers(directory, std::move(unclear));
}

// The listings that came do not settle what the directory holds now: two of one moment, or somebody else was there.
void DCDocumentManager::_listForUploadAnswers(const DCCachedDirectory::Ptr& directory,
                                              std::vector<UploadAnswer> answers) {
  auto identifier = directory->documentIdentifier();
  if (!identifier) {
    _completeUploads(directory, answers, false);
    return;
  }
  DCRemoteDocumentManager::remoteDocumentManagerForService(service_)->contentsOfDirectoryWithDocumentIdentifier(
      *identifier, std::nullopt, _activityInfoForItem(*directory),
      [self = shared_from_this(), directory, answers = std::move(answers), started = service_->clock().now()](
          const FVFResponseContainer::Ptr& container, const OptionalError& error) {
        const DCTakeInLock lock(self->service_);
        bool isListed = false;
        if (container && !directory->hasBeenRemoved()) {
          if (self->_wasListedSince(*directory, started)) {
            self->_listForUploadAnswers(directory, answers);
            return;
          }
          isListed = !self->_updateFreshlyDownloadedDirectory(directory, container);
        } else if (error) {
          DCLogInfo("Could not list '%@' after an upload: %@", directory->relativePath(), *error);
        }
        self->_completeUploads(directory, answers, isListed);
      });
}

void DCDocumentManager::_completeUploads(const DCCachedDirectory::Ptr& directory,
                                         const std::vector<UploadAnswer>& answers, bool isListed) {
  const DCTakeInLock lock(service_);
  const auto contents = directory->directoryContents();
  for (const UploadAnswer& answer : answers) {
    const std::string name = answer.file->relativePath()->lastPathComponent();
    auto upload = database()->uploadForPath(answer.file->relativePath()->string());
    auto entry = entryNamed(contents, name);
    if (DCUploadOutcome::isEntryOfLastAttempt(entry, upload)) {
      _completeUpload(answer, entry, true);
    } else {
      // It was stored, and has been changed since; what is there now is fetched when somebody asks for it.
      const auto stored = entryNamed(contentsOf(*answer.container), name);
      const auto identifier = stored ? stored->data(FVDocumentIdentifierKey) : std::nullopt;
      _completeUpload(answer, stored, false);
      // Or taken away: no later listing would miss what none has shown.
      const bool isGone = isListed && contents && !entry && !answer.file->hasBeenRemoved();
      if (isGone && identifier && answer.file->documentIdentifier() == identifier) {
        cachedItemManager()->removeItem(answer.file);
      }
    }
  }
}

void DCDocumentManager::_serverReturnedNoMetadata(const UploadAnswer& answer) {
  const auto& file = answer.file;
  DCLogError("Server failed to return metadata for uploaded file: %@", file);
  DCLogError("%@: Server failed to return metadata for uploaded file %@, container = %@", *this, file,
             answer.container);
  DCAssertionFailed(kSource, __LINE__, "remoteMetadata");
  _askWhatBecameOfUpload(answer);
}

// Whether it was stored is asked of the server.
void DCDocumentManager::_askWhatBecameOfUpload(const UploadAnswer& answer) {
  if (_clearUploadTask(answer.file->relativePath()->string(), answer.task)) {
    _reconcileUpload(answer.file, Error(URLErrorDomain, URLErrorCannotParseResponse), answer.settled);
  } else if (*answer.settled) {
    (*answer.settled)(std::nullopt);
  }
}

// False when the record is of another transfer by now, or gone.
bool DCDocumentManager::_clearUploadTask(const std::string& path, const UploadTask& task) {
  bool isCleared = false;
  (void)database()->performBatch([&] {
    auto upload = database()->uploadForPath(path);
    isCleared = upload && upload->task() == task;
    if (!isCleared) return;
    upload->setTaskIdentifier({});
    upload->setSessionIdentifier({});
    upload->setError({});
  });
  return isCleared;
}

void DCDocumentManager::_completeUpload(const UploadAnswer& answer, const std::optional<Dictionary>& remoteMetadata,
                                        bool isOfListing) {
  const auto& file = answer.file;
  auto settle = [&](const OptionalError& error) {
    if (*answer.settled) (*answer.settled)(error);
  };
  if (file->hasBeenRemoved()) {
    settle(std::nullopt);
    return;
  }
  const bool isDropBox =
      answer.container && answer.container->transferType() == FVFResponseContainerTransferTypeDropBoxFile;
  const DCTakeInLock lock(service_);
  const auto known = file->documentIdentifier();
  const bool isOther = remoteMetadata && !isDropBox && known && known != remoteMetadata->data(FVDocumentIdentifierKey);
  if (isOther) {
    DCLogInfo("Another document has the name of the uploaded file '%@' by now", file->relativePath());
    _askWhatBecameOfUpload(answer);
    return;
  }
  if (!remoteMetadata) {
    _serverReturnedNoMetadata(answer);
    return;
  }
  if (isOfListing && file->parentContentsMetadata() != remoteMetadata) {
    DCAssertionFailed(kSource, __LINE__,
                      "container.transferType == FVFResponseContainerTransferTypeDropBoxFile || [remoteMetadata "
                      "isEqualToDictionary:file.parentContentsMetadata]");
  }
  const auto identifier = isDropBox ? std::nullopt : remoteMetadata->data(FVDocumentIdentifierKey);
  bool isDone = true;
  // A write of another process comes before or after all of this, never in between.
  auto coordinated = cachedItemManager()->coordinateEndOfUpload(
      file, identifier, [&] { isDone = _takeInUpload(answer, *remoteMetadata, isDropBox); });
  if (!coordinated) {
    DCLogError("Could not take in what became of the upload of '%@': %@", file->relativePath(), coordinated.error());
    settle(coordinated.error());
    _reconcileUploadLater(file, answer.task, Error(URLErrorDomain, URLErrorNetworkConnectionLost));
    return;
  }
  // Whoever hears of it here knows of it.
  if (auto version = file->versionIdentifier(); version && !isDropBox) file->setToldVersionIdentifier(version);
  settle(std::nullopt);
  if (!isDone) _restartUpload(file);
}

bool DCDocumentManager::_takeInUpload(const UploadAnswer& answer, const Dictionary& remoteMetadata, bool isDropBox) {
  const auto& file = answer.file;
  const std::string path = file->relativePath()->string();
  auto upload = database()->uploadForPath(path);
  // Another process has begun anew, with newer contents, or has even come to their end: this is the past.
  const bool hadRecord = answer.task || !answer.container;
  if (upload ? upload->task() != answer.task : hadRecord) return true;
  if (isDropBox) {
    // Nobody may ask for it again, so that nothing is kept of it.
    file->updateUploadedFileToDropBox();
  } else {
    file->updateUploadedFileFromRemoteMetadata(remoteMetadata);
    if (file->remoteMetadata() != remoteMetadata) {
      DCLogError("FAILED ASSERTION [remoteMetadata isEqualToDictionary:file.remoteMetadata]");
      DCLogError("remoteMetadata = %@", DCStringFromCollection(remoteMetadata));
      DCLogError("file.remoteMetadata = %@", DCStringFromCollection(file->remoteMetadata().value_or(Dictionary())));
      DCAssertionFailed(kSource, __LINE__, "[remoteMetadata isEqualToDictionary:file.remoteMetadata]");
    }
  }
  bool isDone = true;
  (void)database()->performBatch([&] {
    auto waiting = database()->uploadForPath(path);
    if (!waiting || waiting->task() != answer.task) return;
    isDone = false;
    // Newer bytes wait. They are based on what was just stored, and nothing of that is left to be recognised.
    waiting->resetAndIncrementNumberOfRetries();
    waiting->setNumberOfRetries(0);
    if (!isDropBox) waiting->setBaseVersionIdentifier(remoteMetadata.data(FVVersionIdentifierKey));
    waiting->removeAttempts();
  });
  if (!isDropBox) file->setLastUploadDate(answer.ended);
  return isDone;
}

}  // namespace florvane
