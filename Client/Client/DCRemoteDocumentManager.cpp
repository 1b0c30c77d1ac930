#include "Client/Client/DCRemoteDocumentManager.h"

#include "Client/Client/DCError.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCPreferences.h"
#include "Client/Client/DCServiceRegistry.h"
#include "common/FVFMetadataUtils.h"
#include "common/FVFQueueManager.h"
#include "common/FVFRequestUtils.h"
#include "platform/Container.h"
#include "platform/Encoding.h"
#include "platform/FileSystem.h"

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCRemoteDocumentManager";
// What an error's body or a list of updates may take at most; a server that sends more is broken.
constexpr std::uint64_t kMaximumErrorBytes = std::uint64_t{64} << 10;
constexpr std::uint64_t kMaximumUpdatesBytes = std::uint64_t{256} << 20;
// The server answers a watch after four minutes at the latest.
constexpr Duration kLongestSilence = std::chrono::minutes(5);
constexpr Duration kSilenceLeeway = std::chrono::seconds(5);

DCServiceRegistry<DCRemoteDocumentManager>& registry() {
  static auto* shared = new DCServiceRegistry<DCRemoteDocumentManager>;
  return *shared;
}

std::optional<Data> sharepointOf(const DCActivityInfo::Ptr& activityInfo) {
  return activityInfo ? activityInfo->sharepointDocumentIdentifier() : std::nullopt;
}

Error errorForFailedResponse(const std::shared_ptr<const HTTPURLResponse>& response, const std::optional<URL>& body) {
  int status = response ? response->statusCode() : 500;
  if (body) {
    auto text = readFile(body->path(), kMaximumErrorBytes);
    if (text && isValidUTF8(text->view())) return Error(URLErrorDomain, status, text->view());
  }
  return Error(URLErrorDomain, status);
}

Error invalidHeader(const char* name) {
  return DCError::errorInvalidHeaderWithUserInfo(DCError::userInfoWithHeaderName(name));
}

// The header as a non-negative decimal; absent when it is none.
std::optional<std::uint32_t> transferTypeOf(const std::string& header) {
  if (header.empty() || header.size() > 9 || header.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  return static_cast<std::uint32_t>(std::stoul(header));
}

// Lower-case hexadecimal; what a proxy makes of it ("W/" and quotes) is read too.
std::optional<Data> versionIdentifierOf(std::string_view etag) {
  if (etag.starts_with("W/")) etag.remove_prefix(2);
  if (etag.size() >= 2 && etag.front() == '"' && etag.back() == '"') etag = etag.substr(1, etag.size() - 2);
  return hexDecode(etag);
}

Result<FVFResponseContainer::Ptr> containerForResponse(const HTTPURLResponse& response,
                                                       const std::optional<URL>& body) {
  auto transferType = transferTypeOf(response.header(DUHeaderTransferTypeKey).value_or(""));
  if (!transferType) return Failure(invalidHeader(DUHeaderTransferTypeKey));
  auto metadata = FVFMetadataUtils::metadataFromHeader(response.header(DUHeaderMetadataKey).value_or(""));
  if (!metadata) return Failure(invalidHeader(DUHeaderMetadataKey));
  auto etag = response.header(DUHeaderETagKey);
  auto versionIdentifier = etag ? versionIdentifierOf(*etag) : std::nullopt;
  if (!versionIdentifier) return Failure(invalidHeader(DUHeaderETagKey));
  metadata->set(FVVersionIdentifierKey, *versionIdentifier);
  return FVFResponseContainer::containerWithURL(body, *transferType, metadata);
}

Array flatten(const DCVersionIdentifiers& versionIdentifiers) {
  Array flat;
  flat.reserve(2 * versionIdentifiers.size());
  for (const auto& [documentIdentifier, versionIdentifier] : versionIdentifiers) {
    flat.append(documentIdentifier);
    flat.append(versionIdentifier);
  }
  return flat;
}

PropertyListFormat propertyListFormat() {
  return DCPreferences::preferences()->xmlPropertyLists() ? PropertyListFormat::XML : PropertyListFormat::Binary;
}

}  // namespace

DCRemoteDocumentManager::Ptr DCRemoteDocumentManager::remoteDocumentManagerForService(
    const std::shared_ptr<DCService>& service) {
  DCLogTrace("+[DCRemoteDocumentManager remoteDocumentManagerForService:]", {{"service", service}});
  return registry().objectForKey(service->uniqueIdentifier(),
                                 [&] { return std::make_shared<DCRemoteDocumentManager>(service); });
}

