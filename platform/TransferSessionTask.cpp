#include "platform/Format.h"
#include "platform/TransferSession.h"

namespace florvane {

TransferSessionTask::TransferSessionTask(std::shared_ptr<TransferSession> session, std::uint64_t identifier,
                                         URLRequest request, BackgroundTransfer transfer)
    : session_(std::move(session)),
      identifier_(identifier),
      request_(std::move(request)),
      transfer_(std::move(transfer)) {}

URLSessionTaskState TransferSessionTask::state() const {
  std::lock_guard lock(mutex_);
  return state_;
}

std::shared_ptr<const HTTPURLResponse> TransferSessionTask::response() const {
  std::lock_guard lock(mutex_);
  return response_;
}

void TransferSessionTask::setResponse(std::shared_ptr<const HTTPURLResponse> response) {
  std::lock_guard lock(mutex_);
  response_ = std::move(response);
}

void TransferSessionTask::resume() {
  {
    std::lock_guard lock(mutex_);
    if (state_ != URLSessionTaskState::Suspended) return;
    state_ = URLSessionTaskState::Running;
  }
  session_->resume(identifier_);
}

void TransferSessionTask::cancel() {
  {
    std::lock_guard lock(mutex_);
    if (state_ == URLSessionTaskState::Canceling || state_ == URLSessionTaskState::Completed) return;
    state_ = URLSessionTaskState::Canceling;
  }
  session_->cancel(identifier_);
}

void TransferSessionTask::cancelByProducingResumeData(std::function<void(std::optional<Data>)> handler) {
  cancel();
  if (!handler) return;
  session_->delegateQueue()->async([handler = std::move(handler)] { handler(std::nullopt); });
}

std::string TransferSessionTask::description() const {
  return format("%@{ taskIdentifier: %lu }",
                baseDescription("URLSessionTask", static_cast<const URLSessionTask*>(this)), identifier_);
}

void TransferSessionTask::noteState(TransferState state) {
  std::lock_guard lock(mutex_);
  if (state_ == URLSessionTaskState::Canceling || state_ == URLSessionTaskState::Completed) return;
  if (state == TransferState::Ended) {
    state_ = URLSessionTaskState::Completed;
  } else if (state != TransferState::Suspended) {
    state_ = URLSessionTaskState::Running;
  }
}

void TransferSessionTask::noteProgress(std::int64_t sent, std::int64_t expected) {
  bytesSent_ = sent;
  bytesExpected_ = expected;
}

void TransferSessionTask::complete() {
  std::lock_guard lock(mutex_);
  state_ = URLSessionTaskState::Completed;
}

}  // namespace florvane
