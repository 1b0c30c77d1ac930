#include "Client/Client/DCDocumentManager+Handlers.h"
#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/DCError.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCTakeInLock.h"
#include "platform/FileSystem.h"

#include <cerrno>

#include <sys/stat.h>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCDocumentManager";

// The real path of a regular file.
Result<URL> sourceOfWrite(const URL& source) {
  if (!source.isFileURL()) {
    return Failure(DCError::errorInvalidArgumentWithUserInfo(DCError::userInfoWithArgument(source.description())));
  }
  struct stat status{};
  if (stat(source.path().c_str(), &status) != 0) {
    return Failure(DCError::errorNoSuchItemWithUserInfo(DCError::userInfoWithURL(source)));
  }
  if (!S_ISREG(status.st_mode)) {
    return Failure(DCError::errorMistmatchedTypeWithUserInfo(DCError::userInfoWithURL(source)));
  }
  auto resolved = realPath(source.path());
  return URL::fileURL(resolved.value_or(source.path()));
}

bool isSameFile(const std::string& a, const std::string& b) {
  struct stat first{}, second{};
  return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

}  // namespace

void DCDocumentManager::createDirectoryAtPath(const std::string& path, const Dictionary& attributes,
                                              ErrorHandler completionHandler) {
  static constexpr char function[] = "-[DCDocumentManager createDirectoryAtPath:attributes:completionHandler:]";
  auto handler = shareHandler(std::move(completionHandler));
  DCLogTrace(function, {{"path", path}, {"attributes", attributes}, {"userCompletionHandler", handlerText(*handler)}});
  queue_->dispatchAsynchronousBlock([self = shared_from_this(), handler] {
    callUserHandler(*self, handler, function, __LINE__, OptionalError(DCError::errorInternalWithUserInfo()));
  });
}

void DCDocumentManager::preflightWriteToNewFileAtPath(const std::string& path, const URL& source,
                                                      ErrorHandler completionHandler) {
  static constexpr char function[] = "-[DCDocumentManager preflightWriteToNewFileAtPath:source:completionHandler:]";
  auto handler = shareHandler(std::move(completionHandler));
  DCLogTrace(function, {{"path", path}, {"source", source}, {"userCompletionHandler", handlerText(*handler)}});
  queue_->dispatchAsynchronousBlock([self = shared_from_this(), path, source, handler] {
    auto resolved = source.isFileURL() ? realPath(source.path()) : std::nullopt;
    auto checks = self->_performPreOperationChecksWithPath(path, ItemClass::File, false);
    self->_logFunction(function, path, checks.item, checks.relativePath);
    OptionalError error = checks.error;
    if (!error && checks.item) {
      auto file = std::static_pointer_cast<DCCachedFile>(checks.item);
      auto prepared = file->preflightUploadFromURL(resolved ? URL::fileURL(*resolved) : source);
      if (!prepared) error = prepared.error();
    }
    callUserHandler(*self, handler, function, __LINE__, error);
  });
}

void DCDocumentManager::removePreflightedWriteToNewFileAtPath(const std::string& path) {
  DCLogTrace("-[DCDocumentManager removePreflightedWriteToNewFileAtPath:]", {{"path", path}});
  queue_->dispatchSynchronousBlock([&] {
    auto upload = database()->uploadForPath(path);
    // What a write has promised to send is more than prepared: nobody would find it where new files wait.
    const bool isWritten = upload && upload->generationIdentifier() && !database()->documentIdentifierForPath(path);
    if (isWritten && !cachedItemManager()->recoverUpload(path)) return;
    (void)database()->removeUploadForPath(path);
    (void)database()->save();
  });
}

void DCDocumentManager::writeToFileAtPath(const std::string& path, const URL& source, UploadHandler completionHandler) {
  static constexpr char function[] = "-[DCDocumentManager writeToFileAtPath:source:completionHandler:]";
  auto handler = shareHandler(std::move(completionHandler));
  DCLogTrace(function, {{"path", path}, {"source", source}, {"userCompletionHandler", handlerText(*handler)}});
  queue_->dispatchAsynchronousBlock([self = shared_from_this(), path, source, handler] {
    auto fail = [&](const Error& error) {
      callUserHandler(*self, handler, function, __LINE__, std::optional<URL>(), OptionalError(error));
    };
    auto resolved = sourceOfWrite(source);
    if (!resolved) return fail(resolved.error());
    auto checks = self->_performPreOperationChecksWithPath(path, ItemClass::File, false);
    self->_logFunction(function, path, checks.item, checks.relativePath);
    if (checks.error) return fail(*checks.error);
    auto file = std::dynamic_pointer_cast<DCCachedFile>(checks.item);
    if (!file)
      return fail(DCError::errorNoSuchItemWithUserInfo(DCError::userInfoWithRelativePath(*checks.relativePath)));
    auto fullPath = file->fullPathIfKnown();
    const bool isCachedFile = fullPath && isSameFile(resolved->path(), fullPath->string());
    if (file->needsUpload() || !isCachedFile) {
      if (auto error = self->_writeFile(file, *resolved)) return fail(*error);
      self->_uploadItem(file, [self, file](const OptionalError& error) {
        if (error) self->_announceFailureOfUpload(*file, *error);
      });
    }
    fullPath = file->fullPathIfKnown();
    callUserHandler(*self, handler, function, __LINE__, fullPath ? std::optional(fullPath->url()) : std::nullopt,
                    OptionalError());
  });
}

