#include "platform/FileSystem.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <mutex>
#include <unordered_map>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr std::string_view kTemporaryPrefix = ".florvane-tmp-";
constexpr time_t kAbandonedAge = 60L * 60;  // seconds
constexpr std::size_t kPieceSize = std::size_t{64} * 1024;
constexpr std::size_t kKernelPieceSize = std::size_t{16} << 20U;
constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

struct DirectoryCloser {
  void operator()(DIR* directory) const { closedir(directory); }
};
using DirectoryStream = std::unique_ptr<DIR, DirectoryCloser>;

DirectoryStream openStream(FileDescriptor descriptor) {
  DirectoryStream stream(descriptor.valid() ? fdopendir(descriptor.get()) : nullptr);
  if (stream) descriptor.release();
  return stream;
}

// Calls the visitor with every entry but "." and "..", until it says false; the errno of a failed read, else 0.
template <typename Visitor>
int visitEntries(DIR* stream, Visitor visitor) {
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(stream);
    if (!entry) return errno;
    std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (!visitor(*entry)) return 0;
  }
}

// When this process last looked through folders, by the hashes of their paths.
class LastSweeps {
 public:
  // Whether it has not looked through the folder for an hour. Looking costs a walk over its entries, which a write of
  // one file in a large folder must not pay each time.
  bool isDue(const std::string& folder) {
    auto now = Clock::now();
    std::lock_guard lock(mutex_);
    auto [entry, isNew] = find(folder, now);
    if (!isNew && now - entry->second < std::chrono::seconds(kAbandonedAge)) return false;
    entry->second = now;
    return true;
  }
  void note(const std::string& folder) {
    auto now = Clock::now();
    std::lock_guard lock(mutex_);
    find(folder, now).first->second = now;
  }
  static LastSweeps& shared() {
    static auto& sweeps = *new LastSweeps;
    return sweeps;
  }

 private:
  using Clock = std::chrono::steady_clock;
  using Table = std::unordered_map<std::size_t, Clock::time_point>;
  static constexpr std::size_t kRememberedFolders = 512;

  std::pair<Table::iterator, bool> find(const std::string& folder, Clock::time_point now) {
    if (table_.size() >= kRememberedFolders) table_.clear();
    return table_.try_emplace(std::hash<std::string>()(folder), now);
  }

  std::mutex mutex_;  // guards the table
  Table table_;
};

void sweepAbandonedTemporaries(const std::string& folder) {
  if (!LastSweeps::shared().isDue(folder)) return;
  auto stream = openStream(FileDescriptor(open(folder.c_str(), kOpenDirectory)));
  if (!stream) return;
  int directory = dirfd(stream.get());
  visitEntries(stream.get(), [&](const dirent& entry) {
    if (!std::string_view(entry.d_name).starts_with(kTemporaryPrefix)) return true;
    struct stat status{};
    if (fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode) &&
        std::time(nullptr) - status.st_mtim.tv_sec > kAbandonedAge) {
      unlinkat(directory, entry.d_name, 0);
    }
    return true;
  });
}

bool isSyncUnsupported(int errorNumber) { return errorNumber == EINVAL || errorNumber == EROFS; }

int syncDescriptor(int descriptor) {
  int result = 0;
  do result = fsync(descriptor);
  while (result != 0 && errno == EINTR);
  return result;
}

// Fills the temporary and puts it in place; the caller removes it when this fails.
Result<void> finishTemporary(FileDescriptor& file, const std::string& temporary, const std::string& path,
                             const Data& bytes, mode_t mode, bool sync,
                             const std::optional<timespec>& modificationTime) {
  if (auto written = writeAll(file.get(), bytes.span(), path); !written) return written;
  if (fchmod(file.get(), mode) != 0) return Failure(Error::fileWrite(errno, path));
  if (modificationTime) {
    const timespec times[] = {{0, UTIME_OMIT}, *modificationTime};
    if (futimens(file.get(), times) != 0) return Failure(Error::fileWrite(errno, path));
  }
  if (sync && syncDescriptor(file.get()) != 0) return Failure(Error::fileWrite(errno, path));
  // Some file systems report a failed write only now.
  if (::close(file.release()) != 0 && errno != EINTR) return Failure(Error::fileWrite(errno, path));
  if (rename(temporary.c_str(), path.c_str()) != 0) return Failure(Error::fileWrite(errno, path));
  return {};
}