DCRemoteDocumentManager::DCRemoteDocumentManager(std::shared_ptr<DCService> service) : service_(std::move(service)) {
  DCLogTrace("-[DCRemoteDocumentManager initWithService:]", {{"service", service_}});
  if (!service_) DCAssertionFailed(kSource, __LINE__, "service");
}

bool DCRemoteDocumentManager::isServiceAvailable() const {
  DCLogTrace("-[DCRemoteDocumentManager isServiceAvailable]");
  return true;
}

std::optional<std::string> DCRemoteDocumentManager::_getUniqueHostIdentifier() const { return deviceIdentifier(); }

HTTPHeaders DCRemoteDocumentManager::_standardRequestHeaders() const {
  HTTPHeaders headers;
  if (auto identifier = _getUniqueHostIdentifier()) headers.set(DCHeaderDeviceIDKey, *identifier);
  return headers;
}

DCServerRequest::Ptr DCRemoteDocumentManager::startDownload(const std::string& uri,
                                                            const DCServerRequest::QueryItems& queryItems,
                                                            const std::optional<Data>& unlessVersionIdentifier,
                                                            DCRemoteCompletionHandler completionHandler) {
  HTTPHeaders headers = _standardRequestHeaders();
  if (unlessVersionIdentifier) headers.set(DUHeaderIfNoneMatchKey, hexEncode(*unlessVersionIdentifier));
  auto request = DCServerRequest::make();
  // CompletionHandler is moved, and what a request stores must be copyable.
  auto handler = std::make_shared<DCRemoteCompletionHandler>(std::move(completionHandler));
  request->startDownloadTaskWithURI(
      uri, queryItems, service_, headers, std::nullopt,
      [self = shared_from_this(), handler](const std::optional<std::uint64_t>& /*taskIdentifier*/,
                                           const std::shared_ptr<const HTTPURLResponse>& response,
                                           const std::optional<URL>& location, const std::optional<Error>& error) {
        self->handleResponse(response, location, error, std::move(*handler));
      });
  return request;
}

DCServerRequest::Ptr DCRemoteDocumentManager::contentsOfRootDirectoryUnlessVersionIdentifier(
    const std::optional<Data>& versionIdentifier, const DCActivityInfo::Ptr& activityInfo,
    DCRemoteCompletionHandler completionHandler) {
  DCLogTrace(
      "-[DCRemoteDocumentManager contentsOfRootDirectoryUnlessVersionIdentifier:activityInfo:completionHandler:]",
      {{"versionIdentifier", versionIdentifier}, {"activityInfo", activityInfo}});
  return startDownload(FVFRequestUtils::URIForContentsOfVirtualRootDirectory(), {}, versionIdentifier,
                       std::move(completionHandler));
}

DCServerRequest::Ptr DCRemoteDocumentManager::contentsOfDirectoryWithDocumentIdentifier(
    const Data& documentIdentifier, const std::optional<Data>& unlessVersionIdentifier,
    const DCActivityInfo::Ptr& activityInfo, DCRemoteCompletionHandler completionHandler) {
  DCLogTrace(
      "-[DCRemoteDocumentManager "
      "contentsOfDirectoryWithDocumentIdentifier:unlessVersionIdentifier:activityInfo:completionHandler:]",
      {{"documentIdentifier", documentIdentifier},
       {"unlessVersionIdentifier", unlessVersionIdentifier},
       {"activityInfo", activityInfo}});
  DCServerRequest::QueryItems queryItems;
  std::string uri = FVFRequestUtils::URIForContentsOfDirectoryWithDocumentIdentifier(
      documentIdentifier, sharepointOf(activityInfo), &queryItems);
  return startDownload(uri, queryItems, unlessVersionIdentifier, std::move(completionHandler));
}

