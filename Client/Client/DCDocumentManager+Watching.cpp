#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCPreferences.h"
#include "Client/Client/HTTPSASLClientSession.h"
#include "Client/Client/HTTPSASLClientSessionManager.h"
#include "common/FVFMetadataUtils.h"
#include "platform/Exceptions.h"
#include "platform/ResourceValues.h"

#include <utility>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCDocumentManager";
// How much later than asked a timer may fire.
constexpr Duration kLeeway = std::chrono::milliseconds(50);
// With so few registrations all of them are looked at whenever one changes.
constexpr std::size_t kFewRegistrations = 64;

std::string pathOf(const DCCachedItem& item) {
  auto path = item.relativePath();
  return path ? path->string() : "";
}

std::string delegateText(const DCDocumentManager::DelegatePtr& delegate) {
  return baseDescription("Delegate", delegate.get());
}

// Whatever is known to be at the path.
DCCachedItem::Ptr knownItemAtRelativePath(const DCRelativePath::Ptr& path) {
  auto type = DCCachedItemManager::fileResourceTypeAtRelativePath(path);
  if (!type) return nullptr;
  if (*type == ResourceTypeDirectory) return DCCachedItemManager::directoryAtRelativePath(path);
  return DCCachedItemManager::fileAtRelativePath(path);
}

}  // namespace

void DCDocumentManager::setDelegate(const DelegatePtr& delegate, const std::string& forFilterPath) {
  DCLogTrace("-[DCDocumentManager setDelegate:forFilterPath:]",
             {{"delegate", delegateText(delegate)}, {"path", forFilterPath}});
  setDelegate(delegate, SerialQueue::main(), forFilterPath);
}

void DCDocumentManager::setDelegate(const DelegatePtr& delegate, const std::shared_ptr<SerialQueue>& queue,
                                    const std::string& forFilterPath) {
  DCLogTrace("-[DCDocumentManager setDelegate:queue:forFilterPath:]",
             {{"delegate", delegateText(delegate)}, {"queue", queue}, {"path", forFilterPath}});
  if (!delegate || !queue) throw InvalidArgumentException("Illegal set delegate argument");
  std::lock_guard lock(mutex_);
  auto state = delegateStates_.find(forFilterPath);
  bool isRegistered =
      state != delegateStates_.end() && state->second->isForDelegate(delegate) && state->second->queue() == queue;
  DCDelegateState::Ptr removed, added;
  if (!isRegistered) {
    if (state != delegateStates_.end()) {
      removed = state->second;
      delegateStates_.erase(state);
    }
    added = _registerDelegate(delegate, queue, forFilterPath);
  }
  _adjustForRegistrations(removed, added);
}

DCDelegateState::Ptr DCDocumentManager::_registerDelegate(const DelegatePtr& delegate,
                                                          const std::shared_ptr<SerialQueue>& queue,
                                                          const std::string& path) {
  auto checks = _performPreOperationChecksWithPath(path, ItemClass::Any, true);
  _logFunction("-[DCDocumentManager setDelegate:queue:forFilterPath:]", path, checks.item, checks.relativePath);
  if (checks.error || !checks.item) return nullptr;
  auto state = DCDelegateState::delegateStateWithDelegate(delegate, queue, checks.item);
  delegateStates_[path] = state;
  const auto told = checks.item->toldVersionIdentifier(), present = checks.item->versionIdentifier();
  if (!told) {
    checks.item->setToldVersionIdentifier(present);
  } else if (told != present) {
    // Brought by another process since this one has told or listed it.
    queue_->dispatchAsynchronousBlock([weak = weak_from_this(), item = checks.item] {
      if (auto self = weak.lock()) self->_tellOfItemOfOthers(item, true);
    });
  }
  return state;
}

