#pragma once

#include "Client/Client/DCCachedItemManager.h"
#include "Client/Client/DCConnectivityTracker.h"
#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCDelegateState.h"
#include "Client/Client/DCDocumentManagerDelegate.h"
#include "Client/Client/DCDownloadManager.h"
#include "Client/Client/DCProcessedListings.h"
#include "Client/Client/DCRemoteDocumentManager.h"
#include "Client/Client/DCTemporaryFile.h"
#include "Client/Client/DCUploadManager.h"
#include "common/FVFBackOff.h"
#include "common/FVFDispatchQueue.h"
#include "platform/Clock.h"
#include "platform/CompletionHandler.h"
#include "platform/FileCoordinator.h"
#include "platform/NotificationCenter.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace florvane {

// How well an answer from the cache is known to be what the server has.
enum DCDocumentManagerFreshnessState : std::int64_t {
  DCDocumentManagerFreshnessStateStale = 1,    // a refresh was started, or is needed
  DCDocumentManagerFreshnessStateUnknown = 2,  // failed, never downloaded, or the server could not be asked
  DCDocumentManagerFreshnessStateFresh = 4,
};

// The number of refused attempts after which an upload gives up.
inline constexpr std::int64_t DCFileUploadMaxNumberOfRetries = 2;

// The one object through which an application works with a service's documents: lists, reads, writes, watches and
// maintains the local copy. Paths are relative path strings ("" is the root). Asynchronous operations return at once
// and do their work on the service's queue; their handlers may be null and are called exactly once on
// completionHandlerQueue(), never in place. Errors are the client's (DCError.h), those of the server's refusals
// (URLErrorDomain, the HTTP status as code), of the transfer (URLErrorDomain) and of files; where a newer version of
// this software has written the database, that (SQLiteStoreNewerVersionError) is the answer to everything and nothing
// is changed. An illegal path is answered with "Invalid argument." (1). Thread-safe; what is said to be synchronous
// waits for the service's queue and must not be called from it.
class DCDocumentManager : public DCConnectivityTrackerDelegate, public std::enable_shared_from_this<DCDocumentManager> {
 public:
  using Ptr = std::shared_ptr<DCDocumentManager>;
  using State = DCDocumentManagerFreshnessState;
  using OptionalError = std::optional<Error>;
  using ErrorHandler = CompletionHandler<OptionalError>;
  using ContentsOfDirectoryHandler = CompletionHandler<State, std::optional<Array>, OptionalError>;
  using AttributesHandler = CompletionHandler<State, std::optional<Dictionary>, OptionalError>;
  // The URL is that of the local copy, absent where there is none.
  using FileHandler = CompletionHandler<State, std::optional<URL>, OptionalError>;
  // The URL is that of the local copy which is sent.
  using UploadHandler = CompletionHandler<std::optional<URL>, OptionalError>;
  using UploadsHandler = CompletionHandler<std::vector<std::shared_ptr<DCManagedUpload>>>;
  using DelegatePtr = std::shared_ptr<DCDocumentManagerDelegate>;

  // On whose behalf this process works with the cache (application, file provider, ...); before the first manager is
  // made. An absent one throws ObjectNotAvailableException.
  static void setPurposeIdentifier(const std::optional<std::string>& purposeIdentifier);
  static std::optional<std::string> purposeIdentifier();
  // The one manager of the service. The first call in the process checks the data version and may wipe old data.
  static Ptr documentManagerForService(const std::shared_ptr<DCService>& service);
  ~DCDocumentManager() override;

  const std::shared_ptr<DCService>& service() const override { return service_; }
  // The main queue unless set.
  std::shared_ptr<SerialQueue> completionHandlerQueue() const;
  void setCompletionHandlerQueue(std::shared_ptr<SerialQueue> queue);
  // Synchronous.
  void resetCachedItemManagerForService(const std::shared_ptr<DCService>& service);

