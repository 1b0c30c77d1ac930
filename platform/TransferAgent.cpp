#include "platform/TransferAgent.h"

#include "platform/BackgroundThread.h"
#include "platform/Crypto.h"
#include "platform/Encoding.h"
#include "platform/Format.h"
#include "platform/HTTPErrors.h"
#include "platform/SystemLog.h"
#include "platform/TransferProtocol.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr int kLogWarning = 4;
constexpr auto kIdleDelay = std::chrono::seconds(10);
constexpr auto kExpiryInterval = std::chrono::seconds(60);
constexpr auto kReattachDelay = std::chrono::seconds(5);
constexpr auto kAcceptPause = std::chrono::milliseconds(100);
constexpr std::size_t kMostPeers = 256;
constexpr std::size_t kMostUnsentProgress = std::size_t{64} * 1024;
// Says that nothing is wrong with the task: it is to be tried again.
constexpr char kAgainDomain[] = "TransferAgainDomain";
enum class Again : std::int64_t { AtOnce, Later };

Error tryAgain(Again when) { return {kAgainDomain, static_cast<std::int64_t>(when)}; }

bool pinOrSystemAccepts(const TransferTask& task, const ServerTrust& trust) {
  if (const auto& pin = task.transfer.pinnedCertificate) {
    return !trust.certificates().empty() && trust.certificates().front() == *pin;
  }
  auto result = trust.evaluate();
  return result && (*result == TrustResult::Proceed || *result == TrustResult::Unspecified);
}

std::string poolName(const TransferTask& task, const TransferPeerPtr& judge) {
  std::string pin = task.transfer.pinnedCertificate
                        ? hexEncode(digest(DigestAlgorithm::SHA256, task.transfer.pinnedCertificate->span()))
                        : "-";
  return format("transfers/%lu/%@", judge ? judge->number : 0, pin);
}

// The lock of an agent that is just ending is waited for: its socket is gone before.
Result<FileLock> acquireAgentLock(const TransferFolder& folder, bool ownsSocket) {
  constexpr int kAttempts = 100;
  constexpr int kPauseMilliseconds = 50;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    auto lock = FileLock::tryAcquire(folder.agentLockPath(), true);
    if (!lock) return Failure(lock.error());
    if (*lock) return std::move(**lock);
    if (ownsSocket && folder.connect()) break;
    poll(nullptr, 0, kPauseMilliseconds);
  }
  return Failure(Error::posix(EBUSY, folder.path()));
}

}  // namespace

Result<std::shared_ptr<TransferAgent>> TransferAgent::start(Options options) {
  auto folder = TransferFolder::open(options.container);
  if (!folder) return Failure(folder.error());
  auto lock = acquireAgentLock(*folder, !options.inheritedSocket);
  if (!lock) return Failure(lock.error());
  auto store = TransferStore::open(*folder, *options.clock);
  if (!store) return Failure(store.error());
  if (auto ended = (*store)->endInterrupted(); !ended) return Failure(ended.error());
  std::shared_ptr<TransferAgent> agent(
      new TransferAgent(std::move(options), std::move(*folder), std::move(*lock), std::move(*store)));
  agent->queue_->sync([&] { agent->begin(); });
  return agent;
}

Result<std::shared_ptr<TransferAgent>> TransferAgent::ofThisProcess(const std::string& container) {
  static auto& mutex = *new std::mutex;
  static auto& agents = *new std::map<std::string, std::shared_ptr<TransferAgent>>;
  std::lock_guard lock(mutex);
  auto found = agents.find(container);
  if (found != agents.end()) return found->second;
  auto agent = start({.container = container, .clock = &Clock::system(), .onIdle = nullptr});
  if (agent) agents.emplace(container, *agent);
  return agent;
}

TransferAgent::TransferAgent(Options options, TransferFolder folder, FileLock lock,
                             std::unique_ptr<TransferStore> store)
    : options_(std::move(options)),
      clock_(*options_.clock),
      folder_(std::move(folder)),
      lock_(std::move(lock)),
      store_(std::move(store)),
      queue_(SerialQueue::create("florvane.transfers", clock_)),
      stopAccepting_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      ownsSocket_(!options_.inheritedSocket) {}

TransferAgent::~TransferAgent() = default;

