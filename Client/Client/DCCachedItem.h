#pragma once

#include "Client/Client/DCFileStamp.h"
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
#include <mutex>
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

struct DCCachedItemEnvironment;

// The local record of one item of a service's tree: root, directory, file or thumbnail. Obtained from the
// DCCachedItemManager only, one object a relative path. Ties together where the item is (relative path), which document
// it is (identifier), what the server last said of it (remote metadata, a property list on disk), what is kept of it
// (database), and its local file. Never talks to the server. Every operation holds the item manager's lock;
// thread-safe.
class DCCachedItem : public std::enable_shared_from_this<DCCachedItem> {
 public:
  using Ptr = std::shared_ptr<DCCachedItem>;
  using EnvironmentPtr = std::shared_ptr<DCCachedItemEnvironment>;

  explicit DCCachedItem(const DCRelativePath::Ptr& relativePath);
  DCCachedItem(DCRelativePath::Ptr relativePath, EnvironmentPtr environment);
  virtual ~DCCachedItem();
  DCCachedItem(const DCCachedItem&) = delete;
  DCCachedItem& operator=(const DCCachedItem&) = delete;

  DCRelativePath::Ptr relativePath() const;
  std::shared_ptr<DCService> service() const;
  void setService(std::shared_ptr<DCService> service);
  // Null, with a soft assertion, when the item has neither an identifier nor an upload record.
  virtual DCFullPath::Ptr fullPath() const;
  // The same without the assertion: a file that is just being written for the first time has none.
  DCFullPath::Ptr fullPathIfKnown() const;
  // Absent until the server has given one. An item that was removed keeps the one that it had.
  virtual std::optional<Data> documentIdentifier() const;
  std::optional<Data> versionIdentifier() const;
  // Null for the root.
  virtual std::shared_ptr<DCCachedDirectory> parent() const;
  bool isRoot() const;
  // Whether there is a local file, and whether the server has given an identifier.
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
  // Of the local file, without the rest of what is known of it; one look at it.
  std::optional<Date> localContentModificationDate() const;

  // The version on which local contents are based; outlives the remote metadata.
  std::optional<Data> lastRemoteMetadataVersionIdentifier() const;
  std::optional<Date> lastRemoteMetadataUpdate() const;
  std::optional<Date> lastDownloadDate() const;
  // The setters change nothing of an item that was removed.
  void setLastDownloadDate(const std::optional<Date>& date);
  std::optional<Date> lastUploadDate() const;
  void setLastUploadDate(const std::optional<Date>& date);

  // Takes in an answer of the server: identifier, name (which may move the item), metadata, contents. False when it was
  // not taken: for want of an identifier, because the contents are unsent or the item was removed (all logged), or the
  // disk failed, which is logged and leaves what was there. Throws InternalInconsistencyException "Document identifier
  // %@ has changed for '%@'" when it is another document's.
  bool updateItemFromResponseContainer(const FVFResponseContainer& responseContainer);
  // False when the item has a different one already. A new file that waits to be sent moves from its staging place.
  virtual bool updateDocumentIdentifier(const std::optional<Data>& documentIdentifier);
  // Forgets what the server said of this version, so that the next request names none.
  void clearRemoteMetadata();
  // Before the item is asked for: where the local contents are missing or not those of the remote metadata (a kill came
  // between the two), that is forgotten, so that the answer cannot be "not modified".
  void prepareForDownload();
  // Whether the local contents are those of the remote metadata, as far as their dates tell; false without either.
  bool holdsContentsOfRemoteMetadata() const;

  // The version that this process's delegates know of, told or present when they came. Kept in memory only.
  std::optional<Data> toldVersionIdentifier() const;
  void setToldVersionIdentifier(const std::optional<Data>& versionIdentifier);

  // The server has gone back to an older date, or to another version of the same date: the local file is dated just
  // before the item's entry, so that it counts as older. Nothing happens to contents that are unsent.
  void markContentsStale();

  virtual DCCachedItemOrder relativeAge() const;
  // Whether there is no need to ask the server: local bytes are newer, or the download is at most 10 s old (a
  // directory's: 1 s), or the parent is up to date.
  virtual bool isUpToDate() const;
  bool isRemoteMetadataUpToDate() const;
  bool isContentsUpToDate() const;

  // An item that was removed is told so for ever; its path gets another object.
  bool hasBeenRemoved() const;
  void setHasBeenRemoved(bool hasBeenRemoved);
  // Whether a date of it is recorded.
  bool hasBeenDownloaded() const;
  bool hasBeenUploaded() const;
  // "Initial" is for the first time.
  bool needsInitialDownload() const;
  bool needsDownload() const;
  virtual bool needsInitialUpload() const;
  virtual bool needsUpload() const;
  bool needsInitialSynchronization() const;
  // Whether the contents hold bytes that the server does not have: an upload that is due, or a generation other than
  // those recorded at exchanges with the server.
  virtual bool isUnsent() const;

  // The item manager's.
  void renameRelativePath(const DCRelativePath::Ptr& relativePath);

  std::string description() const;
  std::string debugDescription() const { return description(); }

