#include "platform/Format.h"
#include "platform/SystemLog.h"
#include "platform/TransferAgent.h"
#include "platform/TransferProtocol.h"

#include <algorithm>
#include <cerrno>

namespace florvane {

namespace {

constexpr int kLogWarning = 4;
constexpr auto kLongestWait = std::chrono::hours(24 * 7);
// Of tasks in one answer, estimated: half of what a frame may hold.
constexpr std::size_t kMostListedBytes = kMostTransferFrameBytes / 2;
constexpr std::size_t kMostListedTasks = 500;
constexpr std::size_t kTaskOverhead = 512;

Error misunderstood() { return Error::posix(EPROTO); }

std::size_t estimatedSize(const TransferTask& task) {
  std::size_t size =
      kTaskOverhead + task.sourcePath.size() + task.transfer.path.size() + task.request.url.absoluteString().size();
  for (const auto& [name, value] : task.request.headers.fields()) size += name.size() + value.size() + 16;
  if (task.transfer.generationIdentifier) size += task.transfer.generationIdentifier->size();
  if (task.transfer.pinnedCertificate) size += task.transfer.pinnedCertificate->size();
  return size;
}

// Whether the request is in vain when the changes of its time could not be stored.
bool changesStore(const std::optional<std::string>& type) {
  return type == transfer_frame::Create || type == transfer_frame::Cookie || type == transfer_frame::Claim ||
         type == transfer_frame::Resume || type == transfer_frame::Acknowledge;
}

// Sessions take these for done, and a task that is never resumed would wait for ever.
bool isAskedForOnce(const std::optional<std::string>& type) {
  return type == transfer_frame::Claim || type == transfer_frame::Resume || type == transfer_frame::Acknowledge;
}

std::optional<std::uint64_t> taskOf(const Dictionary& frame) {
  auto task = frame.integer("task");
  if (!task) return std::nullopt;
  return static_cast<std::uint64_t>(*task);
}

std::optional<TransferServer> serverOf(const Dictionary& frame) {
  auto host = frame.string("host");
  auto port = frame.integer("port");
  if (!host || !port) return std::nullopt;
  return TransferServer{*host, static_cast<std::uint16_t>(*port)};
}

std::vector<std::uint64_t> numbersOf(const Dictionary& frame, std::string_view key) {
  std::vector<std::uint64_t> numbers;
  auto values = frame.array(key);
  if (!values) return numbers;
  numbers.reserve(values->size());
  for (const Value& value : *values) numbers.push_back(static_cast<std::uint64_t>(value.asInteger().value_or(0)));
  return numbers;
}

}  // namespace

void TransferAgent::didReceive(const TransferPeerPtr& peer, const Dictionary& frame) {
  peer->noteFrame();
  // The network thread waits for it, perhaps holding up the queue.
  if (frame.string("type") == transfer_frame::Verdict) return peer->takeVerdict(frame);
  std::lock_guard lock(inboxMutex_);
  inbox_.push_back({peer, frame});
  if (std::exchange(inboxQueued_, true)) return;
  queue_->async([self = shared_from_this()] { self->answerReceived(); });
}

// All that has come by now, in one transaction: many requests at once wait for the disk once.
void TransferAgent::answerReceived() {
  std::vector<Received> received;
  {
    std::lock_guard lock(inboxMutex_);
    received.swap(inbox_);
    inboxQueued_ = false;
  }
  if (stopped_) return;
  bool lasting = std::any_of(received.begin(), received.end(), [](const Received& request) {
    auto type = request.frame.string("type");
    // Not resuming: what it loses with the machine is a task that is found suspended again.
    return type == transfer_frame::Create || type == transfer_frame::Cookie;
  });
  std::vector<Result<Answer>> answers;
  answers.reserve(received.size());
  auto durability = lasting ? TransferStore::Durability::Machine : TransferStore::Durability::Process;
  auto stored = store_->transaction(durability, [&]() -> Result<void> {
    for (const auto& [peer, frame] : received) answers.push_back(handle(peer, frame));
    return {};
  });
  for (std::size_t i = 0; i < received.size(); ++i) {
    const TransferPeerPtr& peer = received[i].peer;
    const auto type = received[i].frame.string("type");
    // None has been handled when nothing could be begun.
    const bool isAnswered = i < answers.size() && (stored || !changesStore(type));
    Result<Answer> answer = isAnswered ? std::move(answers[i]) : Result<Answer>(Failure(stored.error()));
    if (!answer && isAskedForOnce(type) && !answer.error().is(POSIXErrorDomain, EPROTO)) {
      handleAgainLater(received[i]);
      // Its reply says that it is done.
      if (type == transfer_frame::Acknowledge) continue;
    }
    Dictionary reply = answer ? answer->reply : Dictionary{{"error", encodeTransferError(answer.error())}};
    reply.set("type", transfer_frame::Reply);
    reply.set("number", received[i].frame.integer("number").value_or(0));
    (void)peer->connection->send(reply);
    if (answer && answer->then) answer->then();
    // Whoever speaks another language is not to be listened to.
    if (!answer && answer.error().is(POSIXErrorDomain, EPROTO)) peer->connection->close();
  }
  tick();
}

void TransferAgent::handleAgainLater(Received received) {
  unstored_.push_back(std::move(received));
  if (!storeAgainAt_) storeAgainAt_ = clock_.monotonicNow() + kStoreAgainDelay;
}

Result<TransferAgent::Answer> TransferAgent::handle(const TransferPeerPtr& peer, const Dictionary& frame) {
  auto type = frame.string("type");
  auto task = taskOf(frame);
  if (!type) return Failure(misunderstood());
  if (*type == transfer_frame::Hello) return hello(peer, frame);
  if (*type == transfer_frame::Claim) return claim(peer, frame);
  if (*type == transfer_frame::Cookie) return replaceCookie(frame);
  if (peer->session.empty()) return Failure(misunderstood());
  if (*type == transfer_frame::Create) return create(peer, frame);
  if (*type == transfer_frame::List) return list(peer, frame);
  if (*type == transfer_frame::CancelAll) {
    auto tasks = store_->identifiers(peer->session);
    if (!tasks) return Failure(tasks.error());
    return Answer{{}, [this, tasks = *tasks] {
                    for (std::uint64_t identifier : tasks) cancel(identifier);
                  }};
  }
  if (*type == transfer_frame::Retry) {
    auto server = serverOf(frame);
    if (!server) return Failure(misunderstood());
    return Answer{{}, [this, server = *server] { schedule_.retry(server); }};
  }
  if (!task) return Failure(misunderstood());
  if (*type == transfer_frame::Resume) return resume(*task);
  if (*type == transfer_frame::Cancel) return Answer{{}, [this, task = *task] { cancel(task); }};
  if (*type == transfer_frame::Acknowledge) {
    if (auto removed = store_->remove(*task); !removed) return Failure(removed.error());
    return Answer{{}, [this, peer, task = *task] {
                    std::erase(peer->unanswered, task);
                    tell(peer);
                  }};
  }
  return Failure(misunderstood());
}

Result<TransferAgent::Answer> TransferAgent::hello(const TransferPeerPtr& peer, const Dictionary& frame) {
  auto session = frame.string("session");
  if (frame.integer("version") != kTransferProtocolVersion || !session || session->empty() || !peer->session.empty()) {
    return Failure(misunderstood());
  }
  peer->session = *session;
  if (auto words = frame.array("relaunch"); words && !words->empty()) {
    std::vector<std::string> command;
    command.reserve(words->size());
    for (const Value& word : *words) command.emplace_back(word.dataBytes());
    auto known = store_->relaunchCommand(*session);
    if (!known || *known != command) {
      // The session is to be told of its transfers all the same.
      if (auto stored = store_->setRelaunchCommand(*session, command); !stored) {
        SystemLog::shared().write(
            {kLogWarning, format("What to start for session %@ cannot be noted: %@", *session, stored.error()), {}});
      }
    }
  }
  if (!frame.boolean("attach").value_or(false)) return Answer{};
  bool relaunched = frame.boolean("relaunched").value_or(false);
  return Answer{{}, [this, peer, relaunched] { attach(peer, relaunched); }};
}

// What a session made before its agent died is still its own.
TransferAgent::Answer TransferAgent::claim(const TransferPeerPtr& peer, const Dictionary& frame) {
  for (std::uint64_t task : numbersOf(frame, "tasks")) {
    auto state = store_->state(task);
    if (state && *state && *state != TransferState::Ended) makers_[task] = peer;
  }
  std::vector<std::function<void()>> effects;
  for (std::uint64_t task : numbersOf(frame, "resumed")) {
    auto resumed = resume(task);
    if (resumed && resumed->then) effects.push_back(std::move(resumed->then));
    if (!resumed) handleAgainLater({peer, {{"type", transfer_frame::Resume}, {"task", task}}});
  }
  for (std::uint64_t task : numbersOf(frame, "cancelled")) {
    effects.emplace_back([this, task] { cancel(task); });
  }
  return {{}, [effects = std::move(effects)] {
            for (const auto& effect : effects) effect();
          }};
}

Result<TransferAgent::Answer> TransferAgent::create(const TransferPeerPtr& peer, const Dictionary& frame) {
  auto description = frame.dictionary("description");
  auto task = description ? decodeTransferTask(*description) : std::nullopt;
  auto token = frame.data("token");
  if (!task || !token) return Failure(misunderstood());
  task->session = peer->session;
  if (!marked_) {
    if (auto marked = folder_.setMayHaveTasks(true); !marked) return Failure(marked.error());
    marked_ = true;
  }
  auto identifier = store_->create(*task, *token);
  if (!identifier) return Failure(identifier.error());
  return Answer{{{"task", *identifier}}, [this, peer, task = *identifier] { makers_[task] = peer; }};
}

Result<TransferAgent::Answer> TransferAgent::resume(std::uint64_t identifier) {
  auto resumed = store_->setWaiting(identifier, clock_.now() + kLongestWait);
  if (!resumed) return Failure(resumed.error());
  if (!*resumed) return Answer{};
  auto task = store_->task(identifier);
  if (!task) return Failure(task.error());
  if (!*task) return Answer{};
  return Answer{{}, [this, identifier, session = (*task)->session, server = TransferServer::of((*task)->request.url)] {
                  schedule_.add(identifier, session, server);
                }};
}

Result<TransferAgent::Answer> TransferAgent::list(const TransferPeerPtr& peer, const Dictionary& frame) {
  auto after = static_cast<std::uint64_t>(frame.integer("after").value_or(0));
  auto tasks = store_->tasks(peer->session, after, kMostListedTasks);
  if (!tasks) return Failure(tasks.error());
  Array listed;
  std::size_t size = 0;
  bool more = tasks->size() == kMostListedTasks;
  for (const TransferTask& task : *tasks) {
    size += estimatedSize(task);
    if (!listed.empty() && size > kMostListedBytes) {
      more = true;
      break;
    }
    Dictionary entry{{"task", task.identifier},
                     {"state", static_cast<std::int64_t>(task.state)},
                     {"description", encodeTransferTask(task, false)}};
    if (auto running = running_.find(task.identifier); running != running_.end()) {
      entry.set("sent", running->second.attempt->bytesSent());
      entry.set("expected", running->second.attempt->bytesExpected());
    }
    listed.append(entry);
  }
  return Answer{{{"tasks", listed}, {"more", more}}, nullptr};
}

Result<TransferAgent::Answer> TransferAgent::replaceCookie(const Dictionary& frame) {
  auto server = serverOf(frame);
  auto prefix = frame.string("prefix");
  if (!server || !prefix) return Failure(misunderstood());
  std::optional<Secret> cookie;
  if (auto bytes = frame.data("cookie")) cookie = Secret(bytes->view());
  auto replaced = store_->replaceCookie(*server, *prefix, cookie, frame.data("pin"));
  if (!replaced) return Failure(replaced.error());
  return Answer{{}, [this, server = *server, prefix = *prefix] {
                  std::lock_guard lock(judgesMutex_);
                  for (const auto& [identifier, running] : running_) {
                    const TransferTask& task = running.attempt->task();
                    if (TransferServer::of(task.request.url) == server && task.session.starts_with(prefix)) {
                      judges_[identifier].outdated = true;
                    }
                  }
                }};
}

}  // namespace florvane
