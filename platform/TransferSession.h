#pragma once

#include "platform/BackgroundURLSession.h"
#include "platform/TransferLink.h"
#include "platform/TransferTask.h"

#include <atomic>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

namespace florvane {

class TransferSessionTask;

// The session behind BackgroundURLSession::create: speaks for its process to the agent.
class TransferSession final : public BackgroundURLSession {
 public:
  TransferSession(URLSessionConfiguration configuration, std::shared_ptr<URLSessionDelegate> delegate,
                  std::shared_ptr<SerialQueue> delegateQueue);
  ~TransferSession() override;
  void open();

  Result<URLSessionTaskPtr> uploadTask(URLRequest request, const URL& fromFile, BackgroundTransfer transfer) override;
  URLSessionTaskPtr uploadTask(URLRequest request, const URL& fromFile) override;
  URLSessionTaskPtr dataTask(URLRequest request) override;
  URLSessionTaskPtr downloadTask(URLRequest request) override;
  void getAllTasksWithCompletionHandler(std::function<void(Result<std::vector<URLSessionTaskPtr>>)> handler) override;
  void retryWaitingTasks(const std::string& host, std::uint16_t port) override;
  Result<void> replaceCookie(const BackgroundTransferService& service, const Secret& cookie,
                             const std::optional<Data>& pinnedCertificate) override;
  Result<void> removeCookie(const BackgroundTransferService& service) override;
  void invalidateAndCancel() override;
  void finishTasksAndInvalidate() override;
  const URLSessionConfiguration& configuration() const override { return configuration_; }
  const std::shared_ptr<SerialQueue>& delegateQueue() const override { return delegateQueue_; }

  // For its tasks.
  void resume(std::uint64_t task);
  void cancel(std::uint64_t task);

 private:
  using TaskPtr = std::shared_ptr<TransferSessionTask>;
  struct Known {
    std::weak_ptr<TransferSessionTask> task;
    TaskPtr kept;  // while a task that was made here has not ended
  };
  void didReceive(const Dictionary& frame);
  void judge(const Dictionary& frame);
  void tellProgress(URLSessionDelegate& delegate, const Dictionary& frame);
  void tellOutcome(URLSessionDelegate& delegate, const Dictionary& frame);
  // Hands the body to the delegate piece by piece.
  std::optional<Error> tellBody(URLSessionDelegate& delegate, const TaskPtr& task, const Dictionary& frame);
  std::vector<Dictionary> claims() const;
  Result<std::vector<URLSessionTaskPtr>> allTasks();
  // The task of a frame, made if the session does not know it yet; null when the frame does not describe it.
  TaskPtr taskOf(const Dictionary& frame);
  std::shared_ptr<URLSessionDelegate> delegate() const;
  void tell(UniqueFunction<void(URLSessionDelegate&)> call);
  void detach();

  const URLSessionConfiguration configuration_;
  const std::shared_ptr<SerialQueue> delegateQueue_, trustQueue_ = SerialQueue::create("florvane.transfer-trust");
  std::shared_ptr<TransferLink> link_;  // set once, before anything uses it

  mutable std::mutex mutex_;  // guards the rest
  std::shared_ptr<URLSessionDelegate> delegate_;
  std::unordered_map<std::uint64_t, Known> tasks_;
  // Told of, and the agent has not said yet that it knows.
  std::unordered_set<std::uint64_t> told_;
  bool invalidated_ = false;
};

// A task of the agent's as a session sees it.
class TransferSessionTask final : public URLSessionTask, public std::enable_shared_from_this<TransferSessionTask> {
 public:
  TransferSessionTask(std::shared_ptr<TransferSession> session, std::uint64_t identifier, URLRequest request,
                      BackgroundTransfer transfer);
  std::uint64_t taskIdentifier() const override { return identifier_; }
  URLSessionTaskKind kind() const override { return URLSessionTaskKind::Upload; }
  URLSessionTaskState state() const override;
  const URLRequest& originalRequest() const override { return request_; }
  std::shared_ptr<const HTTPURLResponse> response() const override;
  const BackgroundTransfer* backgroundTransfer() const override { return &transfer_; }
  void resume() override;
  void cancel() override;
  void cancelByProducingResumeData(std::function<void(std::optional<Data>)> handler) override;
  std::int64_t countOfBytesSent() const override { return bytesSent_; }
  std::int64_t countOfBytesExpectedToSend() const override { return bytesExpected_; }
  std::string description() const override;

  // What the agent says; never back from Canceling or Completed.
  void noteState(TransferState state);
  void noteProgress(std::int64_t sent, std::int64_t expected);
  void complete();
  void setResponse(std::shared_ptr<const HTTPURLResponse> response);

 private:
  const std::shared_ptr<TransferSession> session_;
  const std::uint64_t identifier_;
  const URLRequest request_;
  const BackgroundTransfer transfer_;
  std::atomic<std::int64_t> bytesSent_ = 0, bytesExpected_ = 0;

  mutable std::mutex mutex_;  // guards the two below
  URLSessionTaskState state_ = URLSessionTaskState::Suspended;
  std::shared_ptr<const HTTPURLResponse> response_;
};

}  // namespace florvane
