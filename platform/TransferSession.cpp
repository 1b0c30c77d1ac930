#include "platform/TransferSession.h"

#include "platform/Crypto.h"
#include "platform/Exceptions.h"
#include "platform/Format.h"
#include "platform/HTTPErrors.h"
#include "platform/SoftAssertion.h"
#include "platform/SystemLog.h"
#include "platform/TransferProtocol.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr int kLogError = 3;
constexpr std::size_t kTokenBytes = 16;
constexpr std::size_t kClaimedAtOnce = 10'000;
constexpr std::size_t kPieceBytes = std::size_t{64} * 1024;

bool wasStartedFor(const std::string& session) {
  const char* named = std::getenv("FLORVANE_BACKGROUND_SESSION");
  return named && session == named;
}

Dictionary helloOf(const URLSessionConfiguration& configuration) {
  Dictionary hello{{"session", configuration.identifier}, {"relaunched", wasStartedFor(configuration.identifier)}};
  Array words;
  for (const auto& word : configuration.relaunchCommand) words.append(Data::fromString(word));
  if (!words.empty()) hello.set("relaunch", words);
  return hello;
}

Dictionary serviceFrame(const BackgroundTransferService& service) {
  auto url = URL::fromString("https://" + bracketedHost(service.host) + "/");
  std::string host = url ? TransferServer::of(*url).host : service.host;
  return {{"type", transfer_frame::Cookie},
          {"host", host},
          {"port", service.port},
          {"prefix", service.sessionIdentifierPrefix}};
}

}  // namespace

BackgroundURLSessionPtr BackgroundURLSession::create(URLSessionConfiguration configuration,
                                                     std::shared_ptr<URLSessionDelegate> delegate,
                                                     std::shared_ptr<SerialQueue> delegateQueue) {
  if (configuration.identifier.empty()) {
    throw InvalidArgumentException("A background session needs an identifier.");
  }
  if (!delegateQueue) delegateQueue = SerialQueue::create("florvane.background-session");
  auto session =
      std::make_shared<TransferSession>(std::move(configuration), std::move(delegate), std::move(delegateQueue));
  session->open();
  return session;
}

TransferSession::TransferSession(URLSessionConfiguration configuration, std::shared_ptr<URLSessionDelegate> delegate,
                                 std::shared_ptr<SerialQueue> delegateQueue)
    : configuration_(std::move(configuration)),
      delegateQueue_(std::move(delegateQueue)),
      delegate_(std::move(delegate)) {}

TransferSession::~TransferSession() {
  if (link_) link_->close();
}

void TransferSession::open() {
  std::weak_ptr<TransferSession> weak = std::static_pointer_cast<TransferSession>(shared_from_this());
  TransferLink::Options options{configuration_.containerDirectory, configuration_.agentProgram, helloOf(configuration_),
                                delegate_ != nullptr};
  link_ = std::make_shared<TransferLink>(
      std::move(options), TransferLink::Handlers{[weak](const Dictionary& frame) {
                                                   if (auto self = weak.lock()) self->didReceive(frame);
                                                 },
                                                 [weak] {
                                                   auto self = weak.lock();
                                                   return self ? self->claims() : std::vector<Dictionary>();
                                                 }});
  if (delegate_) link_->open();
}

std::shared_ptr<URLSessionDelegate> TransferSession::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_;
}

void TransferSession::tell(UniqueFunction<void(URLSessionDelegate&)> call) {
  delegateQueue_->async([self = shared_from_this(), this, call = std::move(call)]() mutable {
    if (auto told = delegate()) call(*told);
  });
}

URLSessionTaskPtr TransferSession::dataTask(URLRequest) {
  throw InvalidArgumentException("A background session has no data tasks.");
}

URLSessionTaskPtr TransferSession::downloadTask(URLRequest) {
  throw InvalidArgumentException("A background session has no download tasks.");
}

URLSessionTaskPtr TransferSession::uploadTask(URLRequest request, const URL& fromFile) {
  auto task = uploadTask(std::move(request), fromFile, {});
  return task ? *task : nullptr;
}

