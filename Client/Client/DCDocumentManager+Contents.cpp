#include "Client/Client/DCDocumentManager+Handlers.h"
#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/DCError.h"
#include "Client/Client/DCLog.h"
#include "common/FVFMetadataUtils.h"
#include "common/FVFPathUtils.h"
#include "platform/Exceptions.h"
#include "platform/FileSystem.h"

#include <utility>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCDocumentManager";
constexpr std::int64_t kConnectionFailure = 2;
constexpr std::int64_t kVersionConflict = 3;
constexpr std::int64_t kNoSuchItem = 11;
constexpr std::int64_t kNotFound = 404;

constexpr auto kFresh = DCDocumentManagerFreshnessStateFresh;
constexpr auto kStale = DCDocumentManagerFreshnessStateStale;
constexpr auto kUnknown = DCDocumentManagerFreshnessStateUnknown;

// The path of the item's local file, in whatever state it is; absent when there is none.
std::optional<URL> localURLOfItem(const DCCachedItem& item) {
  auto path = item.fullPathIfKnown();
  return path ? std::optional(path->url()) : std::nullopt;
}

}  // namespace

void DCDocumentManager::attributesOfItemAtPath(const std::string& path, AttributesHandler completionHandler) {
  static constexpr char function[] = "-[DCDocumentManager attributesOfItemAtPath:completionHandler:]";
  auto handler = shareHandler(std::move(completionHandler));
  DCLogTrace(function, {{"path", path}, {"userCompletionHandler", handlerText(*handler)}});
  _performWithKnownItemAtPath(function, path, ItemClass::Any, [handler](const Ptr& self, const PreOperation& checks) {
    if (checks.error || !checks.item) {
      callUserHandler(*self, handler, function, __LINE__, kUnknown, std::optional<Dictionary>(), checks.error);
      return;
    }
    const auto& item = checks.item;
    auto attributes = self->_synthesizedMetadataForItem(*item, item->parentContentsMetadata());
    if (item->hasBeenRemoved()) {
      callUserHandler(*self, handler, function, __LINE__, kUnknown, std::optional<Dictionary>(),
                      OptionalError(DCError::errorNoSuchItemWithUserInfo(
                          DCError::userInfoWithRelativePath(*item->relativePath()))));
      return;
    }
    const bool isFresh = self->_isUpToDateOrWatchedItem(*item);
    callUserHandler(*self, handler, function, __LINE__, isFresh ? kFresh : kStale,
                    std::optional<Dictionary>(std::move(attributes)), OptionalError());
    if (!isFresh) self->_downloadItem(item->isRoot() ? item : item->parent(), nullptr);
  });
}

void DCDocumentManager::contentsOfFileAtPath(const std::string& path, FileHandler completionHandler) {
  static constexpr char function[] = "-[DCDocumentManager contentsOfFileAtPath:completionHandler:]";
  auto handler = shareHandler(std::move(completionHandler));
  DCLogTrace(function, {{"path", path}, {"userCompletionHandler", handlerText(*handler)}});
  _contentsOfFileAtPath(path, handler, true);
}

void DCDocumentManager::_contentsOfFileAtPath(const std::string& path, const std::shared_ptr<FileHandler>& handler,
                                              bool asksAgain) {
  static constexpr char function[] = "-[DCDocumentManager contentsOfFileAtPath:completionHandler:]";
  _performWithKnownItemAtPath(
      function, path, ItemClass::File, [path, handler, asksAgain](const Ptr& self, const PreOperation& checks) {
        auto file = std::static_pointer_cast<DCCachedFile>(checks.item);
        auto settle = [self, file, handler](const OptionalError& error) {
          self->_continueContentsOfFile(
              file, error, [self, handler](State state, const std::optional<URL>& url, const OptionalError& settled) {
                callUserHandler(*self, handler, function, __LINE__, state, url, settled);
              });
        };
        const auto upload = file ? self->database()->knownUploadForPath(file->relativePath()->string()) : nullptr;
        if (upload && upload->isConflict()) {
          // Newer than anything known, and confirmed by nobody: the server has something else.
          settle(DCError::errorVersionConflictWithUserInfo(DCError::userInfoWithItem(*file)));
        } else if (checks.error || self->_isUpToDateOrWatchedItem(*file)) {
          settle(checks.error);
        } else {
          const std::string place = file->relativePath()->string();
          self->_downloadItem(file, [self, path, handler, asksAgain, file, place, settle](const OptionalError& error) {
            const auto parent = file->parent();
            const bool isGone =
                error && (pc_isDCErrorWithCode(*error, kNoSuchItem) || error->is(URLErrorDomain, kNotFound));
            const bool hasMoved = file->relativePath()->string() != place;
            if (!asksAgain || !parent || (!isGone && !hasMoved)) {
              settle(error);
              return;
            }
            // Another document may have come to the path while this one was asked for.
            self->_refreshItem(parent, [self, path, handler](const OptionalError&) {
              self->_contentsOfFileAtPath(path, handler, false);
            });
          });
        }
      });
}