  // Reading. The cached listing is answered at once and a stale one refreshed; the fresh one reaches delegates.
  void contentsOfDirectoryAtPath(const std::string& path, ContentsOfDirectoryHandler completionHandler);
  // The next stale listing is answered only after its refresh, with the fresh one.
  void _synchronousNextContentsOfDirectory();
  // Asks the server for the item whatever its age, and succeeds when the cache holds the answer, or when what the cache
  // holds is not the server's to replace (unsent bytes). For callers that insist on a fresh answer.
  void refreshItemAtPath(const std::string& path, ErrorHandler completionHandler);
  // At once, from the cache; a stale item's parent is refreshed.
  void attributesOfItemAtPath(const std::string& path, AttributesHandler completionHandler);
  // After a refresh where one is needed. Without the server the last local copy, state 2; no local copy either: no URL
  // and no error.
  void contentsOfFileAtPath(const std::string& path, FileHandler completionHandler);
  // A local copy at once, else after its download. "No thumbnail available." (15) where the server has none.
  void thumbnailOfItemAtPath(const std::string& path, FileHandler completionHandler);
  // "No preview available." (10) where there is none.
  void previewOfItemAtPath(const std::string& path, FileHandler completionHandler);
  // Synchronous. Where the item lies, or where a new file of that name is to be staged.
  Result<URL> fileURLOfItemAtPath(const std::string& path);
  // Synchronous. The paths at which the document in that local file stands.
  Result<std::set<std::string>> pathsOfItemAtURL(const URL& url);

  // Writing.
  // Not supported: "Internal error." (13).
  void createDirectoryAtPath(const std::string& path, const Dictionary& attributes, ErrorHandler completionHandler);
  // The source's bytes will be what a later start of the upload sends as the new file.
  void preflightWriteToNewFileAtPath(const std::string& path, const URL& source, ErrorHandler completionHandler);
  // Synchronous.
  void removePreflightedWriteToNewFileAtPath(const std::string& path);
  // Success means that the bytes are safe on this disk and queued for the server, whatever happens to the process.
  void writeToFileAtPath(const std::string& path, const URL& source, UploadHandler completionHandler);
  // Joins the upload of the file, or starts one, also of what was given up or is in conflict; hears of its first end.
  void startUploadingItemAtPath(const std::string& path, UploadHandler completionHandler);
  // Answers when the item is here, or why it is not.
  void startDownloadingItemAtPath(const std::string& path, ErrorHandler completionHandler);
  // These three do nothing, and succeed.
  void cancelUploadingItemAtPath(const std::string& path, ErrorHandler completionHandler);
  void cancelDownloadingItemAtPath(const std::string& path, ErrorHandler completionHandler);
  void evictItemAtPath(const std::string& path, ErrorHandler completionHandler);

  // Watching. A delegate hears of its path and the direct children, for as long as it lives and is registered; one a
  // path. Missing arguments throw InvalidArgumentException; a path that the cache does not know is not watched.
  void setDelegate(const DelegatePtr& delegate, const std::string& forFilterPath);
  void setDelegate(const DelegatePtr& delegate, const std::shared_ptr<SerialQueue>& queue,
                   const std::string& forFilterPath);
  DelegatePtr delegateForFilterPath(const std::optional<std::string>& path) const;
  void removeDelegate(const DelegatePtr& delegate);
  void removeDelegateForFilterPath(const std::optional<std::string>& path);
  bool connectionStatus() const;
  bool isConnected() const;
  void didUpdateConnectionStatus(const std::shared_ptr<DCConnectivityTracker>& connectivityTracker,
                                 bool isConnected) override;

