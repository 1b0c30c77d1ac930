#include "Client/Client/DCBackgroundSessionIdentifier.h"
#include "Client/Client/DCBackgroundSessionManager.h"
#include "Client/Client/DCCachedItemManager.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCUploadManager.h"
#include "platform/Exceptions.h"

#include <set>

namespace florvane {

// The records as they were before the agent was asked: one that another process writes afterwards names a task that
// the answer cannot hold.
struct DCUploadManager::Recovery {
  struct Record {
    std::string path;
    std::optional<DCUploadTask> task;
  };
  std::vector<Record> records;
  std::vector<std::shared_ptr<DCManagedUpload>> cancelled;
  std::size_t sessionsToAsk = 0;
  std::optional<Error> error;
  std::function<void(const std::optional<Error>&)> continuation;
};

void DCUploadManager::recoverTasks(std::function<void(const std::optional<Error>& error)> continuation) {
  DCLogTrace("-[DCUploadManager recoverTasks:]");
  auto recovery = std::make_shared<Recovery>();
  recovery->continuation = std::move(continuation);
  std::set<std::string> sessions{DCBackgroundSessionIdentifier(*service_, DCMainBundleIdentifier())};
  {
    std::lock_guard lock(mutex_);
    for (const auto& upload : database().allUploads()) {
      auto path = upload->path();
      if (!path || settling_.contains(*path)) continue;
      recovery->records.push_back({*path, upload->task()});
      if (auto task = upload->task()) sessions.insert(task->sessionIdentifier);
    }
    recovery->cancelled = database().cancelledUploads();
    for (const auto& upload : recovery->cancelled) {
      if (auto task = upload->task()) sessions.insert(task->sessionIdentifier);
    }
  }
  if (recovery->records.empty() && recovery->cancelled.empty()) {
    // A record is there before its task is.
    queue_->dispatchAsynchronousBlock([recovery] {
      if (recovery->continuation) recovery->continuation(std::nullopt);
    });
    return;
  }
  recovery->sessionsToAsk = sessions.size();
  auto manager = backgroundSessionManager();
  for (const std::string& session : sessions) {
    manager->tasksOfSession(
        session, [weak = weak_from_this(), recovery, session](const Result<std::vector<URLSessionTaskPtr>>& tasks) {
          auto self = weak.lock();
          if (self && tasks) self->recover(*recovery, session, *tasks);
          if (!tasks) recovery->error = tasks.error();
          if (--recovery->sessionsToAsk == 0 && recovery->continuation) recovery->continuation(recovery->error);
        });
  }
}

void DCUploadManager::recover(const Recovery& recovery, const std::string& sessionIdentifier,
                              const std::vector<URLSessionTaskPtr>& tasks) {
  std::unordered_map<std::int64_t, URLSessionTaskPtr> byIdentifier;
  std::unordered_map<std::string, URLSessionTaskPtr> byPath;
  for (const auto& task : tasks) {
    byIdentifier[static_cast<std::int64_t>(task->taskIdentifier())] = task;
    // The latest task of a path is the one that counts.
    if (const auto* transfer = task->backgroundTransfer()) byPath[transfer->path] = task;
  }
  const bool isOwnSession = sessionIdentifier == DCBackgroundSessionIdentifier(*service_, DCMainBundleIdentifier());
  std::lock_guard lock(mutex_);
  for (const auto& upload : recovery.cancelled) {
    if (upload->isDeleted()) continue;
    const auto marked = upload->task();
    if (marked && marked->sessionIdentifier != sessionIdentifier) continue;
    auto task = marked ? byIdentifier.find(marked->taskIdentifier) : byIdentifier.end();
    if (task != byIdentifier.end()) task->second->cancel();
    (void)database().removeCancelledUpload(upload);
  }
  for (const Recovery::Record& record : recovery.records) {
    const bool isOfSession = record.task && record.task->sessionIdentifier == sessionIdentifier;
    if (!isOfSession && (record.task || !isOwnSession)) continue;
    if (settling_.contains(record.path)) continue;
    auto upload = database().uploadForPath(record.path);
    if (!upload || upload->task() != record.task) continue;
    auto file = DCCachedItemManager::fileAtRelativePath(DCRelativePath::relativePathWithString(record.path, service_));
    if (!file) continue;
    const auto transfer = uploadTasks_.find(record.path);
    const bool isInTransfer = transfer != uploadTasks_.end();
    if (isOfSession) {
      auto task = byIdentifier.find(record.task->taskIdentifier);
      const bool isKnown =
          isInTransfer &&
          pathsByTask_.contains(taskKey(static_cast<std::uint64_t>(record.task->taskIdentifier), sessionIdentifier));
      if (task == byIdentifier.end()) {
        forgetTransfer(record.path);
        failLater(file, Error(URLErrorDomain, URLErrorNetworkConnectionLost), record.task);
      } else if (!isKnown) {
        adopt(file, record.path, task->second, sessionIdentifier);
      }
      continue;
    }
    if (isInTransfer) {
      const auto own = static_cast<std::int64_t>(transfer->second.taskIdentifier);
      if (transfer->second.sessionIdentifier != sessionIdentifier || byIdentifier.contains(own)) continue;
      dropTransfer(record.path);
    }
    auto task = byPath.find(record.path);
    if (task == byPath.end() || task->second->state() == URLSessionTaskState::Canceling) continue;
    // Its end was told while the agent was asked, so that nothing more will be heard of it.
    if (backgroundSessionManager()->hasEnded(task->second->taskIdentifier())) continue;
    const auto& generation = task->second->backgroundTransfer()->generationIdentifier;
    if (!generation || generation != file->_localGenerationIdentifier()) continue;
    // Made by a process that was killed before it could say so.
    if (!recordTask(record.path, task->second->taskIdentifier(), *generation)) continue;
    adopt(file, record.path, task->second, sessionIdentifier);
  }
}

void DCUploadManager::dropTransfer(const std::string& path) {
  auto transfer = uploadTasks_.find(path);
  if (transfer == uploadTasks_.end()) return;
  if (transfer->second.isOwn && transfer->second.task) transfer->second.task->cancel();
  forgetTransfer(path);
  callLater(_handlersToCallForItemAtSubpath(path), Error(URLErrorDomain, URLErrorCancelled));
}

void DCUploadManager::adopt(const DCCachedFile::Ptr& file, const std::string& path, const URLSessionTaskPtr& task,
                            const std::string& sessionIdentifier) {
  forgetTransfer(path);
  uploadTasks_[path] = {file, task, task->taskIdentifier(), sessionIdentifier, false};
  pathsByTask_[taskKey(task->taskIdentifier(), sessionIdentifier)] = path;
  ++transfersOfOthers_;
  // A resumption may be lost with the machine's power, and a kill may come before it.
  if (task->state() == URLSessionTaskState::Suspended) task->resume();
}

}  // namespace florvane