DCDocumentManager::DelegatePtr DCDocumentManager::delegateForFilterPath(const std::optional<std::string>& path) const {
  DCLogTrace("-[DCDocumentManager delegateForFilterPath:]", {{"path", path}});
  std::lock_guard lock(mutex_);
  auto state = path ? delegateStates_.find(*path) : delegateStates_.end();
  return state == delegateStates_.end() ? nullptr : state->second->delegate();
}

void DCDocumentManager::removeDelegate(const DelegatePtr& delegate) {
  DCLogTrace("-[DCDocumentManager removeDelegate:]", {{"delegate", delegateText(delegate)}});
  if (!delegate) return;
  std::lock_guard lock(mutex_);
  std::vector<DCDelegateState::Ptr> removed;
  for (const auto& [path, state] : delegateStates_) {
    if (state->isForDelegate(delegate)) removed.push_back(state);
  }
  for (const auto& state : removed) {
    // By the item's own path: a registration under another spelling of it stays.
    auto registered = delegateStates_.find(pathOf(*state->item()));
    if (registered != delegateStates_.end() && registered->second->isForDelegate(delegate)) {
      delegateStates_.erase(registered);
    }
  }
  _adjustFetchingUpdatesIfNecessary();
}

void DCDocumentManager::removeDelegateForFilterPath(const std::optional<std::string>& path) {
  DCLogTrace("-[DCDocumentManager removeDelegateForFilterPath:]", {{"path", path}});
  if (!path) return;
  std::lock_guard lock(mutex_);
  auto registered = delegateStates_.find(*path);
  DCDelegateState::Ptr removed;
  if (registered != delegateStates_.end()) {
    removed = registered->second;
    delegateStates_.erase(registered);
  }
  _adjustForRegistrations(removed, nullptr);
}

bool DCDocumentManager::connectionStatus() const {
  DCLogTrace("-[DCDocumentManager connectionStatus]");
  return connectivityTracker_->isConnected();
}

bool DCDocumentManager::isConnected() const {
  DCLogTrace("-[DCDocumentManager isConnected]");
  return connectivityTracker_->isConnected();
}

void DCDocumentManager::didUpdateConnectionStatus(const std::shared_ptr<DCConnectivityTracker>& connectivityTracker,
                                                  bool isConnected) {
  DCLogTrace("-[DCDocumentManager connectivityTracker:didUpdateConnectionStatus:]",
             {{"connectivityTracker", connectivityTracker}, {"isConnected", isConnected ? "yes" : "no"}});
  if (!isConnected) {
    DCLogNotice("%@: Disconnected", *this);
    std::lock_guard lock(mutex_);
    watchNumberWhenLost_ = watchNumber_;
    return;
  }
  DCLogNotice("%@: Connection re-established", *this);
  {
    std::lock_guard lock(mutex_);
    _adjustFetchingUpdatesIfNecessary();
    // A request that was open when the connection was lost may hang on a peer that is gone.
    if (watchIsOpen_ && watchNumberWhenLost_ == watchNumber_) {
      _finishFetchingUpdates();
      _startFetchingUpdates();
    }
    watchNumberWhenLost_.reset();
    watchBackOff_.reset();
    _reopenWatchIfWaiting();
  }
  updateBackOff_.reset();
  _retryUpdates();
}

// The watch set

void DCDocumentManager::_adjustFetchingUpdatesIfNecessary() {
  DCLogTrace("-[DCDocumentManager _adjustFetchingUpdatesIfNecessary]");
  std::lock_guard lock(mutex_);
  DCVersionIdentifiers watched;
  statesByWatchedDocument_.clear();
  changesSinceAdjusting_ = 0;
  for (const auto& [path, state] : delegateStates_) {
    const auto wanted = _enterStateIntoIndex(state);
    if (wanted && wanted->isOfItem) {
      watched.insert_or_assign(wanted->documentIdentifier, wanted->versionIdentifier);
    } else if (wanted) {
      watched.try_emplace(wanted->documentIdentifier, wanted->versionIdentifier);
    }
  }
  if (watched == watchedDocumentIdentifiersAndVersionIdentifiers_.value_or(DCVersionIdentifiers())) return;
  if (watchedDocumentIdentifiersAndVersionIdentifiers_) {
    _finishFetchingUpdates();
    watchedDocumentIdentifiersAndVersionIdentifiers_.reset();
  }
  if (watched.empty()) return;
  watchedDocumentIdentifiersAndVersionIdentifiers_ = std::move(watched);
  _startFetchingUpdates();
}