  // Maintenance.
  // Starts again every upload that is due: at a start, and when something that uploads waited for has come. Returns at
  // once; records whose file is gone go.
  void restartUploads();
  // A relaunched process hands the background session's events over.
  void handleEventsForBackgroundURLSession(const std::string& identifier, std::function<void()> completionHandler);
  // The records of uploads that are due or were given up, the newest first.
  void allPendingUploadsWithCompletionHandler(UploadsHandler completionHandler);
  // These are synchronous.
  bool hasPendingUploads();
  // Null when nothing of it is being downloaded, and for a path that is not known.
  DCServerRequest::Ptr downloadTaskForItemAtPath(const std::string& path);
  // Null when there is none.
  std::shared_ptr<DCManagedUpload> uploadForItemAtPath(const std::string& path);
  // Cancels the service's transfers and removes all that is kept of it, its login included. Unsent bytes go to the
  // container's "Recovered" folder first; where that fails nothing is removed, and the log says why.
  void deleteAllLocalData();
  // Makes the database anew from the files on disk. Uploads go on, and what equals the server's does not count as
  // changed. Other processes wait for it; a kill in the middle is made good by whoever comes next.
  void rebuildDatabaseWithCompletionHandler(CompletionHandler<> completionHandler);
  // Why the last rebuild came to nothing and left the database as it was; absent when none did. Any thread.
  std::optional<Error> rebuildError() const;
  // Wipes what version 1.0 or an unknown one has kept of all services, unsent bytes excepted. Run by the first manager
  // of a process, under a lock of the container.
  static void deleleAllDataIfNecessary();

  // An upload has ended: for the upload manager, and for the background session of a relaunched process.
  void _finishUploadFile(const DCCachedFile::Ptr& file, const FVFResponseContainer::Ptr& container,
                         const OptionalError& error);
  void _finishUploadFileForTaskIdentifier(std::uint64_t taskIdentifier, const std::string& sessionIdentifier,
                                          const FVFResponseContainer::Ptr& responseContainer,
                                          const OptionalError& error);

  std::string description() const;

 private:
  struct Private {};

 public:
  DCDocumentManager(Private, std::shared_ptr<DCService> service);

 private:
  // What the checks before an operation found.
  struct PreOperation {
    DCRelativePath::Ptr relativePath;
    DCCachedItem::Ptr item;
    OptionalError error;
  };
  enum class ItemClass : std::uint8_t { Any, Directory, File };
  using DelegateBlock = std::function<void(DCDocumentManagerDelegate& delegate)>;

  // Frame (DCDocumentManager.cpp).
  static Ptr _initWithService(const std::shared_ptr<DCService>& service);
  PreOperation _performPreOperationChecksWithPath(const std::string& path, ItemClass itemClass, bool itemMustBeKnown);
  // How an operation on an item that must be known begins: on the queue, with what the checks found.
  using KnownItemBlock = std::function<void(const Ptr& self, const PreOperation& checks)>;
  void _performWithKnownItemAtPath(const char* function, const std::string& path, ItemClass itemClass,
                                   KnownItemBlock block);
  void _logFunction(std::string_view function, const std::string& path, const DCCachedItem::Ptr& item,
                    const DCRelativePath::Ptr& relativePath);
  DCActivityInfo::Ptr _activityInfoForItem(const DCCachedItem& item);
  bool _isWatchedAndUpToDateItem(const DCCachedItem& item);
  void _dispatchMaybeCallSelector(std::string_view selector, const std::string& path, std::string_view function,
                                  unsigned line, const DelegateBlock& block);
  bool _needsToCallDelegateForPath(const std::string& path) const;
  static bool _shouldCallDelegate(const DCDelegateState& state, const std::string& forPath);
  OptionalError _checkParentOfItem(DCCachedItemManager& manager, const DCRelativePath::Ptr& relativePath);
  void _didRecoverFileAtPath(const std::string& path, const URL& recoveredURL);
  DCCachedItemManager::Ptr cachedItemManager();
  std::shared_ptr<DCDatabase> database();

  // Listing (DCDocumentManager+Listing.cpp).
  struct Listing {
    State state = DCDocumentManagerFreshnessStateUnknown;
    Array contents;
  };
  void _contentsOfDirectoryAtPath(const std::string& path, bool downloadIfNecessary,
                                  ContentsOfDirectoryHandler completionHandler);
  Listing _listingOfDirectory(const DCCachedDirectory::Ptr& directory);
  DCCachedItem::Ptr _itemOfEntry(const Value& entry, const std::string& path);
  std::map<std::string, DCCachedFile::Ptr> _localItemsInDirectory(const DCCachedDirectory& directory);
  Dictionary _synthesizedMetadataForItem(const DCCachedItem& item,
                                         const std::optional<Dictionary>& parentContentsMetadata);
  void _addItemsCountOfDirectory(const DCCachedDirectory& directory, Dictionary& metadata);

