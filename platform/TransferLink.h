#pragma once

#include "platform/SerialQueue.h"
#include "platform/TransferConnection.h"

#include <condition_variable>
#include <functional>
#include <map>
#include <vector>

namespace florvane {

// A session's way to the agent: finds it, starts it where it is not running, takes its part inside this process where
// it cannot be started, and comes back to it when it has died. Thread-safe.
class TransferLink : public std::enable_shared_from_this<TransferLink> {
 public:
  struct Options {
    std::string container;     // the process's when empty
    std::string agentProgram;  // as in URLSessionConfiguration
    // What the session says of itself each time, and whether it is to be told things, so that a connection that was
    // lost is made again.
    Dictionary hello;
    bool attaches = false;
  };
  struct Handlers {
    // Frames other than replies, on the connection's thread.
    std::function<void(const Dictionary& frame)> received;
    // Frames that go before the hello of a new connection.
    std::function<std::vector<Dictionary>()> claims;
  };
  // WhenNeeded leaves the agent alone where no task can be: the request then fails with isNothingThere.
  enum class Start { Always, WhenNeeded };

  TransferLink(Options options, Handlers handlers);
  // Connects, so that the session is told what it has missed. Does not wait.
  void open();
  // Sends a request and waits for its reply, through deaths of the agent: requests may be made twice.
  Result<Dictionary> request(const Dictionary& frame, Start start);
  // Sends a frame to the agent if it is connected, without waiting; the handler gets the reply, if one comes.
  void post(Dictionary frame, std::function<void()> replied = nullptr);
  // Runs the item on the link's queue, for what waits for replies.
  void async(WorkItem item) { queue_->async(std::move(item)); }
  // For good.
  void close();

  static bool isNothingThere(const Error& error);

 private:
  struct Pending {
    std::shared_ptr<TransferConnection> connection;
    std::function<void()> replied;
    std::optional<Dictionary> reply;
    bool lost = false;
  };
  Result<std::shared_ptr<TransferConnection>> connected(Start start);
  Result<FileDescriptor> connectSocket(Start start);
  Result<std::shared_ptr<TransferConnection>> begin(FileDescriptor socket);
  void didReceive(const Dictionary& frame);
  void didClose(const std::weak_ptr<TransferConnection>& connection);
  void connectLater();

  const Options options_;
  const Handlers handlers_;
  const std::shared_ptr<SerialQueue> queue_;
  std::mutex connecting_;  // held while a connection is made, by one thread for all

  std::mutex mutex_;  // guards the rest
  std::condition_variable changed_;
  std::shared_ptr<TransferConnection> connection_;
  std::map<std::int64_t, Pending> pending_;
  std::int64_t nextNumber_ = 1;
  Duration delay_{0};
  bool closed_ = false;
};

}  // namespace florvane
