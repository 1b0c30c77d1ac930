#pragma once

#include "Client/Client/DCCachedDirectory.h"
#include "Client/Client/DCCachedFile.h"
#include "Client/Client/DCCachedItem.h"
#include "Client/Client/DCCachedThumbnail.h"
#include "Client/Client/DCKnownChildren.h"
#include "platform/FileCoordinator.h"
#include "platform/FilePresenter.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
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

  // A manager besides the registered one, for what else works on the same container.
  static Ptr managerWithService(const std::shared_ptr<DCService>& service, std::shared_ptr<DCDatabase> database);
  ~DCCachedItemManager() override;

  const std::shared_ptr<DCService>& service() const;
  DCCachedDirectory::Ptr root() const;
  DCCachedDirectory::Ptr parentOfItem(const DCCachedItem& item) const;

  // The same as the class operations, of this manager.
  DCCachedItem::Ptr item(const DCRelativePath::Ptr& relativePath);
  DCCachedDirectory::Ptr directory(const DCRelativePath::Ptr& relativePath);
  DCCachedFile::Ptr file(const DCRelativePath::Ptr& relativePath);
  // As that kind whatever the listings say of the place by now, for whoever takes their changes in.
  DCCachedItem::Ptr itemOfKind(const DCRelativePath::Ptr& relativePath, bool isDirectory);
  std::optional<std::string> _fileResourceTypeAtRelativePath(const DCRelativePath::Ptr& relativePath);
  DCCachedThumbnail::Ptr _thumbnailForUnderlyingItem(const DCCachedItem::Ptr& item);
  std::vector<DCCachedItem::Ptr> itemsWithIdentifier(const Data& documentIdentifier);
  DCCachedItem::Ptr itemWithIdentifier(const Data& documentIdentifier, const DCCachedDirectory::Ptr& parent);
  // The item that somebody has asked for already; null when nobody has.
  DCCachedItem::Ptr knownItem(std::string_view path) const;

  // The directory's children that the cache knows, parked ones among them, also as other processes have them by now.
  // What is known of each is answered without a query then.
  DCKnownChildren::Ptr knownChildrenOf(const DCCachedDirectory& directory);
  // The names of those that somebody has asked for already, in plain order.
  std::vector<std::string> namesOfKnownItemsIn(const DCCachedDirectory& directory) const;
  // New children of a directory in one transaction: names and identifiers. For children that have no upload record and
  // no other identifier (else DCCachedItem::updateDocumentIdentifier).
  Result<void> recordChildren(const DCCachedDirectory& directory,
                              const std::vector<std::pair<std::string, Data>>& documentIdentifiersByName);

  // The item, with its file, its records and everything that is remembered of what lies below it, goes to another
  // path. Nothing happens when it is there already. Whoever is at the destination is parked beside it, under a name
  // that no listing has, until its own entry moves it on or its vanishing removes it; a new file that waits there to be
  // sent becomes the contents of the document instead. An item without identifier takes the one given.
  void moveItem(const DCCachedItem::Ptr& item, const std::optional<Data>& documentIdentifier,
                const std::optional<Data>& versionIdentifier, const DCRelativePath::Ptr& toRelativePath);
  static bool isParkedPath(std::string_view path);
  // The item goes from the cache, with what lies below it; file and metadata of a document only with its last path.
  // Bytes that were never sent are moved to the container's "Recovered" folder first.
  void removeItem(const DCCachedItem::Ptr& item);
  // Several at once, with one transaction for their records.
  void removeItems(const std::vector<DCCachedItem::Ptr>& items);
  // The object only: the next request makes a new one.
  void forgetItem(const DCCachedItem::Ptr& item);
  // Of the directory's children those that are in neither database nor listing: another process found them to be gone
  // or moved away, and the objects here would still answer for them.
  void forgetVanishedChildren(const DCCachedDirectory& directory);
  // Not supported: a soft assertion.
  void evictItem(const DCCachedItem::Ptr& item);
  // Stores what the server answered for the item (DCCachedItem::updateItemFromResponseContainer), readers and writers
  // in other processes kept out meanwhile. The date becomes that of the last download, where there is one. False when
  // the answer was not taken.
  bool updateItem(const DCCachedItem::Ptr& item, const FVFResponseContainer& responseContainer,
                  const std::optional<Date>& downloadDate = std::nullopt);

  // Hears that unsent bytes of a path were moved to a file of the "Recovered" folder; on the
  // presentedItemOperationQueue.
  using RecoveryHandler = std::function<void(const std::string& relativePath, const URL& recoveredURL)>;
  void setRecoveryHandler(RecoveryHandler handler);
  // Moves the file of an upload there, when it is there, and removes the record; false, with the record left, when that
  // cannot be done. Not within a batch of the database.
  bool recoverUpload(const std::string& path);
  // An item's: moves the file there, when it holds bytes that the server does not have.
  void recoverFileIfUnsent(const std::string& contentsPath, const Data& documentIdentifier,
                           const DCRelativePath::Ptr& relativePath);

  // Throws InvalidArgumentException "Illegal to change purpose identifier: %@" for another one than before.
  void setPurposeIdentifier(const std::string& purposeIdentifier);
  // These three throw InvalidArgumentException "Invalid nil purpose identifier" when none is set. Errors as in
  // FileCoordinator.h. Not to be called with the lock held.
  using Accessor = FileCoordinator::Accessor;
  Result<void> coordinateReadingItemAtURL(const URL& url, FileCoordinatorReadingOptions options,
                                          const Accessor& byAccessor);
  Result<void> coordinateWritingItemAtURL(const URL& url, FileCoordinatorWritingOptions options,
                                          const Accessor& byAccessor);
  // The accessor gets a stable copy of the file's contents at the temporary upload place of its path and generation,
  // and that generation: the one that the original had before the copy was made. A file that is written all the time is
  // an error (EBUSY as underlying one).
  using UploadAccessor = std::function<void(const URL& url, const Data& generationIdentifier)>;
  Result<void> coordinateReadingForUploadingItem(const DCCachedItem::Ptr& item, const UploadAccessor& byAccessor);

  // Keeps writers and senders of the file, in any process, out while the work takes in what an upload of it has come
  // to, also where the file still lies as a new one. Throws and fails as the three above.
  Result<void> coordinateEndOfUpload(const DCCachedItem::Ptr& item, const std::optional<Data>& documentIdentifier,
                                     const std::function<void()>& work);

  // The service's document root.
  std::optional<URL> presentedItemURL() const override;
  std::shared_ptr<SerialQueue> presentedItemOperationQueue() const override;

  const std::shared_ptr<DCCachedItemEnvironment>& environment() const { return environment_; }
  std::string description() const;

 private:
  struct Private {};

 public:
  DCCachedItemManager(Private, std::shared_ptr<DCService> service, std::shared_ptr<DCDatabase> database);

 private:
  enum class ItemClass : std::uint8_t { Directory, File };
  // Registered items by path, so that those below a folder stand together.
  using Items = std::map<std::string, DCCachedItem::Ptr, std::less<>>;
  // A path that goes, and what may go with it.
  struct Removal {
    DCRelativePath::Ptr path;
    std::optional<Data> documentIdentifier;
    DCCachedItem::Ptr item;  // null when nobody has asked for it
    bool isLastPath = true;  // of its document
  };
  struct FileMove {
    std::string from, to;
    bool keepsOld = false;  // another path of the document has that name
  };

  static Ptr _initWithService(const std::shared_ptr<DCService>& service);
  std::unique_lock<std::recursive_mutex> lock() const;
  DCDatabase& database() const;
  DCCachedItem::Ptr _itemAtRelativePath(const DCRelativePath::Ptr& relativePath, ItemClass itemClass,
                                        const std::optional<std::string>& itemType);
  FileCoordinator coordinator() const;

  // Moving (DCCachedItemManager+Moving.cpp).
  bool makeRoom(const DCCachedItem::Ptr& item, const DCRelativePath::Ptr& toRelativePath);
  void giveDocumentToStagedFile(const DCCachedItem::Ptr& item, const DCRelativePath::Ptr& path);
  void movePath(const std::string& from, const DCRelativePath::Ptr& to);
  std::vector<FileMove> linkFiles(const Data& documentIdentifier, const std::string& from,
                                  const DCRelativePath::Ptr& to);
  void moveRecords(const std::string& from, const std::string& to, const std::optional<Data>& documentIdentifier,
                   const std::vector<FileMove>& moves);
  void moveStagedFiles(const std::string& to);
  void moveRegistered(const std::string& from, const std::string& to);
  void moveFile(const FileMove& move);

  // Removing (DCCachedItemManager+Removing.cpp).
  std::vector<Removal> takeOut(const DCCachedItem::Ptr& item);
  Result<void> removeFiles(Removal& removal, const std::unordered_set<std::string>& removedPaths);
  Result<void> recoverUnsent(const Removal& removal);
  Result<void> leaveToOtherPath(const Removal& removal, const std::vector<std::string>& remaining);
  Result<void> removeDocument(const Removal& removal);
  bool hasLateUpload(const Removal& removal) const;
  void removeRecords(const std::vector<Removal>& removals);

  // Recovery (DCCachedItemManager+Recovery.cpp).
  bool holdsUnsentBytes(const std::string& contentsPath, const Data& documentIdentifier);
  Result<void> recover(const std::string& contentsPath, const std::string& relativePath);

  const std::shared_ptr<DCCachedItemEnvironment> environment_;
  const std::shared_ptr<SerialQueue> operationQueue_;
  // Under the environment's lock.
  Items items_;
  std::optional<std::string> purposeIdentifier_;
  RecoveryHandler recoveryHandler_;
};

}  // namespace florvane
