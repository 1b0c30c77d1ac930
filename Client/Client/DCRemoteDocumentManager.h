#pragma once

#include "Client/Client/DCActivityInfo.h"
#include "Client/Client/DCServerRequest.h"
#include "Client/Client/DCService.h"
#include "common/FVFResponseContainer.h"
#include "platform/Clock.h"
#include "platform/CompletionHandler.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace florvane {

// Document identifiers and the version identifiers last known of them.
using DCVersionIdentifiers = std::map<Data, Data>;

// A container or an error; neither means that nothing has changed on the server. The container's file is there only
// while the handler runs.
using DCRemoteCompletionHandler = CompletionHandler<FVFResponseContainer::Ptr, std::optional<Error>>;

// A document whose version on the server differs from the one watched for, or an error.
using DCUpdatedVersionIdentifierHandler =
    std::function<void(const std::optional<Data>& documentIdentifier, const std::optional<Data>& versionIdentifier,
                       const std::optional<Error>& error)>;

// Turns each operation on the server into one request, and the answer into a container or an error. Handlers run where
// DCServerRequest answers: on the service's serial queue, or at once on the caller's thread when signing in failed.
// Operations that start a request return it. Thread-safe.
class DCRemoteDocumentManager : public std::enable_shared_from_this<DCRemoteDocumentManager> {
 public:
  using Ptr = std::shared_ptr<DCRemoteDocumentManager>;

  static Ptr remoteDocumentManagerForService(const std::shared_ptr<DCService>& service);
  explicit DCRemoteDocumentManager(std::shared_ptr<DCService> service);

  const std::shared_ptr<DCService>& service() const { return service_; }
  bool isServiceAvailable() const;

  // The list of share points.
  DCServerRequest::Ptr contentsOfRootDirectoryUnlessVersionIdentifier(const std::optional<Data>& versionIdentifier,
                                                                      const DCActivityInfo::Ptr& activityInfo,
                                                                      DCRemoteCompletionHandler completionHandler);
  DCServerRequest::Ptr contentsOfDirectoryWithDocumentIdentifier(const Data& documentIdentifier,
                                                                 const std::optional<Data>& unlessVersionIdentifier,
                                                                 const DCActivityInfo::Ptr& activityInfo,
                                                                 DCRemoteCompletionHandler completionHandler);
  DCServerRequest::Ptr contentsOfFileWithDocumentIdentifier(const Data& documentIdentifier,
                                                            const std::optional<Data>& unlessVersionIdentifier,
                                                            const DCActivityInfo::Ptr& activityInfo,
                                                            DCRemoteCompletionHandler completionHandler);

  // Send the file at `source` with the background session: as a new file of that name, or in place of a document whose
  // version is the given one. The answer is the parent's listing, of a drop box the stored file's own metadata.
  // `attributes` are the dates that the stored file is to have; `transfer` says what is sent, for whoever finds the
  // task after a relaunch; `willStart` is asked before anything is sent.
  DCServerRequest::Ptr writeToFileWithName(const std::string& name, const std::optional<Data>& parentDocumentIdentifier,
                                           const std::optional<Data>& parentVersionIdentifier,
                                           const DCActivityInfo::Ptr& activityInfo, const URL& source,
                                           const std::optional<Dictionary>& attributes,
                                           const BackgroundTransfer& transfer,
                                           DCRemoteCompletionHandler completionHandler,
                                           const DCUploadWillStart& willStart = {});
  DCServerRequest::Ptr writeToFileWithDocumentIdentifier(
      const Data& documentIdentifier, const std::optional<Data>& versionIdentifier,
      const std::optional<Data>& parentDocumentIdentifier, const std::optional<Data>& parentVersionIdentifier,
      const DCActivityInfo::Ptr& activityInfo, const URL& source, const std::optional<Dictionary>& attributes,
      const BackgroundTransfer& transfer, DCRemoteCompletionHandler completionHandler,
      const DCUploadWillStart& willStart = {});
  // A relaunched process takes on the events of a background session; what each upload task came to is told on the
  // service's queue.
  using ServerRequestResponseHandler = std::function<void(
      std::uint64_t taskIdentifier, const FVFResponseContainer::Ptr& container, const std::optional<Error>& error)>;
  void handleEventsForBackgroundURLSession(const std::string& identifier,
                                           ServerRequestResponseHandler withServerRequestResponseHandler);

