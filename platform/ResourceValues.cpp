#include "platform/ResourceValues.h"

#include "platform/TypeDatabase.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

namespace {

enum class Resource : std::uint8_t {
  Name,
  Path,
  FileType,
  FileSize,
  IsDirectory,
  IsPackage,
  IsReadable,
  IsWritable,
  IsHidden,
  HasHiddenExtension,
  TypeIdentifier,
  TypeDescription,
  CreationDate,
  ContentDate,
  AttributeDate,
  Count
};
constexpr auto kResourceCount = static_cast<std::size_t>(Resource::Count);

// By the order of the enumeration. Made once, since each key is looked up among all texts when it is made.
const std::array<Key, kResourceCount>& resourceKeys() {
  static const auto& keys = *new std::array<Key, kResourceCount>{ResourceNameKey,
                                                                 ResourcePathKey,
                                                                 ResourceFileResourceTypeKey,
                                                                 ResourceFileSizeKey,
                                                                 ResourceIsDirectoryKey,
                                                                 ResourceIsPackageKey,
                                                                 ResourceIsReadableKey,
                                                                 ResourceIsWritableKey,
                                                                 ResourceIsHiddenKey,
                                                                 ResourceHasHiddenExtensionKey,
                                                                 ResourceTypeIdentifierKey,
                                                                 ResourceLocalizedTypeDescriptionKey,
                                                                 ResourceCreationDateKey,
                                                                 ResourceContentModificationDateKey,
                                                                 ResourceAttributeModificationDateKey};
  return keys;
}

class Wanted {
 public:
  explicit Wanted(std::span<const std::string_view> names) {
    const auto& keys = resourceKeys();
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (names.empty() || std::find(names.begin(), names.end(), keys[i].text()) != names.end()) bits_ |= 1U << i;
    }
  }
  bool contains(Resource resource) const { return (bits_ >> static_cast<unsigned>(resource) & 1U) != 0; }

 private:
  std::uint32_t bits_ = 0;
};

std::string_view lastComponent(std::string_view path) {
  while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
  std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos || path.size() == 1 ? path : path.substr(slash + 1);
}

Date dateFrom(const statx_timestamp& time) {
  return Date::fromTimespec({static_cast<time_t>(time.tv_sec), static_cast<long>(time.tv_nsec)});
}

Date creationDate(const struct statx& status) {
  if (status.stx_mask & STATX_BTIME) return dateFrom(status.stx_btime);
  return std::min(dateFrom(status.stx_mtime), dateFrom(status.stx_ctime));
}

Value typeIdentifier(mode_t mode, std::string_view name) {
  static const auto& directory = *new Value("inode/directory");
  switch (mode & S_IFMT) {
    case S_IFREG:
      return TypeDatabase::shared().typeForName(name);
    case S_IFDIR:
      return directory;
    case S_IFLNK:
      return "inode/symlink";
    case S_IFIFO:
      return "inode/fifo";
    case S_IFSOCK:
      return "inode/socket";
    case S_IFCHR:
      return "inode/chardevice";
    default:
      return "inode/blockdevice";
  }
}

std::optional<Value> resourceType(mode_t mode) {
  static const auto& directory = *new Value(ResourceTypeDirectory);
  static const auto& regular = *new Value(ResourceTypeRegular);
  if (S_ISDIR(mode)) return directory;
  if (S_ISREG(mode)) return regular;
  return std::nullopt;
}

// Asks the system, since access control lists and read-only file systems have their say beside the mode.
bool isAllowed(const std::string& path, int access) {
  return faccessat(AT_FDCWD, path.c_str(), access, AT_EACCESS | AT_SYMLINK_NOFOLLOW) == 0;
}

}  // namespace

Result<Dictionary> resourceValues(const std::string& path, std::span<const std::string_view> keys) {
  struct statx status{};
  constexpr unsigned mask = STATX_TYPE | STATX_MODE | STATX_SIZE | STATX_MTIME | STATX_CTIME | STATX_BTIME;
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, mask, &status) != 0) {
    return Failure(Error::fileRead(errno, path));
  }
  Wanted wanted(keys);
  std::string_view name = lastComponent(path);
  mode_t mode = status.stx_mode;
  Dictionary values;
  values.reserve(keys.empty() ? kResourceCount : keys.size());
  auto set = [&](Resource resource, auto makeValue) {
    if (wanted.contains(resource)) {
      values.appendUnchecked(resourceKeys()[static_cast<std::size_t>(resource)], makeValue());
    }
  };
  set(Resource::Name, [&] { return Value(name); });
  set(Resource::Path, [&] { return Value(path); });
  if (auto type = resourceType(mode)) set(Resource::FileType, [&] { return *type; });
  if (S_ISREG(mode)) set(Resource::FileSize, [&] { return Value(status.stx_size); });
  set(Resource::IsDirectory, [&] { return Value(S_ISDIR(mode)); });
  set(Resource::IsPackage, [&] { return Value(false); });
  set(Resource::IsReadable, [&] { return Value(isAllowed(path, R_OK)); });
  set(Resource::IsWritable, [&] { return Value(isAllowed(path, W_OK)); });
  set(Resource::IsHidden, [&] { return Value(name.starts_with('.')); });
  set(Resource::HasHiddenExtension, [&] { return Value(false); });
  if (wanted.contains(Resource::TypeIdentifier) || wanted.contains(Resource::TypeDescription)) {
    Value type = typeIdentifier(mode, name);
    set(Resource::TypeIdentifier, [&] { return type; });
    set(Resource::TypeDescription, [&] { return TypeDatabase::shared().description(*type.asString()); });
  }
  set(Resource::CreationDate, [&] { return Value(creationDate(status)); });
  set(Resource::ContentDate, [&] { return Value(dateFrom(status.stx_mtime)); });
  set(Resource::AttributeDate, [&] { return Value(dateFrom(status.stx_ctime)); });
  return values;
}

std::string typeIdentifierForName(std::string_view name) {
  return std::string(*TypeDatabase::shared().typeForName(name).asString());
}

std::string localizedTypeDescription(std::string_view typeIdentifier) {
  return std::string(*TypeDatabase::shared().description(typeIdentifier).asString());
}

Result<void> setContentModificationDate(int descriptor, Date date) {
  const timespec times[] = {{0, UTIME_OMIT}, date.toTimespec()};
  if (futimens(descriptor, times) == 0) return {};
  return Failure(Error::fileWrite(errno, "file descriptor " + std::to_string(descriptor)));
}

}  // namespace florvane