  // The decision what to download, and its answer (DCDocumentManager+Downloads.cpp).
  enum class DownloadDecision : std::uint8_t { Nothing, Conflict, Parent, Download };
  struct Download {
    DCCachedItem::Ptr item;
    int attempt = 1;
    bool isSecondSignIn = false;
  };
  // What the first of those who share a download made of its answer.
  struct AppliedDownload {
    DCCachedItem::Ptr item;
    FVFResponseContainer::Ptr container;
    OptionalError result;
    bool asksAgain = false;
  };
  void _downloadItem(const DCCachedItem::Ptr& item, ErrorHandler completionHandler);
  void _startDownloadItem(const DCCachedItem::Ptr& item, ErrorHandler completionHandler);
  DownloadDecision _downloadDecision(const DCCachedItem::Ptr& item);
  bool _takeIdentifierOfEntry(const DCCachedItem::Ptr& item);
  void _downloadParentOfItem(const DCCachedItem::Ptr& item, ErrorHandler completionHandler);
  void _downloadStaleDirectory(const DCCachedDirectory::Ptr& directory, ErrorHandler completionHandler);
  void _downloadStaleFile(const DCCachedFile::Ptr& file, ErrorHandler completionHandler);
  void _download(const Download& download, const std::shared_ptr<ErrorHandler>& handler);
  void _downloadDidEnd(const Download& download, const std::optional<Data>& requested, Date started,
                       const FVFResponseContainer::Ptr& container, const OptionalError& error,
                       const std::shared_ptr<ErrorHandler>& handler);
  void _contentsOfFileAtPath(const std::string& path, const std::shared_ptr<FileHandler>& handler, bool asksAgain);
  OptionalError _applyDownload(const Download& download, const std::optional<Data>& requested, Date started,
                               const FVFResponseContainer::Ptr& container, bool& asksAgain);
  bool _wasListedSince(const DCCachedDirectory& directory, Date started) const;
  static Error _clientErrorForError(const Error& error, const DCRelativePath& relativePath);
  OptionalError _updateFreshlyDownloadedDirectory(const DCCachedDirectory::Ptr& directory,
                                                  const FVFResponseContainer::Ptr& downloadedDirectory);
  OptionalError _updateFreshlyDownloadedDirectory(const DCCachedDirectory::Ptr& directory,
                                                  const FVFResponseContainer::Ptr& downloadedDirectory,
                                                  const DCCachedFile::Ptr& fetchingForChild,
                                                  std::optional<Dictionary>* remoteMetadata);
  void _didUpdateDirectory(const DCCachedDirectory::Ptr& directory, const Dictionary& metadata, const char* function);
  void _didDownloadChangedItem(const DCCachedItem& item, const std::optional<Dictionary>& downloadedMetadata);

  // Taking in what a listing changes (DCDocumentManager+Changes.cpp).
  // `previousContents` is null for none that this process knows; the listing is one that has just come.
  void _processDirectoryChangesWithDirectory(const DCCachedDirectory::Ptr& directory,
                                             const DCDirectoryContents::Ptr& currentContents,
                                             const DCDirectoryContents::Ptr& previousContents,
                                             const DCCachedFile::Ptr& fetchingForChild,
                                             std::optional<Dictionary>* remoteMetadata);
  void _takeInListing(const DCCachedDirectory::Ptr& directory, const DCDirectoryContents::Ptr& current,
                      const DCDirectoryContents::Ptr& previous, bool isFresh, const DCCachedFile::Ptr& fetchingForChild,
                      std::optional<Dictionary>* remoteMetadata);

  // What other processes have put into the cache (DCDocumentManager+Others.cpp).
  // Takes in a listing on disk that another process, or this one before its last end, has put there.
  void _processListingOfOthers(const DCCachedDirectory::Ptr& directory);
  // Tells this process's delegates of a version that they do not know of, if the cache holds one. Where they know of
  // none, one that the server has reported is such a version, any other the one to begin with.
  void _tellOfItemOfOthers(const DCCachedItem::Ptr& item, bool isReported);
  void _observeUploads();
  void _continueUpdatesOfSent();

