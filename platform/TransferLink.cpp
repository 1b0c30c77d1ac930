#include "platform/TransferLink.h"

#include "platform/BackgroundURLSession.h"
#include "platform/Container.h"
#include "platform/Format.h"
#include "platform/SystemLog.h"
#include "platform/TransferAgent.h"
#include "platform/TransferFolder.h"
#include "platform/TransferLauncher.h"
#include "platform/TransferProtocol.h"

#include <cerrno>
#include <utility>

namespace florvane {

namespace {

constexpr int kLogNotice = 5;
constexpr int kMostAttempts = 5;
constexpr int kMostStarts = 3;
constexpr auto kReplyLimit = std::chrono::seconds(30);
constexpr Duration kFirstDelay = std::chrono::milliseconds(100);
constexpr Duration kLongestDelay = std::chrono::seconds(30);
constexpr char kNothingThereDomain[] = "TransferNothingThereDomain";

struct TransfersHere {
  std::mutex mutex;  // guards the reason
  std::optional<Error> reason;
  static TransfersHere& shared() {
    static auto* instance = new TransfersHere;
    return *instance;
  }
};

void logOnceThatTransfersRunHere(const Error& why) {
  {
    auto& here = TransfersHere::shared();
    std::lock_guard lock(here.mutex);
    if (here.reason) return;
    here.reason = why;
  }
  SystemLog::shared().write(
      {kLogNotice, format("The transfer agent cannot be started (%@). Transfers run in this process.", why), {}});
}

}  // namespace

std::optional<Error> BackgroundURLSession::reasonForTransfersInThisProcess() {
  auto& here = TransfersHere::shared();
  std::lock_guard lock(here.mutex);
  return here.reason;
}

bool TransferLink::isNothingThere(const Error& error) { return error.domain() == kNothingThereDomain; }

TransferLink::TransferLink(Options options, Handlers handlers)
    : options_(std::move(options)),
      handlers_(std::move(handlers)),
      queue_(SerialQueue::create("florvane.transfer-link")) {}

void TransferLink::open() {
  queue_->async([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    auto connection = self->connected(Start::WhenNeeded);
    if (!connection && !isNothingThere(connection.error())) self->connectLater();
  });
}

void TransferLink::connectLater() {
  Duration delay{0};
  {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    delay = delay_;
    delay_ = delay_ == Duration::zero() ? kFirstDelay : std::min(2 * delay_, kLongestDelay);
  }
  queue_->at(Clock::system().monotonicNow() + delay, [weak = weak_from_this()] {
    if (auto self = weak.lock()) self->open();
  });
}

Result<FileDescriptor> TransferLink::connectSocket(Start start) {
  std::string container = options_.container;
  if (container.empty()) {
    auto own = Container::requireDirectory();
    if (!own) return Failure(own.error());
    container = *own;
  }
  auto folder = TransferFolder::open(container);
  if (!folder) return Failure(folder.error());
  if (auto socket = folder->connect()) return socket;
  if (start == Start::WhenNeeded && !folder->mayHaveTasks()) {
    return Failure(Error(kNothingThereDomain, 0, "There is no agent and no task."));
  }
  // Processes that look for the agent at the same time start one.
  auto starting = FileLock::acquire(folder->startLockPath(), true);
  if (!starting) return Failure(starting.error());
  if (auto socket = folder->connect()) return socket;
  auto program = findTransferAgentProgram(options_.agentProgram);
  Result<void> started = Failure(Error::posix(ENOENT, "florvane-transferd"));
  // One that ends before it can be talked to, since somebody kills it, says nothing of the next.
  for (int attempt = 0; program && attempt < kMostStarts; ++attempt) {
    started = startTransferAgent(*program, container);
    if (auto socket = folder->connect()) return socket;
    if (!started && !started.error().is(POSIXErrorDomain, ECHILD)) break;
  }
  auto agent = TransferAgent::ofThisProcess(container);
  if (!agent) return Failure(started ? agent.error() : agent.error().withUnderlyingError(started.error()));
  if (!started) logOnceThatTransfersRunHere(started.error());
  return (*agent)->connect();
}

Result<std::shared_ptr<TransferConnection>> TransferLink::begin(FileDescriptor socket) {
  auto made = std::make_shared<std::weak_ptr<TransferConnection>>();
  std::weak_ptr<TransferLink> weak = weak_from_this();
  // The thread of the connection starts before its address is known here.
  std::lock_guard lock(mutex_);
  auto connection = TransferConnection::start(std::move(socket), {.received =
                                                                      [weak](const Dictionary& frame) {
                                                                        if (auto self = weak.lock()) {
                                                                          self->didReceive(frame);
                                                                        }
                                                                      },
                                                                  .closed =
                                                                      [weak, made] {
                                                                        if (auto self = weak.lock()) {
                                                                          self->didClose(*made);
                                                                        }
                                                                      }});
  if (!connection) return connection;
  *made = *connection;
  connection_ = *connection;
  return connection;
}

Result<std::shared_ptr<TransferConnection>> TransferLink::connected(Start start) {
  std::lock_guard connecting(connecting_);
  {
    std::lock_guard lock(mutex_);
    if (closed_) return Failure(Error::posix(EPIPE));
    if (connection_) return connection_;
  }
  auto socket = connectSocket(start);
  if (!socket) return Failure(socket.error());
  // Before anything else is sent over it: what is asked for next may depend on these.
  auto claims = handlers_.claims();
  auto connection = begin(std::move(*socket));
  if (!connection) return connection;
  Dictionary hello = options_.hello;
  hello.set("type", transfer_frame::Hello);
  hello.set("version", kTransferProtocolVersion);
  hello.set("attach", options_.attaches);
  for (const Dictionary& frame : claims) (void)(*connection)->send(frame);
  (void)(*connection)->send(hello);
  return connection;
}

Result<Dictionary> TransferLink::request(const Dictionary& frame, Start start) {
  Error last = Error::posix(EPIPE);
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    auto connection = connected(start);
    if (!connection) return Failure(connection.error());
    Dictionary numbered = frame;
    std::int64_t number = 0;
    {
      std::lock_guard lock(mutex_);
      number = nextNumber_++;
      bool lost = connection_ != *connection;
      pending_.emplace(number, Pending{*connection, nullptr, std::nullopt, lost});
    }
    numbered.set("number", number);
    auto sent = (*connection)->send(numbered);
    bool peerIsGone = !sent && sent.error().domain() == POSIXErrorDomain;
    std::unique_lock lock(mutex_);
    Pending& pending = pending_[number];
    if (sent) changed_.wait_for(lock, kReplyLimit, [&] { return pending.reply || pending.lost; });
    auto reply = std::move(pending.reply);
    bool lost = pending.lost || peerIsGone;
    pending_.erase(number);
    if (lost && connection_ == *connection) connection_.reset();
    lock.unlock();
    if (reply) {
      auto error = reply->dictionary("error");
      auto decoded = error ? decodeTransferError(*error) : std::nullopt;
      if (decoded) return Failure(*decoded);
      return std::move(*reply);
    }
    if (!sent && !peerIsGone) return Failure(sent.error());
    last = lost ? Error::posix(EPIPE) : Error::posix(ETIMEDOUT);
    if (!lost) (*connection)->close();
  }
  return Failure(last);
}

