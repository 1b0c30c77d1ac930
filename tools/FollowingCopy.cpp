#include "tools/FollowingCopy.h"

#include <cerrno>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace florvane::tools {

namespace {

constexpr std::size_t kPieceBytes = std::size_t{256} * 1024;
constexpr auto kPause = std::chrono::milliseconds(5);
// Not in every version of the kernel's header.
constexpr std::uint32_t kXFSMagic = 0x58465342, kBcachefsMagic = 0xca451a4e;

bool sharesBlocks(const std::string& folder) {
  struct statfs fileSystem{};
  if (statfs(folder.c_str(), &fileSystem) != 0) return false;
  const auto type = static_cast<std::uint32_t>(fileSystem.f_type);
  return type == BTRFS_SUPER_MAGIC || type == kXFSMagic || type == kBcachefsMagic;
}

// The download must not run out of room for the sake of its copy.
bool hasRoomForBoth(const std::string& folder, std::int64_t size) {
  struct statvfs fileSystem{};
  if (statvfs(folder.c_str(), &fileSystem) != 0) return false;
  return fileSystem.f_bavail / 2 >= static_cast<std::uint64_t>(size) / fileSystem.f_frsize + 1;
}

bool isEarlier(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

}  // namespace

FollowingCopy::~FollowingCopy() { stop(); }

void FollowingCopy::follow(const std::string& path, std::int64_t size) {
  if (path == path_) return;
  stop();
  source_.close();
  copy_.close();
  path_ = path;
  if (size <= 0 || sharesBlocks(folder_) || !hasRoomForBoth(folder_, size)) return;
  clock_gettime(CLOCK_REALTIME_COARSE, &begun_);
  auto source = openFile(path, O_RDONLY);
  auto copy = openFile(folder_, O_TMPFILE | O_WRONLY, 0600);
  if (!source || !copy) return;
  source_ = std::move(*source);
  copy_ = std::move(*copy);
  thread_ = std::jthread([this](const std::stop_token& stopped) { run(stopped); });
}

// Stops between two pieces: nobody waits for a slow place once the copy is of no use.
void FollowingCopy::run(const std::stop_token& stopped) {
  std::vector<std::uint8_t> piece(kPieceBytes);
  while (!stopped.stop_requested()) {
    const ssize_t count = read(source_.get(), piece.data(), piece.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 || !writeAll(copy_.get(), {piece.data(), static_cast<std::size_t>(count)}, folder_)) {
      copy_.close();  // its room may be what somebody waits for
      return;
    }
    if (count > 0) continue;
    std::unique_lock lock(mutex_);
    pause_.wait_for(lock, stopped, kPause, [] { return false; });
  }
}

void FollowingCopy::stop() {
  thread_.request_stop();
  if (thread_.joinable()) thread_.join();
}

FileDescriptor FollowingCopy::finish(const std::string& cached) {
  stop();
  if (!copy_.valid() || !copyContents(source_.get(), copy_.get(), path_, folder_)) return {};
  struct stat followed{}, copied{}, present{};
  if (fstat(source_.get(), &followed) != 0 || fstat(copy_.get(), &copied) != 0 || stat(cached.c_str(), &present) != 0) {
    return {};
  }
  // The server's date is an earlier one; a write to the cached file since would have dated it later.
  const bool isThatFile = followed.st_dev == present.st_dev && followed.st_ino == present.st_ino &&
                          present.st_size == copied.st_size && isEarlier(present.st_mtim, begun_);
  return isThatFile ? std::move(copy_) : FileDescriptor();
}

}  // namespace florvane::tools