  // Contents, attributes, thumbnails, previews (DCDocumentManager+Contents.cpp).
  void _continueContentsOfFile(const DCCachedFile::Ptr& file, const OptionalError& error,
                               FileHandler completionHandler);
  bool _isUpToDateOrWatchedItem(const DCCachedItem& item);
  void _didUpdateFile(const DCCachedFile::Ptr& file, const Dictionary& metadata, const char* function);
  OptionalError _updateFreshlyDownloadedFile(const DCCachedFile::Ptr& file,
                                             const FVFResponseContainer::Ptr& downloadedFile);
  void _continuePreviewOfItem(const DCCachedFile::Ptr& item, const DCCachedItem::Ptr& preview,
                              const OptionalError& error, FileHandler completionHandler);
  void _downloadThumbnail(const DCCachedThumbnail::Ptr& thumbnail, const std::shared_ptr<FileHandler>& handler);

  // Writing (DCDocumentManager+Writing.cpp, +Uploads.cpp).
  void _uploadItem(const DCCachedItem::Ptr& item, ErrorHandler completionHandler);
  void _startUploadingFile(const DCCachedFile::Ptr& file, ErrorHandler completionHandler);
  // Nothing is said of an upload that is queued: it is tried again.
  void _announceFailureOfUpload(const DCCachedItem& item, const Error& error);
  OptionalError _writeFile(const DCCachedFile::Ptr& file, const URL& source);
  // The service's upload manager, told whom to ask what an end means.
  DCUploadManager::Ptr _uploadManager();
  void _restartUploads();
  void _restartUploadOfRecord(const std::shared_ptr<DCManagedUpload>& upload, std::vector<std::string>& gone);
  void _abandonUpload(DCManagedUpload& upload, const Error& error);

  // Ends of uploads (DCDocumentManager+UploadEnds.cpp, +UploadConflicts.cpp).
  using UploadTask = std::optional<DCUploadTask>;
  struct UploadAnswer {
    DCCachedFile::Ptr file;
    // As in DCUploadManager::End; absent, too, when the listing tells what became of a transfer.
    UploadTask task;
    FVFResponseContainer::Ptr container;
    // Keeps the container's file; absent where the answer brought none.
    std::shared_ptr<DCTemporaryFile> body;
    std::shared_ptr<ErrorHandler> settled;
    Date ended;
  };
  void _uploadDidEnd(const DCUploadManager::End& end, ErrorHandler settled);
  void _uploadDidFail(const DCCachedFile::Ptr& file, const UploadTask& task, const Error& error,
                      const std::shared_ptr<ErrorHandler>& settled);
  bool _findUploadSource(const DCCachedFile& file, const std::shared_ptr<DCManagedUpload>& upload);
  bool _clearUploadTask(const std::string& path, const UploadTask& task);
  void _countFailureOfUpload(const DCCachedFile::Ptr& file, const Error& error);
  void _giveUpUpload(const DCCachedFile::Ptr& file, DCManagedUpload& upload, const Error& error);
  // In a turn of its own; with a pause after a loss of the connection, longer each time.
  void _restartUpload(const DCCachedFile::Ptr& file);
  void _restartUploadAfterLoss(const DCCachedFile::Ptr& file);
  void _afterPause(const std::string& path, std::function<void()> work);
  void _uploadDidSucceed(const UploadAnswer& answer);
  void _takeInUploadAnswersAfter(unsigned turns);
  void _takeInUploadAnswers(const std::vector<UploadAnswer>& answers);
  void _listForUploadAnswers(const DCCachedDirectory::Ptr& directory, std::vector<UploadAnswer> answers);
  void _completeUploads(const DCCachedDirectory::Ptr& directory, const std::vector<UploadAnswer>& answers,
                        bool isListed);
  void _completeUpload(const UploadAnswer& answer, const std::optional<Dictionary>& remoteMetadata, bool isOfListing);
  void _serverReturnedNoMetadata(const UploadAnswer& answer);
  void _askWhatBecameOfUpload(const UploadAnswer& answer);
  // With writers kept out. False when newer bytes wait.
  bool _takeInUpload(const UploadAnswer& answer, const Dictionary& remoteMetadata, bool isDropBox);
  // What became of an upload whose answer was lost or that was refused for the name or the version.
  void _reconcileUpload(const DCCachedFile::Ptr& file, const Error& error,
                        const std::shared_ptr<ErrorHandler>& settled);
  void _reconcileUploadLater(const DCCachedFile::Ptr& file, const UploadTask& task, const Error& error);
  void _decideUpload(const DCCachedFile::Ptr& file, const Error& error, const std::optional<Dictionary>& entry,
                     const std::shared_ptr<ErrorHandler>& settled);
  void _uploadIsInConflict(const DCCachedFile::Ptr& file, DCManagedUpload& upload, const Dictionary& entry);
  void _fetchConflictingVersion(const DCCachedFile::Ptr& file, const Data& documentIdentifier, const Data& version);