// Removes a folder's tree with a constant number of descriptors: it walks down by name and up by "..", and makes sure
// that up leads where it came from.
class TreeRemoval {
 public:
  TreeRemoval(const std::string& path, FileDescriptor folder) : path_(path), current_(std::move(folder)) {}

  // The errno of what failed, else 0.
  int run() {
    if (int failure = enter({})) return failure;
    for (;;) {
      Level& level = levels_.back();
      int failure = 0;
      if (!level.subfolders.empty()) {
        std::string name = std::move(level.subfolders.back());
        level.subfolders.pop_back();
        failure = descend(std::move(name));
      } else if (levels_.size() > 1) {
        failure = ascend();
      } else {
        return rmdir(path_.c_str()) != 0 && errno != ENOENT ? errno : 0;
      }
      if (failure) return failure;
    }
  }

 private:
  struct Level {
    std::string name;
    dev_t device = 0;
    ino_t inode = 0;
    std::vector<std::string> subfolders;
  };

  // Removes everything but folders from the current folder and remembers those.
  int enter(std::string name) {
    Level level;
    level.name = std::move(name);
    struct stat status{};
    if (fstat(current_.get(), &status) != 0) return errno;
    level.device = status.st_dev;
    level.inode = status.st_ino;
    auto stream = openStream(FileDescriptor(openat(current_.get(), ".", kOpenDirectory)));
    if (!stream) return errno;
    int failure = 0;
    int readFailure = visitEntries(stream.get(), [&](const dirent& entry) {
      if (entry.d_type != DT_DIR && unlinkat(current_.get(), entry.d_name, 0) == 0) return true;
      if (entry.d_type == DT_DIR || errno == EISDIR) {
        level.subfolders.emplace_back(entry.d_name);
      } else if (errno != ENOENT) {
        failure = errno;
      }
      return failure == 0;
    });
    levels_.push_back(std::move(level));
    return failure ? failure : readFailure;
  }

  int descend(std::string name) {
    FileDescriptor child(openat(current_.get(), name.c_str(), kOpenDirectory | O_NOFOLLOW));
    if (child.valid()) {
      current_ = std::move(child);
      return enter(std::move(name));
    }
    if (errno == ENOENT) return 0;
    if (errno != ENOTDIR && errno != ELOOP) return errno;
    return unlinkat(current_.get(), name.c_str(), 0) != 0 && errno != ENOENT ? errno : 0;
  }

  int ascend() {
    FileDescriptor parent(openat(current_.get(), "..", kOpenDirectory));
    struct stat status{};
    if (!parent.valid() || fstat(parent.get(), &status) != 0) return errno;
    const Level& expected = levels_[levels_.size() - 2];
    if (status.st_dev != expected.device || status.st_ino != expected.inode) return EBUSY;
    if (unlinkat(parent.get(), levels_.back().name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) return errno;
    current_ = std::move(parent);
    levels_.pop_back();
    return 0;
  }

  const std::string& path_;
  FileDescriptor current_;
  std::vector<Level> levels_;
};

}  // namespace

FileDescriptor::FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(other.release()) {}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  if (this != &other) {
    close();
    descriptor_ = other.release();
  }
  return *this;
}

FileDescriptor::~FileDescriptor() { close(); }

int FileDescriptor::release() { return std::exchange(descriptor_, -1); }

void FileDescriptor::close() {
  if (valid()) ::close(release());
}

void reserveStandardDescriptors() {
  for (int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) >= 0) continue;
    // The lowest number that is free. A descriptor of a place alone can neither be read nor written.
    if (open("/dev/null", O_PATH | O_CLOEXEC) < 0) return;
  }
}

