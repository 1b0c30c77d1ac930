#include "platform/CoordinationLock.h"

#include "platform/FilePresenter.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <string_view>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

namespace {

using SteadyClock = std::chrono::steady_clock;

// Of a thread that waits with a timeout: locks have no wait that ends by itself.
constexpr std::chrono::milliseconds kFirstPause{1};
constexpr std::chrono::milliseconds kLongestPause{20};

// Bytes of the lock file, each to be held alone or not, in the order in which they are taken.
using Ranges = std::map<off_t, bool>;

struct Held {
  std::string lockFile;
  off_t offset;
  bool exclusive;
};

// What the thread's running operations hold, innermost last.
std::vector<Held>& heldByThread() {
  static thread_local std::vector<Held> held;
  return held;
}

// FNV-1a over the path so far, so that the hashes of all folders above a path fall off on the way. Part of what
// processes of different versions agree on.
class PathHash {
 public:
  void add(char character) { state_ = (state_ ^ static_cast<unsigned char>(character)) * 0x100000001b3U; }
  off_t itemByte() const { return static_cast<off_t>(mixed() << 1U); }
  off_t treeByte() const { return itemByte() + 1; }

 private:
  // 61 bits, so that both bytes are valid offsets.
  std::uint64_t mixed() const {
    std::uint64_t word = (state_ ^ (state_ >> 33U)) * 0xff51afd7ed558ccdU;
    return (word ^ (word >> 33U)) >> 3U;
  }
  std::uint64_t state_ = 0xcbf29ce484222325U;
};

void addRanges(const CoordinatedItem& item, std::string_view root, Ranges& ranges) {
  PathHash hash;
  std::string_view path = item.path;
  for (std::size_t index = 0; index < path.size(); ++index) {
    // Nobody moves the folder of the lock file or those above it.
    bool endsFolder = path[index] == '/' && index > 0;
    std::string_view above = path.substr(0, index);
    if (endsFolder && above != root && !isPathBelow(root, above)) ranges.emplace(hash.treeByte(), false);
    hash.add(path[index]);
  }
  ranges[hash.itemByte()] |= item.access != CoordinatedItem::Access::Read;
  if (item.access == CoordinatedItem::Access::WriteTree) ranges[hash.treeByte()] = true;
}

// Takes out what the thread holds already. False when it would have to turn a shared lock into one of its own.
bool removeHeld(const std::string& lockFile, Ranges& ranges) {
  std::map<off_t, bool> held;
  for (const auto& entry : heldByThread()) {
    if (entry.lockFile == lockFile) held[entry.offset] |= entry.exclusive;
  }
  for (auto range = ranges.begin(); range != ranges.end();) {
    auto found = held.find(range->first);
    if (found == held.end()) {
      ++range;
    } else if (range->second && !found->second) {
      return false;
    } else {
      range = ranges.erase(range);
    }
  }
  return true;
}

// 0 or an errno.
int lockByte(int descriptor, off_t offset, bool exclusive, std::optional<SteadyClock::time_point> deadline) {
  struct flock range{};
  range.l_type = exclusive ? F_WRLCK : F_RDLCK;
  range.l_whence = SEEK_SET;
  range.l_start = offset;
  range.l_len = 1;
  auto pause = kFirstPause;
  for (;;) {
    if (fcntl(descriptor, deadline ? F_OFD_SETLK : F_OFD_SETLKW, &range) == 0) return 0;
    if (errno == EINTR) continue;
    if (!deadline || (errno != EAGAIN && errno != EACCES)) return errno;
    auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - SteadyClock::now());
    if (left.count() <= 0) return ETIMEDOUT;
    std::this_thread::sleep_for(std::min(pause, left));
    pause = std::min(pause * 2, kLongestPause);
  }
}

Error lockError(int errorNumber, const std::string& path) {
  if (errorNumber == ETIMEDOUT || errorNumber == EDEADLK) return Error::posix(errorNumber, path);
  return Error::fileWrite(errorNumber, path);
}

}  // namespace

Result<CoordinationLock> CoordinationLock::acquire(const std::string& lockFile,
                                                   const std::vector<CoordinatedItem>& items,
                                                   std::optional<std::chrono::milliseconds> timeout) {
  Ranges ranges;
  for (const auto& item : items) addRanges(item, folderOf(lockFile), ranges);
  if (!removeHeld(lockFile, ranges)) return Failure(lockError(EDEADLK, items.front().path));
  std::optional<SteadyClock::time_point> deadline;
  if (timeout) deadline = SteadyClock::now() + *timeout;

  FileDescriptor descriptor;
  while (!ranges.empty()) {
    auto file = openFile(lockFile, O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
    if (!file) return Failure(file.error());
    for (const auto& [offset, exclusive] : ranges) {
      int error = lockByte(file->get(), offset, exclusive, deadline);
      if (error != 0) return Failure(lockError(error, items.front().path));
    }
    // Locks on a file that somebody removed meanwhile would exclude nobody.
    struct stat held{}, present{};
    if (fstat(file->get(), &held) != 0) return Failure(Error::fileWrite(errno, lockFile));
    if (stat(lockFile.c_str(), &present) == 0 && held.st_dev == present.st_dev && held.st_ino == present.st_ino) {
      descriptor = std::move(*file);
      break;
    }
  }
  auto& list = heldByThread();
  for (const auto& [offset, exclusive] : ranges) list.push_back({lockFile, offset, exclusive});
  return CoordinationLock(std::move(descriptor), ranges.size());
}

CoordinationLock::CoordinationLock(CoordinationLock&& other) noexcept
    : descriptor_(std::move(other.descriptor_)), held_(std::exchange(other.held_, 0)) {}

CoordinationLock::~CoordinationLock() {
  auto& list = heldByThread();
  list.erase(list.end() - static_cast<std::ptrdiff_t>(std::min(held_, list.size())), list.end());
}

}  // namespace florvane