std::optional<DCDocumentManager::WatchedVersion> DCDocumentManager::_enterStateIntoIndex(
    const DCDelegateState::Ptr& state) {
  std::optional<WatchedVersion> wanted;
  if (state->hasDelegate()) {
    wanted = _versionToWatchOfState(*state);
  } else {
    DCLogDebug("Unable to watch item with path '%@': Missing delegate", pathOf(*state->item()));
  }
  state->setWatchedDocumentIdentifier(wanted ? std::optional(wanted->documentIdentifier) : std::nullopt);
  if (wanted) statesByWatchedDocument_.emplace(wanted->documentIdentifier, state);
  return wanted;
}

void DCDocumentManager::_adjustForRegistrations(const DCDelegateState::Ptr& removed,
                                                const DCDelegateState::Ptr& added) {
  // What else may have changed of the others is looked at now and then, so that many registrations stay cheap.
  const bool areFew = delegateStates_.size() <= kFewRegistrations;
  if (areFew || ++changesSinceAdjusting_ > delegateStates_.size() / 2) {
    _adjustFetchingUpdatesIfNecessary();
    return;
  }
  auto& watched = watchedDocumentIdentifiersAndVersionIdentifiers_;
  const bool wasWatching = watched.has_value();
  bool isOther = false;
  if (const auto identifier = removed ? removed->watchedDocumentIdentifier() : std::nullopt) {
    auto [first, last] = statesByWatchedDocument_.equal_range(*identifier);
    while (first != last && first->second != removed) ++first;
    if (first != last) statesByWatchedDocument_.erase(first);
    if (watched && !statesByWatchedDocument_.contains(*identifier)) isOther = watched->erase(*identifier) > 0;
  }
  if (const auto wanted = added ? _enterStateIntoIndex(added) : std::nullopt) {
    if (!watched) watched.emplace();
    const auto [place, isNew] = watched->try_emplace(wanted->documentIdentifier, wanted->versionIdentifier);
    const bool isOtherVersion = wanted->isOfItem && place->second != wanted->versionIdentifier;
    if (isOtherVersion) place->second = wanted->versionIdentifier;
    isOther = isOther || isNew || isOtherVersion;
  }
  if (!isOther) return;
  if (wasWatching) _finishFetchingUpdates();
  if (watched->empty()) {
    watched.reset();
  } else {
    _startFetchingUpdates();
  }
}

std::optional<DCDocumentManager::WatchedVersion> DCDocumentManager::_versionToWatchOfState(DCDelegateState& state) {
  auto identifierToWatch = [this](const DCCachedItem& item) {
    auto identifier = item.documentIdentifier();
    return identifier && !goneDocumentIdentifiers_.contains(*identifier) ? identifier : std::nullopt;
  };
  auto item = state.item();
  if (item->hasBeenRemoved()) {
    item = _itemReplacingItemOfState(state);
  } else if (!item->documentIdentifier()) {
    DCLogInfo("Unable to watch item with path '%@': No document identifier", pathOf(*item));
    return std::nullopt;
  }
  if (item && identifierToWatch(*item)) {
    auto version = state.watchedVersionIdentifier();
    if (!version) version = item->versionIdentifier();
    if (!version) {
      auto entry = item->parentContentsMetadata();
      version = entry ? entry->data(FVVersionIdentifierKey) : std::nullopt;
    }
    if (!version) return std::nullopt;
    state.setWatchedVersionIdentifier(version);
    return WatchedVersion{*identifierToWatch(*item), *version, true};
  }
  // Nothing is there now. The closest folder above says when something is again.
  auto above = state.item()->relativePath();
  while (above && !above->isRoot()) {
    above = above->relativePathByDeletingLastPathComponent();
    auto directory = std::dynamic_pointer_cast<DCCachedDirectory>(knownItemAtRelativePath(above));
    if (!directory || directory->hasBeenRemoved() || !identifierToWatch(*directory)) continue;
    const Data identifier = *directory->documentIdentifier();
    auto version = directory->versionIdentifier();
    // What the server has reported already may still be on its way into the cache.
    const auto& current = watchedDocumentIdentifiersAndVersionIdentifiers_;
    if (auto known = current ? current->find(identifier) : DCVersionIdentifiers::const_iterator();
        current && known != current->end()) {
      version = known->second;
    }
    return version ? std::optional(WatchedVersion{identifier, *version, false}) : std::nullopt;
  }
  return std::nullopt;
}

