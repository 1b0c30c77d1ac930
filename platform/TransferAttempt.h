#pragma once

#include "platform/FileSystem.h"
#include "platform/TransferTask.h"

#include <atomic>

namespace florvane {

class TransferAttempt;

// Who sends a task.
class TransferAttemptClient {
 public:
  virtual ~TransferAttemptClient() = default;
  // Both on the network thread.
  virtual bool attemptAcceptsServer(TransferAttempt& attempt, const std::shared_ptr<const ServerTrust>& trust) = 0;
  // Bytes of the request are about to leave; an error keeps them back.
  virtual std::optional<Error> attemptWillSend(TransferAttempt& attempt) = 0;
  // Both on the attempt's queue.
  virtual void attemptDidSend(TransferAttempt& attempt, std::int64_t bytes, std::int64_t total) = 0;
  // Last, once.
  virtual void attemptDidEnd(TransferAttempt& attempt, TransferOutcome outcome) = 0;
};

// One attempt to send a task: a session of its own, and the answer as it comes in, on a file once it is long. Belongs
// to the queue it is given.
class TransferAttempt final : public URLSessionDelegate, public std::enable_shared_from_this<TransferAttempt> {
 public:
  using URLSessionDelegate::didReceiveChallenge;

  // The pool's name says by whom and by what connections are judged.
  TransferAttempt(TransferTask task, std::string bodyPath, std::weak_ptr<TransferAttemptClient> client);
  void start(const std::string& connectionPool, const std::shared_ptr<SerialQueue>& queue, Clock& clock);
  void cancel();

  const TransferTask& task() const { return task_; }
  // Whether bytes may have reached the server.
  bool mayHaveSent() const { return sent_; }
  std::int64_t bytesSent() const { return bytesSent_; }
  std::int64_t bytesExpected() const { return bytesExpected_; }

  void didReceiveChallenge(SessionRef session, TaskRef task, const URLAuthenticationChallenge& challenge,
                           const ChallengeCompletion& completionHandler) override;
  std::optional<Error> shouldSendRequest(SessionRef session, TaskRef task, const ServerTrust* trust) override;
  void didReceiveResponse(SessionRef session, TaskRef task, const HTTPURLResponse& response) override;
  void didReceiveData(SessionRef session, TaskRef task, const Data& data) override;
  void didSendBodyData(SessionRef session, TaskRef task, std::int64_t bytesSent, std::int64_t totalBytesSent,
                       std::int64_t totalBytesExpectedToSend) override;
  void didCompleteWithError(SessionRef session, TaskRef task, const std::optional<Error>& error) override;

 private:
  Result<void> append(const Data& data);

  const TransferTask task_;
  const std::string bodyPath_;
  const std::weak_ptr<TransferAttemptClient> client_;
  std::atomic<bool> sent_ = false;
  std::int64_t bytesSent_ = 0, bytesExpected_ = 0;
  URLSessionTaskPtr running_;
  std::shared_ptr<const HTTPURLResponse> response_;
  std::string body_;
  FileDescriptor bodyFile_;
  std::optional<Error> failure_;
};

// Whether an error of an attempt that sent nothing says only that the server could not be reached.
bool meansUnreachable(const Error& error);

}  // namespace florvane