DCDocumentManager::OptionalError DCDocumentManager::_writeFile(const DCCachedFile::Ptr& file, const URL& source) {
  // Where the bytes go depends on which document is at the path: another process must not find that out while it is
  // decided. Copying them may take long, and keeps nobody from listing.
  std::optional<DCTakeInLock> lock;
  auto updated = file->updateFileFromURL(source, [&](bool isDeciding) {
    lock.reset();
    if (isDeciding) lock.emplace(service_);
  });
  if (!updated) return updated.error();
  auto upload = database()->uploadForPath(file->relativePath()->string());
  if (!upload) return std::nullopt;
  // A fresh write is no further attempt of the one before, and whoever writes over a conflict that he was told of has
  // decided it.
  upload->resolveConflict();
  if (upload->numberOfRetries().value_or(0) != 0) upload->setNumberOfRetries(0);  // a new record needs no second save
  upload->setError({});
  (void)database()->save();
  return std::nullopt;
}

void DCDocumentManager::_announceFailureOfUpload(const DCCachedItem& item, const Error& error) {
  const std::string path = item.relativePath()->string();
  if (database()->uploadForPath(path)) return;
  _dispatchMaybeCallSelector("documentManager:didFailToUpdateItemAtPath:error:", path,
                             "-[DCDocumentManager _uploadItem:completionHandler:]", __LINE__,
                             [self = shared_from_this(), path, error](DCDocumentManagerDelegate& delegate) {
                               delegate.didFailToUpdateItemAtPath(*self, path, error);
                             });
}

void DCDocumentManager::startUploadingItemAtPath(const std::string& path, UploadHandler completionHandler) {
  static constexpr char function[] = "-[DCDocumentManager startUploadingItemAtPath:completionHandler:]";
  auto handler = shareHandler(std::move(completionHandler));
  DCLogTrace(function, {{"path", path}, {"userCompletionHandler", handlerText(*handler)}});
  queue_->dispatchAsynchronousBlock([self = shared_from_this(), path, handler] {
    auto checks = self->_performPreOperationChecksWithPath(path, ItemClass::Any, true);
    self->_logFunction(function, path, checks.item, checks.relativePath);
    if (checks.error) {
      callUserHandler(*self, handler, function, __LINE__, std::optional<URL>(), checks.error);
      return;
    }
    if (auto upload = self->database()->uploadForPath(path); upload && upload->isConflict()) {
      upload->resolveConflict();
      (void)self->database()->save();
    }
    self->_uploadItem(checks.item, [self, item = checks.item, handler](const OptionalError& error) {
      if (error) self->_announceFailureOfUpload(*item, *error);
      auto fullPath = item->fullPathIfKnown();
      callUserHandler(*self, handler, function, __LINE__,
                      fullPath && !error ? std::optional(fullPath->url()) : std::nullopt, error);
    });
  });
}

void DCDocumentManager::startDownloadingItemAtPath(const std::string& path, ErrorHandler completionHandler) {
  static constexpr char function[] = "-[DCDocumentManager startDownloadingItemAtPath:completionHandler:]";
  auto handler = shareHandler(std::move(completionHandler));
  DCLogTrace(function, {{"path", path}, {"userCompletionHandler", handlerText(*handler)}});
  queue_->dispatchAsynchronousBlock([self = shared_from_this(), path, handler] {
    auto checks = self->_performPreOperationChecksWithPath(path, ItemClass::Any, true);
    self->_logFunction(function, path, checks.item, checks.relativePath);
    if (checks.item) {
      self->_downloadItem(checks.item, [self, handler](const OptionalError& error) {
        callUserHandler(*self, handler, function, __LINE__, error);
      });
      return;
    }
    OptionalError error = checks.error;
    if (!error) error = DCError::errorNoSuchItemWithUserInfo(DCError::userInfoWithRelativePath(*checks.relativePath));
    callUserHandler(*self, handler, function, __LINE__, error);
  });
}