  // Watching (DCDocumentManager+Watching.cpp, +Updates.cpp).
  // Also after every listing that was taken in: registrations find items that took the place of theirs.
  void _adjustFetchingUpdatesIfNecessary();
  void _startFetchingUpdates();
  void _finishFetchingUpdates();
  // Whether a request is open by which a change on the server would be heard of.
  bool _isFetchingUpdates() const;
  void _didUpdateVersionIdentifier(const std::optional<Data>& versionIdentifier,
                                   const std::optional<Data>& forDocumentIdentifier);
  // Null when the path is not known.
  DCDelegateState::Ptr _registerDelegate(const DelegatePtr& delegate, const std::shared_ptr<SerialQueue>& queue,
                                         const std::string& path);
  // A document's version that one registration wants to be watched.
  struct WatchedVersion {
    Data documentIdentifier;
    Data versionIdentifier;
    bool isOfItem = true;  // else of a folder above, which says what the others know of it, too
  };
  std::optional<WatchedVersion> _versionToWatchOfState(DCDelegateState& state);
  std::optional<WatchedVersion> _enterStateIntoIndex(const DCDelegateState::Ptr& state);
  // Whose item that is; under the lock.
  std::vector<DCDelegateState::Ptr> _statesWatchingDocument(const Data& documentIdentifier) const;
  // The same for registrations that went and came, at the price of these where there are many others.
  void _adjustForRegistrations(const DCDelegateState::Ptr& removed, const DCDelegateState::Ptr& added);
  DCCachedItem::Ptr _itemReplacingItemOfState(DCDelegateState& state);
  void _openWatch(std::uint64_t number);
  void _watchDidEnd(std::uint64_t number, const OptionalError& error);
  void _watchDidReport(std::uint64_t number, const Data& documentIdentifier, const Data& versionIdentifier);
  void _watchDidAnswer(std::uint64_t number);
  void _reopenWatchIfWaiting();
  void _setWatchTimer(Duration shortestPause = Duration::zero());
  void _watchTimerDidFire();
  void _observeLogins();
  void _loginMayHaveChanged();
  void _documentsAreGone(const std::set<Data>& documentIdentifiers);
  void _tellDelegatesOfFailedSignIn(const Error& error);
  void _updateItem(const DCCachedItem::Ptr& item, const Data& versionIdentifier);
  void _continueUpdate(const Data& documentIdentifier);
  bool _isDownloading(const DCCachedItem::Ptr& item);
  void _didDownloadUpdate(const Data& documentIdentifier, const OptionalError& error);
  void _retryUpdates();
  void _setUpdateTimer();
  // As refreshItemAtPath.
  void _refreshItem(const DCCachedItem::Ptr& item, ErrorHandler completionHandler);

