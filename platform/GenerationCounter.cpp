#include "platform/GenerationCounter.h"

#include "platform/Container.h"
#include "platform/FileSystem.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>

namespace florvane {

namespace {

constexpr char kLockFile[] = "/Generation.lock";
constexpr long kNanosecondsPerSecond = 1'000'000'000;
constexpr long kNanosecondsPerMicrosecond = 1000;
// Not in every version of the kernel's header.
constexpr std::uint32_t kXFSMagic = 0x58465342;
constexpr std::uint32_t kBcachefsMagic = 0xca451a4e;

std::int64_t nanoseconds(const timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * kNanosecondsPerSecond + time.tv_nsec;
}

std::int64_t clockNanoseconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return nanoseconds(now);
}

// Local file systems that date by the kernel's clock to the nanosecond. Others round, or date by another machine's.
bool keepsFineDates(const struct statfs& fileSystem) {
  constexpr std::array<std::uint32_t, 7> fine = {EXT4_SUPER_MAGIC, kXFSMagic,        BTRFS_SUPER_MAGIC,
                                                 TMPFS_MAGIC,      F2FS_SUPER_MAGIC, OVERLAYFS_SUPER_MAGIC,
                                                 kBcachefsMagic};
  return std::find(fine.begin(), fine.end(), static_cast<std::uint32_t>(fileSystem.f_type)) != fine.end();
}

// Old ext volumes have room for whole seconds only. The kernel sets the date of the last status change, which nobody
// can choose: a fraction of exactly nothing means that there is no room for one.
bool hasFraction(const struct stat& status) { return status.st_ctim.tv_nsec != 0; }

bool isSameFile(const struct stat& a, const struct stat& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

// Whether a write that is still to come could leave the very same date: the kernel set it (a date given by somebody
// differs from the date of the status change) in the tick that was running when `tick` was read, before the status was.
bool mayRepeat(const struct stat& status, std::int64_t tick) {
  std::int64_t modified = nanoseconds(status.st_mtim);
  return modified == nanoseconds(status.st_ctim) && modified >= tick && modified <= clockNanoseconds(CLOCK_REALTIME);
}

std::uint32_t mix(std::uint64_t inode, std::uint64_t size, std::uint64_t highSecond) {
  std::uint64_t word = 0;
  for (std::uint64_t part : {inode, size, highSecond}) {
    word = (word ^ part) + 0x9e3779b97f4a7c15U;
    word = (word ^ (word >> 30U)) * 0xbf58476d1ce4e5b9U;
    word = (word ^ (word >> 27U)) * 0x94d049bb133111ebU;
    word ^= word >> 31U;
  }
  auto folded = static_cast<std::uint32_t>(word ^ (word >> 32U));
  return folded == 0 ? 1 : folded;
}

Data encode(const struct stat& status) {
  auto second = static_cast<std::uint64_t>(status.st_mtim.tv_sec);
  const std::array<std::uint32_t, 3> words = {
      static_cast<std::uint32_t>(second), static_cast<std::uint32_t>(status.st_mtim.tv_nsec),
      mix(status.st_ino, static_cast<std::uint64_t>(status.st_size), second >> 32U)};
  return {words.data(), sizeof words};
}

struct Folders {
  std::mutex mutex;  // guards the list
  std::vector<std::string> list;
};

Folders& addedFolders() {
  static Folders& folders = *new Folders;
  return folders;
}

bool isInside(std::string_view path, std::string_view folder) {
  return path.size() > folder.size() && path.starts_with(folder) && (folder == "/" || path[folder.size()] == '/');
}

bool isOurs(const std::string& path, const std::string& container) {
  if (isInside(path, container)) return true;
  auto& folders = addedFolders();
  std::lock_guard lock(folders.mutex);
  return std::any_of(folders.list.begin(), folders.list.end(),
                     [&](const std::string& folder) { return isInside(path, folder); });
}

// Gives the file a date of our own if it still needs one, and answers the status that its counter is made of; absent
// when that cannot be done.
std::optional<struct stat> giveOwnDate(const std::string& path, const struct stat& seen, const std::string& container) {
  // Two that ask at the same time must not date it one after the other: the first one's counter would be stale.
  auto lock = FileLock::acquire(container + kLockFile, true);
  if (!lock) return std::nullopt;
  auto file = openFile(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
  struct stat status{};
  std::int64_t tick = clockNanoseconds(CLOCK_REALTIME_COARSE);
  if (!file || fstat(file->get(), &status) != 0 || !isSameFile(status, seen)) return std::nullopt;
  if (!mayRepeat(status, tick)) return status;

  // Later than the date it has, hence later than this tick, and not later than the next one begins.
  auto inMicroseconds = [](std::int64_t time) { return time / kNanosecondsPerMicrosecond; };
  std::int64_t own =
      std::max(inMicroseconds(clockNanoseconds(CLOCK_REALTIME)), inMicroseconds(nanoseconds(status.st_mtim)) + 1) *
      kNanosecondsPerMicrosecond;
  const timespec date{own / kNanosecondsPerSecond, own % kNanosecondsPerSecond};
  const std::array<timespec, 2> times = {timespec{0, UTIME_OMIT}, date};
  if (futimens(file->get(), times.data()) != 0) return std::nullopt;
  // Not looked at again: a write since then has another date, and this counter must not become that write's.
  status.st_mtim = date;
  return status;
}

// Whether others may be dating the item while it is looked at.
Result<std::optional<Data>> counterOfItem(const std::string& path, bool isShared) {
  struct statfs fileSystem{};
  struct stat status{};
  // Read before the status: a write after it is dated in this tick or later.
  std::int64_t tick = clockNanoseconds(CLOCK_REALTIME_COARSE);
  if (stat(path.c_str(), &status) != 0 || statfs(path.c_str(), &fileSystem) != 0) {
    return Failure(Error::fileRead(errno, path));
  }
  if (!keepsFineDates(fileSystem) || !hasFraction(status)) return std::nullopt;
  bool isPlain = S_ISREG(status.st_mode) || S_ISDIR(status.st_mode);
  // What changes in this tick may be somebody's dating, of which a look can catch one date without the other.
  bool mayBeDated = isShared ? nanoseconds(status.st_ctim) >= tick : mayRepeat(status, tick);
  if (!isPlain || !mayBeDated) return encode(status);

  auto container = Container::directory();
  auto resolved = realPath(path);
  if (!container || !resolved || !isOurs(*resolved, *container)) return encode(status);
  auto dated = giveOwnDate(*resolved, status, *container);
  if (!dated && mayRepeat(status, tick)) return std::nullopt;
  return encode(dated.value_or(status));
}

}  // namespace

Result<std::optional<Data>> generationCounterOfItem(const std::string& path) { return counterOfItem(path, true); }

Result<std::optional<Data>> generationCounterOfOwnFile(const std::string& path) { return counterOfItem(path, false); }

Result<std::optional<Data>> generationCounterOfItemDated(const std::string& path, Date date) {
  struct statfs fileSystem{};
  struct stat status{};
  if (stat(path.c_str(), &status) != 0 || statfs(path.c_str(), &fileSystem) != 0) {
    return Failure(Error::fileRead(errno, path));
  }
  if (!keepsFineDates(fileSystem) || !hasFraction(status)) return std::nullopt;
  status.st_mtim = date.toTimespec();
  return encode(status);
}

void addGenerationFolder(const std::string& folder) {
  auto resolved = realPath(folder).value_or(folder);
  auto& folders = addedFolders();
  std::lock_guard lock(folders.mutex);
  if (std::find(folders.list.begin(), folders.list.end(), resolved) == folders.list.end()) {
    folders.list.push_back(resolved);
  }
}

}  // namespace florvane