DCServerRequest::Ptr DCRemoteDocumentManager::contentsOfFileWithDocumentIdentifier(
    const Data& documentIdentifier, const std::optional<Data>& unlessVersionIdentifier,
    const DCActivityInfo::Ptr& activityInfo, DCRemoteCompletionHandler completionHandler) {
  DCLogTrace(
      "-[DCRemoteDocumentManager "
      "contentsOfFileWithDocumentIdentifier:unlessVersionIdentifier:activityInfo:completionHandler:]",
      {{"documentIdentifier", documentIdentifier},
       {"unlessVersionIdentifier", unlessVersionIdentifier},
       {"activityInfo", activityInfo}});
  DCServerRequest::QueryItems queryItems;
  std::string uri = FVFRequestUtils::URIForContentsOfFileWithDocumentIdentifier(
      documentIdentifier, sharepointOf(activityInfo), &queryItems);
  return startDownload(uri, queryItems, unlessVersionIdentifier, std::move(completionHandler));
}

void DCRemoteDocumentManager::handleResponse(const std::shared_ptr<const HTTPURLResponse>& response,
                                             const std::optional<URL>& body, const std::optional<Error>& error,
                                             DCRemoteCompletionHandler completionHandler) {
  DCLogTrace("-[DCRemoteDocumentManager handleResponse:body:error:completionHandler:]",
             {{"response", response}, {"body", body}, {"error", error}});
  if (!completionHandler) return;
  if (error) {
    completionHandler(nullptr, error);
  } else if (!response || response->statusCode() >= 400) {
    completionHandler(nullptr, errorForFailedResponse(response, body));
  } else if (response->statusCode() == 304) {
    completionHandler(nullptr, std::nullopt);
  } else if (auto container = containerForResponse(*response, body)) {
    completionHandler(*container, std::nullopt);
  } else {
    completionHandler(nullptr, container.error());
  }
}

// Watching

DCServerRequest::Ptr DCRemoteDocumentManager::startFetchingUpdatesOfDocumentIdentifiersAndVersionIdentifiers(
    const DCVersionIdentifiers& versionIdentifiers, const DCActivityInfo::Ptr& activityInfo,
    DCUpdatedVersionIdentifierHandler updatedVersionIdentifierHandler) {
  DCLogTrace(
      "-[DCRemoteDocumentManager "
      "startFetchingUpdatesOfDocumentIdentifiersAndVersionIdentifiers:activityInfo:updatedVersionIdentifierHandler:]",
      {{"versionIdentifiers", flatten(versionIdentifiers)}, {"activityInfo", activityInfo}});
  return startWatch(versionIdentifiers, activityInfo, std::move(updatedVersionIdentifierHandler), std::nullopt);
}

DCServerRequest::Ptr DCRemoteDocumentManager::startWatch(const DCVersionIdentifiers& versionIdentifiers,
                                                         const DCActivityInfo::Ptr& activityInfo,
                                                         DCUpdatedVersionIdentifierHandler handler,
                                                         std::optional<std::uint64_t> onlyIfCurrent) {
  DCServerRequest::QueryItems queryItems;
  std::string uri =
      FVFRequestUtils::URIForWatchWithSharepointDocumentIdentifier(sharepointOf(activityInfo), &queryItems);
  auto body = writePropertyList(flatten(versionIdentifiers), propertyListFormat());
  if (!body) {
    if (handler) handler(std::nullopt, std::nullopt, body.error());
    return nullptr;
  }
  auto request = DCServerRequest::make();
  std::uint64_t number = 0;
  {
    std::lock_guard lock(watchMutex_);
    if (onlyIfCurrent && (*onlyIfCurrent != watchNumber_ || !watch_)) return nullptr;
    number = ++watchNumber_;
    watch_ = Watch{versionIdentifiers, std::move(handler), activityInfo, request, silenceTimer(number)};
  }
  request->startBothloadTaskWithURI(
      uri, queryItems, service_, HTTPHeaders(), *body,
      [weak = weak_from_this(), number](const std::optional<std::uint64_t>& /*taskIdentifier*/,
                                        const std::shared_ptr<const HTTPURLResponse>& response,
                                        const std::optional<URL>& location, const std::optional<Error>& error) {
        if (auto self = weak.lock()) self->handleUpdateResponse(response, location, error, number);
      });
  // finishFetchingUpdates may have come before there was a task to cancel.
  if (!watchIfCurrent(number)) request->cancel();
  return request;
}

std::optional<DCRemoteDocumentManager::Watch> DCRemoteDocumentManager::watchIfCurrent(std::uint64_t watchNumber) const {
  std::lock_guard lock(watchMutex_);
  return watchNumber == watchNumber_ ? watch_ : std::nullopt;
}