void TransferAgent::begin() {
  MonotonicTime now = clock_.monotonicNow();
  if (auto waiting = store_->waiting()) {
    for (const auto& [identifier, session, server] : *waiting) schedule_.add(identifier, session, server);
  }
  // Sessions whose agent has died come back by themselves first.
  if (auto sessions = store_->sessionsWithEnded()) {
    for (const auto& session : *sessions) wantRelaunch(session, kReattachDelay);
  }
  nextExpiry_ = now;
  auto inherited = std::exchange(options_.inheritedSocket, std::nullopt);
  auto listener = inherited ? Result<FileDescriptor>(std::move(*inherited)) : folder_.listen();
  if (listener) {
    listener_ = std::move(*listener);
    startBackgroundThread("transfer-accept", [self = shared_from_this()] { self->acceptConnections(); });
  } else {
    SystemLog::shared().write(
        {kLogWarning, format("No other process can reach the transfers of this one: %@", listener.error()), {}});
  }
  tick();
}

void TransferAgent::acceptConnections() {
  for (;;) {
    std::array<pollfd, 2> polled = {pollfd{listener_.get(), POLLIN, 0}, pollfd{stopAccepting_.get(), POLLIN, 0}};
    if (poll(polled.data(), polled.size(), -1) < 0 && errno != EINTR) return;
    if (polled[1].revents) return;
    if (!(polled[0].revents & POLLIN)) continue;
    FileDescriptor socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (socket.valid()) {
      (void)adopt(std::move(socket));
    } else if (errno != EINTR && errno != ECONNABORTED) {
      // No more descriptors, most likely: those in use come back.
      poll(&polled[1], 1, kAcceptPause.count());
    }
  }
}

Result<FileDescriptor> TransferAgent::connect() {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) return Failure(Error::posix(errno));
  FileDescriptor ours(ends[0]), theirs(ends[1]);
  if (auto adopted = adopt(std::move(ours)); !adopted) return Failure(adopted.error());
  return theirs;
}

Result<void> TransferAgent::adopt(FileDescriptor socket) {
  Result<void> result;
  queue_->sync([&] {
    if (stopped_ || peers_.size() >= kMostPeers) {
      result = Failure(Error::posix(EBUSY, folder_.path()));
      return;
    }
    auto peer = std::make_shared<TransferPeer>(nextPeer_++);
    std::weak_ptr<TransferAgent> weak = weak_from_this();
    auto connection = TransferConnection::start(std::move(socket),
                                                {.received =
                                                     [weak, peer](const Dictionary& frame) {
                                                       if (auto self = weak.lock()) self->didReceive(peer, frame);
                                                     },
                                                 .closed =
                                                     [weak, peer] {
                                                       peer->didClose();
                                                       auto self = weak.lock();
                                                       if (self)
                                                         self->queue_->async([self, peer] { self->didClose(peer); });
                                                     }});
    if (!connection) {
      result = Failure(connection.error());
      return;
    }
    peer->connection = *connection;
    peers_.emplace(peer->number, peer);
    idleSince_.reset();
  });
  return result;
}

void TransferAgent::didClose(const TransferPeerPtr& peer) {
  if (peers_.erase(peer->number) == 0 || stopped_) return;
  auto& sessionPeers = attached_[peer->session];
  std::erase(sessionPeers, peer);
  peer->attached = false;
  std::deque<std::uint64_t> untold = std::move(peer->unanswered);
  untold.insert(untold.end(), peer->pending.begin(), peer->pending.end());
  peer->unanswered.clear();
  peer->pending.clear();
  if (!sessionPeers.empty()) {
    TransferPeerPtr next = sessionPeers.front();
    next->pending.insert(next->pending.end(), untold.begin(), untold.end());
    tell(next);
  } else if (!untold.empty()) {
    wantRelaunch(peer->session, Duration::zero());
  }
  tick();
}

void TransferAgent::stop() {
  queue_->sync([this] {
    if (std::exchange(stopped_, true)) return;
    timer_.reset();
    eventfd_write(stopAccepting_.get(), 1);
    // Nobody is served any more: who looks for the agent now starts another, which waits for the lock.
    if (ownsSocket_) folder_.removeSocket();
    for (auto& [identifier, running] : running_) running.attempt->cancel();
    for (auto& [number, peer] : peers_) peer->connection->close();
    attached_.clear();
    auto empty = store_->isEmpty();
    if (empty && *empty) (void)folder_.setMayHaveTasks(false);
    lock_.reset();
  });
}