bool DCDocumentManager::_isUpToDateOrWatchedItem(const DCCachedItem& item) {
  return item.isUpToDate() || _isWatchedAndUpToDateItem(item);
}

void DCDocumentManager::_continueContentsOfFile(const DCCachedFile::Ptr& file, const OptionalError& error,
                                                FileHandler completionHandler) {
  DCLogTrace("-[DCDocumentManager _continueContentsOfFile:error:completionHandler:]",
             {{"file", file}, {"error", error}});
  const bool isConnectionFailure = error && pc_isDCErrorWithCode(*error, kConnectionFailure);
  const bool isConflict = error && pc_isDCErrorWithCode(*error, kVersionConflict);
  if (isConflict && file && file->relativeAge() == DCCachedItemOrderLocalIsNewer) {
    if (!file->needsUpload()) DCAssertionFailed(kSource, __LINE__, "file.needsUpload");
  }
  State state = kUnknown;
  std::optional<URL> url;
  OptionalError settled;
  // A conflict is one of bytes that were never sent, whatever else is known of them.
  const bool isFinal = error && !isConnectionFailure && !isConflict && !(file && file->needsUpload());
  if (isFinal || !file) {
    settled = error;
  } else if (file->existsOnDisk()) {
    url = localURLOfItem(*file);
    if (!isConnectionFailure && !isConflict) state = _isUpToDateOrWatchedItem(*file) ? kFresh : kStale;
  }
  if (!isFinal && file && !url) {
    // No local copy and no way to get one is an answer without an error.
    settled = DCError::transformFileManagerError(OptionalError());
  }
  auto handler = shareHandler(std::move(completionHandler));
  queue_->queue()->async([handler, state, url, settled] {
    if (*handler) (*handler)(state, url, settled);
  });
}

DCDocumentManager::OptionalError DCDocumentManager::_updateFreshlyDownloadedFile(
    const DCCachedFile::Ptr& file, const FVFResponseContainer::Ptr& downloadedFile) {
  static constexpr char function[] = "-[DCDocumentManager _updateFreshlyDownloadedFile:downloadedFile:]";
  DCLogTrace(function, {{"file", file}, {"downloadedFile", downloadedFile}});
  auto conflict = [&] { return DCError::errorVersionConflictWithUserInfo(DCError::userInfoWithItem(*file)); };
  // Body and metadata of an answer that somebody's own bytes have overtaken are dropped.
  if (file->isUnsent()) return conflict();
  const Date now = service_->clock().now();
  if (!downloadedFile || downloadedFile->transferType() != FVFResponseContainerTransferTypeFull) {
    file->setLastDownloadDate(now);
    if (downloadedFile && downloadedFile->url()) {
      auto answered = readFile(downloadedFile->url()->path());
      DCAssert(answered && file->contents() == *answered, kSource);
    }
    // What the server confirms may have been brought by somebody else.
    _tellOfItemOfOthers(file, false);
    return std::nullopt;
  }
  _didDownloadChangedItem(*file, downloadedFile->metadata());
  const std::string before = file->relativePath()->string();
  if (!cachedItemManager()->updateItem(file, *downloadedFile, now)) {
    if (file->isUnsent()) return conflict();
    return DCError::errorItemNotDownloadedWithUserInfo(DCError::userInfoWithItem(*file));
  }
  file->setLastDownloadDate(now);
  if (auto parent = file->parent(); parent && file->relativePath()->string() != before) {
    // The answer tells its name, and not the folder that it is in by now. The listing decides, also where it is still
    // the one that was taken in.
    processedListings_.forget(parent->documentIdentifier().value_or(Data()));
    queue_->dispatchAsynchronousBlock([self = shared_from_this(), parent] { self->_refreshItem(parent, nullptr); });
  }
  _didUpdateFile(file, downloadedFile->metadata().value_or(Dictionary()), function);
  return std::nullopt;
}

