#pragma once

#include "Client/Client/DCCachedDirectory.h"
#include "Client/Client/DCCachedFile.h"
#include "Client/Client/DCConnectivityTracker.h"
#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCRemoteDocumentManager.h"
#include "common/FVFBackOff.h"
#include "common/FVFDispatchQueue.h"
#include "platform/NotificationCenter.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace florvane {

class DCBackgroundSessionManager;

// An upload that gave up; posted to all processes of the container, without user info.
inline constexpr char FlorvaneUploadDidFailNotification[] = "FlorvaneUploadDidFailNotification";

// What the end of an upload came to: an error, or none.
using DCUploadCompletionHandler = CompletionHandler<std::optional<Error>>;

// At most one upload of a file at a time; keeps the persistent record in step. What a finished upload means for the
// cache is the facade's. Handlers run on the service's queue, after the lock was given back. An upload for which nobody
// can sign in for want of a connection waits, with its record, for the tracker, for the back-off or for the next
// process. Uploads are started and end on the service's queue; everything else is thread-safe.
class DCUploadManager : public DCConnectivityTrackerDelegate, public std::enable_shared_from_this<DCUploadManager> {
 public:
  using Ptr = std::shared_ptr<DCUploadManager>;
  // How a transfer ended. The task is the one that the record named then, absent for an upload that never got one: the
  // end counts only while the record still says so, since another process may have begun anew meanwhile.
  struct End {
    DCCachedFile::Ptr file;
    std::optional<DCUploadTask> task;
    FVFResponseContainer::Ptr container;
    std::optional<Error> error;
  };
  // Decides what the end of a transfer means: once a transfer, on the service's queue, without the lock, before the
  // queued handlers, which hear what `settled` is given. `settled` may be called later; until then the file counts as
  // being uploaded. An upload that is to be sent again is asked for in a later turn of the queue.
  using EndHandler = std::function<void(const End& end, DCUploadCompletionHandler settled)>;

  static Ptr uploadManagerForService(const std::shared_ptr<DCService>& service);
  explicit DCUploadManager(std::shared_ptr<DCService> service);
  ~DCUploadManager() override;

  const std::shared_ptr<DCService>& service() const override { return service_; }
  // Set by the facade before it starts an upload.
  void setUploadDidEndHandler(EndHandler handler);
  // Asks for records that wait for no transfer to be started again; called on the service's queue.
  void setRestartHandler(std::function<void()> handler);

  // A transfer that carries the file's present contents is joined; one that carries older ones is replaced. The record
  // is made where there is none.
  void uploadFile(const DCCachedFile::Ptr& file, const DCRemoteDocumentManager::Ptr& usingRemoteFileManager,
                  const DCActivityInfo::Ptr& activityInfo, DCUploadCompletionHandler completionHandler);
  // In this process, or by the agent for any process.
  bool isUploadingFile(const DCCachedFile& file) const;
  bool _isUploadingFileAtPath(const std::string& path) const;
  // Null when there is none.
  std::shared_ptr<DCManagedUpload> uploadForItemAtPath(const std::string& path) const;
  // The transfers end; their handlers hear of it as an error (URLErrorCancelled). Records stay.
  void cancelAllUploadTasks();

  // Compares the records with what the transfer agent has: a record whose task is there counts as being uploaded, a
  // task whose record was never written is adopted, a record whose task is gone has lost its connection, whichever
  // process made it, and a cancelled record goes. Then calls the continuation, on the service's queue; with the error
  // when the agent could not be asked.
  void recoverTasks(std::function<void(const std::optional<Error>& error)> continuation);
  // A transfer of an earlier process has ended; on the service's queue.
  void taskDidEnd(const DCCachedFile::Ptr& file, std::uint64_t taskIdentifier, const std::string& sessionIdentifier,
                  const FVFResponseContainer::Ptr& container, const std::optional<Error>& error);

  void didUpdateConnectionStatus(const std::shared_ptr<DCConnectivityTracker>& connectivityTracker,
                                 bool isConnected) override;

  // Held by the facade for the whole of a download decision.
  std::recursive_mutex& lock() const { return mutex_; }

 private:
  using Handlers = std::vector<DCUploadCompletionHandler>;
  // What an upload needs to be started.
  struct Order {
    DCCachedFile::Ptr file;
    DCRemoteDocumentManager::Ptr remoteFileManager;
    DCActivityInfo::Ptr activityInfo;
  };
  struct Transfer {
    DCCachedFile::Ptr file;
    URLSessionTaskPtr task;
    std::uint64_t taskIdentifier = 0;
    std::string sessionIdentifier;
    // Made by this process, which therefore hears of its end.
    bool isOwn = false;
  };

  static Ptr make(const std::shared_ptr<DCService>& service);
  void observe();
  DCDatabase& database() const;

