#pragma once

#include "Client/Client/DCCachedItem.h"
#include "Client/Client/DCDocumentManagerDelegate.h"
#include "platform/SerialQueue.h"

#include <memory>
#include <optional>

namespace florvane {

// One registration: who is told on which queue of which item, and the version of the item being watched for. The
// delegate is held weakly. Guarded by the document manager's lock.
class DCDelegateState {
 public:
  using Ptr = std::shared_ptr<DCDelegateState>;

  DCDelegateState(std::weak_ptr<DCDocumentManagerDelegate> delegate, std::shared_ptr<SerialQueue> queue,
                  DCCachedItem::Ptr item)
      : delegate_(std::move(delegate)), queue_(std::move(queue)), item_(std::move(item)) {}
  static Ptr delegateStateWithDelegate(std::weak_ptr<DCDocumentManagerDelegate> delegate,
                                       std::shared_ptr<SerialQueue> queue, DCCachedItem::Ptr item) {
    return std::make_shared<DCDelegateState>(std::move(delegate), std::move(queue), std::move(item));
  }

  // Null when it is gone.
  std::shared_ptr<DCDocumentManagerDelegate> delegate() const { return delegate_.lock(); }
  // These two take no hold of it, so that it never ends in the caller's hands, under the caller's locks.
  bool hasDelegate() const { return !delegate_.expired(); }
  bool isForDelegate(const std::shared_ptr<DCDocumentManagerDelegate>& delegate) const {
    return !delegate_.owner_before(delegate) && !delegate.owner_before(delegate_);
  }
  const std::shared_ptr<SerialQueue>& queue() const { return queue_; }
  const DCCachedItem::Ptr& item() const { return item_; }
  // The item that is at the registration's path now.
  void setItem(DCCachedItem::Ptr item) { item_ = std::move(item); }
  const std::optional<Data>& watchedVersionIdentifier() const { return watchedVersionIdentifier_; }
  void setWatchedVersionIdentifier(std::optional<Data> identifier) {
    watchedVersionIdentifier_ = std::move(identifier);
  }
  // By which it is in the watch set at present: its item, or a folder above one that is not there.
  const std::optional<Data>& watchedDocumentIdentifier() const { return watchedDocumentIdentifier_; }
  void setWatchedDocumentIdentifier(std::optional<Data> identifier) {
    watchedDocumentIdentifier_ = std::move(identifier);
  }

 private:
  const std::weak_ptr<DCDocumentManagerDelegate> delegate_;
  const std::shared_ptr<SerialQueue> queue_;
  DCCachedItem::Ptr item_;
  std::optional<Data> watchedVersionIdentifier_;
  std::optional<Data> watchedDocumentIdentifier_;
};

}  // namespace florvane
