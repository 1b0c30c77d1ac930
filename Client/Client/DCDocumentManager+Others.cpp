#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCTakeInLock.h"
#include "common/FVFMetadataUtils.h"

#include <vector>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCDocumentManager";

// Where delegates know of no version yet, one that was not reported is the one to begin with.
bool isTold(DCCachedItem& item, bool isReported) {
  const auto version = item.versionIdentifier();
  const auto told = item.toldVersionIdentifier();
  if (version && !told && !isReported) {
    item.setToldVersionIdentifier(version);
    return true;
  }
  return !version || version == told;
}

}  // namespace

void DCDocumentManager::_processListingOfOthers(const DCCachedDirectory::Ptr& directory) {
  // Registrations are checked on their callers' threads; what changed is taken in by the next operation.
  if (!queue_->queue()->isCurrent()) return;
  const Data key = directory->documentIdentifier().value_or(Data());
  DCDirectoryContents::Ptr current, known;
  auto isKnown = [&] {
    current = directory->directoryContents();
    known = current ? processedListings_.listing(key) : nullptr;
    return current == known;
  };
  if (isKnown()) return;
  // Who brought it takes it in first.
  const DCTakeInLock lock(service_);
  if (isKnown()) return;
  if (known && known->entries() == current->entries()) {
    // Read again; or something came and went meanwhile, of which there is still an object.
    processedListings_.keep(key, current);
    cachedItemManager()->forgetVanishedChildren(*directory);
    return;
  }
  _takeInListing(directory, current, known, false, nullptr, nullptr);
  // In a turn of its own: this is the beginning of somebody's operation.
  queue_->dispatchAsynchronousBlock([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->_adjustFetchingUpdatesIfNecessary();
  });
}

// The same calls as if this process had fetched it, once a version.
void DCDocumentManager::_tellOfItemOfOthers(const DCCachedItem::Ptr& item, bool isReported) {
  queue_->checkIsCurrent(kSource, __LINE__);
  auto directory = std::dynamic_pointer_cast<DCCachedDirectory>(item);
  if (directory) _processListingOfOthers(directory);
  if (item->hasBeenRemoved() || isTold(*item, isReported)) return;
  {
    // Metadata come before contents. Whoever is storing them has come to the end of it when he lets go.
    const DCTakeInLock lock(service_);
    if (directory) _processListingOfOthers(directory);
    if (item->hasBeenRemoved() || isTold(*item, isReported)) return;
  }
  auto file = std::dynamic_pointer_cast<DCCachedFile>(item);
  if (file && file->isUnsent()) return;
  if (!item->holdsContentsOfRemoteMetadata()) {
    // Nobody is storing them any more.
    _refreshItem(item, nullptr);
    return;
  }
  static constexpr char function[] = "-[DCDocumentManager _tellOfItemOfOthers:isReported:]";
  const Dictionary metadata = item->remoteMetadata().value_or(Dictionary());
  if (directory) {
    _didUpdateDirectory(directory, metadata, function);
  } else if (file) {
    _didUpdateFile(file, metadata, function);
  }
}

void DCDocumentManager::_observeUploads() {
  if (uploadsObservation_) return;
  uploadsObservation_ = NotificationCenter::shared().addObserver(FlorvaneDidAddOrRemoveUploadsNotification,
                                                                 [weak = weak_from_this()](const Notification&) {
                                                                   auto self = weak.lock();
                                                                   if (!self || !self->hasUpdatesOfUnsent_) return;
                                                                   self->queue_->dispatchAsynchronousBlock([weak] {
                                                                     if (auto manager = weak.lock())
                                                                       manager->_continueUpdatesOfSent();
                                                                   });
                                                                 });
}

void DCDocumentManager::_continueUpdatesOfSent() {
  database()->refresh();
  // It stays true while this looks, so that an upload that ends meanwhile has it looked at again.
  bool isAnyUnsent = false;
  std::vector<Data> sent;
  for (auto& [identifier, update] : updates_) {
    if (!update.waitsForUpload) continue;
    if (update.item->isUnsent()) {
      isAnyUnsent = true;
      continue;
    }
    update.waitsForUpload = false;
    update.attempts = 0;
    sent.push_back(identifier);
  }
  hasUpdatesOfUnsent_ = isAnyUnsent;
  for (const auto& identifier : sent) _continueUpdate(identifier);
}

}  // namespace florvane
