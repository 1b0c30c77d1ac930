#pragma once

#include "platform/HTTPTransfer.h"
#include "platform/NetworkURLSession.h"
#include "platform/URLSessionProgress.h"

#include <mutex>

namespace florvane {

class DownloadFile;

// A task of a NetworkURLSession: its state, the transfers that it takes (one, and one for each redirect followed), and
// where the answer's body goes. Members below the line belong to the network thread.
class NetworkURLSessionTask final : public URLSessionTask,
                                    public HTTPTransferClient,
                                    public std::enable_shared_from_this<NetworkURLSessionTask> {
 public:
  NetworkURLSessionTask(std::shared_ptr<NetworkURLSession> session, std::uint64_t identifier, URLSessionTaskKind kind,
                        URLRequest request, std::optional<std::string> sourcePath);
  ~NetworkURLSessionTask() override;

  std::uint64_t taskIdentifier() const override { return identifier_; }
  URLSessionTaskKind kind() const override { return kind_; }
  URLSessionTaskState state() const override;
  const URLRequest& originalRequest() const override { return request_; }
  std::shared_ptr<const HTTPURLResponse> response() const override;
  void resume() override;
  void cancel() override;
  void cancelByProducingResumeData(std::function<void(std::optional<Data>)> handler) override;
  std::optional<std::string> partialFile() const override;
  std::string description() const override;

  bool transferAcceptsServer(const std::shared_ptr<const ServerTrust>& trust) override;
  std::optional<Error> transferWillSend(const ServerTrust* trust) override;
  std::optional<Error> transferDidReceiveHead(int status, HTTPHeaders headers, std::int64_t bodyLength) override;
  Result<bool> transferDidReceiveBody(std::span<const std::uint8_t> bytes) override;
  void transferDidSendBody(std::int64_t totalBytes) override;
  void transferDidEnd(const std::optional<Error>& error) override;

 private:
  // Leaves the suspended state; false when there is nothing to start.
  bool start(URLSessionTaskState next);
  void setState(URLSessionTaskState state);
  void begin();
  void beginTransfer();
  std::optional<URL> redirectTarget(int status, const HTTPHeaders& headers) const;
  Result<bool> receiveData(std::span<const std::uint8_t> bytes);
  void deliverData(URLSessionDelegate& delegate, const URLSessionPtr& session);
  std::optional<Error> receiveFile(std::span<const std::uint8_t> bytes);
  std::optional<Error> openFile();
  void setPartialFile(std::optional<std::string> path);
  void finish(std::optional<Error> error);

  const std::shared_ptr<NetworkURLSession> session_;
  const std::uint64_t identifier_;
  const URLSessionTaskKind kind_;
  const URLRequest request_;
  const std::optional<std::string> sourcePath_;

  mutable std::mutex mutex_;  // guards the six below
  URLSessionTaskState state_ = URLSessionTaskState::Suspended;
  std::shared_ptr<const HTTPURLResponse> response_;
  std::string undelivered_;
  bool deliveryQueued_ = false;
  bool receivingPaused_ = false;
  std::optional<std::string> partialFile_;

  // ---
  bool ended_ = false;
  URL url_;
  int redirects_ = 0;
  std::optional<URL> redirect_;  // where to go when the answer that says so has ended
  bool discarding_ = false;
  std::optional<MonotonicTime> deadline_;
  std::shared_ptr<HTTPTransfer> transfer_;
  std::uint64_t bodyBytes_ = 0;
  std::int64_t bodyLength_ = -1;
  std::unique_ptr<DownloadFile> file_;
  const std::shared_ptr<URLSessionProgress> written_;
  const std::shared_ptr<URLSessionProgress> sent_;
};

}  // namespace florvane
