#include "platform/NetworkURLSessionTask.h"

#include "platform/DownloadFile.h"
#include "platform/Format.h"
#include "platform/HTTPConnectionPool.h"
#include "platform/HTTPErrors.h"
#include "platform/HTTPNetworkThread.h"
#include "platform/SoftAssertion.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <utility>

namespace florvane {

namespace {

constexpr char kSource[] = "platform/URLSessionTask";
constexpr int kMostRedirects = 5;
constexpr std::size_t kMostUndelivered = std::size_t{4} * 1024 * 1024;
constexpr auto kLongestLimit = std::chrono::hours(24 * 365);  // anything beyond is no limit
constexpr int kStatusUnauthorized = 401;

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

HTTPConnectionPoolKey poolKey(const URL& url, const NetworkURLSession& session) {
  return {url.scheme(), lowerCase(url.host()), url.effectivePort(), session.poolName(),
          session.configuration().longPoll};
}

bool sameOrigin(const URL& a, const URL& b) {
  return a.scheme() == b.scheme() && equalIgnoringCase(a.host(), b.host()) && a.effectivePort() == b.effectivePort();
}

Duration silenceLimit(const URLSessionConfiguration& configuration, const URLRequest& request) {
  if (configuration.longPoll) return Duration::zero();
  Duration limit = configuration.timeoutIntervalForRequest.value_or(request.timeoutInterval);
  return limit < Duration::zero() || limit > kLongestLimit ? Duration::zero() : limit;
}

}  // namespace

NetworkURLSessionTask::NetworkURLSessionTask(std::shared_ptr<NetworkURLSession> session, std::uint64_t identifier,
                                             URLSessionTaskKind kind, URLRequest request,
                                             std::optional<std::string> sourcePath)
    : session_(std::move(session)),
      identifier_(identifier),
      kind_(kind),
      request_(std::move(request)),
      sourcePath_(std::move(sourcePath)),
      url_(request_.url),
      written_(std::make_shared<URLSessionProgress>(
          [this](URLSessionDelegate& delegate, const URLSessionPtr& told, std::int64_t bytes, std::int64_t total,
                 std::int64_t expected) { delegate.didWriteData(told, shared_from_this(), bytes, total, expected); })),
      sent_(std::make_shared<URLSessionProgress>([this](URLSessionDelegate& delegate, const URLSessionPtr& told,
                                                        std::int64_t bytes, std::int64_t total, std::int64_t expected) {
        delegate.didSendBodyData(told, shared_from_this(), bytes, total, expected);
      })) {}

NetworkURLSessionTask::~NetworkURLSessionTask() = default;

URLSessionTaskState NetworkURLSessionTask::state() const {
  std::lock_guard lock(mutex_);
  return state_;
}

void NetworkURLSessionTask::setState(URLSessionTaskState state) {
  std::lock_guard lock(mutex_);
  state_ = state;
}

std::shared_ptr<const HTTPURLResponse> NetworkURLSessionTask::response() const {
  std::lock_guard lock(mutex_);
  return response_;
}

std::string NetworkURLSessionTask::description() const {
  return format("%@{ taskIdentifier: %lu }",
                baseDescription("URLSessionTask", static_cast<const URLSessionTask*>(this)), identifier_);
}

bool NetworkURLSessionTask::start(URLSessionTaskState next) {
  {
    std::lock_guard lock(mutex_);
    if (state_ != URLSessionTaskState::Suspended) return false;
    state_ = next;
  }
  if (!session_->willStart(shared_from_this())) {
    setState(URLSessionTaskState::Completed);  // nobody is told any more
    return false;
  }
  HTTPNetworkThread::shared().async([self = shared_from_this()] { self->begin(); });
  return true;
}

void NetworkURLSessionTask::resume() { start(URLSessionTaskState::Running); }

void NetworkURLSessionTask::cancel() {
  if (start(URLSessionTaskState::Canceling)) return;
  {
    std::lock_guard lock(mutex_);
    if (state_ != URLSessionTaskState::Running) return;
    state_ = URLSessionTaskState::Canceling;
  }
  HTTPNetworkThread::shared().async([self = shared_from_this()] {
    if (self->transfer_) self->transfer_->abort(makeCancelledError(self->url_));
  });
}

void NetworkURLSessionTask::cancelByProducingResumeData(std::function<void(std::optional<Data>)> handler) {
  cancel();
  if (!handler) return;
  session_->delegateQueue()->async([handler = std::move(handler)] { handler(std::nullopt); });
}

void NetworkURLSessionTask::begin() {
  deadline_ = session_->clock().monotonicNow();
  Duration limit = session_->configuration().timeoutIntervalForResource;
  if (limit > Duration::zero() && limit <= kLongestLimit) {
    *deadline_ += limit;
  } else {
    deadline_.reset();
  }
  beginTransfer();
}

void NetworkURLSessionTask::beginTransfer() {
  if (state() == URLSessionTaskState::Canceling) return finish(makeCancelledError(url_));
  if (url_.scheme() != "https" && url_.scheme() != "http") {
    return finish(makeURLError(URLErrorUnsupportedURL, url_, "Only http and https are supported."));
  }
  HTTPTransferRequest transfer(request_);
  transfer.sourcePath = sourcePath_;
  transfer.request.url = url_;
  HTTPCookieStore* store = session_->cookies();
  if (auto cookies = store ? store->cookieField(url_, session_->clock().now()) : std::nullopt) {
    auto own = request_.headers.value("Cookie");
    transfer.request.headers.set("Cookie", own ? *own + "; " + *cookies : *cookies);
  }
  const URLSessionConfiguration& configuration = session_->configuration();
  transfer.silenceLimit = silenceLimit(configuration, request_);
  transfer.deadline = deadline_;
  transfer.mostHeaderBytes = configuration.maximumHeaderBytes;
  transfer.honoursEnvironmentProxies = configuration.honoursEnvironmentProxies;
  transfer.clock = &session_->clock();

  auto pool = HTTPNetworkThread::shared().pool(poolKey(url_, *session_));
  transfer_ = std::make_shared<HTTPTransfer>(std::move(transfer), shared_from_this(), pool);
  pool->submit(transfer_);
}

bool NetworkURLSessionTask::transferAcceptsServer(const std::shared_ptr<const ServerTrust>& trust) {
  auto disposition = ChallengeDisposition::CancelAuthenticationChallenge;
  bool hasCredential = false;
  URLAuthenticationChallenge challenge{AuthenticationMethodServerTrust, trust->host(), url_.effectivePort(), trust};
  try {
    session_->delegate()->didReceiveChallenge(session_, shared_from_this(), challenge,
                                              [&](ChallengeDisposition decided, const URLCredential* credential) {
                                                disposition = decided;
                                                hasCredential = credential && credential->trust == trust;
                                              });
  } catch (const std::exception& exception) {
    reportSoftAssertion(kSource, __LINE__, format("didReceiveChallenge throws nothing: %s", exception.what()));
    return false;
  }
  if (disposition == ChallengeDisposition::UseCredential) return hasCredential;
  if (disposition != ChallengeDisposition::PerformDefaultHandling) return false;
  auto result = trust->evaluate();
  return result && (*result == TrustResult::Proceed || *result == TrustResult::Unspecified);
}

std::optional<Error> NetworkURLSessionTask::transferWillSend(const ServerTrust* trust) {
  if (state() == URLSessionTaskState::Canceling) return makeCancelledError(url_);
  try {
    return session_->delegate()->shouldSendRequest(session_, shared_from_this(), trust);
  } catch (const std::exception& exception) {
    reportSoftAssertion(kSource, __LINE__, format("shouldSendRequest throws nothing: %s", exception.what()));
    return makeCancelledError(url_);
  }
}

// Only what carries no body is asked for again elsewhere, and only at the same server; any other redirect is the
// answer.
std::optional<URL> NetworkURLSessionTask::redirectTarget(int status, const HTTPHeaders& headers) const {
  bool redirects = status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
  bool bodiless = (request_.method == "GET" || request_.method == "HEAD") && !request_.body && !sourcePath_;
  auto location = headers.value("Location");
  if (!redirects || !bodiless || !location) return std::nullopt;
  auto target = url_.resolving(*location);
  return target && sameOrigin(*target, url_) ? target : std::nullopt;
}

std::optional<Error> NetworkURLSessionTask::transferDidReceiveHead(int status, HTTPHeaders headers,
                                                                   std::int64_t bodyLength) {
  if (HTTPCookieStore* store = session_->cookies()) store->store(headers, url_, session_->clock().now());
  redirect_ = redirectTarget(status, headers);
  bodyBytes_ = 0;
  bodyLength_ = bodyLength;
  discarding_ = redirect_ || (kind_ == URLSessionTaskKind::Download && status == kStatusUnauthorized);
  if (redirect_) {
    if (++redirects_ <= kMostRedirects) return std::nullopt;
    return makeURLError(URLErrorHTTPTooManyRedirects, url_, "The server redirects too often.");
  }
  auto response = std::make_shared<const HTTPURLResponse>(url_, status, std::move(headers));
  {
    std::lock_guard lock(mutex_);
    response_ = response;
  }
  written_->setExpected(bodyLength);
  if (kind_ != URLSessionTaskKind::Download) {
    session_->tell([self = shared_from_this(), response](URLSessionDelegate& delegate, const URLSessionPtr& session) {
      delegate.didReceiveResponse(session, self, *response);
    });
  }
  return std::nullopt;
}

Result<bool> NetworkURLSessionTask::transferDidReceiveBody(std::span<const std::uint8_t> bytes) {
  bool stored = kind_ == URLSessionTaskKind::Download && !discarding_;
  if (!stored && bodyBytes_ + bytes.size() > session_->configuration().maximumDataTaskBytes) {
    return Failure(makeURLError(URLErrorDataLengthExceedsMaximum, url_, "The answer's body is too large."));
  }
  if (stored) {
    if (auto error = receiveFile(bytes)) return Failure(*error);
  } else if (!discarding_) {
    auto taken = receiveData(bytes);
    if (!taken || !*taken) return taken;
  }
  bodyBytes_ += bytes.size();
  if (stored) written_->advanceTo(static_cast<std::int64_t>(bodyBytes_), *session_, shared_from_this(), false);
  return true;
}

// Bytes wait for the delegate in one place, so that a slow one is called seldom with much, and the network waits for
// one that is slower still.
Result<bool> NetworkURLSessionTask::receiveData(std::span<const std::uint8_t> bytes) {
  {
    std::lock_guard lock(mutex_);
    if (undelivered_.size() >= kMostUndelivered) {
      receivingPaused_ = true;
      return false;
    }
    undelivered_.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (std::exchange(deliveryQueued_, true)) return true;
  }
  session_->tell([self = shared_from_this()](URLSessionDelegate& delegate, const URLSessionPtr& session) {
    self->deliverData(delegate, session);
  });
  return true;
}

void NetworkURLSessionTask::deliverData(URLSessionDelegate& delegate, const URLSessionPtr& session) {
  std::string bytes;
  bool paused = false;
  {
    std::lock_guard lock(mutex_);
    bytes.swap(undelivered_);
    deliveryQueued_ = false;
    paused = std::exchange(receivingPaused_, false);
  }
  if (paused) {
    HTTPNetworkThread::shared().async([self = shared_from_this()] {
      if (self->transfer_) self->transfer_->resumeReceiving();
    });
  }
  Data data = Data::fromString(bytes);
  std::string().swap(bytes);
  delegate.didReceiveData(session, shared_from_this(), data);
}

std::optional<Error> NetworkURLSessionTask::openFile() {
  if (file_) return std::nullopt;
  auto file = DownloadFile::create(session_->configuration().downloadDirectory);
  if (!file) return file.error();
  file_ = std::move(*file);
  setPartialFile(file_->path());
  return std::nullopt;
}

void NetworkURLSessionTask::setPartialFile(std::optional<std::string> path) {
  std::lock_guard lock(mutex_);
  partialFile_ = std::move(path);
}

std::optional<std::string> NetworkURLSessionTask::partialFile() const {
  std::lock_guard lock(mutex_);
  return partialFile_;
}

std::optional<Error> NetworkURLSessionTask::receiveFile(std::span<const std::uint8_t> bytes) {
  if (auto error = openFile()) return error;
  if (auto written = file_->append(bytes); !written) return written.error();
  return std::nullopt;
}

void NetworkURLSessionTask::transferDidSendBody(std::int64_t totalBytes) {
  // That all of it has gone is told without delay: whoever waits for the answer can tell from it that it is asked for.
  const bool isWhole = request_.body && std::cmp_equal(totalBytes, request_.body->size());
  sent_->advanceTo(totalBytes, *session_, shared_from_this(), isWhole);
}

void NetworkURLSessionTask::transferDidEnd(const std::optional<Error>& error) {
  transfer_.reset();
  if (!error && redirect_) {
    url_ = *std::exchange(redirect_, std::nullopt);
    beginTransfer();
    return;
  }
  finish(error);
}

void NetworkURLSessionTask::finish(std::optional<Error> error) {
  if (std::exchange(ended_, true)) return;
  auto self = shared_from_this();
  sent_->advanceTo(sent_->total(), *session_, self, true);
  if (!error && kind_ == URLSessionTaskKind::Download && !discarding_) error = openFile();
  std::shared_ptr<DownloadFile> file = std::move(file_);
  setPartialFile(std::nullopt);
  if (!error && file) {
    if (auto closed = file->close(); !closed) error = closed.error();
  }
  if (!error && file) {
    written_->advanceTo(static_cast<std::int64_t>(bodyBytes_), *session_, self, true);
    session_->tell([self, file](URLSessionDelegate& delegate, const URLSessionPtr& session) mutable {
      delegate.didFinishDownloadingToURL(session, self, URL::fileURL(file->path()));
      file.reset();
    });
  }
  file.reset();
  session_->tell([self, error](URLSessionDelegate& delegate, const URLSessionPtr& session) {
    self->setState(URLSessionTaskState::Completed);
    delegate.didCompleteWithError(session, self, error);
  });
  session_->didEnd(*this);
}

}  // namespace florvane
