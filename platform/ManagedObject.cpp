#include "platform/ManagedObject.h"

#include "platform/ManagedObjectContext.h"

#include <utility>

namespace florvane {

bool ManagedObject::hasChanges() const {
  std::lock_guard lock(context_->mutex_);
  return changed_ != 0 || state_ == State::Inserted || state_ == State::Deleting;
}

bool ManagedObject::isDeleted() const {
  context_->refreshIfStale(*this);
  std::lock_guard lock(context_->mutex_);
  return state_ == State::Deleting || state_ == State::Gone;
}

Value ManagedObject::value(std::size_t attribute) const {
  context_->refreshIfStale(*this);
  std::lock_guard lock(context_->mutex_);
  return values_[attribute];
}

std::optional<std::string> ManagedObject::stringValue(std::size_t attribute) const {
  const Value found = value(attribute);
  auto text = found.asString();
  return text ? std::optional(std::string(*text)) : std::nullopt;
}

void ManagedObject::setValue(std::size_t attribute, Value value) {
  context_->refreshIfStale(*this);
  std::lock_guard lock(context_->mutex_);
  context_->setValueLocked(*this, attribute, std::move(value));
}

}  // namespace florvane
