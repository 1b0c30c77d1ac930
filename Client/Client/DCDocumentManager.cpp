#include "Client/Client/DCDocumentManager.h"

#include "Client/Client/DCError.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCServiceRegistry.h"
#include "Client/Client/DCTemporarySweeper.h"
#include "common/FVFMetadataUtils.h"
#include "common/FVFQueueManager.h"
#include "platform/Exceptions.h"
#include "platform/Format.h"
#include "platform/ResourceValues.h"

#include <utility>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCDocumentManager";
// Where a share point without an identifier has always been reported.
constexpr unsigned kSharepointAssertionLine = 297;

DCServiceRegistry<DCDocumentManager>& registry() {
  static auto* shared = new DCServiceRegistry<DCDocumentManager>;
  return *shared;
}

// On whose behalf this process works.
struct Purpose {
  std::mutex mutex;
  std::optional<std::string> identifier;
  static Purpose& shared() {
    static auto* purpose = new Purpose;
    return *purpose;
  }
};

std::string delegateText(const DCDocumentManager::DelegatePtr& delegate) {
  return baseDescription("Delegate", delegate.get());
}

std::string_view parentPath(std::string_view path) {
  auto slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

}  // namespace

void DCDocumentManager::setPurposeIdentifier(const std::optional<std::string>& purposeIdentifier) {
  DCLogTrace("+[DCDocumentManager setPurposeIdentifier:]", {{"purposeIdentifier", purposeIdentifier}});
  if (!purposeIdentifier) throw ObjectNotAvailableException("Invalid nil purpose identifier");
  Purpose& purpose = Purpose::shared();
  std::lock_guard lock(purpose.mutex);
  purpose.identifier = purposeIdentifier;
}

std::optional<std::string> DCDocumentManager::purposeIdentifier() {
  Purpose& purpose = Purpose::shared();
  std::lock_guard lock(purpose.mutex);
  return purpose.identifier;
}

DCDocumentManager::Ptr DCDocumentManager::documentManagerForService(const std::shared_ptr<DCService>& service) {
  DCLogTrace("+[DCDocumentManager documentManagerForService:]", {{"service", service}});
  static std::once_flag first;
  std::call_once(first, [] {
    DCServerRequest::setDeleteAllLocalDataHandler([](const std::shared_ptr<DCService>& inconsistent) {
      documentManagerForService(inconsistent)->deleteAllLocalData();
    });
    deleleAllDataIfNecessary();
  });
  return registry().objectForKey(service->uniqueIdentifier(), [&] { return _initWithService(service); });
}

DCDocumentManager::Ptr DCDocumentManager::_initWithService(const std::shared_ptr<DCService>& service) {
  DCLogTrace("-[DCDocumentManager _initWithService:]", {{"service", service}});
  auto manager = std::make_shared<DCDocumentManager>(Private(), service);
  manager->queue_->dispatchSynchronousBlock([&] {
    (void)manager->cachedItemManager();
    manager->_finishInterruptedRebuild();
  });
  manager->connectivityTracker_->addDelegate(manager);
  DCTemporarySweeper::shared().sweepIfDue(service->clock());
  return manager;
}

DCDocumentManager::DCDocumentManager(Private, std::shared_ptr<DCService> service)
    : service_(std::move(service)),
      queue_(FVFQueueManager::sharedQueueManager().queueForServiceWithUniqueIdentifier(service_->uniqueIdentifier())),
      connectivityTracker_(DCConnectivityTracker::connectivityTrackerForService(service_)),
      completionHandlerQueue_(SerialQueue::main()) {}

DCDocumentManager::~DCDocumentManager() { connectivityTracker_->removeDelegate(this); }

std::shared_ptr<SerialQueue> DCDocumentManager::completionHandlerQueue() const {
  std::lock_guard lock(mutex_);
  return completionHandlerQueue_;
}

void DCDocumentManager::setCompletionHandlerQueue(std::shared_ptr<SerialQueue> queue) {
  std::lock_guard lock(mutex_);
  completionHandlerQueue_ = std::move(queue);
}

void DCDocumentManager::resetCachedItemManagerForService(const std::shared_ptr<DCService>& service) {
  DCLogTrace("-[DCDocumentManager resetCachedItemManagerForService:]", {{"service", service}});
  queue_->dispatchSynchronousBlock([&] {
    DCCachedItemManager::removeCachedItemManagerForService(service);
    processedListings_.clear();
    (void)cachedItemManager();
  });
}

DCCachedItemManager::Ptr DCDocumentManager::cachedItemManager() {
  auto manager = DCCachedItemManager::cachedItemManagerForService(service_);
  // An application that names no purpose has the whole container to itself.
  const std::string purpose = purposeIdentifier().value_or(DCFlorvaneBundleIdentifier);
  std::lock_guard lock(mutex_);
  if (manager == preparedItemManager_.lock() && purpose == preparedPurpose_) return manager;
  try {
    manager->setPurposeIdentifier(purpose);
  } catch (const InvalidArgumentException& exception) {
    DCLogError("%s", exception.reason());
  }
  manager->setRecoveryHandler([weak = weak_from_this()](const std::string& relativePath, const URL& recoveredURL) {
    if (auto self = weak.lock()) self->_didRecoverFileAtPath(relativePath, recoveredURL);
  });
  preparedItemManager_ = manager;
  preparedPurpose_ = purpose;
  return manager;
}

