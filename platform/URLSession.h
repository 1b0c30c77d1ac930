#pragma once

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/SerialQueue.h"
#include "platform/ServerTrust.h"
#include "platform/URLRequest.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace florvane {

class URLSession;

enum class URLSessionTaskState : std::int64_t { Running = 0, Suspended = 1, Canceling = 2, Completed = 3 };
enum class URLSessionTaskKind { Data, Download, Upload };

// What a task of a background session carries beside its request, for whoever finds the task again after a relaunch.
struct BackgroundTransfer {
  // Of the item that is sent, as the program that made the task names it.
  std::string path;
  // Of the contents that are sent.
  std::optional<Data> generationIdentifier = {};
  // DER of the only certificate under which the request may travel while no process of the session is attached; absent
  // leaves the decision to the system's anchors.
  std::optional<Data> pinnedCertificate = {};
};

// One transfer of a session, made suspended. Keeps its session, so that a delegate which keeps tasks is let go only
// when the session is invalidated. Thread-safe.
class URLSessionTask {
 public:
  virtual ~URLSessionTask() = default;
  // Unique within its session, from 1.
  virtual std::uint64_t taskIdentifier() const = 0;
  virtual URLSessionTaskKind kind() const = 0;
  virtual URLSessionTaskState state() const = 0;
  virtual const URLRequest& originalRequest() const = 0;
  // Null before an answer's head has come.
  virtual std::shared_ptr<const HTTPURLResponse> response() const = 0;
  // Null for the tasks of this process's own sessions.
  virtual const BackgroundTransfer* backgroundTransfer() const { return nullptr; }
  // Of a background session's task, as of its listing: the bytes of the body, both 0 while it is not being sent.
  virtual std::int64_t countOfBytesSent() const { return 0; }
  virtual std::int64_t countOfBytesExpectedToSend() const { return 0; }
  virtual void resume() = 0;
  // The completion that follows says URLErrorCancelled, unless the task had ended by then. A suspended task completes,
  // too.
  virtual void cancel() = 0;
  // As cancel(). There is nothing to resume from here: the handler gets none, on the delegate queue.
  virtual void cancelByProducingResumeData(std::function<void(std::optional<Data>)> handler) = 0;
  // The file that a download's bytes go to as they come, some of them late; absent before the first and after the last.
  virtual std::optional<std::string> partialFile() const { return std::nullopt; }
  // "<URLSessionTask: 0x...>{ taskIdentifier: 3 }"
  virtual std::string description() const = 0;
};

using URLSessionTaskPtr = std::shared_ptr<URLSessionTask>;
using URLSessionPtr = std::shared_ptr<URLSession>;

// What a session tells. Challenges are asked on the network thread while the handshake waits, and shouldSendRequest
// before a request is written: they compare what they hold already and never wait. Everything else arrives on the
// delegate queue, one call at a time, in order; didCompleteWithError once for each resumed task, last. All are
// optional.
class URLSessionDelegate {
 public:
  using SessionRef = const URLSessionPtr&;
  using TaskRef = const URLSessionTaskPtr&;
  virtual ~URLSessionDelegate() = default;

  // After invalidateAndCancel, when nothing more will come; without error.
  virtual void didBecomeInvalidWithError(SessionRef session, const std::optional<Error>& error);
  // The default performs the default handling.
  virtual void didReceiveChallenge(SessionRef session, const URLAuthenticationChallenge& challenge,
                                   const ChallengeCompletion& completionHandler);
  // The default asks the session-level operation above.
  virtual void didReceiveChallenge(SessionRef session, TaskRef task, const URLAuthenticationChallenge& challenge,
                                   const ChallengeCompletion& completionHandler);
  // Just before the request's bytes leave on a connection whose peer showed `trust` (null without TLS). An error keeps
  // the request from being sent and becomes the task's.
  virtual std::optional<Error> shouldSendRequest(SessionRef session, TaskRef task, const ServerTrust* trust);
  virtual void didReceiveResponse(SessionRef session, TaskRef dataTask, const HTTPURLResponse& response);
  virtual void didReceiveData(SessionRef session, TaskRef dataTask, const Data& data);
  virtual void didWriteData(SessionRef session, TaskRef downloadTask, std::int64_t bytesWritten,
                            std::int64_t totalBytesWritten, std::int64_t totalBytesExpectedToWrite);
  // A download goes on where an earlier one ended; the sessions made here always begin anew.
  virtual void didResumeAtOffset(SessionRef session, TaskRef downloadTask, std::int64_t fileOffset,
                                 std::int64_t expectedTotalBytes);
  // `location` is removed when the operation returns, unless it was moved or linked elsewhere. Not called for an
  // answer of status 401.
  virtual void didFinishDownloadingToURL(SessionRef session, TaskRef downloadTask, const URL& location);
  virtual void didSendBodyData(SessionRef session, TaskRef task, std::int64_t bytesSent, std::int64_t totalBytesSent,
                               std::int64_t totalBytesExpectedToSend);
  virtual void didCompleteWithError(SessionRef session, TaskRef task, const std::optional<Error>& error);
  // Everything that happened to a background session while no process was attached has been told.
  virtual void didFinishEventsForBackgroundURLSession(SessionRef session);
};