void DCDocumentManager::cancelUploadingItemAtPath(const std::string& path, ErrorHandler completionHandler) {
  static constexpr char function[] = "-[DCDocumentManager cancelUploadingItemAtPath:completionHandler:]";
  auto handler = shareHandler(std::move(completionHandler));
  DCLogTrace(function, {{"path", path}, {"userCompletionHandler", handlerText(*handler)}});
  callUserHandler(*this, handler, function, __LINE__, OptionalError());
}

void DCDocumentManager::cancelDownloadingItemAtPath(const std::string& path, ErrorHandler completionHandler) {
  static constexpr char function[] = "-[DCDocumentManager cancelDownloadingItemAtPath:completionHandler:]";
  auto handler = shareHandler(std::move(completionHandler));
  DCLogTrace(function, {{"path", path}, {"userCompletionHandler", handlerText(*handler)}});
  callUserHandler(*this, handler, function, __LINE__, OptionalError());
}

void DCDocumentManager::evictItemAtPath(const std::string& path, ErrorHandler completionHandler) {
  static constexpr char function[] = "-[DCDocumentManager evictItemAtPath:completionHandler:]";
  auto handler = shareHandler(std::move(completionHandler));
  DCLogTrace(function, {{"path", path}, {"userCompletionHandler", handlerText(*handler)}});
  callUserHandler(*this, handler, function, __LINE__, OptionalError());
}

// No download starts or ends meanwhile, as no upload does while it is decided what to download.
void DCDocumentManager::_uploadItem(const DCCachedItem::Ptr& item, ErrorHandler completionHandler) {
  DCLogTrace("-[DCDocumentManager _uploadItem:completionHandler:]", {{"item", item}});
  auto handler = shareHandler(std::move(completionHandler));
  auto answer = [&](const OptionalError& error) {
    if (*handler) (*handler)(error);
  };
  auto uploads = _uploadManager();
  auto downloads = DCDownloadManager::downloadManagerForService(service_);
  auto remote = DCRemoteDocumentManager::remoteDocumentManagerForService(service_);
  auto file = std::dynamic_pointer_cast<DCCachedFile>(item);
  auto directory = std::dynamic_pointer_cast<DCCachedDirectory>(item);
  std::unique_lock uploadsLock(uploads->lock());
  std::unique_lock downloadsLock(downloads->lock());
  auto joined = [self = shared_from_this(), item, handler](const FVFResponseContainer::Ptr&,
                                                           const OptionalError& error) {
    if (!error) {
      self->_uploadItem(item, *handler ? std::move(*handler) : ErrorHandler());
      return;
    }
    if (*handler) (*handler)(error);
    // What the server could not be asked for keeps nobody's bytes from being sent.
    auto due = std::dynamic_pointer_cast<DCCachedFile>(item);
    if (due && self->database()->uploadForPath(due->relativePath()->string())) self->_restartUpload(due);
  };
  // One that another process has taken away meanwhile is no longer that download's.
  const bool isKnown = item->documentIdentifier() || item->relativePath()->isRoot();
  if (directory && isKnown && downloads->isDownloadingDirectory(*directory)) {
    (void)downloads->startDownloadingDirectory(directory, remote, _activityInfoForItem(*item), joined);
    return;
  }
  if (file && isKnown && downloads->isDownloadingFile(*file)) {
    (void)downloads->startDownloadingFile(file, remote, _activityInfoForItem(*item), joined);
    return;
  }
  const bool isDue = item->needsUpload() || (file && database()->uploadForPath(file->relativePath()->string()));
  if (isDue && file) {
    _startUploadingFile(file, *handler ? std::move(*handler) : ErrorHandler());
    return;
  }
  downloadsLock.unlock();
  uploadsLock.unlock();
  if (isDue && directory) {
    DCAssertionFailed(kSource, __LINE__, "![item isKindOfClass:[DCCachedDirectory class]]");
  }
  answer(std::nullopt);
}

void DCDocumentManager::_startUploadingFile(const DCCachedFile::Ptr& file, ErrorHandler completionHandler) {
  DCLogTrace("-[DCDocumentManager _startUploadingFile:completionHandler:]", {{"file", file}});
  auto uploads = _uploadManager();
  auto remote = DCRemoteDocumentManager::remoteDocumentManagerForService(service_);
  uploads->uploadFile(file, remote, _activityInfoForItem(*file), std::move(completionHandler));
  const std::string path = file->relativePath()->string();
  auto upload = uploads->uploadForItemAtPath(path);
  if (!upload) return;
  _dispatchMaybeCallSelector("documentManager:didStartUploadingItemAtPath:upload:", path,
                             "-[DCDocumentManager _startUploadingFile:completionHandler:]", __LINE__,
                             [self = shared_from_this(), path, upload](DCDocumentManagerDelegate& delegate) {
                               delegate.didStartUploadingItemAtPath(*self, path, upload);
                             });
}

}  // namespace florvane