  // Maintenance (DCDocumentManager+Maintenance.cpp).
  static void _deleteAllContent();
  // False when nothing was there or it could not be removed.
  static bool _synchronouslyRemoveItemAtURL(const URL& url, const FileCoordinator& withFileCoordinator);
  void _rebuildItemWithRelativePath(const DCRelativePath::Ptr& relativePath, const Dictionary& parentDirectoryMetadata);
  const std::string& rebuildMark();
  // Waits for one that another process is at, and does one that was cut short again.
  void _finishRebuildOfOthers();
  void _rebuildDatabase(bool onlyIfUnfinished);
  Result<void> _rebuildDatabaseExclusively(bool onlyIfUnfinished);
  void _rebuildFile(const DCCachedFile::Ptr& file, const Dictionary& remoteMetadata);
  void _rebuildDirectory(const DCCachedDirectory::Ptr& directory, const std::optional<Dictionary>& remoteMetadata);
  void _queueStagedFiles();
  // To be called once a manager, before anything else is submitted: a rebuild that was cut short is done again.
  void _finishInterruptedRebuild();
  void _forgetItems();

  const std::shared_ptr<DCService> service_;
  std::shared_ptr<FVFDispatchQueue> queue_;
  std::shared_ptr<DCConnectivityTracker> connectivityTracker_;
  // On the queue.
  bool synchronousContentsOfDirectory_ = false;
  DCProcessedListings processedListings_;
  std::optional<AppliedDownload> appliedDownload_;
  // Answers that wait to be taken in together, by the directory that they list.
  std::unordered_map<std::string, std::vector<UploadAnswer>> uploadAnswers_;
  // Of uploads whose connection was lost, by path, while they are not answered.
  struct Loss {
    FVFBackOff backOff;
    std::unique_ptr<Timer> timer;
    std::function<void()> work;
  };
  std::unordered_map<std::string, Loss> uploadLosses_;
  // Paths of uploads of which only the server's listing can tell what became of them; they are not sent before.
  std::unordered_set<std::string> undecidedUploads_;

  std::string rebuildMark_;

  mutable std::recursive_mutex mutex_;  // guards what follows; changed on callers' threads
  OptionalError rebuildError_;
  std::shared_ptr<SerialQueue> completionHandlerQueue_;
  // The item manager that has got its purpose and its handlers.
  std::weak_ptr<DCCachedItemManager> preparedItemManager_;
  std::string preparedPurpose_;
  std::unordered_map<std::string, DCDelegateState::Ptr> delegateStates_;
  // Those that are watched for, by watched document.
  std::unordered_multimap<Data, DCDelegateState::Ptr, DataHash> statesByWatchedDocument_;
  std::size_t changesSinceAdjusting_ = 0;  // registrations that were adjusted for by themselves
  // The pairs that the server was asked about, in step with its answers.
  std::optional<DCVersionIdentifiers> watchedDocumentIdentifiersAndVersionIdentifiers_;
  std::uint64_t watchNumber_ = 0;  // tells the opening in force from those of the past
  bool watchIsOpen_ = false;
  bool isSecondSignIn_ = false;                       // the watch was opened because a cookie had been refused
  std::optional<std::uint64_t> watchNumberWhenLost_;  // the opening in force when the connection was lost
  std::set<Data> answeredDocumentIdentifiers_;        // of the answer that is being told
  std::set<Data> goneDocumentIdentifiers_;            // not watched until their parents have been listed
  std::optional<Secret> cookieOfLastWatch_;
  FVFBackOff watchBackOff_;
  std::unique_ptr<Timer> watchTimer_;
  std::unique_ptr<NotificationCenter::Observation> loginObservation_, uploadsObservation_;

  // Reported versions that the cache does not hold yet. On the queue.
  struct Update {
    DCCachedItem::Ptr item;
    Data versionIdentifier;
    bool isDownloading = false;
    bool joinsDownload = false;   // one that may have been asked for before the report
    bool waitsForUpload = false;  // of local bytes, that of another process perhaps
    std::optional<Data> versionBefore;
    int attempts = 0;
  };
  std::map<Data, Update> updates_;
  std::atomic<bool> hasUpdatesOfUnsent_ = false;  // also read by the observation's thread
  FVFBackOff updateBackOff_;
  std::unique_ptr<Timer> updateTimer_;
};

}  // namespace florvane