struct URLSessionConfiguration {
  // Names a background session, whose tasks outlive the process; empty for a session of this process's own. Of the
  // fields below a background session uses these three and the container's identifier only.
  std::string identifier;
  // The folder that all processes of the session share; the process's container when empty.
  std::string containerDirectory;
  // Program and arguments that the agent starts when tasks have ended and no process of the session is attached; empty
  // for none. Its environment names the container (FLORVANE_CONTAINER) and the session (FLORVANE_BACKGROUND_SESSION).
  std::vector<std::string> relaunchCommand;
  // The agent's program; when empty $FLORVANE_TRANSFERD, else "florvane-transferd" beside the running program, in
  // ../libexec from there, or in $PATH. Where there is none the agent's work is done inside this process.
  std::string agentProgram;

  // Ephemeral: cookies that answers set are kept and returned while the session lives (paths and Secure honoured).
  // Default: cookies are only what the request's headers say.
  bool ephemeral = false;
  std::string sharedContainerIdentifier;
  // Names the trust under which connections were made. Sessions with the same server and the same name share a pool of
  // connections; an empty name means connections of the session's own. A name must change whenever what the delegate
  // accepts changes (cookie or pin), and then retireConnections closes the old ones.
  std::string connectionPool;
  // Where downloads are stored while they run; the system's temporary folder when empty.
  std::string downloadDirectory;
  // Overrides the request's timeoutInterval where it is set; zero means no limit.
  std::optional<Duration> timeoutIntervalForRequest;
  Duration timeoutIntervalForResource = std::chrono::hours(24 * 7);
  // At most 300 KiB can be asked for, and no single field may exceed 100 KiB.
  std::size_t maximumHeaderBytes = std::size_t{256} * 1024;  // beyond it the task ends with URLErrorCannotParseResponse
  std::uint64_t maximumDataTaskBytes = std::uint64_t{64} * 1024 * 1024;  // beyond it URLErrorDataLengthExceedsMaximum
  bool honoursEnvironmentProxies = false;
  // A long poll: a connection of its own beside the pool's 8 a server, kept alive and watched by TCP keep-alive and
  // TCP_USER_TIMEOUT instead of a silence limit.
  bool longPoll = false;
  // Measures silence; the system's when null.
  Clock* clock = nullptr;

  static URLSessionConfiguration defaultConfiguration() { return {}; }
  static URLSessionConfiguration ephemeralConfiguration() {
    URLSessionConfiguration configuration;
    configuration.ephemeral = true;
    return configuration;
  }
  static URLSessionConfiguration backgroundSessionConfigurationWithIdentifier(std::string identifier) {
    URLSessionConfiguration configuration;
    configuration.identifier = std::move(identifier);
    return configuration;
  }
};

// An HTTP(S) session over libcurl; all sessions of a process share one network thread. Cheap to make: connections
// belong to pools that outlive sessions. Keeps its delegate until it is invalidated. Redirects stay on the same scheme,
// host and port and number at most 5. A reused connection that dies never makes a POST be sent twice: that ends in
// URLErrorNetworkConnectionLost. Errors are those of URLErrorDomain listed in Error.h; a refused or untrusted server
// brings its certificates under URLErrorFailingPeerTrustKey. Thread-safe.
class URLSession : public std::enable_shared_from_this<URLSession> {
 public:
  // Without a queue the session makes one of its own. A null delegate is allowed. For a configuration with an
  // identifier there is BackgroundURLSession::create.
  static URLSessionPtr create(URLSessionConfiguration configuration, std::shared_ptr<URLSessionDelegate> delegate,
                              std::shared_ptr<SerialQueue> delegateQueue = nullptr);
  virtual ~URLSession() = default;

  virtual URLSessionTaskPtr dataTask(URLRequest request) = 0;
  // The body of the answer goes to a file; the request may have a body of its own.
  virtual URLSessionTaskPtr downloadTask(URLRequest request) = 0;
  // The request's body is the file's contents, streamed; the answer's body arrives as a data task's does.
  virtual URLSessionTaskPtr uploadTask(URLRequest request, const URL& fromFile) = 0;
  // Cancels every running task, then tells didBecomeInvalidWithError and lets the delegate go. Idempotent. A task that
  // is resumed or cancelled for the first time afterwards is Completed at once and tells nobody.
  virtual void invalidateAndCancel() = 0;
  // As above, but lets the running tasks finish first.
  virtual void finishTasksAndInvalidate() = 0;
  virtual const URLSessionConfiguration& configuration() const = 0;
  virtual const std::shared_ptr<SerialQueue>& delegateQueue() const = 0;
  std::string description() const;

  // Lets no new request use the pool of that name; its connections close as their transfers end.
  static void retireConnections(const std::string& connectionPool);

 protected:
  URLSession() = default;
};

}  // namespace florvane
