#pragma once

#include "platform/Secret.h"
#include "platform/URLSession.h"

namespace florvane {

class BackgroundURLSession;
using BackgroundURLSessionPtr = std::shared_ptr<BackgroundURLSession>;

// Whose tasks an operation on cookies means: those that go to that server, of sessions whose identifier begins so.
struct BackgroundTransferService {
  std::string host;
  std::uint16_t port = 0;
  std::string sessionIdentifierPrefix;  // empty for every session of the container
};

// A session whose upload tasks belong to the transfer agent of the container (florvane-transferd) and outlive this
// process. A session with a delegate is attached until it is invalidated, from its making on or, when there was neither
// an agent nor a task then, from its first task on: it is told of the tasks that it made and, as the first that is
// attached, of those whose process is gone; what it missed comes first, in order, then
// didFinishEventsForBackgroundURLSession. A session without delegate is never attached; it is there to make tasks, list
// them and cancel them.
//
// The agent is started when it is needed, and again when it has died. A task waits for the network for up to seven
// days. It ends with an answer, a refused certificate, a source file that cannot be read (URLErrorFileDoesNotExist,
// URLErrorNoPermissionsToReadFile), cancelled, or, once its first byte may have reached the server, with
// URLErrorNetworkConnectionLost or URLErrorTimedOut; it is never sent twice. An answer is told when it has come whole:
// didReceiveResponse, didReceiveData, didCompleteWithError, and the agent forgets the task after these have returned;
// a process that dies before is told again at its next attachment. Challenges are asked on a thread of the session's
// own, for at most 5 seconds; default handling means the task's pin where it has one. shouldSendRequest is not asked.
// Task identifiers are never used again. Thread-safe.
class BackgroundURLSession : public URLSession {
 public:
  // The configuration needs an identifier (InvalidArgumentException). A null queue makes one of the session's own.
  static BackgroundURLSessionPtr create(URLSessionConfiguration configuration,
                                        std::shared_ptr<URLSessionDelegate> delegate,
                                        std::shared_ptr<SerialQueue> delegateQueue = nullptr);
  // Why the agent could not be started, when transfers therefore run inside this process and end with it; absent
  // otherwise.
  static std::optional<Error> reasonForTransfersInThisProcess();

  // A task that is on stable storage when this returns, suspended; blocks for as long as the disk takes, longer where
  // the agent must be started. Resuming it is stored, too, but may be lost with the machine's power: a task found
  // suspended after a start is resumed again. The file is read when the task is sent. Fails when the task cannot be
  // stored. Of the request's fields Cookie is kept apart and can be replaced until the task is sent.
  virtual Result<URLSessionTaskPtr> uploadTask(URLRequest request, const URL& fromFile,
                                               BackgroundTransfer transfer) = 0;
  // Likewise with nothing further carried; null when it fails.
  URLSessionTaskPtr uploadTask(URLRequest request, const URL& fromFile) override = 0;
  // Not here: InvalidArgumentException.
  URLSessionTaskPtr dataTask(URLRequest request) override = 0;
  URLSessionTaskPtr downloadTask(URLRequest request) override = 0;

  // The session's tasks in the order of their making, those of other processes too; one that has ended is among them
  // (Completed) until its delegate's calls have returned. An error when the agent could not be asked: that is not "no
  // tasks". The handler runs on the delegate queue.
  virtual void getAllTasksWithCompletionHandler(
      std::function<void(Result<std::vector<URLSessionTaskPtr>>)> handler) = 0;

  // The server answers again: tasks that wait for it are tried at once.
  virtual void retryWaitingTasks(const std::string& host, std::uint16_t port) = 0;
  // Gives the service's tasks that have not been sent yet that Cookie field and that pin, or takes the cookie away.
  // Blocks as uploadTask does; stored when it returns.
  virtual Result<void> replaceCookie(const BackgroundTransferService& service, const Secret& cookie,
                                     const std::optional<Data>& pinnedCertificate) = 0;
  virtual Result<void> removeCookie(const BackgroundTransferService& service) = 0;

  // Cancels every task of the session, whoever made it, and detaches; what has not been told by then is told to who
  // attaches next.
  void invalidateAndCancel() override = 0;
  // Detaches; the tasks go on in the agent and are told to who attaches next.
  void finishTasksAndInvalidate() override = 0;
};

}  // namespace florvane
