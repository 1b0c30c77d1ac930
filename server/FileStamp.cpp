#include "server/FileStamp.h"

#include <algorithm>
#include <vector>

#include <unistd.h>

namespace florvane {

namespace {

struct Credentials {
  uid_t user = ::geteuid();
  gid_t group = ::getegid();
  std::vector<gid_t> groups;

  Credentials() {
    const int count = ::getgroups(0, nullptr);
    if (count <= 0) return;
    groups.resize(static_cast<std::size_t>(count));
    groups.resize(static_cast<std::size_t>(std::max(0, ::getgroups(count, groups.data()))));
  }
  bool isMember(gid_t candidate) const {
    return candidate == group || std::find(groups.begin(), groups.end(), candidate) != groups.end();
  }
};

bool permits(const FileStamp& stamp, std::uint32_t bits) {
  static const Credentials credentials;
  if (credentials.user == 0) return true;
  if (stamp.owner == credentials.user) return (stamp.mode >> 6 & bits) == bits;
  if (credentials.isMember(stamp.group)) return (stamp.mode >> 3 & bits) == bits;
  return (stamp.mode & bits) == bits;
}

std::int64_t nanoseconds(const struct statx_timestamp& time) {
  return (static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000) + time.tv_nsec;
}

}  // namespace

std::uint64_t deviceOf(const struct statx& status) {
  return (static_cast<std::uint64_t>(status.stx_dev_major) << 32) | status.stx_dev_minor;
}

FileStamp FileStamp::from(const struct statx& status, std::uint64_t shareDevice) {
  FileStamp stamp;
  const bool directory = S_ISDIR(status.stx_mode);
  stamp.identity.device = deviceOf(status) == shareDevice ? 0 : deviceOf(status);
  stamp.identity.inode = status.stx_ino;
  stamp.identity.birth = (status.stx_mask & STATX_BTIME) != 0 ? nanoseconds(status.stx_btime) : 0;
  stamp.identity.directory = directory;
  stamp.size = directory ? 0 : status.stx_size;
  stamp.modified = nanoseconds(status.stx_mtime);
  stamp.changed = nanoseconds(status.stx_ctime);
  stamp.mode = status.stx_mode;
  stamp.owner = status.stx_uid;
  stamp.group = status.stx_gid;
  stamp.links = directory ? 0 : status.stx_nlink;
  return stamp;
}

// A folder is read by listing and entering it.
bool FileStamp::isReadable() const { return permits(*this, identity.directory ? 5 : 4); }
bool FileStamp::isWritable() const { return permits(*this, identity.directory ? 3 : 2); }

}  // namespace florvane
