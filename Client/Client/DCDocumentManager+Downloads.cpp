#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/DCError.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCTakeInLock.h"
#include "Client/Client/HTTPSASLClientSession.h"
#include "common/FVFMetadataUtils.h"
#include "platform/FileSystem.h"
#include "platform/PropertyList.h"

#include <array>
#include <cerrno>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCDocumentManager";
// Answers that another process has overtaken, or that confirm what is not there, are asked for again; not for ever.
constexpr int kMostAttempts = 3;
constexpr std::int64_t kUnauthorized = 401;
constexpr std::uint64_t kMostBytesOfTextListing = std::uint64_t{512} << 20U;

// The transport's failure in the error itself or, of a sign-in that could not reach the server, below it.
const Error* connectionFailureOf(const Error& error) {
  if (pc_isConnectionFailure(error)) return &error;
  const bool isOfSignIn = error.domain() == HTTPSASLErrorDomain;
  for (const Error* cause = error.underlyingError(); isOfSignIn && cause; cause = cause->underlyingError()) {
    if (pc_isConnectionFailure(*cause)) return cause;
  }
  return nullptr;
}

// Whether the file is a property list whose root is an array, told of a binary one by its end alone: it is read whole
// when it has taken its place, and what is no listing must not take that of one that is.
bool isListing(const std::optional<URL>& url) {
  constexpr std::size_t headSize = 8, trailerSize = 32, numberSize = 8;
  std::array<unsigned char, headSize> head{};
  std::array<unsigned char, trailerSize> trailer{};
  auto file = url ? openFile(url->path(), O_RDONLY) : Result<FileDescriptor>(Failure(Error::posix(ENOENT)));
  struct stat status{};
  if (!file || fstat(file->get(), &status) != 0) return false;
  const bool isBinary = status.st_size >= static_cast<off_t>(headSize + trailerSize) &&
                        pread(file->get(), head.data(), headSize, 0) == static_cast<ssize_t>(headSize) &&
                        std::string_view(reinterpret_cast<const char*>(head.data()), headSize) == "bplist00";
  if (!isBinary) {
    auto bytes = readFile(url->path(), kMostBytesOfTextListing);
    auto list = bytes ? readPropertyList(*bytes) : Result<Value>(Failure(bytes.error()));
    return list && list->kind() == Value::Kind::Array;
  }
  if (pread(file->get(), trailer.data(), trailerSize, status.st_size - static_cast<off_t>(trailerSize)) !=
      static_cast<ssize_t>(trailerSize)) {
    return false;
  }
  auto number = [](const unsigned char* bytes, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i) value = value << 8U | bytes[i];
    return value;
  };
  const std::size_t offsetSize = trailer[6];
  const std::uint64_t root = number(&trailer[16], numberSize), table = number(&trailer[24], numberSize);
  const auto size = static_cast<std::uint64_t>(status.st_size);
  if (offsetSize < 1 || offsetSize > numberSize || table >= size || root >= (size - table) / offsetSize) return false;
  std::array<unsigned char, numberSize> offset{};
  unsigned char marker = 0;
  constexpr unsigned arrayKind = 0xA;
  return pread(file->get(), offset.data(), offsetSize, static_cast<off_t>(table + root * offsetSize)) ==
             static_cast<ssize_t>(offsetSize) &&
         pread(file->get(), &marker, 1, static_cast<off_t>(number(offset.data(), offsetSize))) == 1 &&
         marker >> 4U == arrayKind;
}

}  // namespace

// What the network failed at becomes the one error by which callers know that the server could not be asked.
Error DCDocumentManager::_clientErrorForError(const Error& error, const DCRelativePath& relativePath) {
  const Error* failure = connectionFailureOf(error);
  if (!failure) return error;
  const Dictionary userInfo = DCError::userInfoWithRelativePath(relativePath);
  const Error clientError = failure->code() == URLErrorTimedOut ? DCError::errorConnectionTimedOutWithUserInfo(userInfo)
                                                                : DCError::errorNotConnectedWithUserInfo(userInfo);
  return clientError.withUnderlyingError(error);
}