std::string folderOf(const std::string& path) {
  std::size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

Result<FileDescriptor> openFile(const std::string& path, int flags, mode_t mode) {
  int descriptor = -1;
  do descriptor = open(path.c_str(), flags | O_CLOEXEC, mode);
  while (descriptor < 0 && errno == EINTR);
  if (descriptor >= 0) return FileDescriptor(descriptor);
  bool onlyReads = (flags & O_ACCMODE) == O_RDONLY && (flags & O_CREAT) == 0;
  return Failure(onlyReads ? Error::fileRead(errno, path) : Error::fileWrite(errno, path));
}

Result<Data> readAll(int descriptor, std::string_view path, std::uint64_t limit) {
  limit = std::min<std::uint64_t>(limit, std::numeric_limits<std::uint32_t>::max());
  struct stat status{};
  if (fstat(descriptor, &status) != 0) return Failure(Error::fileRead(errno, path));
  auto expected = static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0));
  if (expected > limit) return Failure(Error::fileRead(EFBIG, path));

  // One byte more than expected, so that the end shows without another buffer.
  std::size_t capacity = std::max<std::size_t>(expected + 1, 4096), size = 0;
  auto buffer = std::make_unique_for_overwrite<std::uint8_t[]>(capacity);
  for (;;) {
    ssize_t count = read(descriptor, buffer.get() + size, capacity - size);
    if (count == 0) return Data(buffer.get(), size);
    if (count < 0) {
      if (errno == EINTR) continue;
      return Failure(Error::fileRead(errno, path));
    }
    size += static_cast<std::size_t>(count);
    if (size > limit) return Failure(Error::fileRead(EFBIG, path));
    if (size == capacity) {
      auto larger = std::make_unique_for_overwrite<std::uint8_t[]>(capacity * 2);
      std::copy_n(buffer.get(), size, larger.get());
      buffer = std::move(larger);
      capacity *= 2;
    }
  }
}

Result<Data> readFile(const std::string& path, std::uint64_t limit) {
  auto file = openFile(path, O_RDONLY);
  if (!file) return Failure(file.error());
  return readAll(file->get(), path, limit);
}

Result<void> writeAll(int descriptor, std::span<const std::uint8_t> bytes, std::string_view path) {
  while (!bytes.empty()) {
    ssize_t count = write(descriptor, bytes.data(), bytes.size());
    if (count >= 0) {
      bytes = bytes.subspan(static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      return Failure(Error::fileWrite(errno, path));
    }
  }
  return {};
}

Result<void> copyContents(int source, int target, std::string_view sourcePath, std::string_view targetPath) {
  for (;;) {
    ssize_t count = copy_file_range(source, nullptr, target, nullptr, kKernelPieceSize, 0);
    if (count == 0) break;  // some file systems say so without having copied: what is left shows below
    if (count < 0 && errno == ENOSPC) return Failure(Error::fileWrite(errno, targetPath));
    if (count < 0 && errno != EINTR) break;
    // The disk works on this piece during the next, so that little is left for whoever syncs the copy.
    const bool isLarge = count == static_cast<ssize_t>(kKernelPieceSize);
    if (isLarge) (void)sync_file_range(target, lseek(target, 0, SEEK_CUR) - count, count, SYNC_FILE_RANGE_WRITE);
  }
  std::array<std::uint8_t, kPieceSize> piece;  // not filled: that would cost more than to copy a small file
  for (;;) {
    ssize_t count = read(source, piece.data(), piece.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Failure(Error::fileRead(errno, sourcePath));
    if (count == 0) return {};
    auto written = writeAll(target, {piece.data(), static_cast<std::size_t>(count)}, targetPath);
    if (!written) return written;
  }
}

Result<void> writeFileAtomically(const std::string& path, const Data& bytes, mode_t mode, bool sync,
                                 std::optional<timespec> modificationTime) {
  std::string folder = folderOf(path);
  sweepAbandonedTemporaries(folder);
  auto made = makeTemporaryFile(folder, kTemporaryPrefix);
  if (!made) return Failure(made.error());
  auto& [file, temporary] = *made;
  if (auto finished = finishTemporary(file, temporary, path, bytes, mode, sync, modificationTime); !finished) {
    unlink(temporary.c_str());
    return finished;
  }
  return sync ? syncDirectory(folder) : Result<void>();
}

Result<void> createDirectories(const std::string& path, mode_t mode) {
  struct stat status{};
  if (stat(path.c_str(), &status) == 0) {
    return S_ISDIR(status.st_mode) ? Result<void>() : Failure(Error::fileWrite(EEXIST, path));
  }
  // Up to the first folder that is there, then down again.
  std::size_t end = path.size();
  while (end > 0) {
    std::string folder = path.substr(0, end);
    if (mkdir(folder.c_str(), mode) == 0) {
      if (end < path.size()) break;
      LastSweeps::shared().note(path);  // nothing can have been left in it
      return {};
    }
    if (errno == EEXIST) break;
    if (errno != ENOENT) return Failure(Error::fileWrite(errno, folder));
    std::size_t slash = path.find_last_of('/', end - 1);
    if (slash == std::string::npos || slash == 0) return Failure(Error::fileWrite(ENOENT, folder));
    end = slash;
  }
  while (end < path.size()) {
    end = std::min(path.find('/', end + 1), path.size());
    std::string folder = path.substr(0, end);
    if (mkdir(folder.c_str(), mode) != 0 && errno != EEXIST) return Failure(Error::fileWrite(errno, folder));
  }
  if (stat(path.c_str(), &status) != 0) return Failure(Error::fileWrite(errno, path));
  if (!S_ISDIR(status.st_mode)) return Failure(Error::fileWrite(EEXIST, path));
  return {};
}

Result<void> removeItem(const std::string& path) {
  if (unlink(path.c_str()) == 0 || errno == ENOENT || errno == ENOTDIR) return {};
  if (errno == EISDIR && (rmdir(path.c_str()) == 0 || errno == ENOENT)) return {};
  return Failure(Error::fileWrite(errno, path));
}

Result<void> removeTree(const std::string& path) {
  FileDescriptor folder(open(path.c_str(), kOpenDirectory | O_NOFOLLOW));
  if (!folder.valid()) {
    if (errno == ENOTDIR || errno == ELOOP || errno == ENOENT) return removeItem(path);
    return Failure(Error::fileWrite(errno, path));
  }
  if (int failure = TreeRemoval(path, std::move(folder)).run()) return Failure(Error::fileWrite(failure, path));
  return {};
}

Result<void> syncDirectory(const std::string& path) {
  auto folder = openFile(path, O_RDONLY | O_DIRECTORY);
  if (!folder) return Failure(folder.error());
  // A file system that cannot sync folders has nothing to lose here.
  if (syncDescriptor(folder->get()) != 0 && !isSyncUnsupported(errno)) return Failure(Error::fileWrite(errno, path));
  return {};
}

Result<void> syncContents(const std::string& path) {
  auto file = openFile(path, O_RDONLY);
  if (!file) return Failure(file.error());
  if (syncDescriptor(file->get()) != 0 && !isSyncUnsupported(errno)) return Failure(Error::fileWrite(errno, path));
  return {};
}

Result<void> syncFile(const std::string& path) {
  auto synced = syncContents(path);
  return synced ? syncDirectory(folderOf(path)) : synced;
}

bool fileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::optional<std::string> realPath(const std::string& path, int* error) {
  std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr), &std::free);
  if (resolved) return std::string(resolved.get());
  if (error) *error = errno;
  return std::nullopt;
}

