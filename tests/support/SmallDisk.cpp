#include "tests/support/SmallDisk.h"

#include "tests/support/TemporaryDirectory.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace florvane::test {

namespace {

// Mounts are the superuser's, or anybody's who has a user namespace of his own.
void enterNamespace() {
  if (unshare(CLONE_NEWNS) == 0) return;
  const std::string user = std::to_string(geteuid()), group = std::to_string(getegid());
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) throw std::system_error(errno, std::generic_category(), "unshare");
  writeText("/proc/self/setgroups", "deny");
  writeText("/proc/self/uid_map", user + " " + user + " 1");
  writeText("/proc/self/gid_map", group + " " + group + " 1");
}

}  // namespace

SmallDisk::SmallDisk(std::string folder, std::size_t bytes) : folder_(std::move(folder)) {
  try {
    enterNamespace();
  } catch (const std::exception& exception) {
    obstacle_ = exception.what();
    return;
  }
  const std::string options = "mode=0700,size=" + std::to_string(bytes);
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("none", folder_.c_str(), "tmpfs", 0, options.c_str()) != 0) {
    obstacle_ = "mount: " + std::generic_category().message(errno);
    return;
  }
  filler_ = FileDescriptor(open((folder_ + "/filler").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!filler_.valid()) throw std::system_error(errno, std::generic_category(), folder_);
}

SmallDisk::~SmallDisk() {
  if (!obstacle_) umount2(folder_.c_str(), MNT_DETACH);
}

void SmallDisk::leave(std::size_t bytes) {
  struct statvfs disk{};
  struct stat status{};
  if (statvfs(folder_.c_str(), &disk) != 0 || fstat(filler_.get(), &status) != 0) {
    throw std::system_error(errno, std::generic_category(), folder_);
  }
  const auto size = status.st_size + static_cast<off_t>(disk.f_bavail * disk.f_frsize) - static_cast<off_t>(bytes);
  if (size < 0) throw std::runtime_error("The disk is smaller than what is to be left of it.");
  // Others may take some of it meanwhile; then there is less to fill.
  if (size <= status.st_size) {
    (void)ftruncate(filler_.get(), size);
  } else {
    (void)posix_fallocate(filler_.get(), 0, size);
  }
}

void SmallDisk::release() {
  if (ftruncate(filler_.get(), 0) != 0) throw std::system_error(errno, std::generic_category(), folder_);
}

}  // namespace florvane::test