bool TransferAgent::attemptAcceptsServer(TransferAttempt& attempt, const std::shared_ptr<const ServerTrust>& trust) {
  const TransferTask& task = attempt.task();
  TransferPeerPtr judge;
  {
    std::lock_guard lock(judgesMutex_);
    judge = judges_[task.identifier].peer.lock();
  }
  auto verdict = judge ? judge->ask(task, *trust, task.request.url.effectivePort()) : std::nullopt;
  if (!verdict || *verdict == ChallengeDisposition::PerformDefaultHandling) return pinOrSystemAccepts(task, *trust);
  return *verdict == ChallengeDisposition::UseCredential;
}

std::optional<Error> TransferAgent::attemptWillSend(TransferAttempt& attempt) {
  std::uint64_t identifier = attempt.task().identifier;
  {
    std::lock_guard lock(judgesMutex_);
    if (judges_[identifier].outdated) return tryAgain(Again::AtOnce);
  }
  // Stored before the first byte leaves: an agent that is killed from here on must not send the task again.
  if (attempt.task().state != TransferState::Sending) {
    auto stored = store_->setSending(identifier);
    if (!stored) {
      SystemLog::shared().write(
          {kLogWarning, format("A transfer waits, since it cannot be noted: %@", stored.error()), {}});
      return tryAgain(Again::Later);
    }
    if (!*stored) return makeCancelledError(attempt.task().request.url);
  }
  queue_->async([self = shared_from_this(), identifier] {
    self->schedule_.didReach(identifier);
    self->startNext();
  });
  return std::nullopt;
}

void TransferAgent::attemptDidSend(TransferAttempt& attempt, std::int64_t bytes, std::int64_t total) {
  const TransferTask& task = attempt.task();
  auto found = running_.find(task.identifier);
  TransferPeerPtr peer = ownerOf(task.identifier, task.session);
  if (stopped_ || found == running_.end() || !peer || peer->connection->unsent() > kMostUnsentProgress) return;
  Dictionary frame{{"type", transfer_frame::Progress},
                   {"task", task.identifier},
                   {"bytes", bytes},
                   {"sent", total},
                   {"expected", attempt.bytesExpected()}};
  if (std::exchange(found->second.describedTo, peer->number) != peer->number) {
    frame.set("description", encodeTransferTask(task, false));
  }
  (void)peer->connection->send(frame);
}

void TransferAgent::attemptDidEnd(TransferAttempt& attempt, TransferOutcome outcome) {
  std::uint64_t identifier = attempt.task().identifier;
  const std::string session = attempt.task().session;
  const TransferServer server = TransferServer::of(attempt.task().request.url);
  auto node = running_.extract(identifier);
  {
    std::lock_guard lock(judgesMutex_);
    judges_.erase(identifier);
  }
  if (!node || stopped_) return;
  bool again = outcome.error && outcome.error->domain() == kAgainDomain;
  bool waits = !attempt.mayHaveSent() && outcome.error && (again || meansUnreachable(*outcome.error));
  if (waits && node.mapped().cancelled) {
    waits = false;
    outcome.error = makeCancelledError(attempt.task().request.url);
  }
  if (waits) {
    if (attempt.task().state == TransferState::Sending) (void)store_->setUnsent(identifier);
    schedule_.didFail(identifier, clock_.monotonicNow());
    if (again && outcome.error->code() == static_cast<std::int64_t>(Again::AtOnce)) schedule_.retry(server);
  } else {
    schedule_.didEnd(identifier);
    finish(identifier, session, std::move(outcome));
  }
  tick();
}

// What has ended is stored first, in one transaction with what takes its turn.
void TransferAgent::startNext() {
  if (stopped_ || !ended_.empty()) return;
  const auto tasks = takeNext();
  if (tasks.empty()) return;
  startAttempts(tasks, store_->transaction(TransferStore::Durability::Machine, [&] { return noteSending(tasks); }));
}

std::vector<std::uint64_t> TransferAgent::takeNext() {
  std::vector<std::uint64_t> tasks;
  while (auto task = schedule_.next(clock_.monotonicNow())) tasks.push_back(*task);
  return tasks;
}