DCCachedItem::Ptr DCDocumentManager::_itemReplacingItemOfState(DCDelegateState& state) {
  const auto replaced = state.item();
  auto path = replaced->relativePath();
  auto item = path ? knownItemAtRelativePath(path) : nullptr;
  if (!item || item->hasBeenRemoved()) return nullptr;
  state.setItem(item);
  state.setWatchedVersionIdentifier(std::nullopt);
  // A listing has named it since; the server may well have given it the identifier of what was there before.
  if (auto identifier = item->documentIdentifier()) goneDocumentIdentifiers_.erase(*identifier);
  // The delegate waits for what is in it; the entry's version says only that it is there.
  auto entry = item->parentContentsMetadata();
  auto version = entry ? entry->data(FVVersionIdentifierKey) : std::nullopt;
  if (version && item->documentIdentifier()) {
    if (item->documentIdentifier() == replaced->documentIdentifier() && !item->toldVersionIdentifier()) {
      item->setToldVersionIdentifier(replaced->toldVersionIdentifier());
    }
    queue_->dispatchAsynchronousBlock([weak = weak_from_this(), item, version = *version] {
      auto self = weak.lock();
      if (!self) return;
      if (item->versionIdentifier() != version) {
        self->_updateItem(item, version);
      } else {
        self->_tellOfItemOfOthers(item, true);
      }
    });
  }
  return item;
}

// The update request. Opening it is moved onto the queue and closing it is not, so a number tells the opening that is
// in force from those of the past.

void DCDocumentManager::_startFetchingUpdates() {
  DCLogTrace("-[DCDocumentManager _startFetchingUpdates]");
  std::lock_guard lock(mutex_);
  std::uint64_t number = ++watchNumber_;
  watchIsOpen_ = true;
  _observeLogins();
  _observeUploads();
  queue_->dispatchAsynchronousBlock([weak = weak_from_this(), number] {
    if (auto self = weak.lock()) self->_openWatch(number);
  });
}

void DCDocumentManager::_finishFetchingUpdates() {
  DCLogTrace("-[DCDocumentManager _finishFetchingUpdates]");
  std::lock_guard lock(mutex_);
  ++watchNumber_;
  watchIsOpen_ = false;
  answeredDocumentIdentifiers_.clear();
  DCRemoteDocumentManager::remoteDocumentManagerForService(service_)->finishFetchingUpdates();
}

bool DCDocumentManager::_isFetchingUpdates() const {
  return connectivityTracker_->isConnected() &&
         DCRemoteDocumentManager::remoteDocumentManagerForService(service_)->isWaitingForUpdates();
}