// What was never sent is safe, but no longer where it was.
void DCDocumentManager::_didRecoverFileAtPath(const std::string& path, const URL& recoveredURL) {
  Dictionary userInfo{{DCFileRelativePathKey, path}, {FilePathErrorKey, recoveredURL.path()}};
  const Error error = DCError::errorItemNotUploadedWithUserInfo(userInfo);
  _dispatchMaybeCallSelector("documentManager:didFailToUpdateItemAtPath:error:", path,
                             "-[DCDocumentManager _didRecoverFileAtPath:]", __LINE__,
                             [self = shared_from_this(), path, error](DCDocumentManagerDelegate& delegate) {
                               delegate.didFailToUpdateItemAtPath(*self, path, error);
                             });
}

std::shared_ptr<DCDatabase> DCDocumentManager::database() { return DCDatabase::databaseForService(service_); }

DCDocumentManager::PreOperation DCDocumentManager::_performPreOperationChecksWithPath(const std::string& path,
                                                                                      ItemClass itemClass,
                                                                                      bool itemMustBeKnown) {
  static constexpr const char* classNames[] = {nullptr, "DCCachedDirectory", "DCCachedFile"};
  const char* className = classNames[static_cast<std::size_t>(itemClass)];
  DCLogTrace(
      "-[DCDocumentManager _performPreOperationChecksWithPath:itemClass:itemMustBeKnown:item:relativePath:error:]",
      {{"path", path},
       {"itemClass", className ? std::optional<std::string>(className) : std::nullopt},
       {"itemMustBeKnown", itemMustBeKnown ? "yes" : "no"}});
  PreOperation checks;
  DCTemporarySweeper::shared().sweepIfDue(service_->clock());
  database()->refresh();
  if (auto newer = database()->newerVersionError()) {
    checks.error = *newer;
    return checks;
  }
  _finishRebuildOfOthers();
  auto manager = cachedItemManager();
  try {
    checks.relativePath = DCRelativePath::relativePathWithString(path, service_);
  } catch (const InvalidArgumentException&) {
    checks.error = DCError::errorInvalidArgumentWithUserInfo(DCError::userInfoWithArgument(path));
    return checks;
  }
  checks.error = _checkParentOfItem(*manager, checks.relativePath);
  if (checks.error) return checks;

  if (auto type = DCCachedItemManager::fileResourceTypeAtRelativePath(checks.relativePath)) {
    if (*type == ResourceTypeDirectory) {
      checks.item = DCCachedItemManager::directoryAtRelativePath(checks.relativePath);
    } else {
      checks.item = DCCachedItemManager::fileAtRelativePath(checks.relativePath);
    }
  }
  const bool isDirectory = dynamic_cast<DCCachedDirectory*>(checks.item.get()) != nullptr;
  if (checks.item && itemClass != ItemClass::Any && isDirectory != (itemClass == ItemClass::Directory)) {
    const char* otherType = itemClass == ItemClass::Directory ? ResourceTypeRegular : ResourceTypeDirectory;
    checks.error = DCError::errorMistmatchedTypeWithUserInfo(
        Dictionary{{ResourceFileResourceTypeKey, otherType}, {ResourcePathKey, path}});
    checks.item = nullptr;
    return checks;
  }
  if (!checks.item && !itemMustBeKnown && itemClass == ItemClass::Directory) {
    checks.item = DCCachedItemManager::directoryAtRelativePath(checks.relativePath);
  } else if (!checks.item && !itemMustBeKnown && itemClass == ItemClass::File) {
    checks.item = DCCachedItemManager::fileAtRelativePath(checks.relativePath);
  }
  if (!checks.item && itemMustBeKnown) {
    checks.error = DCError::errorNoSuchItemWithUserInfo(DCError::userInfoWithRelativePath(*checks.relativePath));
  }
  return checks;
}

void DCDocumentManager::_performWithKnownItemAtPath(const char* function, const std::string& path, ItemClass itemClass,
                                                    KnownItemBlock block) {
  queue_->dispatchAsynchronousBlock([self = shared_from_this(), function, path, itemClass, block = std::move(block)] {
    const auto checks = self->_performPreOperationChecksWithPath(path, itemClass, true);
    self->_logFunction(function, path, checks.item, checks.relativePath);
    block(self, checks);
  });
}

