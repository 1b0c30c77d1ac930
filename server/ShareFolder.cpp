#include "server/ShareFolder.h"

#include "platform/Encoding.h"

#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr unsigned kStatusMask = STATX_BASIC_STATS | STATX_BTIME;
// A folder with more names is refused rather than held in memory.
constexpr std::size_t kMaximumNames = 2'000'000;

StoreResult<struct statx> status(int folder, const char* name) {
  struct statx result{};
  if (::statx(folder, name, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH | AT_NO_AUTOMOUNT, kStatusMask, &result) != 0) {
    return tl::unexpected(storeError(errno, name));
  }
  return result;
}

}  // namespace

StoreError storeError(int errorNumber, const std::string& what) {
  const std::string subject = what.empty() ? "The item" : "“" + what + "”";
  switch (errorNumber) {
    case ENOENT:
    case ENOTDIR:
    case ELOOP:
    case EXDEV:
    case ESTALE:
      return {StoreStatus::NotFound, subject + " is not there any more."};
    case EACCES:
    case EPERM:
    case EROFS:
      return {StoreStatus::Forbidden,
              "The server has no permission for " + (what.empty() ? "the item" : subject) + "."};
    case EEXIST:
    case ENOTEMPTY:
    case EISDIR:
      return {StoreStatus::Conflict, subject + " exists already."};
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return {StoreStatus::NoSpace, "There is not enough space on the server."};
    default:
      return {StoreStatus::Internal,
              subject + " cannot be used now: " + std::generic_category().message(errorNumber) + "."};
  }
}

bool isLegalName(std::string_view name) {
  return !name.empty() && name.size() <= 255 && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos && isValidUTF8(name);
}

StoreResult<std::unique_ptr<ShareFolder>> ShareFolder::open(ShareConfiguration configuration) {
  FileDescriptor folder(::open(configuration.folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder.valid()) return tl::unexpected(storeError(errno, configuration.folder));
  auto root = status(folder.get(), "");
  if (!root) return tl::unexpected(root.error());
  std::unique_ptr<ShareFolder> share(new ShareFolder(std::move(configuration), std::move(folder)));
  share->device_ = deviceOf(*root);
  return share;
}

StoreResult<FileDescriptor> ShareFolder::open(const std::string& path, int flags) const {
  struct open_how how{};
  how.flags = static_cast<std::uint64_t>(flags) | O_CLOEXEC | O_NOFOLLOW;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  const char* const place = path.empty() ? "." : path.c_str();
  long descriptor = -1;
  do {
    // EAGAIN says that a rename elsewhere made the walk uncertain; it is simply walked again.
    descriptor = ::syscall(SYS_openat2, folder_.get(), place, &how, sizeof(how));
  } while (descriptor < 0 && (errno == EAGAIN || errno == EINTR));
  if (descriptor < 0) return tl::unexpected(storeError(errno, path.substr(path.rfind('/') + 1)));
  return FileDescriptor(static_cast<int>(descriptor));
}

StoreResult<FileStamp> ShareFolder::stamp(int descriptor) const { return stamp(descriptor, ""); }

StoreResult<FileStamp> ShareFolder::stamp(int folder, const char* name) const {
  return status(folder, name).map([&](const struct statx& found) { return FileStamp::from(found, device_); });
}

StoreResult<std::vector<std::string>> ShareFolder::names(int folder) {
  // A descriptor of its own: the position of reading must not be shared.
  FileDescriptor reading(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!reading.valid()) return tl::unexpected(storeError(errno, ""));
  DIR* const stream = ::fdopendir(reading.get());
  if (!stream) return tl::unexpected(storeError(errno, ""));
  reading.release();
  const std::unique_ptr<DIR, int (*)(DIR*)> closing(stream, ::closedir);
  std::vector<std::string> found;
  for (;;) {
    errno = 0;
    const dirent* const entry = ::readdir(stream);
    if (!entry) break;
    if (entry->d_type != DT_REG && entry->d_type != DT_DIR && entry->d_type != DT_UNKNOWN) continue;
    const std::string_view name = entry->d_name;
    if (!isLegalName(name) || name.starts_with(kReservedNamePrefix)) continue;
    if (found.size() == kMaximumNames) {
      return tl::unexpected(StoreError{StoreStatus::Internal, "The folder holds more than 2,000,000 items."});
    }
    found.emplace_back(name);
  }
  if (errno != 0) return tl::unexpected(storeError(errno, ""));
  return found;
}

bool ShareFolder::announcesChanges(int descriptor) {
  struct statfs system{};
  if (::fstatfs(descriptor, &system) != 0) return false;
  switch (static_cast<std::uint64_t>(system.f_type)) {
    case EXT4_SUPER_MAGIC:
    case XFS_SUPER_MAGIC:
    case BTRFS_SUPER_MAGIC:
    case TMPFS_MAGIC:
    case F2FS_SUPER_MAGIC:
    case OVERLAYFS_SUPER_MAGIC:
      return true;
    default:
      return false;
  }
}

}  // namespace florvane
