#include "platform/HTTPErrors.h"
#include "platform/HTTPPeerTrust.h"
#include "platform/HTTPTransfer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace florvane {

namespace {

constexpr long kReceiveBufferBytes = 512L * 1024;
constexpr long kSendBufferBytes = 256L * 1024;
// Without a silence limit: how long connecting may take, and how long a peer may leave probes or bytes unanswered.
constexpr long kConnectMilliseconds = 30'000;
constexpr unsigned kUserTimeoutMilliseconds = 60'000;
constexpr long kProbeAfterSeconds = 20;
constexpr long kProbeIntervalSeconds = 10;

// What would let a field end early and another begin.
bool hasLineBreak(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

HTTPTransfer* self(void* pointer) { return static_cast<HTTPTransfer*>(pointer); }

int setUserTimeout(void* /*unused*/, curl_socket_t socket, curlsocktype /*purpose*/) {
  setsockopt(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, &kUserTimeoutMilliseconds, sizeof kUserTimeoutMilliseconds);
  return CURL_SOCKOPT_OK;
}

}  // namespace

template <typename T>
void HTTPTransfer::set(CURLoption option, T value) {
  if (curl_easy_setopt(easy_, option, value) != CURLE_OK) setUp_ = false;
}

CURL* HTTPTransfer::start() {
  if (ended_) return nullptr;
  if (request_.sourcePath) {
    auto body = HTTPRequestBody::openFile(*request_.sourcePath);
    if (!body) {
      end(body.error());
      return nullptr;
    }
    body_ = std::move(*body);
  } else if (request_.request.body) {
    body_ = HTTPRequestBody(*request_.request.body);
  } else if (!mayBeRepeated() && request_.request.method != "DELETE" && request_.request.method != "OPTIONS") {
    body_ = HTTPRequestBody(Data());  // an empty body is announced as such
  }
  easy_ = curl_easy_init();
  if (!easy_ || !makeHeaderList()) {
    end(makeURLError(URLErrorBadURL, request_.request.url, "The request's fields cannot be sent."));
    return nullptr;
  }
  configure();
  if (!setUp_) {
    end(makeURLError(URLErrorUnsupportedURL, request_.request.url, "The request cannot be set up."));
    return nullptr;
  }
  noteActivity();
  armTimer();
  return easy_;
}

bool HTTPTransfer::makeHeaderList() {
  auto append = [this](const std::string& line) {
    curl_slist* longer = curl_slist_append(headerList_, line.c_str());
    if (longer) headerList_ = longer;
    return longer != nullptr;
  };
  if (hasLineBreak(request_.request.method)) return false;
  bool complete = append("Expect:");  // no waiting for "100 Continue"
  if (!request_.request.headers.value("Content-Type")) complete = complete && append("Content-Type:");
  for (const auto& [name, value] : request_.request.headers.fields()) {
    if (name.empty() || name.find(':') != std::string::npos || hasLineBreak(name) || hasLineBreak(value)) return false;
    // The body's size is known here only.
    if (equalIgnoringCase(name, "Content-Length") || equalIgnoringCase(name, "Transfer-Encoding")) continue;
    std::string line = name;
    // curl's way to send an empty field rather than leave it out.
    bool empty = value.find_first_not_of(" \t") == std::string::npos;
    line.append(empty ? ";" : ": ").append(empty ? "" : value);
    complete = complete && append(line);
  }
  return complete;
}

void HTTPTransfer::configure() {
  const URLRequest& request = request_.request;
  set(CURLOPT_PRIVATE, this);
  set(CURLOPT_ERRORBUFFER, detail_.data());
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_QUICK_EXIT, 1L);  // cancelling never waits for a name to be resolved
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_HTTP09_ALLOWED, 0L);
  set(CURLOPT_FOLLOWLOCATION, 0L);
  set(CURLOPT_DISALLOW_USERNAME_IN_URL, 1L);
  set(CURLOPT_PATH_AS_IS, 1L);
  set(CURLOPT_URL, request.url.absoluteString().c_str());
  set(CURLOPT_HTTPHEADER, headerList_);
  set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  if (!request_.honoursEnvironmentProxies) set(CURLOPT_PROXY, "");
  set(CURLOPT_BUFFERSIZE, kReceiveBufferBytes);
  configureBody();
  configureConnection();

  set(CURLOPT_HEADERDATA, this);
  set(
      CURLOPT_HEADERFUNCTION, +[](char* bytes, std::size_t size, std::size_t count, void* transfer) {
        return self(transfer)->receiveHeader({bytes, size * count});
      });
  set(CURLOPT_WRITEDATA, this);
  set(
      CURLOPT_WRITEFUNCTION, +[](char* bytes, std::size_t size, std::size_t count, void* transfer) {
        return self(transfer)->receiveBody({reinterpret_cast<std::uint8_t*>(bytes), size * count});
      });
  set(CURLOPT_NOPROGRESS, 0L);
  set(CURLOPT_XFERINFODATA, this);
  set(
      CURLOPT_XFERINFOFUNCTION, +[](void* transfer, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent) {
        self(transfer)->noteProgress(received, sent);
        return 0;
      });
  set(CURLOPT_PREREQDATA, this);
  set(
      CURLOPT_PREREQFUNCTION,
      +[](void* transfer, char*, char*, int, int) -> int { return self(transfer)->willSend(); });
}

