#include "platform/FileCoordinator.h"

#include "platform/BackgroundThread.h"
#include "platform/Container.h"
#include "platform/CoordinationLock.h"
#include "platform/Exceptions.h"
#include "platform/FileSystem.h"

#include <array>
#include <cerrno>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr char kLockFile[] = "/Coordination.lock";
constexpr char kTemporaryFolder[] = "/tmp";
constexpr char kCopyPrefix[] = "reading-";
constexpr off_t kLargeFile = off_t{8} << 20U;  // bytes

CoordinatedItem::Access accessFor(FileCoordinatorWritingOptions options) {
  return options == FileCoordinatorWritingOptions::None ? CoordinatedItem::Access::Write
                                                        : CoordinatedItem::Access::WriteTree;
}

bool isThere(const std::string& path) {
  struct stat status{};
  return lstat(path.c_str(), &status) == 0;
}

// A copy that goes when this goes, if it is still there.
class StableCopy {
 public:
  static Result<StableCopy> make(const std::string& path, const std::string& folder) {
    auto source = openFile(path, O_RDONLY | O_NONBLOCK);
    if (!source) return Failure(source.error());
    struct stat status{};
    if (fstat(source->get(), &status) != 0) return Failure(Error::fileRead(errno, path));
    if (!S_ISREG(status.st_mode)) return Failure(Error::fileRead(S_ISDIR(status.st_mode) ? EISDIR : EINVAL, path));
    if (auto made = createDirectories(folder, 0700); !made) return Failure(made.error());
    auto target = makeTemporaryFile(folder, kCopyPrefix);
    if (!target) return Failure(target.error());
    StableCopy copy(target->second);
    auto copied = copyContents(source->get(), target->first.get(), path, copy.path_);
    if (!copied) return Failure(copied.error());
    const std::array<timespec, 2> times = {status.st_atim, status.st_mtim};
    if (futimens(target->first.get(), times.data()) != 0) return Failure(Error::fileWrite(errno, copy.path_));
    // One of the two in memory is enough: the one that is read next.
    if (status.st_size >= kLargeFile) (void)posix_fadvise(source->get(), 0, 0, POSIX_FADV_DONTNEED);
    return copy;
  }

  StableCopy(StableCopy&& other) noexcept : path_(std::exchange(other.path_, {})) {}
  StableCopy& operator=(StableCopy&&) = delete;
  ~StableCopy() {
    if (!path_.empty()) unlink(path_.c_str());
  }
  const std::string& path() const { return path_; }

 private:
  explicit StableCopy(std::string path) : path_(std::move(path)) {}
  std::string path_;
};

// Tells of a write that began, even of one that threw. Made before the lock, so that it speaks when the lock is gone
// and whoever hears of it does not wait for us.
class AfterAccess {
 public:
  explicit AfterAccess(WorkItem tell) : tell_(std::move(tell)) {}
  AfterAccess(const AfterAccess&) = delete;
  AfterAccess& operator=(const AfterAccess&) = delete;
  ~AfterAccess() {
    if (begun_) runGuarded(tell_, "platform/FileCoordinator");
  }
  void begin() { begun_ = true; }

 private:
  WorkItem tell_;
  bool begun_ = false;
};

}  // namespace

FileCoordinator::FileCoordinator(std::string purposeIdentifier)
    : purposeIdentifier_(std::move(purposeIdentifier)), presenters_(FilePresenters::shared()) {
  if (purposeIdentifier_.empty()) throw InvalidArgumentException("Invalid nil purpose identifier");
}

FileCoordinator::FileCoordinator(std::string purposeIdentifier, const std::string& folder, FilePresenters& presenters)
    : purposeIdentifier_(std::move(purposeIdentifier)),
      folder_(realPath(folder).value_or(folder)),
      presenters_(presenters) {
  if (purposeIdentifier_.empty()) throw InvalidArgumentException("Invalid nil purpose identifier");
}

Result<std::string> FileCoordinator::folder() const {
  if (folder_) return *folder_;
  return Container::requireDirectory();
}

void FileCoordinator::post(ItemChange::Kind kind, const std::string& path, const std::string& newPath) const {
  presenters_.post({kind, path, newPath, purposeIdentifier_});
}

Result<void> FileCoordinator::coordinateReadingItemAtURL(const URL& url, FileCoordinatorReadingOptions options,
                                                         const Accessor& accessor, Timeout timeout) const {
  auto place = folder();
  if (!place) return Failure(place.error());
  std::string path = resolvedItemPath(url.path());
  auto lock = CoordinationLock::acquire(*place + kLockFile, {{path, CoordinatedItem::Access::Read}}, timeout);
  if (!lock) return Failure(lock.error());
  if (options == FileCoordinatorReadingOptions::None) {
    accessor(url);
    return {};
  }
  auto copy = StableCopy::make(path, *place + kTemporaryFolder);
  if (!copy) return Failure(copy.error());
  accessor(URL::fileURL(copy->path()));
  return {};
}

Result<void> FileCoordinator::coordinateWritingItemAtURL(const URL& url, FileCoordinatorWritingOptions options,
                                                         const Accessor& accessor, Timeout timeout) const {
  auto place = folder();
  if (!place) return Failure(place.error());
  std::string path = resolvedItemPath(url.path());
  bool deletes = options == FileCoordinatorWritingOptions::ForDeleting;
  AfterAccess announcement([&] {
    // What is gone was announced before.
    if (!deletes || isThere(path)) post(ItemChange::Kind::Changed, path);
  });
  auto lock = CoordinationLock::acquire(*place + kLockFile, {{path, accessFor(options)}}, timeout);
  if (!lock) return Failure(lock.error());
  announcement.begin();
  if (deletes) post(ItemChange::Kind::WillBeDeleted, path);
  accessor(url);
  return {};
}

Result<void> FileCoordinator::coordinateWritingItemAtURL(const URL& url, FileCoordinatorWritingOptions options,
                                                         const URL& newURL, FileCoordinatorWritingOptions newOptions,
                                                         const PairAccessor& accessor, Timeout timeout) const {
  auto place = folder();
  if (!place) return Failure(place.error());
  std::string path = resolvedItemPath(url.path());
  std::string newPath = resolvedItemPath(newURL.path());
  bool moved = false;
  AfterAccess announcement([&] {
    if (moved) {
      post(ItemChange::Kind::Moved, path, newPath);
    } else {
      post(ItemChange::Kind::Changed, path);
      post(ItemChange::Kind::Changed, newPath);
    }
  });
  auto lock = CoordinationLock::acquire(*place + kLockFile,
                                        {{path, accessFor(options)}, {newPath, accessFor(newOptions)}}, timeout);
  if (!lock) return Failure(lock.error());
  bool wasThere = isThere(path);
  announcement.begin();
  accessor(url, newURL);
  moved = wasThere && !isThere(path) && isThere(newPath);
  return {};
}

}  // namespace florvane
