#pragma once

#include "platform/HTTPCookieStore.h"
#include "platform/URLSession.h"

#include <atomic>
#include <mutex>
#include <unordered_map>

namespace florvane {

class NetworkURLSessionTask;

// The session behind URLSession::create. Running tasks keep it alive and it keeps them; neither keeps the other
// afterwards.
class NetworkURLSession final : public URLSession {
 public:
  NetworkURLSession(URLSessionConfiguration configuration, std::shared_ptr<URLSessionDelegate> delegate,
                    std::shared_ptr<SerialQueue> delegateQueue);
  ~NetworkURLSession() override;

  URLSessionTaskPtr dataTask(URLRequest request) override;
  URLSessionTaskPtr downloadTask(URLRequest request) override;
  URLSessionTaskPtr uploadTask(URLRequest request, const URL& fromFile) override;
  void invalidateAndCancel() override;
  void finishTasksAndInvalidate() override;
  const URLSessionConfiguration& configuration() const override { return configuration_; }
  const std::shared_ptr<SerialQueue>& delegateQueue() const override { return delegateQueue_; }

  // The delegate, or one that does nothing when there is none.
  std::shared_ptr<URLSessionDelegate> delegate() const;
  // Runs the call on the delegate queue.
  void tell(UniqueFunction<void(URLSessionDelegate&, const URLSessionPtr&)> call);
  // A task starts; false when the session takes none any more. didEnd follows, after the task's last call was queued.
  bool willStart(const std::shared_ptr<NetworkURLSessionTask>& task);
  void didEnd(const NetworkURLSessionTask& task);
  Clock& clock() const;
  const std::string& poolName() const { return poolName_; }
  // Null unless the session is ephemeral. On the network thread only.
  HTTPCookieStore* cookies() { return configuration_.ephemeral ? &cookies_ : nullptr; }

 private:
  URLSessionTaskPtr makeTask(URLSessionTaskKind kind, URLRequest request, std::optional<std::string> sourcePath);
  void tellInvalid();
  void retireOwnConnections();

  const URLSessionConfiguration configuration_;
  const std::string poolName_;
  const std::shared_ptr<SerialQueue> delegateQueue_;
  std::atomic<std::uint64_t> nextIdentifier_ = 1;
  std::atomic<bool> hasConnections_ = false;
  HTTPCookieStore cookies_;

  mutable std::mutex mutex_;  // guards the three below
  std::shared_ptr<URLSessionDelegate> delegate_;
  std::unordered_map<std::uint64_t, std::shared_ptr<NetworkURLSessionTask>> running_;
  bool invalidated_ = false;
};

}  // namespace florvane