  // What the server last said, from disk.
  std::optional<Dictionary> remoteMetadataFromDisk() const;

  virtual std::string className() const { return "DCCachedItem"; }

  // What differs between kinds. The base class throws InternalInconsistencyException "Method must be implemented in
  // subclass".
  virtual DCFullPath::Ptr _contentsFullPath() const;
  virtual std::optional<Data> _localGenerationIdentifier() const;
  virtual DCFullPath::Ptr _localGenerationIdentifierFullPath() const;

 protected:
  friend class DCCachedItemManager;
  // What an answer brings, once the item has taken its identifier and its name.
  struct PreparedResponse {
    Dictionary metadata;
    Data documentIdentifier;
    std::optional<Data> previousVersionIdentifier;
    // To go back to when unsent contents turn up meanwhile.
    std::optional<Data> previousBaseVersionIdentifier;
    // To be recorded with the new contents' generation, in one step; absent for none.
    std::optional<Date> downloadDate;
    // That of the new contents; absent where none is kept or it is not known.
    std::optional<Data> generationIdentifier;
  };
  enum class Replacement : std::uint8_t {
    WithServers,  // never of unsent contents; the new generation is recorded
    WithSent,     // what an upload sent
  };

  std::unique_lock<std::recursive_mutex> lock() const;
  DCDatabase& database() const;
  std::string _pathsKeyString() const;
  Data _dataKey() const;

  // Whether the contents are somebody's document, which may be written here.
  virtual bool keepsGenerations() const { return false; }

  // Identity and places. Strings, since a look at a file needs no checked path; absent where fullPath() is.
  virtual std::optional<std::string> contentsPath() const;
  virtual std::string contentsPathForDocumentIdentifier(const Data& documentIdentifier) const;
  std::string metadataFolder(const Data& documentIdentifier) const;

  // Disk (DCCachedItem+Disk.cpp).
  std::optional<Data> _contents() const;
  // False when nothing was replaced.
  Result<bool> _replaceFileWithURL(const URL& url, Replacement replacement, const PreparedResponse* response = nullptr);
  Result<void> _replaceFileAtURL(const URL& url, const Data& data) const;
  void _saveRootDocumentIdentifierOnDisk(const Data& documentIdentifier) const;
  std::optional<Dictionary> _readDictionaryFromPath(const std::string& path) const;
  bool _saveDictionary(const Dictionary& dictionary, const std::string& path,
                       const std::optional<std::string>& previousVersionPath) const;
  bool _saveRemoteMetadataOnDisk(const Dictionary& metadata, const Data& documentIdentifier,
                                 const std::optional<Data>& previousVersionIdentifier);
  void _clearRemoteMetadataOnDiskWithDocumentIdentifier(const Data& documentIdentifier,
                                                        const std::optional<Data>& versionIdentifier);
  // All versions of it.
  void forgetRemoteMetadata();

  // Metadata (DCCachedItem+Metadata.cpp).
  virtual std::optional<Dictionary> _fileSystemMetadataWithoutNeedingLocking() const;
  Dictionary _storedLocalMetadata() const;
  void saveOtherMetadata(const Dictionary& values);
  void setOtherMetadataDate(std::string_view key, const std::optional<Date>& date);
  // With other bookkeeping values to be saved in the same step.
  void _setRemoteMetadataWithoutNeedingLocking(const Dictionary& remoteMetadata, Dictionary values = {});
  // With other bookkeeping values to be saved in the same step. The generation is looked up where none is given.
  void _saveLastUpdateGenerationIdentifier(Dictionary values = {},
                                           const std::optional<Data>& generationIdentifier = std::nullopt);
  // Whether the generation is one that was recorded at an exchange with the server.
  bool isKnownGeneration(const std::optional<Data>& generationIdentifier) const;
  Dictionary presentGenerationIfKnown() const;
  // Gives the contents another date without making them look written. An error when that failed.
  Result<void> dateContents(Date date, std::string_view generationKey);
  // The bytes of a new file go where its identifier says, and its upload record with them; false when there are none.
  bool adoptStagedFile(const Data& documentIdentifier);
  // The adopted file is the one that was at both places.
  void takeStagedFileAway(const std::string& staged, const std::string& target,
                          const std::optional<DCFileStamp>& adopted) const;
  std::optional<PreparedResponse> _prepareForResponse(const FVFResponseContainer& responseContainer);
  bool _storeResponse(const FVFResponseContainer& responseContainer, PreparedResponse response);
  [[noreturn]] void throwDocumentIdentifierChanged(const Data& documentIdentifier) const;

  const EnvironmentPtr environment_;

 private:
  // Remote metadata as read from a folder that looked so.
  struct RemoteMetadata;

  DCRelativePath::Ptr path_;
  std::shared_ptr<DCService> service_;
  bool hasBeenRemoved_ = false;
  std::optional<Data> documentIdentifierWhenRemoved_;
  std::optional<Data> toldVersionIdentifier_;
  mutable DCFullPath::Ptr lastFullPath_;
  mutable std::unique_ptr<RemoteMetadata> remoteMetadata_;
};

}  // namespace florvane
