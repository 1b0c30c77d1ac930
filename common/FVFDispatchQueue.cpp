#include "common/FVFDispatchQueue.h"

#include "platform/Format.h"
#include "platform/SoftAssertion.h"

#include <utility>

namespace florvane {

std::shared_ptr<FVFDispatchQueue> FVFDispatchQueue::queueWithLabel(std::string label, Clock& clock) {
  return std::make_shared<FVFDispatchQueue>(std::move(label), clock);
}

FVFDispatchQueue::FVFDispatchQueue(std::string label, Clock& clock)
    : queue_(SerialQueue::create(std::move(label), clock)) {
  queue_->setSpecific(FV_QUEUE_CONTEXT_KEY, this->label());
}

void FVFDispatchQueue::dispatchSynchronousBlock(WorkItem block) { queue_->sync(std::move(block)); }

void FVFDispatchQueue::dispatchAsynchronousBlock(WorkItem block) {
  queue_->async([self = shared_from_this(), block = std::move(block)]() mutable { block(); });
}

void FVFDispatchQueue::dispatchWhen(MonotonicTime when, WorkItem block) {
  queue_->at(when, [self = shared_from_this(), block = std::move(block)]() mutable { block(); });
}

bool FVFDispatchQueue::checkIsCurrent(std::string_view source, unsigned line) const {
  if (queue_->isCurrent()) return true;
  reportSoftAssertion(source, line, format("queue '%@' is current, not '%@'", label(), SerialQueue::currentLabel()));
  return false;
}

std::string FVFDispatchQueue::description() const {
  return format("<%@ queue=%@>", baseDescription("FVFDispatchQueue", this), label());
}

}  // namespace florvane
