#include "tools/FollowingCopy.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <utility>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace florvane::tools {

namespace {

constexpr std::size_t kPieceBytes = std::size_t{2} << 20U;
constexpr std::size_t kAlignment = 4096;  // what file systems ask of memory that they write from directly
constexpr std::int64_t kLargeBytes = std::int64_t{32} << 20U;  // written directly from there on
constexpr off_t kMostBehind = off_t{128} << 20U;               // while directly
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
  copied_ = 0;
  isDirect_ = false;
  mayBeDirect_ = size >= kLargeBytes;
  copy_ = std::move(*copy);
  thread_ = std::jthread([this](const std::stop_token& stopped) { run(stopped); });
}

// Stops between two pieces: nobody waits for a slow place once the copy is of no use. Whole pieces only; what is left
// is for finish(), from where both files stand then.
void FollowingCopy::run(const std::stop_token& stopped) {
  const std::unique_ptr<std::uint8_t, decltype(&std::free)> memory(
      static_cast<std::uint8_t*>(std::aligned_alloc(kAlignment, kPieceBytes)), &std::free);
  while (memory && !stopped.stop_requested()) {
    struct stat source{};
    const off_t behind = fstat(source_.get(), &source) == 0 ? source.st_size - copied_ : 0;
    const bool isCaughtUp = behind < static_cast<off_t>(kPieceBytes);
    if (isCaughtUp || copied_ == 0) writeDirectly(true);
    if (behind > kMostBehind) writeDirectly(false);
    if (isCaughtUp) {
      std::unique_lock lock(mutex_);
      pause_.wait_for(lock, stopped, kPause, [] { return false; });
    } else if (!copyPiece({memory.get(), kPieceBytes})) {
      copy_.close();  // its room may be what somebody waits for
      return;
    }
  }
  writeDirectly(false);
  if (lseek(source_.get(), copied_, SEEK_SET) < 0) copy_.close();
}

// Past the system's memory: to fill that with a large file for the second time can cost more than all the rest, and
// pushes out what is kept there. Through it all the same where the file system knows no other way, and to catch up
// where the disk is slower than the network.
void FollowingCopy::writeDirectly(bool directly) {
  directly = directly && mayBeDirect_;
  if (directly == isDirect_) return;
  if (fcntl(copy_.get(), F_SETFL, directly ? O_DIRECT : 0) == 0) {
    isDirect_ = directly;
  } else {
    mayBeDirect_ = false;
  }
}

bool FollowingCopy::copyPiece(std::span<std::uint8_t> piece) {
  for (std::size_t have = 0; have < piece.size();) {
    const ssize_t count = pread(source_.get(), &piece[have], piece.size() - have, copied_ + static_cast<off_t>(have));
    if (count == 0 || (count < 0 && errno != EINTR)) return false;
    have += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
  }
  while (!piece.empty()) {
    const ssize_t count = write(copy_.get(), piece.data(), piece.size());
    if (count >= 0) {
      piece = piece.subspan(static_cast<std::size_t>(count));
      copied_ += count;
    } else if (errno == EINVAL && isDirect_) {
      mayBeDirect_ = false;
      writeDirectly(false);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
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
