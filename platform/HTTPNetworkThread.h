#pragma once

#include "platform/UniqueFunction.h"

#include <compare>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace florvane {

class HTTPConnectionPool;

// Which connections may serve a request: same server, same name of trust, same kind.
struct HTTPConnectionPoolKey {
  std::string scheme, host;
  std::uint16_t port = 0;
  std::string name;
  bool longPoll = false;
  friend auto operator<=>(const HTTPConnectionPoolKey&, const HTTPConnectionPoolKey&) = default;
};

// The one thread of a process on which every HTTP transfer runs: an epoll loop over the connection pools' sockets and
// timers, and work items from other threads. Stopped and joined as the process exits; what ran by then is neither
// finished nor told of.
class HTTPNetworkThread {
 public:
  static HTTPNetworkThread& shared();

  // Runs the item on the thread, in order of submission, never in place. Thread-safe.
  void async(WorkItem item);
  // After the requests submitted by now, no new one uses the pools of that name. Thread-safe.
  void retire(const std::string& poolName);

  // On the thread only.
  std::shared_ptr<HTTPConnectionPool> pool(const HTTPConnectionPoolKey& key);
  bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

 private:
  HTTPNetworkThread();
  void run();
  void runItems();
  void dispatch(std::uint64_t event, std::uint32_t events);
  // Milliseconds until a pool wants to be called; -1 for never.
  int nextTimeout() const;
  void serveTimers();
  void stop();

  int epoll_ = -1;
  int wakeup_ = -1;
  std::thread thread_;
  std::mutex mutex_;  // guards the two below
  std::vector<WorkItem> items_;
  bool stopping_ = false;

  // Of the thread only.
  std::uint32_t nextPool_ = 1;
  std::map<HTTPConnectionPoolKey, std::uint32_t> current_;
  std::map<std::uint32_t, std::shared_ptr<HTTPConnectionPool>> pools_;
};

}  // namespace florvane