void HTTPTransfer::configureBody() {
  const std::string& method = request_.request.method;
  if (!body_) {
    set(method == "HEAD" ? CURLOPT_NOBODY : CURLOPT_HTTPGET, 1L);
    if (method != "HEAD" && method != "GET") set(CURLOPT_CUSTOMREQUEST, method.c_str());
    return;
  }
  set(CURLOPT_UPLOAD, 1L);
  set(CURLOPT_CUSTOMREQUEST, method.c_str());
  set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(body_->size()));
  set(CURLOPT_UPLOAD_BUFFERSIZE, kSendBufferBytes);
  set(CURLOPT_READDATA, this);
  set(
      CURLOPT_READFUNCTION, +[](char* buffer, std::size_t size, std::size_t count, void* transfer) {
        return self(transfer)->provideBody({buffer, size * count});
      });
}

void HTTPTransfer::configureConnection() {
  if (request_.silenceLimit == Duration::zero()) {
    set(CURLOPT_CONNECTTIMEOUT_MS, kConnectMilliseconds);
    set(CURLOPT_TCP_KEEPALIVE, 1L);
    set(CURLOPT_TCP_KEEPIDLE, kProbeAfterSeconds);
    set(CURLOPT_TCP_KEEPINTVL, kProbeIntervalSeconds);
    set(CURLOPT_SOCKOPTFUNCTION, &setUserTimeout);
  }
  if (request_.request.url.scheme() != "https") return;
  set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  set(CURLOPT_SSL_SESSIONID_CACHE, 0L);
  // The judge installed below decides in place of curl's own checks, the host included. Loading the system's anchors
  // for each connection would only cost time.
  set(CURLOPT_SSL_VERIFYPEER, 1L);
  set(CURLOPT_SSL_VERIFYHOST, 0L);
  set(CURLOPT_CAINFO, static_cast<const char*>(nullptr));
  set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
  set(CURLOPT_SSL_CTX_DATA, this);
  set(
      CURLOPT_SSL_CTX_FUNCTION,
      +[](CURL*, void* context, void* transfer) -> CURLcode { return self(transfer)->prepareTLS(context); });
}

CURLcode HTTPTransfer::prepareTLS(void* context) {
  // The connection may outlive this transfer.
  auto judge = [weak = weak_from_this()](const std::shared_ptr<const ServerTrust>& trust) {
    auto transfer = weak.lock();
    if (!transfer || transfer->ended_) return false;
    transfer->noteActivity();
    return transfer->client_->transferAcceptsServer(trust) ||
           transfer->fail(makeTrustError(*trust, transfer->request_.request.url));
  };
  bool installed = installPeerTrustJudge(static_cast<SSL_CTX*>(context), request_.request.url.host(), judge);
  return installed ? CURLE_OK : CURLE_SSL_CONNECT_ERROR;
}

}  // namespace florvane
