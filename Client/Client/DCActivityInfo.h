#pragma once

#include "common/FVFActivityInfo.h"
#include "platform/Data.h"

#include <memory>
#include <optional>
#include <string>

namespace florvane {

// For one server request: the queue on which its work continues, and the share point that it concerns. Immutable,
// thread-safe.
class DCActivityInfo : public FVFActivityInfo {
 public:
  using Ptr = std::shared_ptr<const DCActivityInfo>;

  DCActivityInfo(std::shared_ptr<FVFDispatchQueue> queue, std::optional<Data> sharepointDocumentIdentifier)
      : FVFActivityInfo(std::move(queue)), sharepointDocumentIdentifier_(std::move(sharepointDocumentIdentifier)) {}
  // Without a share point's identifier: for the virtual root.
  static Ptr activityInfoWithQueue(std::shared_ptr<FVFDispatchQueue> queue);
  static Ptr activityInfoWithQueue(std::shared_ptr<FVFDispatchQueue> queue,
                                   std::optional<Data> sharepointDocumentIdentifier);

  const std::optional<Data>& sharepointDocumentIdentifier() const { return sharepointDocumentIdentifier_; }
  std::string description() const override;

 protected:
  std::string className() const override { return "DCActivityInfo"; }

 private:
  std::optional<Data> sharepointDocumentIdentifier_;
};

}  // namespace florvane