void DCDocumentManager::_didUpdateFile(const DCCachedFile::Ptr& file, const Dictionary& metadata,
                                       const char* function) {
  const std::string path = file->relativePath()->string();
  file->setToldVersionIdentifier(metadata.data(FVVersionIdentifierKey));
  _dispatchMaybeCallSelector("documentManager:didUpdateAttributesOfItemAtPath:attributes:", path, function, __LINE__,
                             [self = shared_from_this(), path, metadata](DCDocumentManagerDelegate& delegate) {
                               delegate.didUpdateAttributesOfItemAtPath(*self, path, metadata);
                             });
  _dispatchMaybeCallSelector("documentManager:didUpdateContentsOfFileAtPath:", path, function, __LINE__,
                             [self = shared_from_this(), path](DCDocumentManagerDelegate& delegate) {
                               delegate.didUpdateContentsOfFileAtPath(*self, path);
                             });
}

void DCDocumentManager::thumbnailOfItemAtPath(const std::string& path, FileHandler completionHandler) {
  static constexpr char function[] = "-[DCDocumentManager thumbnailOfItemAtPath:completionHandler:]";
  auto handler = shareHandler(std::move(completionHandler));
  DCLogTrace(function, {{"path", path}, {"userCompletionHandler", handlerText(*handler)}});
  _performWithKnownItemAtPath(function, path, ItemClass::Any, [handler](const Ptr& self, const PreOperation& checks) {
    if (checks.error || !checks.item) {
      callUserHandler(*self, handler, function, __LINE__, kUnknown, std::optional<URL>(), checks.error);
      return;
    }
    auto thumbnail = DCCachedItemManager::thumbnailForUnderlyingItem(checks.item);
    if (!thumbnail) {
      const State state = self->_isUpToDateOrWatchedItem(*checks.item) ? kFresh : kStale;
      callUserHandler(*self, handler, function, __LINE__, state, std::optional<URL>(),
                      OptionalError(DCError::errorNoThumbnailAvailableWithUserInfo(
                          DCError::userInfoWithRelativePath(*checks.relativePath))));
      return;
    }
    const bool existsOnDisk = thumbnail->existsOnDisk();
    const State state = thumbnail->isUpToDate() ? kFresh : kStale;
    if (existsOnDisk) {
      callUserHandler(*self, handler, function, __LINE__, state, localURLOfItem(*thumbnail), OptionalError());
    }
    if (!thumbnail->needsDownload()) {
      // Nothing is missing where nothing needs to be fetched; a handler is answered all the same.
      if (!existsOnDisk) {
        callUserHandler(*self, handler, function, __LINE__, state, std::optional<URL>(), OptionalError());
      }
      return;
    }
    if (existsOnDisk && state == kFresh) {
      DCAssertionFailed(kSource, __LINE__,
                        "(existsOnDisk && state != DCDocumentManagerFreshnessStateFresh) || !existsOnDisk");
    }
    self->_downloadThumbnail(thumbnail, existsOnDisk ? nullptr : handler);
  });
}

// Answers the handler, if there is one still to be answered, and tells the delegates of the file.
void DCDocumentManager::_downloadThumbnail(const DCCachedThumbnail::Ptr& thumbnail,
                                           const std::shared_ptr<FileHandler>& handler) {
  static constexpr char function[] = "-[DCDocumentManager thumbnailOfItemAtPath:completionHandler:]";
  _downloadItem(thumbnail, [self = shared_from_this(), thumbnail, handler](const OptionalError& error) {
    const auto url = localURLOfItem(*thumbnail);
    callUserHandler(*self, handler, function, __LINE__, kFresh, url, error);
    const std::string path = thumbnail->underlyingItem()->relativePath()->string();
    if (error) {
      self->_dispatchMaybeCallSelector("documentManager:didFailToUpdateItemAtPath:error:", path, function, __LINE__,
                                       [self, path, failure = *error](DCDocumentManagerDelegate& delegate) {
                                         delegate.didFailToUpdateItemAtPath(*self, path, failure);
                                       });
    } else if (url) {
      self->_dispatchMaybeCallSelector("documentManager:didUpdateThumbnailOfFileAtPath:url:", path, function, __LINE__,
                                       [self, path, location = *url](DCDocumentManagerDelegate& delegate) {
                                         delegate.didUpdateThumbnailOfFileAtPath(*self, path, location);
                                       });
    }
  });
}

void DCDocumentManager::previewOfItemAtPath(const std::string& path, FileHandler completionHandler) {
  static constexpr char function[] = "-[DCDocumentManager previewOfItemAtPath:completionHandler:]";
  auto handler = shareHandler(std::move(completionHandler));
  DCLogTrace(function, {{"path", path}, {"userCompletionHandler", handlerText(*handler)}});
  _performWithKnownItemAtPath(function, path, ItemClass::Any, [handler](const Ptr& self, const PreOperation& checks) {
    OptionalError error = checks.error;
    // The protocol has no request for previews.
    if (!error) {
      error = DCError::errorNoPreviewAvailableWithUserInfo(DCError::userInfoWithRelativePath(*checks.relativePath));
    }
    self->_continuePreviewOfItem(
        std::dynamic_pointer_cast<DCCachedFile>(checks.item), nullptr, error,
        [self, handler](State state, const std::optional<URL>& url, const OptionalError& settled) {
          callUserHandler(*self, handler, function, __LINE__, state, url, settled);
        });
  });
}

