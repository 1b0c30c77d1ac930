#include "Client/Client/DCActivityInfo.h"

#include "platform/Format.h"
#include "platform/Value.h"

namespace florvane {

DCActivityInfo::Ptr DCActivityInfo::activityInfoWithQueue(std::shared_ptr<FVFDispatchQueue> queue) {
  return activityInfoWithQueue(std::move(queue), std::nullopt);
}

DCActivityInfo::Ptr DCActivityInfo::activityInfoWithQueue(std::shared_ptr<FVFDispatchQueue> queue,
                                                          std::optional<Data> sharepointDocumentIdentifier) {
  return std::make_shared<const DCActivityInfo>(std::move(queue), std::move(sharepointDocumentIdentifier));
}

std::string DCActivityInfo::description() const {
  std::string base = FVFActivityInfo::description();
  if (!sharepointDocumentIdentifier_) return base;
  return format("<%@ sharepointDocumentIdentifier=%@>", base, Value(*sharepointDocumentIdentifier_));
}

}  // namespace florvane
