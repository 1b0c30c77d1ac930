#pragma once

#include "common/FVFFreshObjectQueue.h"
#include "platform/URLSession.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace florvane {

class DCConnectivityTracker;
class DCService;

// What the tracker keeps of a transfer task, and what each says of the server.
inline constexpr char DCConnectivityEventTaskStarted[] = "TaskStarted";                          // nothing
inline constexpr char DCConnectivityEventBytesReceived[] = "BytesReceived";                      // connected
inline constexpr char DCConnectivityEventTaskCompleted[] = "TaskCompleted";                      // connected
inline constexpr char DCConnectivityEventServerUnavailableError[] = "ServerUnavailableError";    // not connected
inline constexpr char DCConnectivityEventNetworkUnavailableError[] = "NetworkUnavailableError";  // not connected

// Hears whether the server can be reached.
class DCConnectivityTrackerDelegate {
 public:
  virtual ~DCConnectivityTrackerDelegate() = default;
  // The service whose serial queue the call below arrives on; asked under the tracker's lock, so it answers at once.
  virtual const std::shared_ptr<DCService>& service() const = 0;
  virtual void didUpdateConnectionStatus(const std::shared_ptr<DCConnectivityTracker>& connectivityTracker,
                                         bool isConnected) = 0;
};

// Decides from the events of transfer tasks, without any probing, whether a server can be reached: the most recent
// event that says so, of those of the last 60 seconds, counting only each task's newest; where none does, what was
// decided last stays, and at first the server counts as connected. One a server (scheme, host, port), for the life of
// the process. Thread-safe; task events come from the delegate queues of many sessions.
class DCConnectivityTracker : public std::enable_shared_from_this<DCConnectivityTracker> {
 public:
  // "https://host:10548": the registry's key.
  static std::string serverFromURL(const URL& url);
  static std::shared_ptr<DCConnectivityTracker> connectivityTrackerForService(
      const std::shared_ptr<DCService>& service);
  // Only inside a shared_ptr. The clock outlives the tracker.
  explicit DCConnectivityTracker(std::string server, Clock& clock = Clock::system());
  DCConnectivityTracker(const DCConnectivityTracker&) = delete;
  DCConnectivityTracker& operator=(const DCConnectivityTracker&) = delete;

  const std::string& server() const { return server_; }
  // Delegates are held weakly, hear of each change once, and must be removed as often as they were added.
  void addDelegate(const std::shared_ptr<DCConnectivityTrackerDelegate>& delegate);
  // Also from the delegate's destructor.
  void removeDelegate(const DCConnectivityTrackerDelegate* delegate);
  bool isConnected() const;

  // What sessions tell of their tasks; only that the server was not reached counts against it.
  void didStartTask(const URLSessionPtr& session, const URLSessionTaskPtr& task);
  void didWriteData(const URLSessionPtr& session, const URLSessionTaskPtr& downloadTask, std::int64_t bytesWritten,
                    std::int64_t totalBytesWritten, std::int64_t totalBytesExpectedToWrite);
  void didResumeAtOffset(const URLSessionPtr& session, const URLSessionTaskPtr& downloadTask, std::int64_t fileOffset,
                         std::int64_t expectedTotalBytes);
  void didReceiveData(const URLSessionPtr& session, const URLSessionTaskPtr& dataTask, const Data& data);
  void didReceiveResponse(const URLSessionPtr& session, const URLSessionTaskPtr& dataTask,
                          const HTTPURLResponse& response);
  void didFinishDownloadingToURL(const URLSessionPtr& session, const URLSessionTaskPtr& downloadTask,
                                 const URL& location);
  void didCompleteWithError(const URLSessionPtr& session, const URLSessionTaskPtr& task,
                            const std::optional<Error>& error);

  std::string description() const;
  std::string debugDescription() const;

 private:
  using Events = FVFFreshObjectQueue<std::string_view, URLSessionTaskPtr>;
  struct DelegateEntry {
    std::weak_ptr<DCConnectivityTrackerDelegate> delegate;
    std::size_t count = 0;
  };

  std::string_view _eventTypeForError(const Error& error) const;
  void _addEvent(std::optional<std::string_view> eventType, const URLSessionTaskPtr& task);
  void _addEventWithError(const std::optional<Error>& error, const URLSessionTaskPtr& task);
  void _recomputeConnectivityState();
  void notifyDelegates();
  bool forgetEventOfTask(const URLSessionTask* task);
  void forgetExpiredTasks();
  std::string describe(const std::string& events) const;

  const std::string server_;
  Clock& clock_;
  mutable std::mutex mutex_;  // guards everything below
  std::unordered_map<const DCConnectivityTrackerDelegate*, DelegateEntry> delegates_;
  // At most one event a task, its newest: what came before can never decide any more, and a long download would
  // otherwise leave an event for each of its chunks.
  std::unique_ptr<Events> events_;
  // Where each task's event stands; entries of expired events are forgotten from time to time.
  std::unordered_map<const URLSessionTask*, Events::Identifier> newestByTask_;
  bool isConnected_ = true;
};

}  // namespace florvane
