#pragma once

#include "common/FVFDispatchQueue.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace florvane {

// Hands out the one work queue of each service, so that all work on a service's state is serialised whoever asks.
// Queues are kept for the life of the process. Thread-safe.
class FVFQueueManager {
 public:
  static FVFQueueManager& sharedQueueManager();

  // The service's queue, labelled with the identifier and made on first request; null when there is no identifier.
  std::shared_ptr<FVFDispatchQueue> queueForServiceWithUniqueIdentifier(
      const std::optional<std::string>& uniqueIdentifier);

 private:
  std::mutex mutex_;  // guards serviceQueues_
  std::unordered_map<std::string, std::shared_ptr<FVFDispatchQueue>> serviceQueues_;
};

}  // namespace florvane
