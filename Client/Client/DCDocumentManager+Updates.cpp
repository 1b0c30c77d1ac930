#include "Client/Client/DCDocumentManager+Handlers.h"
#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/DCError.h"
#include "Client/Client/DCLog.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCDocumentManager";
constexpr Duration kLeeway = std::chrono::milliseconds(50);
// A download that follows a report may be judged unnecessary, and the next may join one that was asked for before the
// report; the third says what the server has now.
constexpr int kAttemptsAtOnce = 3;
constexpr std::int64_t kVersionConflict = 3;
constexpr std::int64_t kNoSuchItem = 11;

using Items = std::vector<DCCachedItem::Ptr>;

void addOnce(Items& items, const DCCachedItem::Ptr& item) {
  if (item && std::find(items.begin(), items.end(), item) == items.end()) items.push_back(item);
}

bool saysThatItIsGone(const Error& error) {
  return error.is(URLErrorDomain, 404) || pc_isDCErrorWithCode(error, kNoSuchItem);
}

}  // namespace

void DCDocumentManager::_didUpdateVersionIdentifier(const std::optional<Data>& versionIdentifier,
                                                    const std::optional<Data>& forDocumentIdentifier) {
  DCLogTrace("-[DCDocumentManager _didUpdateVersionIdentifier:forDocumentIdentifier:]",
             {{"versionIdentifier", versionIdentifier}, {"documentIdentifier", forDocumentIdentifier}});
  queue_->checkIsCurrent(kSource, __LINE__);
  if (!versionIdentifier || !forDocumentIdentifier) return;
  // Looked up once, not once a registration.
  const Items items = DCCachedItemManager::itemsWithDocumentIdentifier(*forDocumentIdentifier, service_);
  Items targets;
  {
    std::lock_guard lock(mutex_);
    auto report = [&](DCDelegateState& state, const DCCachedItem::Ptr& target) {
      state.setWatchedVersionIdentifier(versionIdentifier);
      addOnce(targets, target);
    };
    for (const auto& state : _statesWatchingDocument(*forDocumentIdentifier)) report(*state, state->item());
    // A folder in a watched one, too.
    for (const auto& each : items) {
      const auto parent = std::dynamic_pointer_cast<DCCachedDirectory>(each) ? each->parent() : nullptr;
      const auto identifier = parent ? parent->documentIdentifier() : std::nullopt;
      if (!identifier) continue;
      for (const auto& state : _statesWatchingDocument(*identifier)) {
        if (state->item() == parent) report(*state, each);
      }
    }
    // A folder that is watched for something that is to come below it.
    if (targets.empty() && watchedDocumentIdentifiersAndVersionIdentifiers_ &&
        watchedDocumentIdentifiersAndVersionIdentifiers_->contains(*forDocumentIdentifier)) {
      for (const auto& each : items) addOnce(targets, each);
    }
  }
  for (const auto& target : targets) {
    // One that is followed already learns of it too, or it would wait for a version that has been overtaken.
    const bool isFollowed = updates_.contains(*forDocumentIdentifier);
    if (isFollowed || target->versionIdentifier() != versionIdentifier) {
      _updateItem(target, *versionIdentifier);
    } else {
      // Another process was faster, or the version is of this one's own doing.
      _tellOfItemOfOthers(target, true);
    }
  }
}

std::vector<DCDelegateState::Ptr> DCDocumentManager::_statesWatchingDocument(const Data& documentIdentifier) const {
  std::vector<DCDelegateState::Ptr> states;
  const auto [first, last] = statesByWatchedDocument_.equal_range(documentIdentifier);
  for (auto each = first; each != last; ++each) {
    if (each->second->item()->documentIdentifier() == documentIdentifier) states.push_back(each->second);
  }
  return states;
}

// From a reported version to a cached one

