#pragma once

#include "common/FVFDispatchQueue.h"

#include <memory>
#include <string>

namespace florvane {

// Where the callbacks of a server request go on. Immutable; derived classes add what the request is about.
class FVFActivityInfo {
 public:
  explicit FVFActivityInfo(std::shared_ptr<FVFDispatchQueue> queue);
  virtual ~FVFActivityInfo() = default;
  FVFActivityInfo(const FVFActivityInfo&) = delete;
  FVFActivityInfo& operator=(const FVFActivityInfo&) = delete;

  const std::shared_ptr<FVFDispatchQueue>& queue() const { return queue_; }
  virtual std::string description() const;

 protected:
  // The name in descriptions.
  virtual std::string className() const { return "FVFActivityInfo"; }

 private:
  std::shared_ptr<FVFDispatchQueue> queue_;
};

}  // namespace florvane
