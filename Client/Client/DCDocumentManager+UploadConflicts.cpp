#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/DCError.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCTakeInLock.h"
#include "Client/Client/DCUploadOutcome.h"
#include "common/FVFMetadataUtils.h"
#include "platform/Encoding.h"
#include "platform/FileSystem.h"

namespace florvane {

namespace {

constexpr std::int64_t kUnauthorized = 401;
constexpr std::int64_t kConflict = 409;
constexpr char kConflictsFolder[] = "conflict+";

}  // namespace

// Lost replies and refusals of the name or the version: the server's listing says what became of the file.

void DCDocumentManager::_reconcileUpload(const DCCachedFile::Ptr& file, const Error& error,
                                         const std::shared_ptr<ErrorHandler>& settled) {
  auto parent = file->parent();
  const auto identifier = parent ? parent->documentIdentifier() : std::nullopt;
  if (!identifier || parent->isDropBox()) {
    // A drop box tells nobody what it holds, and takes a second copy under another name.
    if (*settled) (*settled)(error);
    if (DCUploadOutcome::isLostReply(error)) {
      _restartUploadAfterLoss(file);
    } else {
      _countFailureOfUpload(file, error);
    }
    return;
  }
  const std::string path = file->relativePath()->string();
  undecidedUploads_.insert(path);
  auto listed = [self = shared_from_this(), file, path, parent, error, settled, started = service_->clock().now()](
                    const FVFResponseContainer::Ptr& container, const OptionalError& failure) {
    std::optional<Dictionary> entry;
    OptionalError failed = failure;
    if (container) {
      const DCTakeInLock lock(self->service_);
      if (self->_wasListedSince(*parent, started)) {
        self->_reconcileUpload(file, error, settled);
        return;
      }
      failed = self->_updateFreshlyDownloadedDirectory(parent, container, file, &entry);
    }
    if (!failed) {
      self->undecidedUploads_.erase(path);
      self->_decideUpload(file, error, entry, settled);
      return;
    }
    const bool isRefusal = failed->domain() == URLErrorDomain && failed->code() >= 400 && failed->code() < 500 &&
                           failed->code() != kUnauthorized;
    DCLogInfo("Could not find out what became of the upload of '%@': %@", file->relativePath(), *failed);
    if (*settled) (*settled)(error);
    if (isRefusal) {
      self->undecidedUploads_.erase(path);
      self->_countFailureOfUpload(file, error);
      return;
    }
    self->_reconcileUploadLater(file, std::nullopt, error);
  };
  DCRemoteDocumentManager::remoteDocumentManagerForService(service_)->contentsOfDirectoryWithDocumentIdentifier(
      *identifier, std::nullopt, _activityInfoForItem(*parent), std::move(listed));
}

void DCDocumentManager::_reconcileUploadLater(const DCCachedFile::Ptr& file, const UploadTask& task,
                                              const Error& error) {
  const std::string path = file->relativePath()->string();
  if (!_clearUploadTask(path, task)) {
    undecidedUploads_.erase(path);
    return;
  }
  undecidedUploads_.insert(path);
  (void)uploadLosses_[path];  // not at once: it has just failed
  _afterPause(path, [self = shared_from_this(), file, path, error] {
    self->undecidedUploads_.erase(path);
    auto upload = self->database()->uploadForPath(path);
    if (!upload || upload->task() || self->_uploadManager()->isUploadingFile(*file)) return;
    self->_reconcileUpload(file, error, std::make_shared<ErrorHandler>());
  });
}

void DCDocumentManager::_decideUpload(const DCCachedFile::Ptr& file, const Error& error,
                                      const std::optional<Dictionary>& entry,
                                      const std::shared_ptr<ErrorHandler>& settled) {
  auto settle = [&](const OptionalError& outcome) {
    if (*settled) (*settled)(outcome);
  };
  auto upload = database()->uploadForPath(file->relativePath()->string());
  // Nothing is left to decide, or another process has begun anew.
  if (!upload || upload->task() || file->hasBeenRemoved()) {
    settle(error);
    return;
  }
  const bool isConflict = error.is(URLErrorDomain, kConflict);
  auto sendAgain = [&] {
    settle(error);
    if (isConflict) {
      _countFailureOfUpload(file, error);
    } else {
      _restartUploadAfterLoss(file);
    }
  };
  if (!entry) {
    sendAgain();
    return;
  }
  if (DCUploadOutcome::isEntryOfLastAttempt(entry, upload)) {
    uploadLosses_.erase(file->relativePath()->string());
    _completeUpload({file, std::nullopt, nullptr, nullptr, settled, service_->clock().now()}, entry, true);
    return;
  }
  const auto version = entry->data(FVVersionIdentifierKey);
  if (DCUploadOutcome::isEntryOfAnyAttempt(entry, upload)) {
    // Ours of before: what is sent now goes in its place.
    upload->setBaseVersionIdentifier(version);
    upload->setError({});
    (void)database()->save();
    settle(error);
    _restartUpload(file);
    return;
  }
  const auto base = upload->baseVersionIdentifier();
  if (base && !base->empty() && base == version) {
    sendAgain();
    return;
  }
  settle(error);
  _uploadIsInConflict(file, *upload, *entry);
}

// Both sides stay: the record keeps the local contents from being replaced, and the server's are fetched beside them.
void DCDocumentManager::_uploadIsInConflict(const DCCachedFile::Ptr& file, DCManagedUpload& upload,
                                            const Dictionary& entry) {
  const Error error = DCError::errorVersionConflictWithUserInfo(DCError::userInfoWithItem(*file));
  const auto version = entry.data(FVVersionIdentifierKey).value_or(Data());
  DCLogNotice("The upload of '%@' is in conflict with version %@ on the server", file->relativePath(), version);
  uploadLosses_.erase(file->relativePath()->string());
  upload.setConflictingVersionIdentifier(version);
  upload.setError(DCUploadOutcome::textOfError(error));
  upload.setNumberOfRetries(DCFileUploadMaxNumberOfRetries);
  _giveUpUpload(file, upload, error);
  if (auto identifier = entry.data(FVDocumentIdentifierKey)) _fetchConflictingVersion(file, *identifier, version);
}

void DCDocumentManager::_fetchConflictingVersion(const DCCachedFile::Ptr& file, const Data& documentIdentifier,
                                                 const Data& version) {
  const std::string folder =
      DCFullPath::documentRootForService(service_)->string() + "/" + kConflictsFolder + hexEncode(documentIdentifier);
  const std::string target = folder + "/" + file->relativePath()->lastPathComponent();
  DCRemoteDocumentManager::remoteDocumentManagerForService(service_)->contentsOfFileWithDocumentIdentifier(
      documentIdentifier, std::nullopt, _activityInfoForItem(*file),
      [self = shared_from_this(), file, version, folder, target](const FVFResponseContainer::Ptr& container,
                                                                 const OptionalError& error) {
        auto upload = self->database()->uploadForPath(file->relativePath()->string());
        if (!upload || upload->conflictingVersionIdentifier() != version) return;
        if (!container || !container->url()) {
          DCLogInfo("Could not fetch the version that '%@' is in conflict with: %@", file->relativePath(), error);
          return;
        }
        auto kept = createDirectories(folder).and_then(
            [&] { return DCTemporaryFile::linkedTo(container->url()->path(), target); });
        auto moved = kept ? kept->moveTo(target) : Result<void>(Failure(kept.error()));
        if (!moved) {
          DCLogError("Could not keep the version that '%@' is in conflict with: %@", file->relativePath(),
                     moved.error());
          return;
        }
        upload->setConflictingVersionURL(URL::fileURL(target));
        (void)self->database()->save();
      });
}

}  // namespace florvane