void DCRemoteDocumentManager::handleUpdateResponse(const std::shared_ptr<const HTTPURLResponse>& response,
                                                   const std::optional<URL>& body, const std::optional<Error>& error,
                                                   std::uint64_t watchNumber) {
  auto watch = watchIfCurrent(watchNumber);
  if (!watch) return;
  if (error) watch->fetchUpdateRequest->retireConnections();
  if (error && error->is(URLErrorDomain, URLErrorTimedOut)) {
    startWatch(watch->watchedDocumentIdentifiersAndVersionIdentifiers, watch->activityInfo,
               watch->updatedVersionIdentifierHandler, watchNumber);
    return;
  }
  if (error) {
    endWatch(watchNumber, *watch, error, error);
    return;
  }
  if (!response || response->statusCode() >= 400) {
    // The handler is not told of a failure status; who owns the watch is.
    endWatch(watchNumber, *watch, std::nullopt, errorForFailedResponse(response, body));
    return;
  }
  auto bytes = body ? readFile(body->path(), kMaximumUpdatesBytes) : Result<Data>(Data());
  auto list = bytes ? readPropertyList(*bytes) : Result<Value>(Failure(bytes.error()));
  auto pairs = list ? list->asArray() : std::nullopt;
  if (!pairs) {
    Error unreadable = list ? DCError::errorInternalWithUserInfo(Dictionary{{"list", *list}})
                            : DCError::errorInternalWithUserInfo({}).withUnderlyingError(list.error());
    endWatch(watchNumber, *watch, unreadable, unreadable);
  } else if (pairs->empty()) {
    endWatch(watchNumber, *watch, std::nullopt, std::nullopt);
  } else if (pairs->size() % 2 != 0) {
    Error odd = DCError::errorInternalWithUserInfo(Dictionary{{"array", *pairs}});
    endWatch(watchNumber, *watch, odd, odd);
  } else {
    handleUpdates(*pairs, *watch, watchNumber);
  }
}

void DCRemoteDocumentManager::handleUpdates(const Array& pairs, const Watch& watch, std::uint64_t watchNumber) {
  if (!watch.updatedVersionIdentifierHandler) {
    endWatch(watchNumber, watch, std::nullopt, std::nullopt);
    return;
  }
  DCVersionIdentifiers reported;
  for (std::size_t i = 0; i + 1 < pairs.size(); i += 2) {
    auto documentIdentifier = pairs[i].asData();
    auto versionIdentifier = pairs[i + 1].asData();
    if (!documentIdentifier || !versionIdentifier) {
      Error foreign = DCError::errorInternalWithUserInfo(Dictionary{{"array", pairs}});
      endWatch(watchNumber, watch, foreign, foreign);
      return;
    }
    reported[*documentIdentifier] = *versionIdentifier;
  }
  for (std::size_t i = 0; i + 1 < pairs.size(); i += 2) {
    watch.updatedVersionIdentifierHandler(pairs[i].asData(), pairs[i + 1].asData(), std::nullopt);
  }
  // The handler may have ended this watch or started another.
  startWatch(reported, watch.activityInfo, watch.updatedVersionIdentifierHandler, watchNumber);
}

// A connection may die without a word where something between here and the server still acknowledges what is sent.
std::shared_ptr<Timer> DCRemoteDocumentManager::silenceTimer(std::uint64_t watchNumber) {
  auto queue = FVFQueueManager::sharedQueueManager().queueForServiceWithUniqueIdentifier(service_->uniqueIdentifier());
  Clock& clock = service_->clock();
  return clock.schedule(clock.monotonicNow() + kLongestSilence, kSilenceLeeway,
                        [weak = weak_from_this(), queue, watchNumber] {
                          queue->dispatchAsynchronousBlock([weak, watchNumber] {
                            if (auto self = weak.lock()) self->watchWasNeverAnswered(watchNumber);
                          });
                        });
}

void DCRemoteDocumentManager::watchWasNeverAnswered(std::uint64_t watchNumber) {
  auto watch = watchIfCurrent(watchNumber);
  if (!watch) return;
  Error silent(URLErrorDomain, URLErrorTimedOut, "The server has not answered for too long.");
  watch->fetchUpdateRequest->retireConnections();
  endWatch(watchNumber, *watch, silent, silent);
  watch->fetchUpdateRequest->cancel();
}