void DCDocumentManager::_downloadItem(const DCCachedItem::Ptr& item, ErrorHandler completionHandler) {
  DCLogTrace("-[DCDocumentManager _downloadItem:completionHandler:]", {{"item", item}});
  queue_->checkIsCurrent(kSource, __LINE__);
  if (!item) {
    DCAssertionFailed(kSource, __LINE__, "[item isKindOfClass:[DCCachedItem class]]");
    if (completionHandler) completionHandler(DCError::errorInternalWithUserInfo());
    return;
  }
  switch (_downloadDecision(item)) {
    case DownloadDecision::Nothing:
      if (completionHandler) completionHandler(std::nullopt);
      return;
    case DownloadDecision::Conflict:
      if (completionHandler) {
        completionHandler(DCError::errorVersionConflictWithUserInfo(DCError::userInfoWithItem(*item)));
      }
      return;
    case DownloadDecision::Parent:
      _downloadItem(item->parent(), std::move(completionHandler));
      return;
    case DownloadDecision::Download:
      _startDownloadItem(item, std::move(completionHandler));
      return;
  }
}

DCDocumentManager::DownloadDecision DCDocumentManager::_downloadDecision(const DCCachedItem::Ptr& item) {
  auto uploadManager = DCUploadManager::uploadManagerForService(service_);
  // No upload starts or ends between the tests.
  std::lock_guard lock(uploadManager->lock());
  auto file = std::dynamic_pointer_cast<DCCachedFile>(item);
  const bool isThumbnail = dynamic_cast<DCCachedThumbnail*>(item.get()) != nullptr;
  if (file && !isThumbnail && uploadManager->isUploadingFile(*file)) {
    // Driven on, and not waited for: who wants to read has the local copy.
    uploadManager->uploadFile(file, DCRemoteDocumentManager::remoteDocumentManagerForService(service_),
                              _activityInfoForItem(*file), nullptr);
    return DownloadDecision::Conflict;
  }
  const auto* directory = dynamic_cast<DCCachedDirectory*>(item.get());
  // A listing that cannot be read any more would be confirmed for ever.
  const bool isDamaged = directory && !directory->needsInitialDownload() && !directory->directoryContents();
  if (isDamaged) item->clearRemoteMetadata();
  const bool needsDownload = isDamaged || item->needsDownload();
  const bool isUpToDate = item->isUpToDate();
  if (isUpToDate && !needsDownload) return DownloadDecision::Nothing;
  if (item->needsInitialUpload() && !item->needsInitialSynchronization()) return DownloadDecision::Parent;
  if (file && file->isUnsent()) return DownloadDecision::Conflict;
  if (file && file->relativeAge() == DCCachedItemOrderLocalIsNewer) {
    // Nobody has written it, and yet it is newer than all that is known.
    DCAssertionFailed(kSource, __LINE__, "!error");
    return DownloadDecision::Conflict;
  }
  if (isUpToDate && !needsDownload && _isWatchedAndUpToDateItem(*item)) {
    DCAssertionFailed(kSource, __LINE__,
                      "!(item.isUpToDate && [self _isWatchedAndUpToDateItem:item]) || item.needsDownload");
  }
  return DownloadDecision::Download;
}

void DCDocumentManager::_startDownloadItem(const DCCachedItem::Ptr& item, ErrorHandler completionHandler) {
  DCLogTrace("-[DCDocumentManager _startDownloadItem:completionHandler:]", {{"item", item}});
  if (!item->documentIdentifier() && !item->isRoot() && !_takeIdentifierOfEntry(item)) {
    _downloadParentOfItem(item, std::move(completionHandler));
  } else if (auto file = std::dynamic_pointer_cast<DCCachedFile>(item)) {
    _downloadStaleFile(file, std::move(completionHandler));
  } else if (auto directory = std::dynamic_pointer_cast<DCCachedDirectory>(item)) {
    _downloadStaleDirectory(directory, std::move(completionHandler));
  }
}

// The listing of the parent says which document it is, where nobody has recorded it yet.
bool DCDocumentManager::_takeIdentifierOfEntry(const DCCachedItem::Ptr& item) {
  if (dynamic_cast<DCCachedThumbnail*>(item.get())) return false;
  const DCTakeInLock lock(service_);
  auto entry = item->parentContentsMetadata();
  auto identifier = entry ? entry->data(FVDocumentIdentifierKey) : std::nullopt;
  return identifier && item->updateDocumentIdentifier(identifier);
}

