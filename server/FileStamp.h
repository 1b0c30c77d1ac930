#pragma once

#include <compare>
#include <cstdint>

#include <sys/stat.h>

namespace florvane {

// What tells one file from every other, as far as the file system says. `device` is 0 for the file system of the
// share's own folder, so that identities outlive a change of device numbers; `birth` (nanoseconds since 1970) tells a
// file from a later one that was given the same inode, and is 0 where it is not known.
struct FileIdentity {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::int64_t birth = 0;
  bool directory = false;

  friend auto operator<=>(const FileIdentity&, const FileIdentity&) = default;
};

// A file's state at one moment. Dates in nanoseconds since 1970.
struct FileStamp {
  FileIdentity identity;
  std::uint64_t size = 0;  // bytes; 0 for a directory, whose size says nothing
  std::int64_t modified = 0;
  std::int64_t changed = 0;
  std::uint32_t mode = 0;
  std::uint32_t owner = 0;
  std::uint32_t group = 0;
  std::uint32_t links = 0;

  static FileStamp from(const struct statx& status, std::uint64_t shareDevice);
  bool isRegular() const { return S_ISREG(mode); }
  // What this process may do, by owner, group and mode.
  bool isReadable() const;
  bool isWritable() const;
  // Whether the bytes are as they were, for all that can be seen.
  bool sameContents(const FileStamp& other) const {
    return identity == other.identity && size == other.size && modified == other.modified;
  }

  friend bool operator==(const FileStamp&, const FileStamp&) = default;
};

// The device number of a statx answer as one number.
std::uint64_t deviceOf(const struct statx& status);

}  // namespace florvane