Result<URLSessionTaskPtr> TransferSession::uploadTask(URLRequest request, const URL& fromFile,
                                                      BackgroundTransfer transfer) {
  request.body.reset();
  auto token = randomBytes(kTokenBytes);
  if (!token) return Failure(token.error());
  TransferTask described(request);
  if (auto cookie = request.headers.value("Cookie")) described.cookie = Secret(*cookie);
  described.request.headers.remove("Cookie");
  described.sourcePath = fromFile.path();
  described.transfer = transfer;
  auto reply = link_->request(
      {{"type", transfer_frame::Create}, {"description", encodeTransferTask(described, true)}, {"token", *token}},
      TransferLink::Start::Always);
  auto identifier = reply ? reply->integer("task") : std::nullopt;
  if (!identifier) {
    Error error = reply ? Error::posix(EPROTO) : reply.error();
    SystemLog::shared().write({kLogError, format("A transfer cannot be stored: %@", error), {}});
    return Failure(error);
  }
  auto self = std::static_pointer_cast<TransferSession>(shared_from_this());
  auto task = std::make_shared<TransferSessionTask>(self, static_cast<std::uint64_t>(*identifier), std::move(request),
                                                    std::move(transfer));
  std::lock_guard lock(mutex_);
  tasks_[task->taskIdentifier()] = {task, invalidated_ || !delegate_ ? nullptr : task};
  return task;
}

// A request that cannot reach the agent is claimed again when the link has.
void TransferSession::resume(std::uint64_t task) {
  auto resumed = link_->request({{"type", transfer_frame::Resume}, {"task", task}}, TransferLink::Start::Always);
  if (resumed) return;
  SystemLog::shared().write({kLogError, format("Transfer %lu cannot be started yet: %@", task, resumed.error()), {}});
}

void TransferSession::cancel(std::uint64_t task) {
  auto cancelled = link_->request({{"type", transfer_frame::Cancel}, {"task", task}}, TransferLink::Start::WhenNeeded);
  if (cancelled || TransferLink::isNothingThere(cancelled.error())) return;
  SystemLog::shared().write(
      {kLogError, format("Transfer %lu cannot be cancelled yet: %@", task, cancelled.error()), {}});
}

std::vector<Dictionary> TransferSession::claims() const {
  std::vector<TaskPtr> made;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [identifier, known] : tasks_) {
      if (known.kept) made.push_back(known.kept);
    }
  }
  std::vector<Dictionary> frames;
  for (std::size_t begin = 0; begin < made.size(); begin += kClaimedAtOnce) {
    Array tasks, resumed, cancelled;
    for (std::size_t i = begin; i < std::min(begin + kClaimedAtOnce, made.size()); ++i) {
      std::uint64_t identifier = made[i]->taskIdentifier();
      tasks.append(identifier);
      if (made[i]->state() == URLSessionTaskState::Running) resumed.append(identifier);
      if (made[i]->state() == URLSessionTaskState::Canceling) cancelled.append(identifier);
    }
    frames.push_back(
        {{"type", transfer_frame::Claim}, {"tasks", tasks}, {"resumed", resumed}, {"cancelled", cancelled}});
  }
  return frames;
}

TransferSession::TaskPtr TransferSession::taskOf(const Dictionary& frame) {
  auto identifier = static_cast<std::uint64_t>(frame.integer("task").value_or(0));
  std::lock_guard lock(mutex_);
  Known& known = tasks_[identifier];
  if (auto task = known.task.lock()) return task;
  auto description = frame.dictionary("description");
  auto described = description ? decodeTransferTask(*description) : std::nullopt;
  if (!described || identifier == 0) {
    tasks_.erase(identifier);
    return nullptr;
  }
  auto self = std::static_pointer_cast<TransferSession>(shared_from_this());
  auto task = std::make_shared<TransferSessionTask>(self, identifier, std::move(described->request),
                                                    std::move(described->transfer));
  known.task = task;
  return task;
}

void TransferSession::didReceive(const Dictionary& frame) {
  auto type = frame.string("type");
  if (type == transfer_frame::Challenge) {
    // The delegate may ask the agent for something, such as to cancel the task, whose answer is read here.
    trustQueue_->async([self = shared_from_this(), this, frame] { judge(frame); });
    return;
  }
  if (type == transfer_frame::Progress) {
    tell([this, frame](URLSessionDelegate& told) { tellProgress(told, frame); });
  } else if (type == transfer_frame::Outcome) {
    tell([this, frame](URLSessionDelegate& told) { tellOutcome(told, frame); });
  } else if (type == transfer_frame::Finished) {
    tell([this](URLSessionDelegate& told) { told.didFinishEventsForBackgroundURLSession(shared_from_this()); });
  }
}