void DCDocumentManager::_downloadParentOfItem(const DCCachedItem::Ptr& item, ErrorHandler completionHandler) {
  auto noSuchItem = DCError::errorNoSuchItemWithUserInfo(DCError::userInfoWithRelativePath(*item->relativePath()));
  if (dynamic_cast<DCCachedThumbnail*>(item.get())) {
    // What is above a thumbnail is a file, whose listing nobody can ask for.
    if (completionHandler) completionHandler(noSuchItem);
    return;
  }
  auto parent = item->parent();
  if (!parent) {
    DCAssertionFailed(kSource, __LINE__, "[parent isKindOfClass:[DCCachedDirectory class]]");
    if (completionHandler) completionHandler(noSuchItem);
    return;
  }
  auto handler = std::make_shared<ErrorHandler>(std::move(completionHandler));
  _downloadItem(parent, [self = shared_from_this(), item, noSuchItem, handler](const OptionalError& error) {
    if (!error && item->documentIdentifier() && item->needsDownload()) {
      self->_startDownloadItem(item, std::move(*handler));
    } else if (*handler) {
      const bool isSettled = item->documentIdentifier() || item->isUnsent();
      (*handler)(error || isSettled ? error : OptionalError(noSuchItem));
    }
  });
}

void DCDocumentManager::_downloadStaleDirectory(const DCCachedDirectory::Ptr& directory,
                                                ErrorHandler completionHandler) {
  DCLogTrace("-[DCDocumentManager _downloadStaleDirectory:completionHandler:]", {{"directory", directory}});
  _download({directory, 1, false}, std::make_shared<ErrorHandler>(std::move(completionHandler)));
}

void DCDocumentManager::_downloadStaleFile(const DCCachedFile::Ptr& file, ErrorHandler completionHandler) {
  DCLogTrace("-[DCDocumentManager _downloadStaleFile:completionHandler:]", {{"file", file}});
  _download({file, 1, false}, std::make_shared<ErrorHandler>(std::move(completionHandler)));
}

// One attempt at a download, joined where one is in flight. The handler's end is settled in _downloadDidEnd.
void DCDocumentManager::_download(const Download& download, const std::shared_ptr<ErrorHandler>& handler) {
  const auto& item = download.item;
  const auto requested = item->documentIdentifier();
  const Date started = service_->clock().now();
  auto ended = [self = shared_from_this(), download, requested, started, handler](
                   const FVFResponseContainer::Ptr& container, const OptionalError& error) {
    self->_downloadDidEnd(download, requested, started, container, error, handler);
  };
  if (!requested && !item->isRoot()) {
    // Another process has moved it, or taken it away, since the attempt before.
    ended(nullptr, DCError::errorNoSuchItemWithUserInfo(DCError::userInfoWithRelativePath(*item->relativePath())));
    return;
  }
  auto downloadManager = DCDownloadManager::downloadManagerForService(service_);
  auto remoteManager = DCRemoteDocumentManager::remoteDocumentManagerForService(service_);
  auto activityInfo = _activityInfoForItem(*item);
  DCServerRequest::Ptr task;
  if (auto file = std::dynamic_pointer_cast<DCCachedFile>(item)) {
    task = downloadManager->startDownloadingFile(file, remoteManager, activityInfo, ended);
  } else {
    task = downloadManager->startDownloadingDirectory(std::static_pointer_cast<DCCachedDirectory>(item), remoteManager,
                                                      activityInfo, ended);
  }
  if (!task) return;
  const std::string path = item->relativePath()->string();
  _dispatchMaybeCallSelector("documentManager:didStartDownloadingItemAtPath:downloadTask:", path,
                             "-[DCDocumentManager _startDownloadItem:completionHandler:]", __LINE__,
                             [self = shared_from_this(), path, task](DCDocumentManagerDelegate& delegate) {
                               delegate.didStartDownloadingItemAtPath(*self, path, task);
                             });
}

