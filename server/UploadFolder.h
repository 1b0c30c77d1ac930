#pragma once

#include "platform/Date.h"
#include "server/FileStamp.h"
#include "server/ShareFolder.h"
#include "server/StoreError.h"
#include "server/Upload.h"

#include <cstdint>
#include <optional>
#include <string>

namespace florvane {

// Where a share's uploads wait until they are stored: a folder that no listing shows, in the share's own folder, or in
// the destination when that is another file system. No state of its own; thread-safe.
class UploadFolder {
 public:
  // The owner's name marks its files, that of this run of it those that are in use.
  UploadFolder(std::string owner, const std::string& run) : owner_(std::move(owner) + "-"), run_(owner_ + run + "-") {}

  // Room for an upload to a directory of the share; NoSpace when so many bytes (0: unknown) cannot fit.
  StoreResult<Upload> make(const ShareFolder& share, int directory, std::uint64_t expectedBytes) const;
  // Removes what earlier runs of the same owner left in the upload folder of that directory.
  void sweep(int directory) const;

  // Gives the complete upload its date, if there is one, and brings both to the disk itself.
  static StoreResult<void> finish(const Upload& upload, const std::optional<Date>& modified);
  // Gives the upload its name in the directory and writes the directory to the disk; Conflict when the name is taken.
  static StoreResult<void> publish(Upload& upload, int directory, const std::string& name);
  // Puts the upload in place of the file of that name, whose state must be the expected one up to its change date
  // (Conflict, and everything as before, when another program was quicker). The old file is removed.
  static StoreResult<void> exchange(Upload& upload, const ShareFolder& share, int directory, const std::string& name,
                                    const FileStamp& expected);
  // The upload takes over a replaced file's mode and, where this process may, its owner.
  static void takePermissions(const Upload& upload, const FileStamp& replaced);

 private:
  const std::string owner_;
  const std::string run_;
};

}  // namespace florvane
