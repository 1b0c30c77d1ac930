#pragma once

#include "platform/Data.h"
#include "platform/Error.h"

#include <cstdint>
#include <ctime>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include <sys/types.h>

namespace florvane {

// Files by path. Errors are in QuilbarErrorDomain with the errno as underlying error. Thread-safe.

// An open file descriptor, closed when it goes.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept;
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  ~FileDescriptor();
  int get() const { return descriptor_; }
  bool valid() const { return descriptor_ >= 0; }
  int release();
  void close();

 private:
  int descriptor_ = -1;
};

inline constexpr std::uint64_t kWholeFile = UINT64_MAX;

// The path without its last component; "." for a single name, "/" for what lies in the root.
std::string folderOf(const std::string& path);
// Opens with O_CLOEXEC added to the flags; the mode is for a file that is made. The error is a reading one for flags
// that only read, else a writing one.
Result<FileDescriptor> openFile(const std::string& path, int flags, mode_t mode = 0600);
// The whole file, refused with an error (EFBIG) when it is larger than the limit (bytes) or than Data can be.
Result<Data> readFile(const std::string& path, std::uint64_t limit = kWholeFile);
// The rest of an open file, likewise; the path is for the error.
Result<Data> readAll(int descriptor, std::string_view path, std::uint64_t limit = kWholeFile);
// The rest of one open file into another, inside the kernel where it can; the paths are for the error.
Result<void> copyContents(int source, int target, std::string_view sourcePath, std::string_view targetPath);
// Writes a temporary beside the path, gives it exactly that mode and, when one is given, that modification time, and
// renames it into place; a symbolic link there is replaced, not followed. With `sync`, file and folder are on stable
// storage on return. A temporary that a killed writer left in the folder is removed once it is an hour old.
Result<void> writeFileAtomically(const std::string& path, const Data& bytes, mode_t mode = 0600, bool sync = false,
                                 std::optional<timespec> modificationTime = {});
// The folder and those above it; fine when it is there already. Mode for those that are made.
Result<void> createDirectories(const std::string& path, mode_t mode = 0777);
// A file or an empty folder, without following a last symbolic link; fine when it is not there.
Result<void> removeItem(const std::string& path);
// A file or a folder with all that is in it, however deep; never through symbolic links. Fine when it is not there.
// Stops at the first thing that cannot be removed.
Result<void> removeTree(const std::string& path);
Result<void> syncDirectory(const std::string& path);
// Puts what is in a file on stable storage.
Result<void> syncContents(const std::string& path);
// Puts a file and its name in the folder on stable storage.
Result<void> syncFile(const std::string& path);
// Follows symbolic links.
bool fileExists(const std::string& path);
// As realpath(3): absent with the errno in `error` when it cannot be resolved.
std::optional<std::string> realPath(const std::string& path, int* error = nullptr);
// A new empty file, mode 0600, its name made of prefix and a random suffix.
Result<std::pair<FileDescriptor, std::string>> makeTemporaryFile(const std::string& folder, std::string_view prefix);
// Writes all bytes, through short writes and interruptions.
Result<void> writeAll(int descriptor, std::span<const std::uint8_t> bytes, std::string_view path);

// For a program's first line: keeps descriptors 0 to 2 from files that are opened later where the program was started
// without them, so that what is meant for a standard stream is written into none of those. Using a stream that is
// missing still fails with EBADF.
void reserveStandardDescriptors();

// A lock on a whole file, made when missing, shared by processes and by threads of one; given back when this goes,
// even by a crash. Blocks until it is held.
class FileLock {
 public:
  static Result<FileLock> acquire(const std::string& path, bool exclusive);
  // Absent when another holds it.
  static Result<std::optional<FileLock>> tryAcquire(const std::string& path, bool exclusive);
  FileLock(FileLock&&) noexcept = default;
  FileLock& operator=(FileLock&&) noexcept = default;

 private:
  static Result<std::optional<FileLock>> acquire(const std::string& path, bool exclusive, bool waits);
  explicit FileLock(FileDescriptor descriptor) : descriptor_(std::move(descriptor)) {}
  FileDescriptor descriptor_;
};

}  // namespace florvane