void DCDocumentManager::_continuePreviewOfItem(const DCCachedFile::Ptr& item, const DCCachedItem::Ptr& preview,
                                               const OptionalError& error, FileHandler completionHandler) {
  static constexpr char function[] = "-[DCDocumentManager _continuePreviewOfItem:preview:error:completionHandler:]";
  DCLogTrace(function, {{"item", item}, {"preview", preview}, {"error", error}});
  State state = kUnknown;
  std::optional<URL> url;
  if (preview) {
    state = _isUpToDateOrWatchedItem(*preview) ? kFresh : kStale;
    if (preview->existsOnDisk()) url = localURLOfItem(*preview);
  }
  if (!completionHandler) return;
  DCLogCallback(DCLogLevelDebug, "%@: Calling completion handler %@ at %s:%u", *this,
                baseDescription("Block", &completionHandler), function, __LINE__);
  completionHandler(state, url, error);
}

Result<URL> DCDocumentManager::fileURLOfItemAtPath(const std::string& path) {
  static constexpr char function[] = "-[DCDocumentManager fileURLOfItemAtPath:error:]";
  DCLogTrace(function, {{"path", path}});
  Result<URL> result = Failure(DCError::errorNoSuchItemWithUserInfo());
  queue_->dispatchSynchronousBlock([&] {
    auto checks = _performPreOperationChecksWithPath(path, ItemClass::Any, true);
    _logFunction(function, path, checks.item, checks.relativePath);
    if (checks.item) {
      auto fullPath = checks.item->fullPathIfKnown();
      if (!fullPath && _takeIdentifierOfEntry(checks.item)) fullPath = checks.item->fullPathIfKnown();
      if (fullPath) {
        result = fullPath->url();
        return;
      }
      checks.error = DCError::errorNoSuchItemWithUserInfo(DCError::userInfoWithRelativePath(*checks.relativePath));
    }
    // A new file has a place before anybody has written it.
    if (checks.error && checks.relativePath && !checks.relativePath->isRoot() &&
        pc_isDCErrorWithCode(*checks.error, kNoSuchItem)) {
      auto parent = checks.relativePath->relativePathByDeletingLastPathComponent();
      if (!_performPreOperationChecksWithPath(parent->string(), ItemClass::Directory, true).error) {
        result =
            DCFullPath::uploadFullPathWithParentRelativePath(parent, checks.relativePath->lastPathComponent())->url();
        return;
      }
    }
    if (checks.error) result = Failure(*checks.error);
  });
  return result;
}

Result<std::set<std::string>> DCDocumentManager::pathsOfItemAtURL(const URL& url) {
  static constexpr char function[] = "-[DCDocumentManager pathsOfItemAtURL:error:]";
  DCLogTrace(function, {{"url", url}});
  const Error invalidURL = DCError::errorInvalidArgumentWithUserInfo(DCError::userInfoWithArgument("url"));
  if (!url.isFileURL()) return Failure(invalidURL);
  Result<std::set<std::string>> result = Failure(DCError::errorNoSuchItemWithUserInfo(DCError::userInfoWithURL(url)));
  queue_->dispatchSynchronousBlock([&] {
    database()->refresh();
    auto manager = cachedItemManager();
    DCFullPath::Ptr fullPath;
    try {
      fullPath =
          DCFullPath::fullPathWithString(FVFPathUtils::stringBySanitizingPath(url.path(), false, true), service_);
    } catch (const InvalidArgumentException&) {
      result = Failure(invalidURL);
      return;
    }
    std::set<std::string> paths;
    if (auto documentIdentifier = fullPath->documentIdentifier()) {
      for (const auto& item : DCCachedItemManager::itemsWithDocumentIdentifier(*documentIdentifier, service_)) {
        paths.insert(item->relativePath()->string());
      }
    }
    if (paths.empty() && fullPath->string() == DCFullPath::documentRootForService(service_)->string()) {
      paths.insert("");
    }
    if (paths.empty()) {
      for (const auto& upload : database()->allUploads()) {
        if (upload->fileURL() == fullPath->string() && upload->path()) paths.insert(*upload->path());
      }
    }
    if (!paths.empty()) result = std::move(paths);
  });
  return result;
}

}  // namespace florvane
