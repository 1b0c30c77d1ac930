#include "Client/Client/DCSyncedFolders.h"

#include "platform/FileSystem.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

namespace florvane {

namespace {

constexpr std::size_t kMostFolders = 256;

}  // namespace

Result<void> DCSyncedFolders::syncNameOf(const std::string& folder) {
  struct statx status{};
  if (statx(AT_FDCWD, folder.c_str(), 0, STATX_INO | STATX_BTIME, &status) != 0) {
    if (errno == ENOENT) return {};
    return Failure(Error::fileRead(errno, folder));
  }
  const Identity identity{status.stx_dev_major, status.stx_dev_minor, status.stx_ino, status.stx_btime.tv_sec,
                          status.stx_btime.tv_nsec};
  // A file system that does not tell when a folder was made cannot tell two of them apart.
  const bool isTold = (status.stx_mask & STATX_BTIME) != 0;
  {
    std::lock_guard lock(mutex_);
    const auto found = known_.find(folder);
    if (isTold && found != known_.end() && found->second == identity) return {};
  }
  if (auto synced = syncDirectory(folderOf(folder)); !synced) return synced;
  std::lock_guard lock(mutex_);
  if (known_.size() >= kMostFolders) known_.clear();
  known_[folder] = identity;
  return {};
}

}  // namespace florvane