void TransferSession::judge(const Dictionary& frame) {
  std::int64_t disposition = 2;
  auto told = delegate();
  TaskPtr task = taskOf(frame);
  auto host = frame.string("host");
  auto listed = frame.array("certificates");
  if (told && task && host && listed) {
    std::vector<Data> certificates;
    certificates.reserve(listed->size());
    for (const Value& certificate : *listed) certificates.push_back(certificate.asData().value_or(Data()));
    auto trust = std::make_shared<const ServerTrust>(*host, std::move(certificates));
    URLAuthenticationChallenge challenge{AuthenticationMethodServerTrust, *host,
                                         static_cast<std::uint16_t>(frame.integer("port").value_or(0)), trust};
    try {
      told->didReceiveChallenge(
          shared_from_this(), task, challenge, [&](ChallengeDisposition decided, const URLCredential* credential) {
            if (decided == ChallengeDisposition::PerformDefaultHandling) disposition = 1;
            if (decided == ChallengeDisposition::UseCredential && credential && credential->trust == trust) {
              disposition = 0;
            }
          });
    } catch (const std::exception& exception) {
      reportSoftAssertion("platform/TransferSession", __LINE__,
                          format("didReceiveChallenge throws nothing: %s", exception.what()));
    }
  }
  link_->post({{"type", transfer_frame::Verdict},
               {"question", frame.integer("question").value_or(0)},
               {"disposition", disposition}});
}

void TransferSession::tellProgress(URLSessionDelegate& delegate, const Dictionary& frame) {
  TaskPtr task = taskOf(frame);
  if (!task || task->state() == URLSessionTaskState::Completed) return;
  task->noteState(TransferState::Sending);
  delegate.didSendBodyData(shared_from_this(), task, frame.integer("bytes").value_or(0),
                           frame.integer("sent").value_or(0), frame.integer("expected").value_or(-1));
}

