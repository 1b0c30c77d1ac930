#pragma once

#include "platform/Clock.h"
#include "platform/Error.h"
#include "platform/HTTPRequestBody.h"
#include "platform/ServerTrust.h"
#include "platform/URLRequest.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <variant>

#include <curl/curl.h>
#include <openssl/ssl.h>

namespace florvane {

class HTTPConnectionPool;

// What one request needs to know to be sent. `request` holds every field that goes out, cookies included.
struct HTTPTransferRequest {
  explicit HTTPTransferRequest(URLRequest toSend) : request(std::move(toSend)) {}

  URLRequest request;
  // The body when it is a file's contents; the request's own otherwise.
  std::optional<std::string> sourcePath;
  // Longest silence; zero means none, and a dead peer is found by probes of its connection instead.
  Duration silenceLimit{0};
  std::optional<MonotonicTime> deadline;
  std::size_t mostHeaderBytes = 0;
  bool honoursEnvironmentProxies = false;
  Clock* clock = nullptr;
};

// Who asked for a transfer. Called on the network thread; an error ends the transfer with it.
class HTTPTransferClient {
 public:
  virtual ~HTTPTransferClient() = default;
  virtual bool transferAcceptsServer(const std::shared_ptr<const ServerTrust>& trust) = 0;
  virtual std::optional<Error> transferWillSend(const ServerTrust* trust) = 0;
  // The length is -1 when the answer does not tell it.
  virtual std::optional<Error> transferDidReceiveHead(int status, HTTPHeaders headers, std::int64_t bodyLength) = 0;
  // False when the bytes cannot be taken now; they come again after resumeReceiving().
  virtual Result<bool> transferDidReceiveBody(std::span<const std::uint8_t> bytes) = 0;
  virtual void transferDidSendBody(std::int64_t totalBytes) = 0;
  // Last, once.
  virtual void transferDidEnd(const std::optional<Error>& error) = 0;
};

// One request and its answer: one curl easy handle, never a redirect. On the network thread only.
class HTTPTransfer : public std::enable_shared_from_this<HTTPTransfer> {
 public:
  HTTPTransfer(HTTPTransferRequest request, std::shared_ptr<HTTPTransferClient> client,
               std::weak_ptr<HTTPConnectionPool> pool);
  ~HTTPTransfer();

  // Ends the transfer from outside, with that error.
  void abort(const Error& error);
  void resumeReceiving();

  // For the pool: the handle to run, null when there is nothing to run.
  CURL* start();
  CURL* easy() const { return easy_; }
  void didEnd(CURLcode result);
  void noteSocket(curl_socket_t socket) { socket_ = socket; }

 private:
  template <typename T>
  void set(CURLoption option, T value);
  void configure();
  void configureBody();
  void configureConnection();
  bool makeHeaderList();
  bool mayBeRepeated() const;

  CURLcode prepareTLS(void* context);
  const SSL* connection() const;
  int willSend();
  std::size_t receiveHeader(std::string_view line);
  bool finishHead();
  std::size_t receiveBody(std::span<const std::uint8_t> bytes);
  std::size_t provideBody(std::span<char> buffer);
  void noteProgress(curl_off_t received, curl_off_t sent);
  bool fail(const Error& error);
  void end(const std::optional<Error>& error);

  void noteActivity();
  void armTimer();
  void checkSilence();
  void noteAcknowledged();

  const HTTPTransferRequest request_;
  std::shared_ptr<HTTPTransferClient> client_;
  const std::weak_ptr<HTTPConnectionPool> pool_;
  CURL* easy_ = nullptr;
  curl_slist* headerList_ = nullptr;
  std::array<char, CURL_ERROR_SIZE> detail_{};
  std::optional<HTTPRequestBody> body_;
  std::optional<Error> failure_;  // what a callback found; goes before curl's own result
  bool setUp_ = true;
  bool sent_ = false;
  bool ended_ = false;

  int status_ = 0;
  HTTPHeaders headers_;
  std::size_t headerBytes_ = 0;
  bool headReceived_ = false;
  bool endsWithConnection_ = false;  // nothing but the connection's end ends the body
  bool endAnnounced_ = false;        // and TLS said that this was its end

  bool paused_ = false;
  std::unique_ptr<Timer> timer_;
  MonotonicTime lastActivity_;
  curl_off_t received_ = 0, sentBytes_ = 0;
  curl_socket_t socket_ = -1;
  std::uint64_t acknowledged_ = 0;
};

}  // namespace florvane
