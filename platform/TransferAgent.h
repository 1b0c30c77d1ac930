#pragma once

#include "platform/TransferAttempt.h"
#include "platform/TransferPeer.h"
#include "platform/TransferSchedule.h"
#include "platform/TransferStore.h"

#include <functional>
#include <map>
#include <set>

namespace florvane {

// The agent of a container: takes upload tasks from sessions, sends them, keeps what came of them until a session has
// been told, and starts a session's program when nobody is there to be told. One a container, by a lock; the program
// florvane-transferd is one, and so is any process where that program is missing. Its work is done on a queue of its
// own, its changes stored before they are answered: all requests that have come by then in one transaction.
class TransferAgent final : public TransferAttemptClient, public std::enable_shared_from_this<TransferAgent> {
 public:
  struct Options {
    std::string container;
    Clock* clock = &Clock::system();
    // Called once when there has been nothing to do for 10 seconds, or the container is gone. Null keeps it waiting.
    std::function<void()> onIdle;
    // Where a service manager listens, which goes on with it at this agent's end. An agent makes its own else.
    std::optional<FileDescriptor> inheritedSocket = {};
  };

  // An error when another agent works on the container (EBUSY in POSIXErrorDomain), or the store cannot be opened.
  static Result<std::shared_ptr<TransferAgent>> start(Options options);
  // The one that works in this process on that container, started when there is none; it ends with the process.
  static Result<std::shared_ptr<TransferAgent>> ofThisProcess(const std::string& container);
  ~TransferAgent() override;

  // The agent's end closes all connections and what is being sent; the store keeps the rest. Idempotent.
  void stop();
  // A connection to this agent that needs no socket in the file system.
  Result<FileDescriptor> connect();

  bool attemptAcceptsServer(TransferAttempt& attempt, const std::shared_ptr<const ServerTrust>& trust) override;
  std::optional<Error> attemptWillSend(TransferAttempt& attempt) override;
  void attemptDidSend(TransferAttempt& attempt, std::int64_t bytes, std::int64_t total) override;
  void attemptDidEnd(TransferAttempt& attempt, TransferOutcome outcome) override;

 private:
  struct Running {
    std::shared_ptr<TransferAttempt> attempt;
    bool cancelled = false;
    std::uint64_t describedTo = 0;  // number of the peer that knows what task this is
  };
  struct Judge {
    std::weak_ptr<TransferPeer> peer;
    bool outdated = false;  // its cookie was replaced
  };
  struct Ended {
    std::uint64_t task = 0;
    std::string session;
    TransferOutcome outcome;
  };
  // When the store took nothing.
  static constexpr auto kStoreAgainDelay = std::chrono::seconds(5);
  struct Received {
    TransferPeerPtr peer;
    Dictionary frame;
  };
  // What a request is answered with, and what follows once its changes are stored.
  struct Answer {
    Dictionary reply;
    std::function<void()> then;
  };

  TransferAgent(Options options, TransferFolder folder, FileLock lock, std::unique_ptr<TransferStore> store);
  void begin();
  void acceptConnections();
  Result<void> adopt(FileDescriptor socket);
  void didClose(const TransferPeerPtr& peer);

  // TransferAgent+Requests.cpp
  void didReceive(const TransferPeerPtr& peer, const Dictionary& frame);
  void answerReceived();
  void handleAgainLater(Received received);
  Result<Answer> handle(const TransferPeerPtr& peer, const Dictionary& frame);
  Result<Answer> hello(const TransferPeerPtr& peer, const Dictionary& frame);
  Result<Answer> create(const TransferPeerPtr& peer, const Dictionary& frame);
  Result<Answer> resume(std::uint64_t task);
  Result<Answer> list(const TransferPeerPtr& peer, const Dictionary& frame);
  Result<Answer> replaceCookie(const Dictionary& frame);
  Answer claim(const TransferPeerPtr& peer, const Dictionary& frame);

  // TransferAgent+Outcomes.cpp
  void attach(const TransferPeerPtr& peer, bool relaunched);
  void finish(std::uint64_t task, const std::string& session, TransferOutcome outcome);
  void storeEnded();
  void storeAgain();
  TransferPeerPtr ownerOf(std::uint64_t task, const std::string& session) const;
  void tell(const TransferPeerPtr& peer);
  bool tellOutcome(TransferPeer& peer, std::uint64_t task);
  void wantRelaunch(const std::string& session, Duration delay);
  void relaunchDue(MonotonicTime now);

  void cancel(std::uint64_t task);
  void startNext();
  std::vector<std::uint64_t> takeNext();
  // What is about to go to a server that answers, in the transaction that is open.
  Result<void> noteSending(const std::vector<std::uint64_t>& tasks);
  void startAttempts(const std::vector<std::uint64_t>& tasks, const Result<void>& noted);
  void startAttempt(std::uint64_t identifier);
  void endExpired();
  void tick();
  void armTimer();
  bool isIdle() const;

  Options options_;
  Clock& clock_;
  const TransferFolder folder_;
  std::optional<FileLock> lock_;
  const std::unique_ptr<TransferStore> store_;
  const std::shared_ptr<SerialQueue> queue_;
  FileDescriptor listener_, stopAccepting_;
  const bool ownsSocket_;

  std::mutex inboxMutex_;  // guards the two below
  std::vector<Received> inbox_;
  bool inboxQueued_ = false;

  std::mutex judgesMutex_;  // guards what the network thread asks
  std::map<std::uint64_t, Judge> judges_;

  // Of the queue.
  bool stopped_ = false;
  bool toldIdle_ = false;
  bool marked_ = false;
  std::uint64_t nextPeer_ = 1;
  std::map<std::uint64_t, TransferPeerPtr> peers_;
  std::map<std::string, std::vector<TransferPeerPtr>> attached_;
  std::unordered_map<std::uint64_t, std::weak_ptr<TransferPeer>> makers_;
  TransferSchedule schedule_;
  std::unordered_map<std::uint64_t, Running> running_;
  std::vector<Ended> ended_;
  std::vector<Received> unstored_;  // asked for and not asked for again, while the store takes nothing
  bool storingQueued_ = false;
  std::map<std::string, MonotonicTime> relaunchAt_, relaunchedAt_;
  MonotonicTime nextExpiry_;
  std::optional<MonotonicTime> idleSince_, storeAgainAt_;
  std::unique_ptr<Timer> timer_;
};

}  // namespace florvane