std::optional<Error> TransferSession::tellBody(URLSessionDelegate& delegate, const TaskPtr& task,
                                               const Dictionary& frame) {
  if (auto body = frame.data("body")) delegate.didReceiveData(shared_from_this(), task, *body);
  auto path = frame.data("bodyFile");
  if (!path) return std::nullopt;
  auto file = openFile(std::string(path->view()), O_RDONLY | O_NOFOLLOW);
  if (!file) return file.error();
  std::array<std::uint8_t, kPieceBytes> piece;
  for (;;) {
    ssize_t count = read(file->get(), piece.data(), piece.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Error::fileRead(errno, std::string(path->view()));
    if (count == 0) return std::nullopt;
    delegate.didReceiveData(shared_from_this(), task, Data(piece.data(), static_cast<std::size_t>(count)));
  }
}

void TransferSession::tellOutcome(URLSessionDelegate& delegate, const Dictionary& frame) {
  auto identifier = static_cast<std::uint64_t>(frame.integer("task").value_or(0));
  bool again = false;
  {
    std::lock_guard lock(mutex_);
    again = told_.contains(identifier);
  }
  // An agent that died before it had noted the acknowledgement says it again.
  if (!again) {
    TaskPtr task = taskOf(frame);
    if (!task) return;
    auto response = frame.dictionary("response");
    if (response) task->setResponse(decodeTransferResponse(*response));
    auto encoded = frame.dictionary("error");
    auto error = encoded ? decodeTransferError(*encoded) : std::nullopt;
    if (task->response()) {
      delegate.didReceiveResponse(shared_from_this(), task, *task->response());
      auto failure = tellBody(delegate, task, frame);
      if (failure && !error) {
        error = makeURLError(URLErrorCannotParseResponse, task->originalRequest().url,
                             "The answer cannot be read: " + failure->localizedDescription());
      }
    }
    task->complete();
    delegate.didCompleteWithError(shared_from_this(), task, error);
    std::lock_guard lock(mutex_);
    told_.insert(identifier);
    tasks_.erase(identifier);
  }
  link_->post({{"type", transfer_frame::Acknowledge}, {"task", identifier}},
              [weak = weak_from_this(), this, identifier] {
                auto self = weak.lock();
                if (!self) return;
                // Behind what was said again before the acknowledgement came.
                delegateQueue_->async([self, this, identifier] {
                  std::lock_guard lock(mutex_);
                  told_.erase(identifier);
                });
              });
}

Result<std::vector<URLSessionTaskPtr>> TransferSession::allTasks() {
  std::vector<URLSessionTaskPtr> tasks;
  std::uint64_t after = 0;
  for (bool more = true; more;) {
    auto reply = link_->request({{"type", transfer_frame::List}, {"after", after}}, TransferLink::Start::WhenNeeded);
    if (!reply && TransferLink::isNothingThere(reply.error())) return tasks;
    if (!reply) return Failure(reply.error());
    auto listed = reply->array("tasks");
    if (!listed) return Failure(Error::posix(EPROTO));
    more = reply->boolean("more").value_or(false);
    for (const Value& value : *listed) {
      auto entry = value.asDictionary();
      if (!entry) continue;
      after = static_cast<std::uint64_t>(entry->integer("task").value_or(0));
      {
        std::lock_guard lock(mutex_);
        if (told_.contains(after)) continue;
      }
      TaskPtr task = taskOf(*entry);
      if (!task) continue;
      task->noteState(static_cast<TransferState>(entry->integer("state").value_or(0)));
      task->noteProgress(entry->integer("sent").value_or(0), entry->integer("expected").value_or(0));
      tasks.push_back(std::move(task));
    }
    more = more && !listed->empty();
  }
  return tasks;
}

void TransferSession::getAllTasksWithCompletionHandler(
    std::function<void(Result<std::vector<URLSessionTaskPtr>>)> handler) {
  link_->async([self = shared_from_this(), this, handler = std::move(handler)]() mutable {
    delegateQueue_->async([handler = std::move(handler), tasks = allTasks()] { handler(tasks); });
  });
}

void TransferSession::retryWaitingTasks(const std::string& host, std::uint16_t port) {
  link_->async([self = shared_from_this(), this, host, port] {
    Dictionary frame = serviceFrame({host, port, {}});
    frame.set("type", transfer_frame::Retry);
    (void)link_->request(frame, TransferLink::Start::WhenNeeded);
  });
}

Result<void> TransferSession::replaceCookie(const BackgroundTransferService& service, const Secret& cookie,
                                            const std::optional<Data>& pinnedCertificate) {
  Dictionary frame = serviceFrame(service);
  frame.set("cookie", cookie.revealData());
  if (pinnedCertificate) frame.set("pin", *pinnedCertificate);
  auto replaced = link_->request(frame, TransferLink::Start::WhenNeeded);
  if (!replaced && !TransferLink::isNothingThere(replaced.error())) return Failure(replaced.error());
  return {};
}

Result<void> TransferSession::removeCookie(const BackgroundTransferService& service) {
  auto removed = link_->request(serviceFrame(service), TransferLink::Start::WhenNeeded);
  if (!removed && !TransferLink::isNothingThere(removed.error())) return Failure(removed.error());
  return {};
}

void TransferSession::detach() {
  link_->close();
  delegateQueue_->async([self = shared_from_this(), this] {
    auto told = delegate();
    if (told) told->didBecomeInvalidWithError(self, std::nullopt);
    std::unordered_map<std::uint64_t, Known> tasks;
    std::lock_guard lock(mutex_);
    delegate_.reset();
    tasks.swap(tasks_);
  });
}

void TransferSession::invalidateAndCancel() {
  {
    std::lock_guard lock(mutex_);
    if (std::exchange(invalidated_, true)) return;
  }
  link_->async([self = shared_from_this(), this] {
    (void)link_->request({{"type", transfer_frame::CancelAll}}, TransferLink::Start::WhenNeeded);
    detach();
  });
}

void TransferSession::finishTasksAndInvalidate() {
  {
    std::lock_guard lock(mutex_);
    if (std::exchange(invalidated_, true)) return;
  }
  detach();
}

}  // namespace florvane
