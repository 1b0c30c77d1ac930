#include "platform/Format.h"
#include "platform/HTTPErrors.h"
#include "platform/SystemLog.h"
#include "platform/TransferAgent.h"
#include "platform/TransferLauncher.h"
#include "platform/TransferProtocol.h"

#include <utility>

namespace florvane {

namespace {

constexpr int kLogError = 3;
constexpr int kLogNotice = 5;
// Outcomes that a session has been told of and may leave unacknowledged.
constexpr std::size_t kMostUnanswered = 16;
constexpr auto kRelaunchInterval = std::chrono::seconds(60);

}  // namespace

TransferPeerPtr TransferAgent::ownerOf(std::uint64_t task, const std::string& session) const {
  auto maker = makers_.find(task);
  TransferPeerPtr made = maker == makers_.end() ? nullptr : maker->second.lock();
  if (made && made->attached) return made;
  auto found = attached_.find(session);
  return found == attached_.end() || found->second.empty() ? nullptr : found->second.front();
}

void TransferAgent::attach(const TransferPeerPtr& peer, bool relaunched) {
  if (!peers_.contains(peer->number)) return;  // gone again
  auto& sessionPeers = attached_[peer->session];
  peer->attached = true;
  peer->owesFinished = relaunched;
  sessionPeers.push_back(peer);
  relaunchAt_.erase(peer->session);
  // With others attached, what there is to tell is theirs.
  if (sessionPeers.size() == 1) {
    if (auto ended = store_->ended(peer->session)) peer->pending.assign(ended->begin(), ended->end());
    peer->owesFinished = peer->owesFinished || !peer->pending.empty();
  }
  tell(peer);
}

void TransferAgent::finish(std::uint64_t task, const std::string& session, TransferOutcome outcome) {
  ended_.push_back({task, session, std::move(outcome)});
  // After what the queue holds by now, so that what ends together is stored together.
  if (std::exchange(storingQueued_, true)) return;
  queue_->async([self = shared_from_this()] { self->storeEnded(); });
}

void TransferAgent::storeAgain() {
  storeAgainAt_.reset();
  storeEnded();
  if (unstored_.empty()) return;
  std::lock_guard lock(inboxMutex_);
  for (Received& received : std::exchange(unstored_, {})) inbox_.push_back(std::move(received));
  if (std::exchange(inboxQueued_, true)) return;
  queue_->async([self = shared_from_this()] { self->answerReceived(); });
}

void TransferAgent::storeEnded() {
  storingQueued_ = false;
  if (stopped_ || ended_.empty()) return;
  const auto next = takeNext();
  auto stored = store_->transaction(TransferStore::Durability::Machine, [&]() -> Result<void> {
    for (const Ended& ended : ended_) {
      if (auto done = store_->end(ended.task, ended.outcome); !done) return Failure(done.error());
    }
    return noteSending(next);
  });
  startAttempts(next, stored);
  if (!stored) {
    SystemLog::shared().write(
        {kLogError, format("%lu ended transfers cannot be stored yet: %@", ended_.size(), stored.error()), {}});
    storeAgainAt_ = clock_.monotonicNow() + kStoreAgainDelay;
    armTimer();
    return;
  }
  if (unstored_.empty()) storeAgainAt_.reset();
  for (const Ended& ended : std::exchange(ended_, {})) {
    TransferPeerPtr owner = ownerOf(ended.task, ended.session);
    makers_.erase(ended.task);
    if (owner) {
      owner->pending.push_back(ended.task);
      tell(owner);
    } else {
      wantRelaunch(ended.session, Duration::zero());
    }
  }
  tick();
}

void TransferAgent::tell(const TransferPeerPtr& peer) {
  while (peer->unanswered.size() < kMostUnanswered && !peer->pending.empty()) {
    std::uint64_t task = peer->pending.front();
    peer->pending.pop_front();
    if (tellOutcome(*peer, task)) peer->unanswered.push_back(task);
  }
  if (!peer->owesFinished || !peer->unanswered.empty() || !peer->pending.empty()) return;
  peer->owesFinished = false;
  relaunchedAt_.erase(peer->session);
  (void)peer->connection->send({{"type", transfer_frame::Finished}});
}

bool TransferAgent::tellOutcome(TransferPeer& peer, std::uint64_t identifier) {
  auto task = store_->task(identifier);
  auto outcome = store_->outcome(identifier);
  if (!task || !*task || !outcome || !*outcome) return false;
  const TransferOutcome& told = **outcome;
  Dictionary frame{
      {"type", transfer_frame::Outcome}, {"task", identifier}, {"description", encodeTransferTask(**task, false)}};
  if (told.response) frame.set("response", encodeTransferResponse(*told.response));
  if (told.error) frame.set("error", encodeTransferError(*told.error));
  if (told.bodyFile) {
    frame.set("bodyFile", Data::fromString(*told.bodyFile));
  } else if (!told.body.empty()) {
    frame.set("body", told.body);
  }
  auto sent = peer.connection->send(frame);
  if (!sent && sent.error().domain() != POSIXErrorDomain) {
    Error tooLarge = makeURLError(URLErrorCannotParseResponse, (*task)->request.url, "The answer cannot be told.");
    frame.remove("response");
    frame.remove("body");
    frame.set("error", encodeTransferError(tooLarge));
    (void)peer.connection->send(frame);
  }
  return true;  // also to a peer that is gone: its closing gives the outcome to another
}

// At most one start a minute, unless the process that was started has been told everything.
void TransferAgent::wantRelaunch(const std::string& session, Duration delay) {
  MonotonicTime at = clock_.monotonicNow() + delay;
  auto before = relaunchedAt_.find(session);
  if (before != relaunchedAt_.end()) at = std::max(at, before->second + kRelaunchInterval);
  relaunchAt_.try_emplace(session, at);
}

void TransferAgent::relaunchDue(MonotonicTime now) {
  for (auto next = relaunchAt_.begin(); next != relaunchAt_.end();) {
    if (next->second > now) {
      ++next;
      continue;
    }
    std::string session = next->first;
    next = relaunchAt_.erase(next);
    auto attached = attached_.find(session);
    if (attached != attached_.end() && !attached->second.empty()) continue;
    auto command = store_->relaunchCommand(session);
    if (!command || command->empty()) continue;
    relaunchedAt_[session] = now;
    auto started = startDetached(
        *command, {{"FLORVANE_CONTAINER", folder_.container()}, {"FLORVANE_BACKGROUND_SESSION", session}}, false);
    SystemLog::shared().write(started ? SystemLogMessage{kLogNotice,
                                                         format("Started %@ for finished transfers of session %@.",
                                                                command->front(), session),
                                                         {}}
                                      : SystemLogMessage{kLogError,
                                                         format("%@ cannot be started for session %@: %@",
                                                                command->front(), session, started.error()),
                                                         {}});
  }
}

}  // namespace florvane
