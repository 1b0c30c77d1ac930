#pragma once

#include "Client/Client/DCServerRequest.h"
#include "Client/Client/DCService.h"
#include "common/FVFResponseContainer.h"
#include "platform/BackgroundURLSession.h"
#include "platform/NotificationCenter.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace florvane {

class DCDatabase;

// Posted across processes: the owner of a background session is to cancel one upload task.
inline constexpr char DCBackgroundSessionManagerShouldCancelUploadNotification[] =
    "DCBackgroundSessionManagerShouldCancelUploadNotification";
// Posted across processes: the events of a background session are finished, and whoever holds the handler for that is
// to call it.
inline constexpr char DCBackgroundSessionManagerShouldCallBackgroundEventsCompletionHandler[] =
    "DCBackgroundSessionManagerShouldCallBackgroundEventsCompletionHandler";
inline constexpr char DCBackgroundSessionManagerTaskIdentifierKey[] =
    "DCBackgroundSessionManagerTaskIdentifierKey";  // integer
inline constexpr char DCBackgroundSessionManagerSessionIdentifierKey[] =
    "DCBackgroundSessionManagerSessionIdentifierKey";  // string

// The background transfer session of a service and an application: which request a task belongs to, also after a
// relaunch; cancelling, also for other processes; and whom to tell that the events of a relaunch are through. Session
// callbacks run on the service's serial queue, challenges on a thread of the session's. Thread-safe.
class DCBackgroundSessionManager : public URLSessionDelegate,
                                   public std::enable_shared_from_this<DCBackgroundSessionManager> {
 public:
  using Ptr = std::shared_ptr<DCBackgroundSessionManager>;
  // As DCServerRequestResponseHandler, for any number of requests.
  using ServerRequestResponseHandler = std::function<void(
      const std::optional<std::uint64_t>& taskIdentifier, const std::shared_ptr<const HTTPURLResponse>& response,
      const std::optional<URL>& location, const std::optional<Error>& error)>;
  // What an upload task of an earlier process came to; on the service's queue.
  using FinishUploadHandler = std::function<void(
      const std::shared_ptr<DCService>& service, std::uint64_t taskIdentifier, const std::string& sessionIdentifier,
      const FVFResponseContainer::Ptr& responseContainer, const std::optional<Error>& error)>;

  static std::string sessionIdentifierForService(const DCService& service, const std::string& bundleIdentifier);
  // The part before the first "~", and the one after the last; absent without one.
  static std::optional<std::string> serviceIdentifierFromBackgroundSessionIdentifier(const std::string& identifier);
  static std::optional<std::string> bundleIdentifierFromBackgroundSessionIdentifier(const std::string& identifier);

  // One a session identifier. Null, with a soft assertion, when an argument is missing.
  static Ptr backgroundSessionManagerForService(const std::shared_ptr<DCService>& service,
                                                const std::optional<std::string>& bundleIdentifier);
  // The next request makes a new session.
  static void removeInvalidatedSessionForService(const std::shared_ptr<DCService>& service,
                                                 const std::string& bundleIdentifier);
  // Installed by whoever keeps the cache; for tasks of earlier processes.
  static void setFinishUploadHandler(FinishUploadHandler handler);
  // What the transfer agent starts when uploads have ended and no process is there to hear of it; none unless set.
  // Before the first manager is made.
  static void setRelaunchCommand(std::vector<std::string> command);
  // The cookie goes from the service's unsent tasks: with its account.
  static Result<void> removeCookiesOfService(const std::shared_ptr<DCService>& service);
  // Why the transfer agent could not be started, when uploads therefore go on only while this process lives; absent
  // otherwise. Known once an upload was started.
  static std::optional<Error> reasonForTransfersInThisProcess();

  DCBackgroundSessionManager(std::shared_ptr<DCService> service, std::string bundleIdentifier);
  ~DCBackgroundSessionManager() override;

  const std::shared_ptr<DCService>& service() const { return service_; }
  const std::string& bundleIdentifier() const { return bundleIdentifier_; }
  const std::string& sessionIdentifier() const { return sessionIdentifier_; }
  const BackgroundURLSessionPtr& backgroundSession() const { return backgroundSession_; }
  // Called once, when the events of the relaunch are through; at once when they are already.
  void setBackgroundEventsCompletionHandler(std::function<void()> handler);

  void handleEventsForBackgroundURLSessionWithServerRequestResponseHandler(ServerRequestResponseHandler handler);
  void setServerRequest(const DCServerRequest::Ptr& request, std::uint64_t forTaskIdentifier);
  // Made anew for a task that has an upload record; null for any other.
  DCServerRequest::Ptr serverRequestForTaskIdentifier(std::uint64_t taskIdentifier);

  // Of any session of the service, this application's or another's; false when there is no such task. The handler,
  // which may be empty, is called on the service's queue.
  void cancelUpload(std::uint64_t taskIdentifier, const std::string& sessionIdentifier,
                    std::function<void(bool didCancel)> completionHandler);
  // The tasks of any session of the service; on the service's queue.
  void tasksOfSession(const std::string& sessionIdentifier,
                      std::function<void(const Result<std::vector<URLSessionTaskPtr>>& tasks)> handler);
  // Whether this process was told lately of the end of that task of its own session: a list of tasks that was asked for
  // before may still hold it.
  bool hasEnded(std::uint64_t taskIdentifier) const;
  // A new login is what unsent tasks go with from now on.
  void useNewAuthentication();

  void didBecomeInvalidWithError(SessionRef session, const std::optional<Error>& error) override;
  void didReceiveChallenge(SessionRef session, const URLAuthenticationChallenge& challenge,
                           const ChallengeCompletion& completionHandler) override;
  void didReceiveChallenge(SessionRef session, TaskRef task, const URLAuthenticationChallenge& challenge,
                           const ChallengeCompletion& completionHandler) override;
  void didFinishDownloadingToURL(SessionRef session, TaskRef downloadTask, const URL& location) override;
  void didWriteData(SessionRef session, TaskRef downloadTask, std::int64_t bytesWritten, std::int64_t totalBytesWritten,
                    std::int64_t totalBytesExpectedToWrite) override;
  void didResumeAtOffset(SessionRef session, TaskRef downloadTask, std::int64_t fileOffset,
                         std::int64_t expectedTotalBytes) override;
  void didSendBodyData(SessionRef session, TaskRef task, std::int64_t bytesSent, std::int64_t totalBytesSent,
                       std::int64_t totalBytesExpectedToSend) override;
  void didReceiveData(SessionRef session, TaskRef dataTask, const Data& data) override;
  void didReceiveResponse(SessionRef session, TaskRef dataTask, const HTTPURLResponse& response) override;
  void didCompleteWithError(SessionRef session, TaskRef task, const std::optional<Error>& error) override;
  void didFinishEventsForBackgroundURLSession(SessionRef session) override;

 private:
  void open();
  std::shared_ptr<DCDatabase> database() const;
  std::shared_ptr<HTTPSASLClientSessionManager> sessionManager() const;
  // The request to forward a callback to; null when it is not to be forwarded.
  template <typename... Args>
  DCServerRequest::Ptr requestForCallback(SessionRef session, TaskRef task, const char* text, const Args&... arguments);
  void adoptRecord(const URLSessionTaskPtr& task);
  bool cancelTaskIfNecessary(const URLSessionTaskPtr& task);
  void cancelUpload(const Notification& notification);
  void callBackgroundEventsCompletionHandler();
  std::function<void()> takeBackgroundEventsCompletionHandler();
  DCServerRequestResponseHandler handlerForTaskOfEarlierProcess() const;
  BackgroundURLSessionPtr sessionForIdentifier(const std::string& sessionIdentifier);

  const std::shared_ptr<DCService> service_;
  const std::string bundleIdentifier_, sessionIdentifier_;
  BackgroundURLSessionPtr backgroundSession_;  // set before anybody else sees the manager
  std::unique_ptr<NotificationCenter::Observation> cancelObservation_, eventsObservation_, loginObservation_;

  mutable std::mutex mutex_;  // guards what follows
  std::unordered_map<std::uint64_t, DCServerRequest::Ptr> currentTasks_;
  // What this process was told last, the oldest first; the agent may still list them.
  std::deque<std::uint64_t> endedTasksInOrder_;
  std::unordered_set<std::uint64_t> endedTasks_;
  ServerRequestResponseHandler serverRequestResponseHandler_;
  std::function<void()> backgroundEventsCompletionHandler_;
  bool eventsAreFinished_ = false;  // before anybody set a handler
  std::optional<Secret> givenCookie_;
};

}  // namespace florvane