void TransferLink::post(Dictionary frame, std::function<void()> replied) {
  std::shared_ptr<TransferConnection> connection;
  {
    std::lock_guard lock(mutex_);
    connection = connection_;
    if (!connection) return;
    frame.set("number", nextNumber_);
    if (replied) pending_.emplace(nextNumber_, Pending{connection, std::move(replied), std::nullopt, false});
    ++nextNumber_;
  }
  (void)connection->send(frame);
}

void TransferLink::didReceive(const Dictionary& frame) {
  if (frame.string("type") != transfer_frame::Reply) return handlers_.received(frame);
  std::function<void()> replied;
  {
    std::lock_guard lock(mutex_);
    delay_ = Duration::zero();
    auto found = pending_.find(frame.integer("number").value_or(0));
    if (found == pending_.end()) return;
    if (found->second.replied) {
      replied = std::move(found->second.replied);
      pending_.erase(found);
    } else {
      found->second.reply = frame;
      changed_.notify_all();
    }
  }
  if (replied && !frame.contains("error")) replied();
}

void TransferLink::didClose(const std::weak_ptr<TransferConnection>& connection) {
  {
    std::lock_guard lock(mutex_);
    auto closed = connection.lock();
    if (connection_ == closed) connection_.reset();
    for (auto next = pending_.begin(); next != pending_.end();) {
      Pending& pending = next->second;
      bool forget = pending.connection == closed && pending.replied;
      if (pending.connection == closed) pending.lost = true;
      next = forget ? pending_.erase(next) : std::next(next);
    }
    changed_.notify_all();
    if (closed_) return;
  }
  if (options_.attaches) connectLater();
}

void TransferLink::close() {
  std::lock_guard lock(mutex_);
  closed_ = true;
  if (connection_) connection_->close();
}

}  // namespace florvane