  // Bookkeeping, under the lock.
  std::size_t _addHandlerToCallForItemAtSubpath(const std::optional<std::string>& subpath,
                                                DCUploadCompletionHandler completionHandler);
  bool _needsToStartUploadingItemAtSubpath(const std::optional<std::string>& subpath,
                                           DCUploadCompletionHandler completionHandler);
  Handlers _handlersToCallForItemAtSubpath(const std::string& subpath);
  void _removePendingCompletionHandlersForCompletedUploads();
  void forgetUploadWithoutRecord(const std::string& path);
  std::string describedHandlers(const std::string& subpath) const;
  // Calls them in a turn of their own.
  void callLater(Handlers handlers, const Error& error);

  // Transfers (DCUploadManager+Transfers.cpp), under the lock.
  void dropOutdatedTransfer(const std::string& path);
  bool replacesRunningUpload(const DCCachedFile::Ptr& file, const std::string& path);
  void start(const Order& order);
  void send(const Order& order, const URL& source, const Data& generationIdentifier);
  // What an attempt begins with.
  struct Preparation {
    Dictionary attributes;
    std::shared_ptr<DCManagedUpload> upload;  // null when there is none
    bool isTaken = false;                     // another process sends the file
    std::optional<Error> error;               // the store's, when the record could not be written
  };
  Preparation prepareRecord(const Order& order, const URL& source, const Data& generationIdentifier);
  // False when another process was first.
  bool recordTask(const std::string& path, std::uint64_t taskIdentifier, const Data& generationIdentifier);
  void identifyNewFile(DCCachedFile& file) const;
  static std::optional<Data> versionToReplace(const DCCachedFile& file, const DCManagedUpload& upload);
  void joinTransferOfOthers(const Order& order);
  bool _cancelExistingUpload(const std::shared_ptr<DCManagedUpload>& upload, const DCCachedFile::Ptr& file);
  void cancelTransferOfRecord(const std::shared_ptr<DCManagedUpload>& upload, const std::string& path);
  static std::string taskKey(std::uint64_t taskIdentifier, const std::string& sessionIdentifier);
  void forgetTransfer(const std::string& path);
  // In a turn of its own.
  void failLater(const DCCachedFile::Ptr& file, const Error& error, const std::optional<DCUploadTask>& task = {});
  std::shared_ptr<DCBackgroundSessionManager> backgroundSessionManager() const;

  // Ends (DCUploadManager+Ends.cpp). Not under the lock.
  void transferDidEnd(std::uint64_t taskIdentifier, const std::string& sessionIdentifier,
                      const FVFResponseContainer::Ptr& container, const std::optional<Error>& error);
  void settle(const End& end, const std::string& path);
  void didSettle(const DCCachedFile::Ptr& file, const std::string& path, bool wasSent,
                 const std::optional<Error>& error);
  void _finishUploadFile(const DCCachedFile::Ptr& file, const DCCachedDirectory::Ptr& parent,
                         const std::optional<Error>& error, const std::string& path);
  void checkTransfersOfOthers();

  // Tasks of earlier processes (DCUploadManager+Recovery.cpp).
  struct Recovery;
  void recover(const Recovery& recovery, const std::string& sessionIdentifier,
               const std::vector<URLSessionTaskPtr>& tasks);
  // A transfer of this process that the record no longer names, or the agent no longer has.
  void dropTransfer(const std::string& path);
  void adopt(const DCCachedFile::Ptr& file, const std::string& path, const URLSessionTaskPtr& task,
             const std::string& sessionIdentifier);

  // Signing in (DCUploadManager+SignIn.cpp), under the lock.
  bool isSignedIn() const;
  void waitForSignIn(const Order& order);
  void signIn();
  void signInDidEnd(const std::optional<Error>& error);
  void signInAfter(Duration pause);
  void startWaiting();

  const std::shared_ptr<DCService> service_;
  const std::shared_ptr<FVFDispatchQueue> queue_;
  std::shared_ptr<DCConnectivityTracker> connectivityTracker_;
  std::unique_ptr<NotificationCenter::Observation> uploadsObservation_, failuresObservation_;

  mutable std::recursive_mutex mutex_;  // guards what follows
  EndHandler endHandler_;
  std::function<void()> restartHandler_;
  std::unordered_map<std::string, Handlers> uploadingFiles_;
  std::unordered_map<std::string, Transfer> uploadTasks_;
  std::unordered_map<std::string, std::string> pathsByTask_;  // by taskKey()
  std::unordered_set<std::string> settling_;                  // ended, and not decided yet
  // Asked for meanwhile.
  struct Repetition {
    Order order;
    Handlers handlers;
  };
  std::unordered_map<std::string, Repetition> afterSettling_;
  std::size_t transfersOfOthers_ = 0;
  bool isCheckQueued_ = false;
  std::optional<std::uint64_t> changesSeen_;  // of others, when their transfers were checked last
  std::unordered_map<std::string, Order> waitingForSignIn_;
  bool isSigningIn_ = false;
  int refusals_ = 0;
  FVFBackOff signInBackOff_;
  std::unique_ptr<Timer> signInTimer_;
  std::shared_ptr<SerialQueue> signInQueue_;
};

}  // namespace florvane
