#include "platform/TransferAttempt.h"

#include "platform/HTTPErrors.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

namespace {

// Longer bodies go to a file, so that neither the store nor a message grows with them.
constexpr std::size_t kLongestBody = std::size_t{64} * 1024;

}  // namespace

bool meansUnreachable(const Error& error) {
  if (error.domain() != URLErrorDomain) return false;
  switch (error.code()) {
    case URLErrorDNSLookupFailed:
    case URLErrorCannotConnectToHost:
    case URLErrorTimedOut:
    case URLErrorNetworkConnectionLost:
      return true;
    case URLErrorSecureConnectionFailed:
      // A handshake that came to nothing; a certificate that was refused stands with the error.
      return !error.userInfo().contains(URLErrorFailingPeerTrustKey);
    default:
      return false;
  }
}

TransferAttempt::TransferAttempt(TransferTask task, std::string bodyPath, std::weak_ptr<TransferAttemptClient> client)
    : task_(std::move(task)), bodyPath_(std::move(bodyPath)), client_(std::move(client)) {
  struct stat status{};
  if (stat(task_.sourcePath.c_str(), &status) == 0) bytesExpected_ = status.st_size;
}

void TransferAttempt::start(const std::string& connectionPool, const std::shared_ptr<SerialQueue>& queue,
                            Clock& clock) {
  URLSessionConfiguration configuration;
  configuration.connectionPool = connectionPool;
  configuration.clock = &clock;
  auto session = URLSession::create(configuration, shared_from_this(), queue);
  URLRequest request = task_.request;
  if (task_.cookie) request.headers.set("Cookie", task_.cookie->reveal());
  running_ = session->uploadTask(std::move(request), URL::fileURL(task_.sourcePath));
  running_->resume();
  session->finishTasksAndInvalidate();
}

void TransferAttempt::cancel() {
  if (running_) running_->cancel();
}

void TransferAttempt::didReceiveChallenge(SessionRef, TaskRef, const URLAuthenticationChallenge& challenge,
                                          const ChallengeCompletion& completionHandler) {
  auto client = client_.lock();
  if (challenge.serverTrust && client && client->attemptAcceptsServer(*this, challenge.serverTrust)) {
    URLCredential credential{challenge.serverTrust};
    completionHandler(ChallengeDisposition::UseCredential, &credential);
  } else {
    completionHandler(ChallengeDisposition::CancelAuthenticationChallenge, nullptr);
  }
}

std::optional<Error> TransferAttempt::shouldSendRequest(SessionRef, TaskRef, const ServerTrust*) {
  auto client = client_.lock();
  if (!client) return makeCancelledError(task_.request.url);
  auto refusal = client->attemptWillSend(*this);
  if (!refusal) sent_ = true;
  return refusal;
}

void TransferAttempt::didReceiveResponse(SessionRef, TaskRef, const HTTPURLResponse& response) {
  response_ = std::make_shared<const HTTPURLResponse>(response);
}

Result<void> TransferAttempt::append(const Data& data) {
  if (!bodyFile_.valid() && body_.size() + data.size() <= kLongestBody) {
    body_.append(data.view());
    return {};
  }
  if (!bodyFile_.valid()) {
    auto file = openFile(bodyPath_, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0600);
    if (!file) return Failure(file.error());
    bodyFile_ = std::move(*file);
    Data begun = Data::fromString(body_);
    std::string().swap(body_);
    if (auto written = writeAll(bodyFile_.get(), begun.span(), bodyPath_); !written) return written;
  }
  return writeAll(bodyFile_.get(), data.span(), bodyPath_);
}

void TransferAttempt::didReceiveData(SessionRef, TaskRef, const Data& data) {
  if (failure_) return;
  if (auto stored = append(data); !stored) failure_ = stored.error();
}

void TransferAttempt::didSendBodyData(SessionRef, TaskRef, std::int64_t, std::int64_t totalBytesSent,
                                      std::int64_t totalBytesExpectedToSend) {
  std::int64_t before = std::exchange(bytesSent_, totalBytesSent);
  if (totalBytesExpectedToSend > 0) bytesExpected_ = totalBytesExpectedToSend;
  if (auto client = client_.lock()) client->attemptDidSend(*this, totalBytesSent - before, totalBytesSent);
}

void TransferAttempt::didCompleteWithError(SessionRef, TaskRef, const std::optional<Error>& error) {
  running_.reset();
  TransferOutcome outcome;
  outcome.response = response_;
  outcome.error = error;
  if (bodyFile_.valid()) {
    // The row that names the file must not outlive its bytes.
    if (fsync(bodyFile_.get()) != 0 && !failure_) failure_ = Error::fileWrite(errno, bodyPath_);
    bodyFile_.close();
    outcome.bodyFile = bodyPath_;
  } else {
    outcome.body = Data::fromString(body_);
  }
  // The server has done its part. What is missing is its answer, as if that had been lost on the way.
  if (failure_ && !outcome.error) {
    outcome.error = makeURLError(URLErrorCannotParseResponse, task_.request.url,
                                 "The answer cannot be stored: " + failure_->localizedDescription())
                        .withUnderlyingError(*failure_);
  }
  if (auto client = client_.lock()) client->attemptDidEnd(*this, std::move(outcome));
}

}  // namespace florvane
