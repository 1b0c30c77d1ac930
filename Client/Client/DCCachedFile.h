#pragma once

#include "Client/Client/DCCachedItem.h"
#include "platform/URL.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace florvane {

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
  // another file.
  void registerFileForUploadOfURL(const URL& url, std::int64_t taskIdentifier);
  // Takes the source's bytes as the new local contents, with an upload record, before anything else is told: copied to
  // a temporary and synced, recorded, renamed into place, folder synced. On failure nothing has changed.
  Result<void> updateFileFromURL(const URL& url);
  // After an upload: what the server says of the file now. The local contents are those that were sent; the upload
  // record goes unless newer bytes wait.
  void updateUploadedFileFromRemoteMetadata(const Dictionary& remoteMetadata);
  // After an upload into a drop box, of which nothing is kept.
  void updateUploadedFileToDropBox();
  void restoreFileFromRemoteMetadata(const Dictionary& remoteMetadata);

  std::string className() const override { return "DCCachedFile"; }
};

}  // namespace florvane
