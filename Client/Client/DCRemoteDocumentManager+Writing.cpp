#include "Client/Client/DCBackgroundSessionManager.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCPreferences.h"
#include "Client/Client/DCRemoteDocumentManager.h"
#include "Client/Client/DCUploadAnswer.h"
#include "common/FVFMetadataUtils.h"
#include "common/FVFRequestUtils.h"

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCRemoteDocumentManager";

std::optional<Data> sharepointOf(const DCActivityInfo::Ptr& activityInfo) {
  return activityInfo ? activityInfo->sharepointDocumentIdentifier() : std::nullopt;
}

}  // namespace

HTTPHeaders DCRemoteDocumentManager::requestHeadersFromMetadata(const std::optional<Dictionary>& metadata) const {
  HTTPHeaders headers = _standardRequestHeaders();
  if (!metadata) return headers;
  const bool isXML = DCPreferences::preferences()->xmlPropertyLists();
  auto text =
      FVFMetadataUtils::headerFromMetadata(*metadata, isXML ? PropertyListFormat::XML : PropertyListFormat::Binary);
  if (text) headers.set(DUHeaderMetadataKey, *text);
  return headers;
}

DCServerRequest::Ptr DCRemoteDocumentManager::startUpload(
    const std::string& uri, const DCServerRequest::QueryItems& queryItems, const URL& source,
    const std::optional<Dictionary>& attributes, const BackgroundTransfer& transfer,
    DCRemoteCompletionHandler completionHandler, const DCUploadWillStart& willStart) {
  auto request = DCServerRequest::make();
  // CompletionHandler is moved, and what a request stores must be copyable.
  auto handler = std::make_shared<DCRemoteCompletionHandler>(std::move(completionHandler));
  request->startUploadTaskWithFile(
      source, uri, queryItems, service_, requestHeadersFromMetadata(attributes), transfer,
      [self = shared_from_this(), handler](const std::optional<std::uint64_t>& /*taskIdentifier*/,
                                           const std::shared_ptr<const HTTPURLResponse>& response,
                                           const std::optional<URL>& location, const std::optional<Error>& error) {
        DCUploadAnswer answer(location);
        self->handleResponse(response, location, error, std::move(*handler));
      },
      willStart);
  return request;
}

DCServerRequest::Ptr DCRemoteDocumentManager::writeToFileWithName(
    const std::string& name, const std::optional<Data>& parentDocumentIdentifier,
    const std::optional<Data>& parentVersionIdentifier, const DCActivityInfo::Ptr& activityInfo, const URL& source,
    const std::optional<Dictionary>& attributes, const BackgroundTransfer& transfer,
    DCRemoteCompletionHandler completionHandler, const DCUploadWillStart& willStart) {
  DCLogTrace(
      "-[DCRemoteDocumentManager "
      "writeToFileWithName:parentDocumentIdentifier:parentVersionIdentifier:activityInfo:source:attributes:"
      "completionHandler:]",
      {{"name", name},
       {"parentDocumentIdentifier", parentDocumentIdentifier},
       {"parentVersionIdentifier", parentVersionIdentifier},
       {"activityInfo", activityInfo},
       {"source", source},
       {"attributes", attributes}});
  DCServerRequest::QueryItems queryItems;
  std::string uri = FVFRequestUtils::URIForWriteFileWithName(name, parentDocumentIdentifier, parentVersionIdentifier,
                                                             sharepointOf(activityInfo), &queryItems);
  return startUpload(uri, queryItems, source, attributes, transfer, std::move(completionHandler), willStart);
}

DCServerRequest::Ptr DCRemoteDocumentManager::writeToFileWithDocumentIdentifier(
    const Data& documentIdentifier, const std::optional<Data>& versionIdentifier,
    const std::optional<Data>& parentDocumentIdentifier, const std::optional<Data>& parentVersionIdentifier,
    const DCActivityInfo::Ptr& activityInfo, const URL& source, const std::optional<Dictionary>& attributes,
    const BackgroundTransfer& transfer, DCRemoteCompletionHandler completionHandler,
    const DCUploadWillStart& willStart) {
  DCLogTrace(
      "-[DCRemoteDocumentManager "
      "writeToFileWithDocumentIdentifier:versionIdentifier:parentDocumentIdentifier:parentVersionIdentifier:"
      "activityInfo:source:attributes:completionHandler:]",
      {{"documentIdentifier", documentIdentifier},
       {"versionIdentifier", versionIdentifier},
       {"parentDocumentIdentifier", parentDocumentIdentifier},
       {"parentVersionIdentifier", parentVersionIdentifier},
       {"activityInfo", activityInfo},
       {"source", source},
       {"attributes", attributes}});
  DCServerRequest::QueryItems queryItems;
  std::string uri = FVFRequestUtils::URIForReplaceFileWithDocumentIdentifier(
      documentIdentifier, versionIdentifier, parentDocumentIdentifier, parentVersionIdentifier,
      sharepointOf(activityInfo), &queryItems);
  return startUpload(uri, queryItems, source, attributes, transfer, std::move(completionHandler), willStart);
}

void DCRemoteDocumentManager::handleEventsForBackgroundURLSession(
    const std::string& identifier, ServerRequestResponseHandler withServerRequestResponseHandler) {
  DCLogTrace("-[DCRemoteDocumentManager handleEventsForBackgroundURLSession:withServerRequestResponseHandler:]",
             {{"identifier", identifier}});
  auto bundleIdentifier = DCBackgroundSessionManager::bundleIdentifierFromBackgroundSessionIdentifier(identifier);
  DCAssert(bundleIdentifier, kSource);
  if (!bundleIdentifier) return;
  DCBackgroundSessionManager::backgroundSessionManagerForService(service_, bundleIdentifier)
      ->handleEventsForBackgroundURLSessionWithServerRequestResponseHandler(
          [self = shared_from_this(), handler = std::move(withServerRequestResponseHandler)](
              const std::optional<std::uint64_t>& taskIdentifier,
              const std::shared_ptr<const HTTPURLResponse>& response, const std::optional<URL>& location,
              const std::optional<Error>& error) {
            DCUploadAnswer answer(location);
            if (!taskIdentifier) return;
            self->handleResponse(response, location, error,
                                 [&](const FVFResponseContainer::Ptr& container, const std::optional<Error>& failure) {
                                   handler(*taskIdentifier, container, failure);
                                 });
          });
}

}  // namespace florvane
