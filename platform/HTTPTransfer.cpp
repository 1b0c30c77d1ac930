#include "platform/HTTPTransfer.h"

#include "platform/HTTPConnectionPool.h"
#include "platform/HTTPErrors.h"
#include "platform/HTTPNetworkThread.h"
#include "platform/HTTPPeerTrust.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace florvane {

namespace {

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlank = " \t\r\n";
  auto first = text.find_first_not_of(kBlank);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

// The code of a status line "HTTP/1.1 200 OK"; absent when the line is none.
std::optional<int> statusOfLine(std::string_view line) {
  if (line.substr(0, 5) != "HTTP/") return std::nullopt;
  auto space = line.find(' ');
  if (space == std::string_view::npos) return std::nullopt;
  line = trimmed(line.substr(space));
  int status = 0;
  if (std::from_chars(line.data(), line.data() + line.size(), status).ec != std::errc()) return std::nullopt;
  return status;
}

}  // namespace

HTTPTransfer::HTTPTransfer(HTTPTransferRequest request, std::shared_ptr<HTTPTransferClient> client,
                           std::weak_ptr<HTTPConnectionPool> pool)
    : request_(std::move(request)), client_(std::move(client)), pool_(std::move(pool)) {}

HTTPTransfer::~HTTPTransfer() {
  if (easy_) curl_easy_cleanup(easy_);
  curl_slist_free_all(headerList_);
}

void HTTPTransfer::abort(const Error& error) {
  if (ended_) return;
  auto self = shared_from_this();
  if (auto pool = pool_.lock()) pool->remove(*this);
  end(error);
}

void HTTPTransfer::didEnd(CURLcode result) {
  const URL& url = request_.request.url;
  if (failure_) {
    end(failure_);
  } else if (result != CURLE_OK) {
    end(makeTransferError(result, url, detail_.data(), headReceived_));
  } else if (!headReceived_) {
    // curl takes a head that ends with the connection for a whole one.
    end(makeURLError(URLErrorNetworkConnectionLost, url, "The connection was lost in the answer's head."));
  } else if (endsWithConnection_ && url.scheme() == "https" && !endAnnounced_) {
    end(makeURLError(URLErrorNetworkConnectionLost, url, "The connection was cut in the answer's body."));
  } else {
    curl_off_t sent = 0;
    if (body_ && curl_easy_getinfo(easy_, CURLINFO_SIZE_UPLOAD_T, &sent) == CURLE_OK) noteProgress(received_, sent);
    end(std::nullopt);
  }
}

void HTTPTransfer::end(const std::optional<Error>& error) {
  if (std::exchange(ended_, true)) return;
  timer_.reset();
  if (easy_) curl_easy_cleanup(std::exchange(easy_, nullptr));
  body_.reset();
  std::exchange(client_, nullptr)->transferDidEnd(error);
}

// For callbacks of curl: what they return then stops the transfer.
bool HTTPTransfer::fail(const Error& error) {
  if (!failure_) failure_ = error;
  return false;
}

bool HTTPTransfer::mayBeRepeated() const {
  return request_.request.method == "GET" || request_.request.method == "HEAD";
}

// Of the running transfer; null without TLS.
const SSL* HTTPTransfer::connection() const {
  const curl_tlssessioninfo* session = nullptr;
  if (request_.request.url.scheme() == "https") curl_easy_getinfo(easy_, CURLINFO_TLS_SSL_PTR, &session);
  return session ? static_cast<const SSL*>(session->internals) : nullptr;
}

int HTTPTransfer::willSend() {
  noteActivity();
  const URL& url = request_.request.url;
  // curl starts a request again when a reused connection dies under it. Nobody can tell what the server has done by
  // then.
  if (std::exchange(sent_, true) && !mayBeRepeated()) {
    fail(makeURLError(URLErrorNetworkConnectionLost, url, "The connection was lost while the request was sent."));
    return CURL_PREREQFUNC_ABORT;
  }
  std::shared_ptr<const ServerTrust> trust;
  if (url.scheme() == "https") {
    trust = peerTrustOfConnection(connection());
    if (!trust) {
      fail(makeURLError(URLErrorSecureConnectionFailed, url, "The connection's certificates are not known."));
      return CURL_PREREQFUNC_ABORT;
    }
  }
  if (auto error = client_->transferWillSend(trust.get())) {
    fail(*error);
    return CURL_PREREQFUNC_ABORT;
  }
  return CURL_PREREQFUNC_OK;
}