void DCDocumentManager::_downloadDidEnd(const Download& download, const std::optional<Data>& requested, Date started,
                                        const FVFResponseContainer::Ptr& container, const OptionalError& error,
                                        const std::shared_ptr<ErrorHandler>& handler) {
  const auto& item = download.item;
  const bool wasNotRetried = error && error->is(URLErrorDomain, kUnauthorized) &&
                             error->userInfo().boolean(DCDownloadWasNotRetriedKey).value_or(false);
  if (wasNotRetried && !download.isSecondSignIn) {
    // In a turn of its own, when all that waited have heard of the first.
    queue_->dispatchAsynchronousBlock([self = shared_from_this(), download, handler] {
      self->_download({download.item, download.attempt, true}, handler);
    });
    return;
  }
  OptionalError result = error;
  if (!error) {
    bool asksAgain = false;
    // Those who joined the download get what the first of them made of it: the answer is taken in once.
    if (appliedDownload_ && appliedDownload_->item == item && appliedDownload_->container == container) {
      result = appliedDownload_->result;
      asksAgain = appliedDownload_->asksAgain;
    } else {
      result = _applyDownload(download, requested, started, container, asksAgain);
      appliedDownload_ = {item, container, result, asksAgain};
      // They are all told in this turn of the queue.
      queue_->dispatchAsynchronousBlock([self = shared_from_this()] { self->appliedDownload_.reset(); });
    }
    if (asksAgain && download.attempt < kMostAttempts) {
      queue_->dispatchAsynchronousBlock([self = shared_from_this(), download, handler] {
        self->_download({download.item, download.attempt + 1, download.isSecondSignIn}, handler);
      });
      return;
    }
  }
  auto relativePath = item->relativePath();
  if (result) result = _clientErrorForError(*result, *relativePath);
  if (*handler) (*handler)(result);
  if (!result) return;
  const std::string path = relativePath->string();
  _dispatchMaybeCallSelector("documentManager:didFailToUpdateItemAtPath:error:", path,
                             "-[DCDocumentManager _startDownloadItem:completionHandler:]", __LINE__,
                             [self = shared_from_this(), path, failure = *result](DCDocumentManagerDelegate& delegate) {
                               delegate.didFailToUpdateItemAtPath(*self, path, failure);
                             });
}

DCDocumentManager::OptionalError DCDocumentManager::_applyDownload(const Download& download,
                                                                   const std::optional<Data>& requested, Date started,
                                                                   const FVFResponseContainer::Ptr& container,
                                                                   bool& asksAgain) {
  const DCTakeInLock lock(service_);
  const auto& item = download.item;
  const bool isOther = requested && item->documentIdentifier() != requested;
  const auto answered =
      container && container->metadata() ? container->metadata()->data(FVDocumentIdentifierKey) : std::nullopt;
  // Of an answer about another document than was asked for the cache knows better what to do.
  if ((item->hasBeenRemoved() || isOther) && (!answered || !requested || answered == requested)) {
    return DCError::errorNoSuchItemWithUserInfo(DCError::userInfoWithRelativePath(*item->relativePath()));
  }
  auto file = std::dynamic_pointer_cast<DCCachedFile>(item);
  if (!container && !item->isUnsent() && item->relativeAge() == DCCachedItemOrderLocalIsOlder) {
    // The same version, and yet older than the entry of the parent's listing: only a whole answer brings that date.
    item->clearRemoteMetadata();
    asksAgain = true;
  }
  if (file) return _updateFreshlyDownloadedFile(file, container);
  auto directory = std::static_pointer_cast<DCCachedDirectory>(item);
  if (_wasListedSince(*directory, started)) {
    asksAgain = true;
    return std::nullopt;
  }
  return _updateFreshlyDownloadedDirectory(directory, container);
}

// Then what was found may be missing in the answer to a request of that time.
bool DCDocumentManager::_wasListedSince(const DCCachedDirectory& directory, Date started) const {
  const auto listed = directory.lastDownloadDate();
  return listed && started < *listed && *listed <= service_->clock().now();
}

DCDocumentManager::OptionalError DCDocumentManager::_updateFreshlyDownloadedDirectory(
    const DCCachedDirectory::Ptr& directory, const FVFResponseContainer::Ptr& downloadedDirectory) {
  return _updateFreshlyDownloadedDirectory(directory, downloadedDirectory, nullptr, nullptr);
}

