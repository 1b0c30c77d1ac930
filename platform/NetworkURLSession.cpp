#include "platform/NetworkURLSession.h"

#include "platform/HTTPNetworkThread.h"
#include "platform/NetworkURLSessionTask.h"

#include <utility>
#include <vector>

namespace florvane {

namespace {

// Sessions without a pool's name have one of their own, which no caller's name can equal.
std::string ownPoolName() {
  static std::atomic<std::uint64_t> next = 1;
  return std::string(1, '\0') + std::to_string(next++);
}

}  // namespace

NetworkURLSession::NetworkURLSession(URLSessionConfiguration configuration,
                                     std::shared_ptr<URLSessionDelegate> delegate,
                                     std::shared_ptr<SerialQueue> delegateQueue)
    : configuration_(std::move(configuration)),
      poolName_(configuration_.connectionPool.empty() ? ownPoolName() : configuration_.connectionPool),
      delegateQueue_(std::move(delegateQueue)),
      delegate_(std::move(delegate)) {}

NetworkURLSession::~NetworkURLSession() { retireOwnConnections(); }

void NetworkURLSession::retireOwnConnections() {
  if (hasConnections_.exchange(false) && configuration_.connectionPool.empty()) {
    HTTPNetworkThread::shared().retire(poolName_);
  }
}

URLSessionTaskPtr NetworkURLSession::makeTask(URLSessionTaskKind kind, URLRequest request,
                                              std::optional<std::string> sourcePath) {
  auto self = std::static_pointer_cast<NetworkURLSession>(shared_from_this());
  return std::make_shared<NetworkURLSessionTask>(std::move(self), nextIdentifier_++, kind, std::move(request),
                                                 std::move(sourcePath));
}

URLSessionTaskPtr NetworkURLSession::dataTask(URLRequest request) {
  return makeTask(URLSessionTaskKind::Data, std::move(request), std::nullopt);
}

URLSessionTaskPtr NetworkURLSession::downloadTask(URLRequest request) {
  return makeTask(URLSessionTaskKind::Download, std::move(request), std::nullopt);
}

URLSessionTaskPtr NetworkURLSession::uploadTask(URLRequest request, const URL& fromFile) {
  return makeTask(URLSessionTaskKind::Upload, std::move(request), fromFile.path());
}

std::shared_ptr<URLSessionDelegate> NetworkURLSession::delegate() const {
  static const auto& nobody = *new std::shared_ptr<URLSessionDelegate>(std::make_shared<URLSessionDelegate>());
  std::lock_guard lock(mutex_);
  return delegate_ ? delegate_ : nobody;
}

void NetworkURLSession::tell(UniqueFunction<void(URLSessionDelegate&, const URLSessionPtr&)> call) {
  delegateQueue_->async(
      [session = shared_from_this(), this, call = std::move(call)]() mutable { call(*delegate(), session); });
}

bool NetworkURLSession::willStart(const std::shared_ptr<NetworkURLSessionTask>& task) {
  std::lock_guard lock(mutex_);
  if (invalidated_) return false;
  hasConnections_ = true;
  running_.emplace(task->taskIdentifier(), task);
  return true;
}

void NetworkURLSession::didEnd(const NetworkURLSessionTask& task) {
  std::shared_ptr<NetworkURLSessionTask> released;
  bool last = false;
  {
    std::lock_guard lock(mutex_);
    auto node = running_.extract(task.taskIdentifier());
    if (node) released = std::move(node.mapped());
    last = node && invalidated_ && running_.empty();
  }
  if (last) tellInvalid();
}

void NetworkURLSession::finishTasksAndInvalidate() {
  {
    std::lock_guard lock(mutex_);
    if (std::exchange(invalidated_, true) || !running_.empty()) return;
  }
  tellInvalid();
}

void NetworkURLSession::invalidateAndCancel() {
  std::vector<std::shared_ptr<NetworkURLSessionTask>> tasks;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [identifier, task] : running_) tasks.push_back(task);
  }
  finishTasksAndInvalidate();
  for (const auto& task : tasks) task->cancel();
}

void NetworkURLSession::tellInvalid() {
  retireOwnConnections();
  tell([this](URLSessionDelegate& delegate, const URLSessionPtr& session) {
    delegate.didBecomeInvalidWithError(session, std::nullopt);
    std::shared_ptr<URLSessionDelegate> released;
    std::lock_guard lock(mutex_);
    released.swap(delegate_);
  });
}

Clock& NetworkURLSession::clock() const { return configuration_.clock ? *configuration_.clock : Clock::system(); }

}  // namespace florvane
