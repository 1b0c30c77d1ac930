#include "Client/Client/DCActivityInfo.h"

#include "Client/Client/DCLog.h"
#include "platform/Format.h"
#include "platform/Value.h"

namespace florvane {

DCActivityInfo::Ptr DCActivityInfo::activityInfoWithQueue(std::shared_ptr<FVFDispatchQueue> queue) {
  DCLogTrace("+[DCActivityInfo activityInfoWithQueue:]", {{"queue", queue}});
  return std::make_shared<const DCActivityInfo>(std::move(queue), std::nullopt);
}

DCActivityInfo::Ptr DCActivityInfo::activityInfoWithQueue(std::shared_ptr<FVFDispatchQueue> queue,
                                                          std::optional<Data> sharepointDocumentIdentifier) {
  DCLogTrace("+[DCActivityInfo activityInfoWithQueue:sharepointDocumentIdentifier:]",
             {{"queue", queue}, {"sharepointDocumentIdentifier", sharepointDocumentIdentifier}});
  return std::make_shared<const DCActivityInfo>(std::move(queue), std::move(sharepointDocumentIdentifier));
}

std::string DCActivityInfo::description() const {
  std::string base = FVFActivityInfo::description();
  if (!sharepointDocumentIdentifier_) return base;
  return format("<%@ sharepointDocumentIdentifier=%@>", base, Value(*sharepointDocumentIdentifier_));
}

}  // namespace florvane