void DCRemoteDocumentManager::endWatch(std::uint64_t watchNumber, const Watch& watch,
                                       const std::optional<Error>& tellHandler, const std::optional<Error>& tellOwner) {
  std::function<void(const std::optional<Error>&)> didEnd;
  {
    std::lock_guard lock(watchMutex_);
    if (watchNumber != watchNumber_ || !watch_) return;
    watch_.reset();
    didEnd = watchDidEndHandler_;
  }
  if (tellHandler && watch.updatedVersionIdentifierHandler)
    watch.updatedVersionIdentifierHandler(std::nullopt, std::nullopt, tellHandler);
  if (didEnd) didEnd(tellOwner);
}

void DCRemoteDocumentManager::finishFetchingUpdates() {
  DCLogTrace("-[DCRemoteDocumentManager finishFetchingUpdates]");
  std::optional<Watch> ended;
  {
    std::lock_guard lock(watchMutex_);
    ended = std::exchange(watch_, std::nullopt);
  }
  if (ended && ended->fetchUpdateRequest) ended->fetchUpdateRequest->cancel();
}

bool DCRemoteDocumentManager::isFetchingUpdates() const {
  std::lock_guard lock(watchMutex_);
  return watch_.has_value();
}

bool DCRemoteDocumentManager::isWaitingForUpdates() const {
  std::lock_guard lock(watchMutex_);
  return watch_ && watch_->fetchUpdateRequest->hasSentBody();
}

void DCRemoteDocumentManager::setWatchDidEndHandler(std::function<void(const std::optional<Error>& error)> handler) {
  std::lock_guard lock(watchMutex_);
  watchDidEndHandler_ = std::move(handler);
}

// What the protocol does not know

std::optional<Data> DCRemoteDocumentManager::rootDocumentIdentifier() const {
  DCLogTrace("-[DCRemoteDocumentManager rootDocumentIdentifier]");
  DCAssertionFailed(kSource, __LINE__, "0");
  return std::nullopt;
}

DCServerRequest::Ptr DCRemoteDocumentManager::createDirectoryWithName(
    const std::string& name, const Data& parentDocumentIdentifier, const Dictionary& attributes,
    const std::optional<Data>& parentVersionIdentifier, DCRemoteCompletionHandler completionHandler) {
  DCLogTrace(
      "-[DCRemoteDocumentManager "
      "createDirectoryWithName:parentDocumentIdentifier:attributes:parentVersionIdentifier:completionHandler:]",
      {{"name", name},
       {"parentDocumentIdentifier", parentDocumentIdentifier},
       {"attributes", attributes},
       {"parentVersionIdentifier", parentVersionIdentifier}});
  completionHandler.abandon();
  DCAssertionFailed(kSource, __LINE__, "0");
  return nullptr;
}

DCServerRequest::Ptr DCRemoteDocumentManager::versionListForFileWithDocumentIdentifier(
    const Data& documentIdentifier, const DCActivityInfo::Ptr& activityInfo,
    DCRemoteCompletionHandler completionHandler) {
  DCLogTrace("-[DCRemoteDocumentManager versionListForFileWithDocumentIdentifier:activityInfo:completionHandler:]",
             {{"documentIdentifier", documentIdentifier}, {"activityInfo", activityInfo}});
  completionHandler.abandon();
  DCAssertionFailed(kSource, __LINE__, "0");
  return nullptr;
}

DCServerRequest::Ptr DCRemoteDocumentManager::restoreVersionOfFileWithDocumentIdentifier(
    const Data& documentIdentifier, const Data& versionIdentifier, const std::optional<Data>& parentVersionIdentifier,
    const DCActivityInfo::Ptr& activityInfo, DCRemoteCompletionHandler completionHandler) {
  DCLogTrace(
      "-[DCRemoteDocumentManager "
      "restoreVersionOfFileWithDocumentIdentifier:versionIdentifier:parentVersionIdentifier:activityInfo:"
      "completionHandler:]",
      {{"documentIdentifier", documentIdentifier},
       {"versionIdentifier", versionIdentifier},
       {"parentVersionIdentifier", parentVersionIdentifier},
       {"activityInfo", activityInfo}});
  completionHandler.abandon();
  DCAssertionFailed(kSource, __LINE__, "0");
  return nullptr;
}

}  // namespace florvane
