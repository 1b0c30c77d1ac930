#pragma once

#include "platform/Date.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <unordered_map>

#include <curl/curl.h>

namespace florvane {

class Error;
class HTTPTransfer;

// The kept-alive connections to one server under one trust: a curl multi handle of its own, since curl hands any
// connection of a multi handle to any of its requests. Runs at most 8 transfers at a time, hence at most as many
// connections, and queues the rest in order; a pool of long polls runs them all. On the network thread only.
class HTTPConnectionPool {
 public:
  HTTPConnectionPool(int epoll, std::uint32_t identifier, bool longPolls);
  ~HTTPConnectionPool();
  HTTPConnectionPool(const HTTPConnectionPool&) = delete;
  HTTPConnectionPool& operator=(const HTTPConnectionPool&) = delete;

  // Starts the transfer, or queues it. Not from within one of curl's callbacks.
  void submit(std::shared_ptr<HTTPTransfer> transfer);
  // Takes a transfer out; its connection closes. Not from within one of curl's callbacks.
  void remove(HTTPTransfer& transfer);
  // Connections close as their transfers end.
  void retire();

  void socketReady(int socket, std::uint32_t epollEvents);
  void timerFired(MonotonicTime now);
  // When timerFired wants to be called.
  std::optional<MonotonicTime> deadline() const;
  bool isIdle() const { return running_.empty() && queue_.empty(); }
  // Idle, and either retired or unused for so long that its connections are of no use any more.
  bool isSpent(MonotonicTime now) const;

 private:
  static int socketChanged(CURL* easy, curl_socket_t socket, int what, void* pool, void* known);
  static int timerChanged(CURLM* multi, long milliseconds, void* pool);
  void watch(curl_socket_t socket, int what, bool known);
  void startQueued();
  void collectEnded();
  // The transfer's last step on its way out; it may destroy the handle afterwards.
  std::shared_ptr<HTTPTransfer> takeOut(CURL* easy);

  const int epoll_;
  const std::uint32_t identifier_;
  const std::size_t mostRunning_;
  CURLM* multi_;
  bool retired_ = false;
  bool starting_ = false;
  MonotonicTime idleSince_;
  std::optional<MonotonicTime> curlDeadline_;
  std::unordered_map<CURL*, std::shared_ptr<HTTPTransfer>> running_;
  std::deque<std::shared_ptr<HTTPTransfer>> queue_;
};

}  // namespace florvane