void DCDocumentManager::_updateItem(const DCCachedItem::Ptr& item, const Data& versionIdentifier) {
  auto identifier = item->documentIdentifier();
  if (!identifier) return;
  Update& update = updates_[*identifier];
  update.item = item;
  update.versionIdentifier = versionIdentifier;
  update.attempts = 0;
  update.waitsForUpload = false;
  _continueUpdate(*identifier);
}

void DCDocumentManager::_continueUpdate(const Data& documentIdentifier) {
  auto found = updates_.find(documentIdentifier);
  if (found == updates_.end() || found->second.isDownloading) return;
  Update& update = found->second;
  if (update.item->hasBeenRemoved() || update.item->versionIdentifier() == update.versionIdentifier) {
    const auto settled = update.item;
    updates_.erase(found);
    _tellOfItemOfOthers(settled, true);
    return;
  }
  update.isDownloading = true;
  auto item = update.item;
  update.versionBefore = item->versionIdentifier();
  update.joinsDownload = _isDownloading(item);
  auto completionHandler = [weak = weak_from_this(), documentIdentifier](const OptionalError& error) {
    if (auto self = weak.lock()) self->_didDownloadUpdate(documentIdentifier, error);
  };
  // Nothing of the update is touched after this: the handler may have run by then.
  if (update.attempts++ == 0) {
    _downloadItem(item, completionHandler);
  } else {
    _refreshItem(item, completionHandler);
  }
}

bool DCDocumentManager::_isDownloading(const DCCachedItem::Ptr& item) {
  auto downloadManager = DCDownloadManager::downloadManagerForService(service_);
  if (auto file = std::dynamic_pointer_cast<DCCachedFile>(item)) return downloadManager->isDownloadingFile(*file);
  auto directory = std::dynamic_pointer_cast<DCCachedDirectory>(item);
  return directory && downloadManager->isDownloadingDirectory(*directory);
}

void DCDocumentManager::_didDownloadUpdate(const Data& documentIdentifier, const OptionalError& error) {
  auto found = updates_.find(documentIdentifier);
  if (found == updates_.end()) return;
  Update& update = found->second;
  update.isDownloading = false;
  bool agrees = update.item->versionIdentifier() == update.versionIdentifier;
  // Of several downloads whose cookie was refused not all have signed in again; and the upload that a download was
  // refused for may have ended meanwhile.
  const bool maySucceedAtOnce =
      !error || error->is(URLErrorDomain, 401) || pc_isDCErrorWithCode(*error, kVersionConflict);
  // A version that came in answer to the report, and is another, is newer. The watch goes on from the reported one and
  // is answered with the newest at once.
  const bool hasMovedOn = !error && !update.joinsDownload && update.item->versionIdentifier() != update.versionBefore;
  if (agrees || update.item->hasBeenRemoved()) {
    const auto settled = update.item;
    updates_.erase(found);
    if (updates_.empty()) updateBackOff_.reset();
    // Nothing may have been fetched, because another process was faster.
    _tellOfItemOfOthers(settled, true);
    // Listings that were taken in have been adjusted for.
    if (settled->hasBeenRemoved()) _adjustFetchingUpdatesIfNecessary();
  } else if (error && saysThatItIsGone(*error)) {
    updates_.erase(found);
    _documentsAreGone({documentIdentifier});
  } else if (update.item->isUnsent()) {
    // The local bytes are newer than anything known. When they have been sent, by whichever process, the server's
    // version is theirs or is fetched.
    update.waitsForUpload = true;
    hasUpdatesOfUnsent_ = true;
    // The upload may have ended in between.
    queue_->dispatchAsynchronousBlock([weak = weak_from_this()] {
      if (auto self = weak.lock()) self->_continueUpdatesOfSent();
    });
  } else if (maySucceedAtOnce && !hasMovedOn && update.attempts < kAttemptsAtOnce) {
    _continueUpdate(documentIdentifier);
  } else {
    _setUpdateTimer();
  }
}