DCDocumentManager::OptionalError DCDocumentManager::_checkParentOfItem(DCCachedItemManager& manager,
                                                                       const DCRelativePath::Ptr& relativePath) {
  auto noSuchItem = [&] {
    return DCError::errorNoSuchItemWithUserInfo(DCError::userInfoWithRelativePath(*relativePath));
  };
  if (relativePath->isRoot()) return std::nullopt;
  auto parentPath = relativePath->relativePathByDeletingLastPathComponent();
  auto parentType = DCCachedItemManager::fileResourceTypeAtRelativePath(parentPath);
  if (!parentType) return noSuchItem();
  if (*parentType != ResourceTypeDirectory) {
    return DCError::errorMistmatchedTypeWithUserInfo(
        Dictionary{{ResourceFileResourceTypeKey, *parentType}, {ResourcePathKey, parentPath->string()}});
  }
  auto parent = manager.directory(parentPath);
  if (!parent || !parent->documentIdentifier()) return noSuchItem();
  _processListingOfOthers(parent);
  // Another process that was waited for may have moved it, or taken it away.
  if (!database()->knownDocumentIdentifierForPath(parentPath->string())) return noSuchItem();
  return std::nullopt;
}

void DCDocumentManager::_logFunction(std::string_view /*function*/, const std::string& /*path*/,
                                     const DCCachedItem::Ptr& /*item*/, const DCRelativePath::Ptr& /*relativePath*/) {}

DCActivityInfo::Ptr DCDocumentManager::_activityInfoForItem(const DCCachedItem& item) {
  DCLogTrace("-[DCDocumentManager _activityInfoForItem:]", {{"item", item}});
  auto path = item.relativePath();
  auto sharepoint = DCCachedItemManager::directoryAtRelativePath(
      path->isRoot() ? path : DCRelativePath::relativePathWithString(path->firstPathComponent(), service_));
  auto identifier = sharepoint ? sharepoint->documentIdentifier() : std::nullopt;
  if (item.isRoot() && !identifier) return DCActivityInfo::activityInfoWithQueue(queue_);
  if (!identifier) DCAssertionFailed(kSource, kSharepointAssertionLine, "sharepoint.documentIdentifier");
  return DCActivityInfo::activityInfoWithQueue(queue_, identifier);
}

bool DCDocumentManager::_isWatchedAndUpToDateItem(const DCCachedItem& item) {
  DCLogTrace("-[DCDocumentManager _isWatchedAndUpToDateItem:]", {{"item", item}});
  auto documentIdentifier = item.documentIdentifier();
  if (!documentIdentifier || !_isFetchingUpdates()) return false;
  std::lock_guard lock(mutex_);
  bool isUpToDate = false;
  const auto [first, last] = statesByWatchedDocument_.equal_range(*documentIdentifier);
  for (auto each = first; each != last; ++each) {
    const auto& state = each->second;
    if (isUpToDate || !state->watchedVersionIdentifier()) continue;
    if (state->item()->documentIdentifier() != documentIdentifier) continue;
    auto remoteMetadata = item.remoteMetadata();
    auto version = remoteMetadata ? remoteMetadata->data(FVVersionIdentifierKey) : std::nullopt;
    isUpToDate = version && *version == *state->watchedVersionIdentifier();
  }
  return isUpToDate;
}

bool DCDocumentManager::_shouldCallDelegate(const DCDelegateState& state, const std::string& forPath) {
  auto watched = state.item()->relativePath();
  if (!watched) return false;
  const std::string& path = watched->string();
  return forPath == path || (!forPath.empty() && parentPath(forPath) == path);
}

bool DCDocumentManager::_needsToCallDelegateForPath(const std::string& path) const {
  std::lock_guard lock(mutex_);
  for (const auto& [filterPath, state] : delegateStates_) {
    if (_shouldCallDelegate(*state, path)) return true;
  }
  return false;
}

void DCDocumentManager::_dispatchMaybeCallSelector(std::string_view selector, const std::string& path,
                                                   std::string_view function, unsigned line,
                                                   const DelegateBlock& block) {
  struct Offer {
    DelegatePtr delegate;
    std::shared_ptr<SerialQueue> queue;
    bool isWanted;
  };
  std::vector<Offer> offers;
  {
    // Of those that are not called there is only something to say where anybody would read it.
    const bool isLogged = dc_log_is_enabled(dc_log_callbacks_category(), DCLogLevelInfo);
    std::lock_guard lock(mutex_);
    for (const auto& [filterPath, state] : delegateStates_) {
      const bool isWanted = _shouldCallDelegate(*state, path);
      if (isWanted || isLogged) offers.push_back({state->delegate(), state->queue(), isWanted});
    }
  }
  for (auto& offer : offers) {
    if (!offer.isWanted) {
      DCLogCallback(DCLogLevelInfo, "%@: Not calling delegate %@ using %@ for %@ at %s:%u", *this,
                    delegateText(offer.delegate), selector, path, function, line);
    } else if (offer.delegate && offer.delegate->respondsToSelector(selector)) {
      offer.queue->async([self = shared_from_this(), delegate = std::move(offer.delegate), block,
                          selector = std::string(selector), function = std::string(function), line] {
        DCLogCallback(DCLogLevelInfo, "%@: Calling delegate %@ using %@ at %s:%u", *self, delegateText(delegate),
                      selector, function, line);
        block(*delegate);
      });
    } else {
      DCLogCallback(DCLogLevelInfo, "%@: Skip calling delegate %@ using %@ for %@ at %s:%u", *this,
                    delegateText(offer.delegate), selector, path, function, line);
    }
  }
}

std::string DCDocumentManager::description() const { return baseDescription("DCDocumentManager", this); }

}  // namespace florvane