// A task for a server that may not answer is noted when its connection is there, so that it stays a waiting one till
// then.
Result<void> TransferAgent::noteSending(const std::vector<std::uint64_t>& tasks) {
  for (std::uint64_t identifier : tasks) {
    if (!schedule_.isReached(identifier)) continue;
    if (auto noted = store_->setSending(identifier); !noted) return Failure(noted.error());
  }
  return {};
}

void TransferAgent::startAttempts(const std::vector<std::uint64_t>& tasks, const Result<void>& noted) {
  for (std::uint64_t identifier : tasks) {
    if (noted) {
      startAttempt(identifier);
    } else {
      schedule_.didFail(identifier, clock_.monotonicNow());
    }
  }
}

void TransferAgent::startAttempt(std::uint64_t identifier) {
  auto task = store_->task(identifier);
  if (!task) {
    schedule_.didFail(identifier, clock_.monotonicNow());
    return;
  }
  if (!*task || ((*task)->state != TransferState::Waiting && (*task)->state != TransferState::Sending)) {
    schedule_.didEnd(identifier);
    return;
  }
  TransferPeerPtr judge = ownerOf(identifier, (*task)->session);
  std::string pool = poolName(**task, judge);
  {
    std::lock_guard lock(judgesMutex_);
    judges_[identifier] = {judge, false};
  }
  auto attempt = std::make_shared<TransferAttempt>(std::move(**task), store_->bodyPath(identifier), weak_from_this());
  running_[identifier].attempt = attempt;
  attempt->start(pool, queue_, clock_);
}

void TransferAgent::cancel(std::uint64_t task) {
  auto found = running_.find(task);
  if (found != running_.end()) {
    // Remembered, since the attempt may have ended by now without the queue having heard of it.
    found->second.cancelled = true;
    found->second.attempt->cancel();
    return;
  }
  auto stored = store_->task(task);
  if (!stored || !*stored || (*stored)->state == TransferState::Ended) return;
  schedule_.remove(task);
  TransferOutcome outcome;
  outcome.error = makeCancelledError((*stored)->request.url);
  finish(task, (*stored)->session, std::move(outcome));
}

void TransferAgent::endExpired() {
  auto expired = store_->expired(clock_.now());
  if (!expired) return;
  for (std::uint64_t identifier : *expired) {
    auto task = store_->task(identifier);
    if (!task || !*task || !schedule_.remove(identifier)) continue;
    TransferOutcome outcome;
    outcome.error =
        makeURLError(URLErrorCannotConnectToHost, (*task)->request.url, "The server could not be reached for a week.");
    finish(identifier, (*task)->session, std::move(outcome));
  }
}

bool TransferAgent::isIdle() const {
  return peers_.empty() && schedule_.isEmpty() && running_.empty() && ended_.empty() && unstored_.empty() &&
         relaunchAt_.empty();
}

void TransferAgent::tick() {
  if (stopped_) return;
  MonotonicTime now = clock_.monotonicNow();
  if (now >= nextExpiry_) {
    nextExpiry_ = now + kExpiryInterval;
    endExpired();
  }
  if (storeAgainAt_ && now >= *storeAgainAt_) storeAgain();
  relaunchDue(now);
  startNext();
  if (!isIdle()) {
    idleSince_.reset();
  } else if (!idleSince_) {
    idleSince_ = now;
  }
  bool over = store_->isLost() || (idleSince_ && now - *idleSince_ >= kIdleDelay);
  if (over && options_.onIdle && !std::exchange(toldIdle_, true)) options_.onIdle();
  armTimer();
}

void TransferAgent::armTimer() {
  std::optional<MonotonicTime> next = schedule_.deadline();
  auto consider = [&next](std::optional<MonotonicTime> time) {
    if (time && (!next || *time < *next)) next = time;
  };
  if (!schedule_.isEmpty()) consider(nextExpiry_);
  for (const auto& [session, time] : relaunchAt_) consider(time);
  consider(storeAgainAt_);
  if (idleSince_ && options_.onIdle && !toldIdle_) consider(*idleSince_ + kIdleDelay);
  timer_.reset();
  if (!next) return;
  timer_ = clock_.schedule(*next, Duration::zero(), [weak = weak_from_this()] {
    auto self = weak.lock();
    if (self) self->queue_->async([self] { self->tick(); });
  });
}

}  // namespace florvane
