#include "Client/Client/DCCachedItemManager.h"
#include "Client/Client/DCError.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCUploadManager.h"
#include "platform/Format.h"

#include <utility>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCUploadManager";

}  // namespace

// Only the end of a path's present transfer counts: a cancelled one must not strike its successor.
void DCUploadManager::transferDidEnd(std::uint64_t taskIdentifier, const std::string& sessionIdentifier,
                                     const FVFResponseContainer::Ptr& container, const std::optional<Error>& error) {
  (void)queue_->checkIsCurrent(kSource, __LINE__);
  DCCachedFile::Ptr file;
  std::string path;
  {
    std::lock_guard lock(mutex_);
    auto known = pathsByTask_.find(taskKey(taskIdentifier, sessionIdentifier));
    if (known == pathsByTask_.end()) return;
    path = known->second;
    file = uploadTasks_.at(path).file;
    forgetTransfer(path);
    auto upload = database().uploadForTaskIdentifier(static_cast<std::int64_t>(taskIdentifier), sessionIdentifier);
    if (!upload || upload->cancelled()) {
      callLater(_handlersToCallForItemAtSubpath(path), error.value_or(Error(URLErrorDomain, URLErrorCancelled)));
      return;
    }
  }
  settle({file, DCUploadTask{static_cast<std::int64_t>(taskIdentifier), sessionIdentifier}, container, error}, path);
}

void DCUploadManager::taskDidEnd(const DCCachedFile::Ptr& file, std::uint64_t taskIdentifier,
                                 const std::string& sessionIdentifier, const FVFResponseContainer::Ptr& container,
                                 const std::optional<Error>& error) {
  (void)queue_->checkIsCurrent(kSource, __LINE__);
  std::string path = file->relativePath()->string();
  {
    std::lock_guard lock(mutex_);
    if (auto known = pathsByTask_.find(taskKey(taskIdentifier, sessionIdentifier)); known != pathsByTask_.end()) {
      path = known->second;
    } else if (uploadTasks_.contains(path) || settling_.contains(path)) {
      return;
    }
    auto upload = database().uploadForTaskIdentifier(static_cast<std::int64_t>(taskIdentifier), sessionIdentifier);
    if (!upload || upload->cancelled()) return;
    forgetTransfer(path);
  }
  settle({file, DCUploadTask{static_cast<std::int64_t>(taskIdentifier), sessionIdentifier}, container, error}, path);
}

void DCUploadManager::settle(const End& end, const std::string& path) {
  EndHandler handler;
  {
    std::lock_guard lock(mutex_);
    // Whatever began in the meantime will end by itself.
    if (uploadTasks_.contains(path) || !settling_.insert(path).second) return;
    handler = endHandler_;
    const bool isRefusal = end.error && end.error->is(URLErrorDomain, 401);
    const bool isAnswer =
        !end.error || (end.error->domain() == URLErrorDomain && end.error->code() >= 400 && !isRefusal);
    if (isRefusal) {
      ++refusals_;
    } else if (isAnswer) {
      refusals_ = 0;
      signInBackOff_.reset();
    }
  }
  DCUploadCompletionHandler settled = [self = shared_from_this(), file = end.file, path,
                                       wasSent = end.container != nullptr](const std::optional<Error>& outcome) {
    self->didSettle(file, path, wasSent, outcome);
  };
  if (handler) {
    handler(end, std::move(settled));
  } else {
    settled(end.error);
  }
}

void DCUploadManager::didSettle(const DCCachedFile::Ptr& file, const std::string& path, bool wasSent,
                                const std::optional<Error>& error) {
  std::optional<Repetition> repetition;
  {
    std::lock_guard lock(mutex_);
    settling_.erase(path);
    if (auto found = afterSettling_.find(path); found != afterSettling_.end()) {
      repetition = std::move(found->second);
      afterSettling_.erase(found);
    }
  }
  _finishUploadFile(file, wasSent ? file->parent() : nullptr, error, path);
  if (!repetition) return;
  auto shared = std::make_shared<Repetition>(std::move(*repetition));
  queue_->dispatchAsynchronousBlock([weak = weak_from_this(), shared] {
    auto self = weak.lock();
    const auto upload = self ? self->uploadForItemAtPath(shared->order.file->relativePath()->string()) : nullptr;
    // Without a record it was these very bytes that were sent.
    const bool isDue = upload && !upload->cancelled() && !shared->order.file->hasBeenRemoved();
    for (auto& handler : shared->handlers) {
      if (isDue) {
        self->uploadFile(shared->order.file, shared->order.remoteFileManager, shared->order.activityInfo,
                         std::move(handler));
      } else if (handler) {
        handler(std::nullopt);
      }
    }
  });
}

void DCUploadManager::_finishUploadFile(const DCCachedFile::Ptr& file, const DCCachedDirectory::Ptr& parent,
                                        const std::optional<Error>& error, const std::string& path) {
  DCLogTrace("-[DCUploadManager _finishUploadFile:parent:error:]",
             {{"file", file ? std::optional(file->description()) : std::nullopt},
              {"parent", parent ? std::optional(parent->description()) : std::nullopt},
              {"error", error}});
  DCAssert(file, kSource);
  if (!file) return;
  Handlers handlers;
  std::string described;
  {
    std::lock_guard lock(mutex_);
    described = describedHandlers(path);
    handlers = _handlersToCallForItemAtSubpath(path);
  }
  const bool wasRemoved = file->hasBeenRemoved();
  if (error) {
    DCLogInfo("Failure uploading file at '%@': %@", path, error);
  } else if (wasRemoved) {
    DCLogInfo(parent ? "Done uploading file at '%@', but file was removed"
                     : "Skipped uploading file at '%@', file was removed",
              path);
  } else {
    DCLogInfo(parent ? "Done uploading file at '%@'" : "File '%@' was up-to-date", path);
  }
  DCLogCallback(DCLogLevelDebug, "%s: Calling completion handlers for item '%@': %@",
                "-[DCUploadManager _finishUploadFile:parent:error:]", path, described);
  for (auto& handler : handlers) {
    if (!error && wasRemoved) DCLogInfo("File '%@' has been removed", path);
    if (handler) handler(error);
  }
}

// Another process does not tell what became of its transfers; its records do. While no other has written there is
// nothing to be learned from them: this process's own removals of records say by themselves which ones they are.
void DCUploadManager::checkTransfersOfOthers() {
  struct Ended {
    DCCachedFile::Ptr file;
    std::string path;
    std::optional<Error> error;
  };
  std::vector<Ended> ended;
  {
    std::lock_guard lock(mutex_);
    isCheckQueued_ = false;
    _removePendingCompletionHandlersForCompletedUploads();
    const std::uint64_t changes = database().changesOfOthers();
    if (std::exchange(changesSeen_, changes) == changes) return;
    for (const auto& [path, transfer] : uploadTasks_) {
      if (transfer.isOwn) continue;
      auto upload = database().uploadForPath(path);
      if (upload && upload->taskIdentifier() == static_cast<std::int64_t>(transfer.taskIdentifier)) continue;
      std::optional<Error> error;
      if (upload) {
        error = Error(URLErrorDomain, URLErrorNetworkConnectionLost, upload->error().value_or(""));
      } else if (transfer.file->isUnsent()) {
        error = Error(URLErrorDomain, URLErrorCancelled);
      }
      ended.push_back({transfer.file, path, error});
    }
    for (const Ended& each : ended) forgetTransfer(each.path);
  }
  for (const Ended& each : ended) _finishUploadFile(each.file, each.file->parent(), each.error, each.path);
}

}  // namespace florvane
