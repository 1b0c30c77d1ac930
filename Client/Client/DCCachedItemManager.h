#pragma once

#include "Client/Client/DCCachedDirectory.h"
#include "Client/Client/DCCachedFile.h"
#include "Client/Client/DCCachedItem.h"
#include "Client/Client/DCCachedThumbnail.h"
#include "platform/FileCoordinator.h"
#include "platform/FilePresenter.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace florvane {

// The items of one service: at most one object a relative path, of the kind that the tree says is there. Moves and
// removes items with their files and records, and coordinates access to files with other processes. Thread-safe; its
// recursive lock also guards the changing fields of its items. It is never held while a coordinated accessor runs.
class DCCachedItemManager : public FilePresenter, public std::enable_shared_from_this<DCCachedItemManager> {
 public:
  using Ptr = std::shared_ptr<DCCachedItemManager>;

  // One a service, made on first request.
  static Ptr cachedItemManagerForService(const std::shared_ptr<DCService>& service);
  // The next request makes a new one.
  static void removeCachedItemManagerForService(const std::shared_ptr<DCService>& service);

  // The directory or file at the path; null, and logged, when nothing is known to be there.
  static DCCachedItem::Ptr itemAtRelativePath(const DCRelativePath::Ptr& relativePath);
  // The item as that kind, made when it is not known; null when it is of the other kind.
  static DCCachedDirectory::Ptr directoryAtRelativePath(const DCRelativePath::Ptr& relativePath);
  static DCCachedFile::Ptr fileAtRelativePath(const DCRelativePath::Ptr& relativePath);
  // ResourceTypeDirectory, ResourceTypeRegular, or absent.
  static std::optional<std::string> fileResourceTypeAtRelativePath(const DCRelativePath::Ptr& relativePath);
  // The thumbnail of a file; null when the file's entry names none and for a thumbnail.
  static DCCachedThumbnail::Ptr thumbnailForUnderlyingItem(const DCCachedItem::Ptr& item);
  static std::vector<DCCachedItem::Ptr> itemsWithDocumentIdentifier(const Data& documentIdentifier,
                                                                    const std::shared_ptr<DCService>& service);
  static DCCachedItem::Ptr itemWithDocumentIdentifier(const Data& documentIdentifier,
                                                      const DCCachedDirectory::Ptr& parent);
  static DCCachedFile::Ptr fileForUploadTaskIdentifier(std::int64_t taskIdentifier,
                                                       const std::string& sessionIdentifier,
                                                       const std::shared_ptr<DCService>& service);

  const std::shared_ptr<DCService>& service() const;
  DCCachedDirectory::Ptr root() const;
  DCCachedDirectory::Ptr parentOfItem(const DCCachedItem& item) const;

  // The item, with its file, its records and everything that is remembered of what lies below it, goes to another
  // path. Nothing happens when it is there already.
  void moveItem(const DCCachedItem::Ptr& item, const std::optional<Data>& documentIdentifier,
                const std::optional<Data>& versionIdentifier, const DCRelativePath::Ptr& toRelativePath);
  // The item goes from the cache, with what lies below it; file and metadata of a document only with its last path.
  // Bytes that were never sent are moved to the container's "Recovered" folder first.
  void removeItem(const DCCachedItem::Ptr& item);
  // Not supported: a soft assertion.
  void evictItem(const DCCachedItem::Ptr& item);
  // Stores what the server answered for the item (DCCachedItem::updateItemFromResponseContainer), readers and writers
  // in other processes kept out meanwhile.
  void updateItem(const DCCachedItem::Ptr& item, const FVFResponseContainer& responseContainer);

  // Throws InvalidArgumentException "Illegal to change purpose identifier: %@" for another one than before.
  void setPurposeIdentifier(const std::string& purposeIdentifier);
  // These three throw InvalidArgumentException "Invalid nil purpose identifier" when none is set. Errors as in
  // FileCoordinator.h.
  using Accessor = FileCoordinator::Accessor;
  Result<void> coordinateReadingItemAtURL(const URL& url, FileCoordinatorReadingOptions options,
                                          const Accessor& byAccessor);
  Result<void> coordinateWritingItemAtURL(const URL& url, FileCoordinatorWritingOptions options,
                                          const Accessor& byAccessor);
  // The accessor gets a stable copy of the file's contents at the temporary upload place of its path and generation,
  // and that generation: the one that the original had before the copy was made.
  using UploadAccessor = std::function<void(const URL& url, const Data& generationIdentifier)>;
  Result<void> coordinateReadingForUploadingItem(const DCCachedItem::Ptr& item, const UploadAccessor& byAccessor);

  // The service's document root.
  std::optional<URL> presentedItemURL() const override;
  std::shared_ptr<SerialQueue> presentedItemOperationQueue() const override;
};

}  // namespace florvane