  // Waits on the server until a watched version differs, tells the handler every pair of the answer, and waits on with
  // exactly those pairs, until finishFetchingUpdates, an error other than a timeout, or a failure status. A new watch
  // takes the place of the one before, whose late answers count for nothing.
  DCServerRequest::Ptr startFetchingUpdatesOfDocumentIdentifiersAndVersionIdentifiers(
      const DCVersionIdentifiers& versionIdentifiers, const DCActivityInfo::Ptr& activityInfo,
      DCUpdatedVersionIdentifierHandler updatedVersionIdentifierHandler);
  // Ends the watch in silence. From any thread.
  void finishFetchingUpdates();
  bool isFetchingUpdates() const;
  // Whether the request of the watch has been sent, so that the server would answer it at a change; not while it is
  // being opened. From any thread.
  bool isWaitingForUpdates() const;
  // Told, after the updated-version handler, when a watch ended by itself and no new one was opened: with the error of
  // the transport or of the failure status, or with none after an answer that gives nothing to watch. Whoever owns the
  // watch opens it again.
  void setWatchDidEndHandler(std::function<void(const std::optional<Error>& error)> handler);

  // Reads an answer: a transport error as it is, a status of 400 and more as an error of that code with the body as
  // description, 304 as neither, any other as a container or the client's invalid-header error. `body` is a file URL.
  void handleResponse(const std::shared_ptr<const HTTPURLResponse>& response, const std::optional<URL>& body,
                      const std::optional<Error>& error, DCRemoteCompletionHandler completionHandler);

  // The protocol has no such operations: each is a soft assertion and calls no handler.
  std::optional<Data> rootDocumentIdentifier() const;
  DCServerRequest::Ptr createDirectoryWithName(const std::string& name, const Data& parentDocumentIdentifier,
                                               const Dictionary& attributes,
                                               const std::optional<Data>& parentVersionIdentifier,
                                               DCRemoteCompletionHandler completionHandler);
  DCServerRequest::Ptr versionListForFileWithDocumentIdentifier(const Data& documentIdentifier,
                                                                const DCActivityInfo::Ptr& activityInfo,
                                                                DCRemoteCompletionHandler completionHandler);
  DCServerRequest::Ptr restoreVersionOfFileWithDocumentIdentifier(const Data& documentIdentifier,
                                                                  const Data& versionIdentifier,
                                                                  const std::optional<Data>& parentVersionIdentifier,
                                                                  const DCActivityInfo::Ptr& activityInfo,
                                                                  DCRemoteCompletionHandler completionHandler);

 private:
  HTTPHeaders _standardRequestHeaders() const;
  HTTPHeaders requestHeadersFromMetadata(const std::optional<Dictionary>& metadata) const;
  DCServerRequest::Ptr startUpload(const std::string& uri, const DCServerRequest::QueryItems& queryItems,
                                   const URL& source, const std::optional<Dictionary>& attributes,
                                   const BackgroundTransfer& transfer, DCRemoteCompletionHandler completionHandler,
                                   const DCUploadWillStart& willStart);
  std::optional<std::string> _getUniqueHostIdentifier() const;
  DCServerRequest::Ptr startDownload(const std::string& uri, const DCServerRequest::QueryItems& queryItems,
                                     const std::optional<Data>& unlessVersionIdentifier,
                                     DCRemoteCompletionHandler completionHandler);

  struct Watch {
    DCVersionIdentifiers watchedDocumentIdentifiersAndVersionIdentifiers;
    DCUpdatedVersionIdentifierHandler updatedVersionIdentifierHandler;
    DCActivityInfo::Ptr activityInfo;
    DCServerRequest::Ptr fetchUpdateRequest;
    std::shared_ptr<Timer> silence;  // runs out when the server must have answered
  };
  DCServerRequest::Ptr startWatch(const DCVersionIdentifiers& versionIdentifiers,
                                  const DCActivityInfo::Ptr& activityInfo, DCUpdatedVersionIdentifierHandler handler,
                                  std::optional<std::uint64_t> onlyIfCurrent);
  std::shared_ptr<Timer> silenceTimer(std::uint64_t watchNumber);
  void watchWasNeverAnswered(std::uint64_t watchNumber);
  void handleUpdateResponse(const std::shared_ptr<const HTTPURLResponse>& response, const std::optional<URL>& body,
                            const std::optional<Error>& error, std::uint64_t watchNumber);
  void handleUpdates(const Array& pairs, const Watch& watch, std::uint64_t watchNumber);
  std::optional<Watch> watchIfCurrent(std::uint64_t watchNumber) const;
  void endWatch(std::uint64_t watchNumber, const Watch& watch, const std::optional<Error>& tellHandler,
                const std::optional<Error>& tellOwner);

  const std::shared_ptr<DCService> service_;
  mutable std::mutex watchMutex_;
  std::optional<Watch> watch_;     // the one in progress
  std::uint64_t watchNumber_ = 0;  // tells its answers from those of the watches before
  std::function<void(const std::optional<Error>&)> watchDidEndHandler_;
};

}  // namespace florvane
