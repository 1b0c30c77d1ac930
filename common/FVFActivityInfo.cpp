#include "common/FVFActivityInfo.h"

#include "platform/Format.h"

#include <utility>

namespace florvane {

FVFActivityInfo::FVFActivityInfo(std::shared_ptr<FVFDispatchQueue> queue) : queue_(std::move(queue)) {}

// Logs are searched for this text: the bracket has always been left open.
std::string FVFActivityInfo::description() const {
  return format("<%@ queue='%@'", baseDescription(className(), this), queue_);
}

}  // namespace florvane
