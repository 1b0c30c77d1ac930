#include "platform/HTTPNetworkThread.h"

#include "platform/BackgroundThread.h"
#include "platform/HTTPConnectionPool.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>

#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr std::uint64_t kWakeupEvent = 0;
constexpr int kMostEventsAtOnce = 64;

int checked(int descriptor, const char* what) {
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), what);
  return descriptor;
}

}  // namespace

HTTPNetworkThread& HTTPNetworkThread::shared() {
  // Never destroyed, only stopped: sessions may go after static objects have.
  static HTTPNetworkThread& thread = *new HTTPNetworkThread;
  return thread;
}

HTTPNetworkThread::HTTPNetworkThread() {
  // OpenSSL tidies up at exit; it is set up before our own handler is registered so that it does so after us.
  curl_global_init(CURL_GLOBAL_DEFAULT);
  epoll_ = checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
  wakeup_ = checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd");
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.u64 = kWakeupEvent;
  checked(epoll_ctl(epoll_, EPOLL_CTL_ADD, wakeup_, &event), "epoll_ctl");

  // Signals are the application's; and a write to a connection that is gone must not end the process.
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  thread_ = std::thread([this] { run(); });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_setname_np(thread_.native_handle(), "florvane.http");
  std::atexit([] { shared().stop(); });
}

void HTTPNetworkThread::stop() {
  if (isCurrent()) {  // exit() called on the thread itself: it runs nothing else any more
    thread_.detach();
    return;
  }
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  eventfd_write(wakeup_, 1);
  thread_.join();
}

void HTTPNetworkThread::async(WorkItem item) {
  bool wake = false;
  {
    std::lock_guard lock(mutex_);
    wake = items_.empty();
    items_.push_back(std::move(item));
  }
  if (wake) eventfd_write(wakeup_, 1);
}

void HTTPNetworkThread::retire(const std::string& poolName) {
  async([this, poolName] {
    std::erase_if(current_, [&](const auto& entry) {
      if (entry.first.name != poolName) return false;
      auto pool = pools_.find(entry.second);
      pool->second->retire();
      if (pool->second->isIdle()) pools_.erase(pool);
      return true;
    });
  });
}

std::shared_ptr<HTTPConnectionPool> HTTPNetworkThread::pool(const HTTPConnectionPoolKey& key) {
  auto [place, isNew] = current_.try_emplace(key, nextPool_);
  if (isNew) {
    pools_.emplace(nextPool_, std::make_shared<HTTPConnectionPool>(epoll_, nextPool_, key.longPoll));
    ++nextPool_;
  }
  return pools_.at(place->second);
}

void HTTPNetworkThread::run() {
  std::array<epoll_event, kMostEventsAtOnce> events;
  for (;;) {
    int count = epoll_wait(epoll_, events.data(), kMostEventsAtOnce, nextTimeout());
    for (int i = 0; i < count; ++i) {
      const auto& event = events[static_cast<std::size_t>(i)];
      dispatch(event.data.u64, event.events);
    }
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
    }
    runItems();
    serveTimers();
  }
}

void HTTPNetworkThread::dispatch(std::uint64_t event, std::uint32_t events) {
  if (event == kWakeupEvent) {
    eventfd_t ignored = 0;
    eventfd_read(wakeup_, &ignored);
    return;
  }
  auto place = pools_.find(static_cast<std::uint32_t>(event >> 32));
  if (place == pools_.end()) return;
  auto pool = place->second;
  pool->socketReady(static_cast<int>(event & 0xFFFFFFFF), events);
}

void HTTPNetworkThread::runItems() {
  std::vector<WorkItem> items;
  {
    std::lock_guard lock(mutex_);
    items.swap(items_);
  }
  for (auto& item : items) {
    runGuarded(item, "florvane.http");
    item = nullptr;
  }
}

int HTTPNetworkThread::nextTimeout() const {
  std::optional<MonotonicTime> first;
  for (const auto& [identifier, pool] : pools_) {
    auto deadline = pool->deadline();
    if (deadline && (!first || *deadline < *first)) first = deadline;
  }
  if (!first) return -1;
  auto left = std::chrono::ceil<std::chrono::milliseconds>(*first - std::chrono::steady_clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, 1'000'000));
}

void HTTPNetworkThread::serveTimers() {
  MonotonicTime now = std::chrono::steady_clock::now();
  std::vector<std::shared_ptr<HTTPConnectionPool>> due;
  for (const auto& [identifier, pool] : pools_) {
    auto deadline = pool->deadline();
    if (deadline && *deadline <= now) due.push_back(pool);
  }
  for (const auto& pool : due) pool->timerFired(now);
  std::erase_if(pools_, [&](const auto& entry) {
    if (!entry.second->isSpent(now)) return false;
    std::erase_if(current_, [&](const auto& named) { return named.second == entry.first; });
    return true;
  });
}

}  // namespace florvane
