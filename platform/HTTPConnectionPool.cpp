#include "platform/HTTPConnectionPool.h"

#include "platform/HTTPTransfer.h"

#include <cerrno>
#include <limits>
#include <new>
#include <utility>

#include <sys/epoll.h>

namespace florvane {

namespace {

constexpr std::size_t kMostConnections = 8;
// Servers close idle connections after a minute or two.
constexpr auto kIdleLife = std::chrono::seconds(120);

}  // namespace

HTTPConnectionPool::HTTPConnectionPool(int epoll, std::uint32_t identifier, bool longPolls)
    : epoll_(epoll),
      identifier_(identifier),
      mostRunning_(longPolls ? std::numeric_limits<std::size_t>::max() : kMostConnections),
      multi_(curl_multi_init()),
      idleSince_(std::chrono::steady_clock::now()) {
  if (!multi_) throw std::bad_alloc();
  curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &HTTPConnectionPool::socketChanged);
  curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &HTTPConnectionPool::timerChanged);
  curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
  curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, static_cast<long>(kMostConnections));
  curl_multi_setopt(multi_, CURLMOPT_PIPELINING, static_cast<long>(CURLPIPE_NOTHING));
}

HTTPConnectionPool::~HTTPConnectionPool() { curl_multi_cleanup(multi_); }

void HTTPConnectionPool::submit(std::shared_ptr<HTTPTransfer> transfer) {
  queue_.push_back(std::move(transfer));
  startQueued();
}

void HTTPConnectionPool::startQueued() {
  if (std::exchange(starting_, true)) return;  // a transfer that fails at once may submit the next
  while (running_.size() < mostRunning_ && !queue_.empty()) {
    auto transfer = std::move(queue_.front());
    queue_.pop_front();
    CURL* easy = transfer->start();
    if (!easy) continue;  // it had ended already, or has now
    if (curl_multi_add_handle(multi_, easy) != CURLM_OK) {
      transfer->didEnd(CURLE_OUT_OF_MEMORY);
      continue;
    }
    if (retired_) curl_easy_setopt(easy, CURLOPT_FORBID_REUSE, 1L);
    running_.emplace(easy, std::move(transfer));
  }
  starting_ = false;
  if (isIdle()) idleSince_ = std::chrono::steady_clock::now();
}

std::shared_ptr<HTTPTransfer> HTTPConnectionPool::takeOut(CURL* easy) {
  auto node = running_.extract(easy);
  if (!node) return nullptr;
  curl_multi_remove_handle(multi_, easy);
  return std::move(node.mapped());
}

void HTTPConnectionPool::remove(HTTPTransfer& transfer) {
  // A queued one stays where it is, an empty shell, until its turn comes.
  if (transfer.easy() && takeOut(transfer.easy())) startQueued();
}

void HTTPConnectionPool::collectEnded() {
  int left = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    CURLcode result = message->data.result;  // the message goes with the handle
    if (auto transfer = takeOut(message->easy_handle)) transfer->didEnd(result);
  }
  startQueued();
}

void HTTPConnectionPool::retire() {
  retired_ = true;
  for (const auto& [easy, transfer] : running_) curl_easy_setopt(easy, CURLOPT_FORBID_REUSE, 1L);
}

void HTTPConnectionPool::socketReady(int socket, std::uint32_t epollEvents) {
  int mask = 0;
  if (epollEvents & EPOLLIN) mask |= CURL_CSELECT_IN;
  if (epollEvents & EPOLLOUT) mask |= CURL_CSELECT_OUT;
  if (epollEvents & (EPOLLERR | EPOLLHUP)) mask |= CURL_CSELECT_ERR;
  int running = 0;
  curl_multi_socket_action(multi_, socket, mask, &running);
  collectEnded();
}

void HTTPConnectionPool::timerFired(MonotonicTime now) {
  if (!curlDeadline_ || *curlDeadline_ > now) return;
  curlDeadline_.reset();
  int running = 0;
  curl_multi_socket_action(multi_, CURL_SOCKET_TIMEOUT, 0, &running);
  collectEnded();
}

std::optional<MonotonicTime> HTTPConnectionPool::deadline() const {
  if (!isIdle()) return curlDeadline_;
  MonotonicTime end = retired_ ? MonotonicTime::min() : idleSince_ + kIdleLife;
  return curlDeadline_ ? std::min(*curlDeadline_, end) : end;
}

bool HTTPConnectionPool::isSpent(MonotonicTime now) const {
  return isIdle() && (retired_ || now >= idleSince_ + kIdleLife);
}

int HTTPConnectionPool::socketChanged(CURL* easy, curl_socket_t socket, int what, void* pool, void* known) {
  HTTPTransfer* transfer = nullptr;
  curl_easy_getinfo(easy, CURLINFO_PRIVATE, &transfer);
  if (transfer) transfer->noteSocket(what == CURL_POLL_REMOVE ? -1 : socket);
  static_cast<HTTPConnectionPool*>(pool)->watch(socket, what, known != nullptr);
  return 0;
}

void HTTPConnectionPool::watch(curl_socket_t socket, int what, bool known) {
  epoll_event event = {};
  if (what & CURL_POLL_IN) event.events |= EPOLLIN;
  if (what & CURL_POLL_OUT) event.events |= EPOLLOUT;
  event.data.u64 = (std::uint64_t{identifier_} << 32) | static_cast<std::uint32_t>(socket);
  if (what == CURL_POLL_REMOVE) {
    epoll_ctl(epoll_, EPOLL_CTL_DEL, socket, nullptr);
    return;
  }
  // A number may have been closed and given out again since; either call corrects the other.
  int operation = known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  if (epoll_ctl(epoll_, operation, socket, &event) != 0) {
    if (errno == ENOENT) epoll_ctl(epoll_, EPOLL_CTL_ADD, socket, &event);
    if (errno == EEXIST) epoll_ctl(epoll_, EPOLL_CTL_MOD, socket, &event);
  }
  if (!known) curl_multi_assign(multi_, socket, this);
}

int HTTPConnectionPool::timerChanged(CURLM* /*multi*/, long milliseconds, void* pool) {
  auto& deadline = static_cast<HTTPConnectionPool*>(pool)->curlDeadline_;
  if (milliseconds < 0) {
    deadline.reset();
  } else {
    deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  }
  return 0;
}

}  // namespace florvane
