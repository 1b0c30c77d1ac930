#pragma once

#include "Client/Client/DCCachedItem.h"
#include "platform/URL.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace florvane {

class DCManagedUpload;

// A file; its contents file is the document itself.
class DCCachedFile : public DCCachedItem {
 public:
  using Ptr = std::shared_ptr<DCCachedFile>;
  using DCCachedItem::DCCachedItem;

  // The bytes; absent when there is no local copy.
  std::optional<Data> contents() const;

  // Records the item's full path as what is to be sent; of a new file that is its staging place.
  Result<void> preflightUploadFromURL(const URL& url);
  // Records task and generation of an upload of that file that has started; nothing happens when the record names
  // another file. The generation is that of the bytes which are sent; the file's present one where none is given.
  void registerFileForUploadOfURL(const URL& url, std::int64_t taskIdentifier,
                                  const std::optional<Data>& generationIdentifier = {});
  // Takes the source's bytes as the new local contents, with an upload record, before anything else is told: copied to
  // a temporary and synced, recorded, renamed into place, folder synced. Dated later than anything known of the
  // server's copy. On failure nothing has changed. Coordinates: not to be called with the item manager's lock held.
  // The exclusion, where there is one, is told true when the bytes are on disk and it is to be decided where they
  // belong, and false before they are copied.
  using Exclusion = std::function<void(bool isDeciding)>;
  Result<void> updateFileFromURL(const URL& url, const Exclusion& exclusion = {});
  // At a start: a write that a kill stopped between its record and its contents is taken back. True when it was.
  bool undoInterruptedWrite();
  // After an upload: what the server says of the file now. The local contents are those that were sent; the upload
  // record goes unless newer bytes wait. These two with writers of other processes kept out
  // (DCCachedItemManager::coordinateEndOfUpload).
  void updateUploadedFileFromRemoteMetadata(const Dictionary& remoteMetadata);
  // After an upload into a drop box, of which nothing is kept.
  void updateUploadedFileToDropBox();
  void restoreFileFromRemoteMetadata(const Dictionary& remoteMetadata);

  bool needsInitialUpload() const override;
  bool needsUpload() const override;
  bool isUnsent() const override;

  std::string className() const override { return "DCCachedFile"; }
  DCFullPath::Ptr _contentsFullPath() const override;
  std::optional<Data> _localGenerationIdentifier() const override;
  DCFullPath::Ptr _localGenerationIdentifierFullPath() const override;

 protected:
  bool keepsGenerations() const override { return true; }

 private:
  // Where contents that are written now belong.
  DCFullPath::Ptr fullPathForWriting() const;
  Date dateNewerThanKnown(Date date) const;
  // What a write finds of the upload before it.
  struct UploadBefore {
    bool wasThere = false;
    std::optional<Data> generationIdentifier;
  };
  Result<void> recordUpload(const std::string& target, const std::optional<Data>& generationIdentifier,
                            UploadBefore& before);
  void takeBackRecord(const UploadBefore& before);
  Result<bool> writeInPlace(const URL& url, const Exclusion& exclusion, std::string& target);
  bool belongsAt(const std::string& target) const;
  bool holdsNewerThan(const DCManagedUpload& upload) const;
  void keepNewerThan(const Dictionary& remoteMetadata);
  bool recordAsSent(const std::optional<Data>& sentGenerationIdentifier, const Dictionary& remoteMetadata);
};

}  // namespace florvane
