#include "common/FVFQueueManager.h"

namespace florvane {

FVFQueueManager& FVFQueueManager::sharedQueueManager() {
  // Never destroyed: work may still be queued while the process ends.
  static FVFQueueManager& manager = *new FVFQueueManager;
  return manager;
}

std::shared_ptr<FVFDispatchQueue> FVFQueueManager::queueForServiceWithUniqueIdentifier(
    const std::optional<std::string>& uniqueIdentifier) {
  if (!uniqueIdentifier) return nullptr;
  std::lock_guard lock(mutex_);
  auto& queue = serviceQueues_[*uniqueIdentifier];
  if (!queue) queue = FVFDispatchQueue::queueWithLabel(*uniqueIdentifier);
  return queue;
}

}  // namespace florvane