Result<std::pair<FileDescriptor, std::string>> makeTemporaryFile(const std::string& folder, std::string_view prefix) {
  std::string path = folder + "/" + std::string(prefix) + "XXXXXX";
  FileDescriptor file(mkostemp(path.data(), O_CLOEXEC));
  if (!file.valid()) return Failure(Error::fileWrite(errno, folder));
  return std::pair(std::move(file), std::move(path));
}

Result<FileLock> FileLock::acquire(const std::string& path, bool exclusive) {
  auto lock = acquire(path, exclusive, true);
  if (!lock) return Failure(lock.error());
  return std::move(**lock);
}

Result<std::optional<FileLock>> FileLock::tryAcquire(const std::string& path, bool exclusive) {
  return acquire(path, exclusive, false);
}

Result<std::optional<FileLock>> FileLock::acquire(const std::string& path, bool exclusive, bool waits) {
  for (;;) {
    auto file = openFile(path, O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
    if (!file) return Failure(file.error());
    struct flock range{};
    range.l_type = exclusive ? F_WRLCK : F_RDLCK;
    range.l_whence = SEEK_SET;
    int result = 0;
    do result = fcntl(file->get(), waits ? F_OFD_SETLKW : F_OFD_SETLK, &range);
    while (result != 0 && errno == EINTR);
    if (result != 0 && !waits && (errno == EAGAIN || errno == EACCES)) return std::nullopt;
    if (result != 0) return Failure(Error::fileWrite(errno, path));
    // A lock on a file that somebody removed meanwhile would exclude nobody.
    struct stat held{}, present{};
    if (fstat(file->get(), &held) != 0) return Failure(Error::fileWrite(errno, path));
    if (stat(path.c_str(), &present) == 0 && held.st_dev == present.st_dev && held.st_ino == present.st_ino) {
      return std::optional(FileLock(std::move(*file)));
    }
  }
}

}  // namespace florvane