DCDocumentManager::OptionalError DCDocumentManager::_updateFreshlyDownloadedDirectory(
    const DCCachedDirectory::Ptr& directory, const FVFResponseContainer::Ptr& downloadedDirectory,
    const DCCachedFile::Ptr& fetchingForChild, std::optional<Dictionary>* remoteMetadata) {
  static constexpr char function[] =
      "-[DCDocumentManager _updateFreshlyDownloadedDirectory:downloadedDirectory:fetchingForChild:remoteMetadata:]";
  DCLogTrace(
      function,
      {{"directory", directory}, {"downloadedDirectory", downloadedDirectory}, {"fetchingForChild", fetchingForChild}});
  queue_->checkIsCurrent(kSource, __LINE__);
  const DCTakeInLock lock(service_);
  std::optional<Dictionary> childMetadata;
  std::optional<Dictionary>* const remoteMetadataPtr = remoteMetadata ? remoteMetadata : &childMetadata;
  remoteMetadataPtr->reset();
  const Date now = service_->clock().now();
  if (!downloadedDirectory || downloadedDirectory->transferType() != FVFResponseContainerTransferTypeFull) {
    directory->setLastDownloadDate(now);
    // What the server confirms may have been brought by somebody else.
    _tellOfItemOfOthers(directory, false);
    if (fetchingForChild) {
      DCAssert(!*remoteMetadataPtr, kSource);
      *remoteMetadataPtr = fetchingForChild->parentContentsMetadata();
      DCAssert(*remoteMetadataPtr, kSource);
    }
    return std::nullopt;
  }
  if (!isListing(downloadedDirectory->url())) {
    DCLogWarning("Ignoring an answer for '%@' that is no listing", directory->relativePath()->string());
    return Error(URLErrorDomain, URLErrorCannotParseResponse);
  }
  _didDownloadChangedItem(*directory, downloadedDirectory->metadata());
  // What others have brought in meanwhile is taken in before it is replaced.
  _processListingOfOthers(directory);
  auto previous = processedListings_.listing(directory->documentIdentifier().value_or(Data()));
  if (!cachedItemManager()->updateItem(directory, *downloadedDirectory, now)) {
    return DCError::errorItemNotDownloadedWithUserInfo(DCError::userInfoWithItem(*directory));
  }
  auto current = directory->directoryContents();
  if (!current) return DCError::errorItemNotDownloadedWithUserInfo(DCError::userInfoWithItem(*directory));
  directory->setLastDownloadDate(now);
  _processDirectoryChangesWithDirectory(directory, current, previous, fetchingForChild, remoteMetadataPtr);

  _didUpdateDirectory(directory, downloadedDirectory->metadata().value_or(Dictionary()), function);
  _adjustFetchingUpdatesIfNecessary();
  return std::nullopt;
}

void DCDocumentManager::_didUpdateDirectory(const DCCachedDirectory::Ptr& directory, const Dictionary& metadata,
                                            const char* function) {
  const std::string path = directory->relativePath()->string();
  directory->setToldVersionIdentifier(metadata.data(FVVersionIdentifierKey));
  _dispatchMaybeCallSelector("documentManager:didUpdateAttributesOfItemAtPath:attributes:", path, function, __LINE__,
                             [self = shared_from_this(), path, metadata](DCDocumentManagerDelegate& delegate) {
                               delegate.didUpdateAttributesOfItemAtPath(*self, path, metadata);
                             });
  if (_needsToCallDelegateForPath(path)) {
    const Listing listing = _listingOfDirectory(directory);
    _dispatchMaybeCallSelector(
        "documentManager:didUpdateContentsOfDirectoryAtPath:contents:", path, function, __LINE__,
        [self = shared_from_this(), path, contents = listing.contents](DCDocumentManagerDelegate& delegate) {
          delegate.didUpdateContentsOfDirectoryAtPath(*self, path, contents);
        });
  }
}

void DCDocumentManager::_didDownloadChangedItem(const DCCachedItem& item,
                                                const std::optional<Dictionary>& downloadedMetadata) {
  DCLogTrace("-[DCDocumentManager _didDownloadChangedItem:downloadedMetadata:]",
             {{"item", item}, {"downloadedMetadata", downloadedMetadata}});
  auto version = downloadedMetadata ? downloadedMetadata->data(FVVersionIdentifierKey) : std::nullopt;
  DCLogDebug("Downloaded version %@ of '%@' in place of version %@", version, item.relativePath()->string(),
             item.versionIdentifier());
}

}  // namespace florvane