void DCDocumentManager::_openWatch(std::uint64_t number) {
  DCCachedItem::Ptr firstItem;
  DCVersionIdentifiers watched;
  {
    std::lock_guard lock(mutex_);
    if (number != watchNumber_ || !watchedDocumentIdentifiersAndVersionIdentifiers_) return;
    watched = *watchedDocumentIdentifiersAndVersionIdentifiers_;
    for (const auto& [path, state] : delegateStates_) {
      firstItem = state->item();
      if (!firstItem->hasBeenRemoved()) break;
    }
  }
  auto activityInfo = firstItem && !firstItem->hasBeenRemoved() ? _activityInfoForItem(*firstItem)
                                                                : DCActivityInfo::activityInfoWithQueue(queue_);
  auto remoteManager = DCRemoteDocumentManager::remoteDocumentManagerForService(service_);
  remoteManager->setWatchDidEndHandler([weak = weak_from_this(), number](const OptionalError& error) {
    if (auto self = weak.lock()) self->_watchDidEnd(number, error);
  });
  remoteManager->startFetchingUpdatesOfDocumentIdentifiersAndVersionIdentifiers(
      watched, activityInfo,
      [weak = weak_from_this(), number](const std::optional<Data>& documentIdentifier,
                                        const std::optional<Data>& versionIdentifier, const OptionalError& error) {
        auto self = weak.lock();
        if (self && !error && documentIdentifier && versionIdentifier) {
          self->_watchDidReport(number, *documentIdentifier, *versionIdentifier);
        }
      });
  // Somebody closed it while it was being opened; whoever opens it anew comes after us on this queue.
  std::lock_guard lock(mutex_);
  if (number != watchNumber_) remoteManager->finishFetchingUpdates();
}

void DCDocumentManager::_watchDidReport(std::uint64_t number, const Data& documentIdentifier,
                                        const Data& versionIdentifier) {
  {
    std::lock_guard lock(mutex_);
    if (number != watchNumber_ || !watchedDocumentIdentifiersAndVersionIdentifiers_) return;
    isSecondSignIn_ = false;
    if (answeredDocumentIdentifiers_.empty()) {
      // The other pairs of this answer are told before the queue comes to this.
      queue_->dispatchAsynchronousBlock([weak = weak_from_this(), number] {
        if (auto self = weak.lock()) self->_watchDidAnswer(number);
      });
    }
    answeredDocumentIdentifiers_.insert(documentIdentifier);
    auto known = watchedDocumentIdentifiersAndVersionIdentifiers_->find(documentIdentifier);
    // An answer names every watched document, most of them as they were.
    if (known != watchedDocumentIdentifiersAndVersionIdentifiers_->end() && known->second == versionIdentifier) return;
    watchedDocumentIdentifiersAndVersionIdentifiers_->insert_or_assign(documentIdentifier, versionIdentifier);
  }
  _didUpdateVersionIdentifier(versionIdentifier, documentIdentifier);
}

void DCDocumentManager::_watchDidAnswer(std::uint64_t number) {
  std::set<Data> leftOut;
  {
    std::lock_guard lock(mutex_);
    if (number != watchNumber_ || !watchedDocumentIdentifiersAndVersionIdentifiers_) return;
    for (const auto& [identifier, version] : *watchedDocumentIdentifiersAndVersionIdentifiers_) {
      if (!answeredDocumentIdentifiers_.contains(identifier)) leftOut.insert(identifier);
    }
    answeredDocumentIdentifiers_.clear();
    // The watch goes on with the pairs of the answer only.
    for (const auto& identifier : leftOut) watchedDocumentIdentifiersAndVersionIdentifiers_->erase(identifier);
    if (leftOut.empty()) watchBackOff_.reset();
  }
  if (leftOut.empty()) {
    _adjustFetchingUpdatesIfNecessary();
  } else {
    _documentsAreGone(leftOut);
  }
}

// The way back after an end that nobody asked for

