#pragma once

#include "Client/Client/DCManagedOtherMetadata.h"
#include "Client/Client/DCPath.h"
#include "Client/Client/DCService.h"
#include "common/FVFResponseContainer.h"
#include "platform/Data.h"
#include "platform/Date.h"
#include "platform/Error.h"
#include "platform/Value.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace florvane {

class DCCachedDirectory;
class DCCachedItemManager;
class DCDatabase;

// Keys of the dictionaries in which callers see items, beside the resource keys, those of remote metadata and those of
// bookkeeping (DCManagedOtherMetadata.h).
inline constexpr char DCFileNeedsUploadKey[] = "DCFileNeedsUploadKey";                  // boolean
inline constexpr char DCFileDirectoryItemsCountKey[] = "DCFileDirectoryItemsCountKey";  // integer, of a directory
// Integer 1: the caller draws a thumbnail of its own, since the server does not know the item yet.
inline constexpr char DCFileShouldUseLocalThumbnailKey[] = "DCFileShouldUseLocalThumbnailKey";
// Part of the vocabulary, without a value from this client.
inline constexpr char DCFileLastModifiedByDeviceKey[] = "DCFileLastModifiedByDeviceKey";
inline constexpr char DCFileLastModifiedByUserKey[] = "DCFileLastModifiedByUserKey";
inline constexpr char DCFilePreviewDocumentIdentifierKey[] = "DCFilePreviewDocumentIdentifierKey";
inline constexpr char DCFileSharepointTypeKey[] = "DCFileSharepointTypeKey";
inline constexpr char DCFileSharepointTypePersonalFolderKey[] = "P";
inline constexpr char DCFileSharepointTypeVirtualRootKey[] = "V";
inline constexpr char DCFileSignatureKey[] = "DCFileSignatureKey";
inline constexpr char DCFileSignaturedVersionKey[] = "DCFileSignaturedVersionKey";
inline constexpr char DCCachedItemStateKey[] = "DCCachedItemStateKey";

// Names of extended attributes that belong to documents; the cache itself neither sets nor reads them.
inline constexpr char fv_florvane_xattr_name[] = "quorl.florvane.markup";
inline constexpr char ps_xattr_added_to_directory_date[] = "quorl.florvane.added-to-directory-date";
inline constexpr char ps_xattr_item_count[] = "quorl.florvane.item-count";
inline constexpr char ps_xattr_last_modifier_device[] = "quorl.florvane.last-modifier.device";
inline constexpr char ps_xattr_last_modifier_user[] = "quorl.florvane.last-modifier.user";
inline constexpr char ps_xattr_underlying_document_identifier[] = "quorl.florvane.underlying-document-identifier";

// What is read of an item's local file.
std::span<const std::string_view> DCCachedFSLocalAttributesKeysToGet();

// The local copy against the newest date known of the server's.
enum DCCachedItemOrder : std::int64_t {
  DCCachedItemOrderUnknown = 0,       // no local date
  DCCachedItemOrderLocalIsNewer = 1,  // newer than all others, or the only one
  DCCachedItemOrderSame = 2,
  DCCachedItemOrderLocalIsOlder = 3,
};

// The local record of one item of a service's tree: root, directory, file or thumbnail. Obtained from the
// DCCachedItemManager only, one object a relative path. Ties together where the item is (relative path), which document
// it is (identifier), what the server last said of it (remote metadata, a property list on disk), what is kept of it
// (database), and its local file. Never talks to the server. Every operation holds the item manager's lock;
// thread-safe.
class DCCachedItem : public std::enable_shared_from_this<DCCachedItem> {
 public:
  using Ptr = std::shared_ptr<DCCachedItem>;

  explicit DCCachedItem(DCRelativePath::Ptr relativePath);
  virtual ~DCCachedItem();
  DCCachedItem(const DCCachedItem&) = delete;
  DCCachedItem& operator=(const DCCachedItem&) = delete;

  DCRelativePath::Ptr relativePath() const;
  std::shared_ptr<DCService> service() const;
  void setService(std::shared_ptr<DCService> service);
  // Null, with a soft assertion, when the item has neither an identifier nor an upload record.
  virtual DCFullPath::Ptr fullPath() const;
  // Absent until the server has given one.
  std::optional<Data> documentIdentifier() const;
  std::optional<Data> versionIdentifier() const;
  // Null for the root.
  std::shared_ptr<DCCachedDirectory> parent() const;
  bool isRoot() const;
  bool existsOnDisk() const;
  bool existsOnServer() const;

  // Each absent when there is none.
  std::optional<Dictionary> remoteMetadata() const;
  std::optional<Dictionary> localMetadata() const;
  std::optional<Dictionary> otherMetadata() const;
  // The item's entry in its parent's listing.
  virtual std::optional<Dictionary> parentContentsMetadata() const;
  // Null when nothing was recorded.
  std::shared_ptr<DCManagedOtherMetadata> managedOtherMetadata() const;

  std::optional<Data> lastRemoteMetadataVersionIdentifier() const;
  std::optional<Date> lastRemoteMetadataUpdate() const;
  std::optional<Date> lastDownloadDate() const;
  void setLastDownloadDate(const std::optional<Date>& date);
  std::optional<Date> lastUploadDate() const;
  void setLastUploadDate(const std::optional<Date>& date);

  // Takes in an answer of the server: identifier, name (which may move the item), metadata, contents. Throws
  // InternalInconsistencyException "Document identifier %@ has changed for '%@'" when it is another document's.
  // Failures of the disk are logged and leave what was there.
  void updateItemFromResponseContainer(const FVFResponseContainer& responseContainer);
  // False when the item has a different one already.
  bool updateDocumentIdentifier(const std::optional<Data>& documentIdentifier);
  // Forgets what the server said of this version, so that the next request names none.
  void clearRemoteMetadata();

  DCCachedItemOrder relativeAge() const;
  bool isUpToDate() const;
  bool isRemoteMetadataUpToDate() const;
  bool isContentsUpToDate() const;

  bool hasBeenRemoved() const;
  void setHasBeenRemoved(bool hasBeenRemoved);
  bool hasBeenDownloaded() const;
  bool hasBeenUploaded() const;
  bool needsInitialDownload() const;
  bool needsDownload() const;
  bool needsInitialUpload() const;
  bool needsUpload() const;
  bool needsInitialSynchronization() const;
  // Whether the contents hold bytes that the server does not have: an upload that is due, or a generation other than
  // the one recorded at the last exchange with the server.
  bool isUnsent() const;

  // The item manager's.
  void renameRelativePath(const DCRelativePath::Ptr& relativePath);

  std::string description() const;
  std::string debugDescription() const { return description(); }

  // What the server last said, from disk.
  std::optional<Dictionary> remoteMetadataFromDisk() const;

  virtual std::string className() const { return "DCCachedItem"; }
};

}  // namespace florvane
