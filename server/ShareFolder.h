#pragma once

#include "platform/FileSystem.h"
#include "server/DocumentStore.h"
#include "server/FileStamp.h"
#include "server/StoreError.h"

#include <memory>
#include <string>
#include <vector>

namespace florvane {

// The temporary files of uploads stand in folders of this name; nothing whose name begins so is ever listed.
inline constexpr char kReservedNamePrefix[] = ".florvane-";
inline constexpr char kUploadsFolderName[] = ".florvane-uploads";

// The folder of one share, held open, so that it stays the same folder whatever happens to its path. Every access goes
// from there downwards, through no symbolic link and never out of it. Thread-safe.
class ShareFolder {
 public:
  static StoreResult<std::unique_ptr<ShareFolder>> open(ShareConfiguration configuration);

  const ShareConfiguration& configuration() const { return configuration_; }
  int descriptor() const { return folder_.get(); }
  // The file at a path of plain names ("" is the folder itself), opened with flags as of open(2), O_CLOEXEC and
  // O_NOFOLLOW added. NotFound where nothing is or a symbolic link stands in the way.
  StoreResult<FileDescriptor> open(const std::string& path, int flags) const;
  StoreResult<FileStamp> stamp(int descriptor) const;
  // Of a name in an open folder, not followed; NotFound when it is not there.
  StoreResult<FileStamp> stamp(int folder, const char* name) const;
  // The names in an open folder that can be shared at all, in no order.
  static StoreResult<std::vector<std::string>> names(int folder);
  // Whether every change below reaches inotify: not so where other machines or processes write past this kernel.
  static bool announcesChanges(int descriptor);

 private:
  ShareFolder(ShareConfiguration configuration, FileDescriptor folder)
      : configuration_(std::move(configuration)), folder_(std::move(folder)) {}

  ShareConfiguration configuration_;
  FileDescriptor folder_;
  std::uint64_t device_ = 0;
};

// The errno of a file operation as the answer to a request; `what` names the document for people.
StoreError storeError(int errorNumber, const std::string& what);
// Whether a name can stand in a listing: 1 to 255 bytes of UTF-8, no "/" or NUL, neither "." nor "..".
bool isLegalName(std::string_view name);

}  // namespace florvane