void DCDocumentManager::_watchDidEnd(std::uint64_t number, const OptionalError& error) {
  queue_->checkIsCurrent(kSource, __LINE__);
  std::set<Data> watched;
  {
    std::lock_guard lock(mutex_);
    if (number != watchNumber_ || !watchedDocumentIdentifiersAndVersionIdentifiers_) return;
    watchIsOpen_ = false;
    answeredDocumentIdentifiers_.clear();
    cookieOfLastWatch_ = DCPreferences::preferences()->authCookieForService(service_);
    // The refused cookie is gone by now, and the next request signs in again.
    bool signsInAgain = error && error->is(URLErrorDomain, 401) && !std::exchange(isSecondSignIn_, true);
    if (signsInAgain) {
      _startFetchingUpdates();
      return;
    }
    if (error && error->is(URLErrorDomain, 404)) {
      for (const auto& [identifier, version] : *watchedDocumentIdentifiersAndVersionIdentifiers_) {
        watched.insert(identifier);
      }
      watchedDocumentIdentifiersAndVersionIdentifiers_.reset();
    } else {
      // Sooner, a refusal would only be repeated.
      const bool isRefused = error && error->domain() == HTTPSASLErrorDomain;
      _setWatchTimer(isRefused ? HTTPSASLClientSessionManager::failureIsRepeatedFor : Duration::zero());
    }
  }
  DCLogInfo("%@: Waiting to fetch updates again: %@", *this, error);
  if (!watched.empty()) _documentsAreGone(watched);
  if (error && error->domain() == HTTPSASLErrorDomain) _tellDelegatesOfFailedSignIn(*error);
}

void DCDocumentManager::_setWatchTimer(Duration shortestPause) {
  std::lock_guard lock(mutex_);
  Clock& clock = service_->clock();
  Duration pause = watchBackOff_.next();
  while (pause < shortestPause) pause = watchBackOff_.next();
  watchTimer_ = clock.schedule(clock.monotonicNow() + pause, kLeeway, [weak = weak_from_this(), queue = queue_] {
    queue->dispatchAsynchronousBlock([weak] {
      if (auto self = weak.lock()) self->_watchTimerDidFire();
    });
  });
}

void DCDocumentManager::_watchTimerDidFire() {
  std::lock_guard lock(mutex_);
  watchTimer_.reset();
  goneDocumentIdentifiers_.clear();
  _adjustFetchingUpdatesIfNecessary();
  _reopenWatchIfWaiting();
}

void DCDocumentManager::_reopenWatchIfWaiting() {
  std::lock_guard lock(mutex_);
  if (watchedDocumentIdentifiersAndVersionIdentifiers_ && !watchIsOpen_) _startFetchingUpdates();
}

void DCDocumentManager::_observeLogins() {
  if (loginObservation_) return;
  loginObservation_ = NotificationCenter::shared().addObserver(
      DCPreferencesDidChangeNotification, [weak = weak_from_this(), queue = queue_](const Notification&) {
        queue->dispatchAsynchronousBlock([weak] {
          if (auto self = weak.lock()) self->_loginMayHaveChanged();
        });
      });
}

void DCDocumentManager::_loginMayHaveChanged() {
  {
    std::lock_guard lock(mutex_);
    auto cookie = DCPreferences::preferences()->authCookieForService(service_);
    if (!cookie || cookie == cookieOfLastWatch_) return;
    cookieOfLastWatch_ = cookie;
    watchBackOff_.reset();
    _reopenWatchIfWaiting();
  }
  // What was reported may have waited for the login, too.
  updateBackOff_.reset();
  _retryUpdates();
}

void DCDocumentManager::_tellDelegatesOfFailedSignIn(const Error& error) {
  std::set<std::string> paths;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [path, state] : delegateStates_) paths.insert(pathOf(*state->item()));
  }
  for (const auto& path : paths) {
    _dispatchMaybeCallSelector("documentManager:didFailToUpdateItemAtPath:error:", path, __func__, __LINE__,
                               [weak = weak_from_this(), path, error](DCDocumentManagerDelegate& delegate) {
                                 if (auto self = weak.lock()) delegate.didFailToUpdateItemAtPath(*self, path, error);
                               });
  }
}

}  // namespace florvane
