#pragma once

#include "platform/TransferConnection.h"
#include "platform/TransferTask.h"

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>

namespace florvane {

// A session that is connected to the agent, as the agent sees it. The members without a word belong to the agent's
// queue.
class TransferPeer {
 public:
  explicit TransferPeer(std::uint64_t peerNumber) : number(peerNumber) {}

  // Asks the session's delegate for its judgement and waits up to 5 seconds; absent when there is no answer, and at
  // once for a session that left the last question open and has said nothing since. On the network thread.
  std::optional<ChallengeDisposition> ask(const TransferTask& task, const ServerTrust& trust, std::uint16_t port);
  // What the session answers. On the connection's thread.
  void takeVerdict(const Dictionary& frame);
  void noteFrame();
  void didClose();

  const std::uint64_t number;
  std::shared_ptr<TransferConnection> connection;  // set before the first call
  std::string session;
  bool attached = false;
  std::deque<std::uint64_t> pending;     // ended tasks to tell of
  std::deque<std::uint64_t> unanswered;  // told of, not acknowledged
  bool owesFinished = false;

 private:
  std::mutex mutex_;  // guards the rest
  std::condition_variable changed_;
  std::map<std::int64_t, std::optional<ChallengeDisposition>> questions_;
  std::int64_t nextQuestion_ = 1;
  bool silent_ = false;
  bool closed_ = false;
};

using TransferPeerPtr = std::shared_ptr<TransferPeer>;

}  // namespace florvane
