#pragma once

#include "platform/TransferTask.h"

#include <deque>
#include <map>
#include <random>
#include <set>
#include <unordered_map>

namespace florvane {

// Decides which waiting task is sent next: at most 8 at a time to a server, the sessions of one taking turns, a
// session's tasks in order. While a server cannot be reached a single task tries it, after 1 s doubling to 60 s with
// jitter, on behalf of all that wait for it. Costs a few bytes a task and nothing that grows with their number.
class TransferSchedule {
 public:
  void add(std::uint64_t task, const std::string& session, const TransferServer& server);
  // A waiting task that is not to be sent any more; false when it is not waiting here.
  bool remove(std::uint64_t task);
  // The next to send, which counts as running from now on.
  std::optional<std::uint64_t> next(MonotonicTime now);
  // A running task's server has taken its connection.
  void didReach(std::uint64_t task);
  // A running task has ended.
  void didEnd(std::uint64_t task);
  // A running task did not reach its server and waits again, before all others of its session.
  void didFail(std::uint64_t task, MonotonicTime now);
  // The server's tasks may be tried at once.
  void retry(const TransferServer& server);
  // Whether the server of a running task has taken a connection since one failed.
  bool isReached(std::uint64_t task) const;
  // When next() has to be asked again though nothing else has happened.
  std::optional<MonotonicTime> deadline() const;

  bool isEmpty() const { return waiting_.empty() && running_.empty(); }
  std::size_t waitingCount() const { return waiting_.size(); }
  bool isRunning(std::uint64_t task) const { return running_.contains(task); }

 private:
  struct Server {
    std::map<std::string, std::deque<std::uint64_t>> sessions;  // of tasks that are still in waiting_, and others
    std::string lastServed;
    std::size_t running = 0;
    bool reached = false;
    std::uint64_t round = 0;  // counts the failures that lengthened the delay
    Duration delay{0};
    MonotonicTime retryAt;
  };
  struct Place {
    Server* server = nullptr;
    const std::string* session = nullptr;
    std::uint64_t round = 0;
  };
  std::optional<std::uint64_t> takeNext(Server& server);
  static bool mayStart(const Server& server, MonotonicTime now);

  std::map<TransferServer, Server> servers_;
  std::set<std::string> sessionNames_;
  std::unordered_map<std::uint64_t, Place> waiting_, running_;
  std::minstd_rand random_{std::random_device()()};
};

}  // namespace florvane