void DCDocumentManager::_setUpdateTimer() {
  std::lock_guard lock(mutex_);
  if (updateTimer_) return;
  Clock& clock = service_->clock();
  updateTimer_ =
      clock.schedule(clock.monotonicNow() + updateBackOff_.next(), kLeeway, [weak = weak_from_this(), queue = queue_] {
        queue->dispatchAsynchronousBlock([weak] {
          if (auto self = weak.lock()) self->_retryUpdates();
        });
      });
}

void DCDocumentManager::_retryUpdates() {
  queue_->checkIsCurrent(kSource, __LINE__);
  {
    std::lock_guard lock(mutex_);
    updateTimer_.reset();
  }
  std::vector<Data> identifiers;
  identifiers.reserve(updates_.size());
  for (auto& [identifier, update] : updates_) {
    update.attempts = 1;  // asked for whatever the item's age
    identifiers.push_back(identifier);
  }
  for (const auto& identifier : identifiers) _continueUpdate(identifier);
}

void DCDocumentManager::_documentsAreGone(const std::set<Data>& documentIdentifiers) {
  Items parents;
  for (const auto& identifier : documentIdentifiers) {
    for (const auto& item : DCCachedItemManager::itemsWithDocumentIdentifier(identifier, service_)) {
      addOnce(parents, item->parent());
    }
  }
  {
    std::lock_guard lock(mutex_);
    for (const auto& [path, state] : delegateStates_) {
      // Another process has found out already, and removed the records of what the object here still stands for.
      const auto& item = state->item();
      if (!item->hasBeenRemoved() && !item->isRoot() && !item->documentIdentifier()) addOnce(parents, item->parent());
    }
    goneDocumentIdentifiers_.insert(documentIdentifiers.begin(), documentIdentifiers.end());
    _adjustFetchingUpdatesIfNecessary();
    // Looks again at what the listings still name.
    _setWatchTimer();
  }
  for (const auto& parent : parents) {
    auto identifier = parent->documentIdentifier();
    _refreshItem(parent, [weak = weak_from_this(), identifier, isRoot = parent->isRoot()](const OptionalError& error) {
      auto self = weak.lock();
      if (!self) return;
      if (error && identifier && !isRoot && saysThatItIsGone(*error)) {
        self->_documentsAreGone({*identifier});
      } else {
        self->_adjustFetchingUpdatesIfNecessary();
      }
    });
  }
}

// Refreshing whatever the age

void DCDocumentManager::_refreshItem(const DCCachedItem::Ptr& item, ErrorHandler completionHandler) {
  DCLogTrace("-[DCDocumentManager _refreshItem:completionHandler:]", {{"item", item}});
  auto uploadManager = DCUploadManager::uploadManagerForService(service_);
  {
    // No upload starts or ends between the tests and the start of the download.
    std::lock_guard lock(uploadManager->lock());
    auto file = std::dynamic_pointer_cast<DCCachedFile>(item);
    bool isUnsent = file && (uploadManager->isUploadingFile(*file) || file->isUnsent());
    if (!isUnsent) {
      _startDownloadItem(item, std::move(completionHandler));
      return;
    }
  }
  if (completionHandler) completionHandler(std::nullopt);
}

void DCDocumentManager::refreshItemAtPath(const std::string& path, ErrorHandler completionHandler) {
  static constexpr char function[] = "-[DCDocumentManager refreshItemAtPath:completionHandler:]";
  // Queued work is copied nowhere, but what a request stores is.
  auto userHandler = shareHandler(std::move(completionHandler));
  DCLogTrace(function, {{"path", path}, {"userCompletionHandler", handlerText(*userHandler)}});
  queue_->dispatchAsynchronousBlock([self = shared_from_this(), path, userHandler] {
    auto checks = self->_performPreOperationChecksWithPath(path, ItemClass::Any, true);
    self->_logFunction(function, path, checks.item, checks.relativePath);
    auto settle = [self, userHandler](const OptionalError& error) {
      callUserHandler(*self, userHandler, function, __LINE__, error);
    };
    if (checks.error) {
      settle(checks.error);
    } else {
      self->_refreshItem(checks.item, settle);
    }
  });
}

}  // namespace florvane