std::size_t HTTPTransfer::receiveHeader(std::string_view line) {
  noteActivity();
  headerBytes_ += line.size();
  if (headerBytes_ > request_.mostHeaderBytes) {
    fail(makeURLError(URLErrorCannotParseResponse, request_.request.url, "The answer's head is too large."));
    return 0;
  }
  if (headReceived_) return line.size();  // trailing fields after the body
  if (status_ == 0) {
    status_ = statusOfLine(line).value_or(0);
    headers_ = HTTPHeaders();
    return line.size();
  }
  std::string_view field = trimmed(line);
  if (field.empty()) return finishHead() ? line.size() : 0;
  auto colon = field.find(':');
  if (colon != std::string_view::npos && line.front() != ' ' && line.front() != '\t') {
    headers_.add(trimmed(field.substr(0, colon)), trimmed(field.substr(colon + 1)));
  }
  return line.size();
}

bool HTTPTransfer::finishHead() {
  int status = std::exchange(status_, 0);
  if (status >= 100 && status < 200) return true;  // the real one follows
  headReceived_ = true;
  std::int64_t length = -1;
  if (auto text = headers_.value("Content-Length"); text && !headers_.value("Transfer-Encoding")) {
    std::int64_t number = 0;
    auto [end, failure] = std::from_chars(text->data(), text->data() + text->size(), number);
    if (failure == std::errc() && number >= 0) length = number;
  }
  bool hasBody = request_.request.method != "HEAD" && status != 204 && status != 304;
  endsWithConnection_ = hasBody && length < 0 && !headers_.value("Transfer-Encoding");
  auto error = client_->transferDidReceiveHead(status, std::move(headers_), length);
  return !error || fail(*error);
}

std::size_t HTTPTransfer::receiveBody(std::span<const std::uint8_t> bytes) {
  if (!headReceived_) {
    fail(makeURLError(URLErrorCannotParseResponse, request_.request.url, "The server's answer has no head."));
    return 0;
  }
  auto taken = client_->transferDidReceiveBody(bytes);
  noteActivity();  // after the bytes are stored: a slow disk is not the server's silence
  if (!taken) {
    fail(taken.error());
    return 0;
  }
  if (!*taken) {
    paused_ = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  return bytes.size();
}

void HTTPTransfer::resumeReceiving() {
  if (ended_ || !std::exchange(paused_, false)) return;
  noteActivity();
  auto self = shared_from_this();
  CURLcode result = curl_easy_pause(easy_, CURLPAUSE_CONT);
  if (result != CURLE_OK && !ended_) {
    abort(failure_ ? *failure_ : makeTransferError(result, request_.request.url, detail_.data(), headReceived_));
  }
}

std::size_t HTTPTransfer::provideBody(std::span<char> buffer) {
  auto count = body_->read(buffer);
  if (count) return *count;
  fail(count.error());
  return CURL_READFUNC_ABORT;
}

void HTTPTransfer::noteProgress(curl_off_t received, curl_off_t sent) {
  if (endsWithConnection_) {
    const SSL* tls = connection();
    if (tls) endAnnounced_ = (SSL_get_shutdown(tls) & SSL_RECEIVED_SHUTDOWN) != 0;
  }
  if (received == received_ && sent == sentBytes_) return;
  noteActivity();
  received_ = received;
  if (std::exchange(sentBytes_, sent) != sent && body_) client_->transferDidSendBody(sent);
}

void HTTPTransfer::noteActivity() { lastActivity_ = request_.clock->monotonicNow(); }

// One timer at a time, set again when it fires early: activity itself only notes the time.
void HTTPTransfer::armTimer() {
  std::optional<MonotonicTime> next = request_.deadline;
  if (request_.silenceLimit > Duration::zero()) {
    MonotonicTime silent = lastActivity_ + request_.silenceLimit;
    // While bytes wait in the system's buffers only their acknowledgements show that the line is alive.
    if (body_) silent = std::min(silent, request_.clock->monotonicNow() + request_.silenceLimit / 4);
    if (!next || silent < *next) next = silent;
  }
  if (!next) return;
  Duration leeway = std::min<Duration>(request_.silenceLimit / 50, std::chrono::seconds(1));
  timer_ = request_.clock->schedule(*next, leeway, [weak = weak_from_this()] {
    HTTPNetworkThread::shared().async([weak] {
      if (auto transfer = weak.lock()) transfer->checkSilence();
    });
  });
}

void HTTPTransfer::checkSilence() {
  if (ended_) return;
  MonotonicTime now = request_.clock->monotonicNow();
  noteAcknowledged();
  if (paused_) lastActivity_ = now;
  bool silent = request_.silenceLimit > Duration::zero() && now - lastActivity_ >= request_.silenceLimit;
  if (silent || (request_.deadline && now >= *request_.deadline)) {
    abort(makeURLError(URLErrorTimedOut, request_.request.url, "The request timed out."));
  } else {
    armTimer();
  }
}

void HTTPTransfer::noteAcknowledged() {
  if (!body_ || socket_ < 0) return;
  tcp_info info = {};
  socklen_t size = sizeof info;
  if (getsockopt(socket_, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return;
  if (std::exchange(acknowledged_, info.tcpi_bytes_acked) != info.tcpi_bytes_acked) noteActivity();
}

}  // namespace florvane
