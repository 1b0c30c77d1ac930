#include "platform/HTTPRequestBody.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr std::uint64_t kForgottenPiece = std::uint64_t{8} << 20U;

Failure cannotOpen(int errorNumber, const std::string& path) {
  bool missing = errorNumber == ENOENT || errorNumber == ENOTDIR || errorNumber == EISDIR;
  Error cause = Error::posix(errorNumber, path);
  return Failure(
      Error(URLErrorDomain, missing ? URLErrorFileDoesNotExist : URLErrorNoPermissionsToReadFile,
            Dictionary{{LocalizedDescriptionKey, path + ": " + cause.localizedDescription()}, {FilePathErrorKey, path}})
          .withUnderlyingError(cause));
}

}  // namespace

Result<HTTPRequestBody> HTTPRequestBody::openFile(const std::string& path) {
  // O_NONBLOCK: a pipe of that name must not hold up the network thread.
  FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file.valid()) return cannotOpen(errno, path);
  struct stat status = {};
  if (fstat(file.get(), &status) != 0) return cannotOpen(errno, path);
  if (!S_ISREG(status.st_mode)) return cannotOpen(EISDIR, path);
  posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  return HTTPRequestBody(std::move(file), path, static_cast<std::uint64_t>(status.st_size));
}

Result<std::size_t> HTTPRequestBody::read(std::span<char> buffer) {
  std::size_t wanted = std::min<std::uint64_t>(buffer.size(), size_ - offset_);
  if (wanted == 0) return std::size_t{0};
  if (!file_.valid()) {
    std::memcpy(buffer.data(), data_.bytes() + offset_, wanted);
    offset_ += wanted;
    return wanted;
  }
  ssize_t count = 0;
  do {
    count = pread(file_.get(), buffer.data(), wanted, static_cast<off_t>(offset_));
  } while (count < 0 && errno == EINTR);
  if (count < 0) return Failure(Error::fileRead(errno, path_));
  if (count == 0) {
    return Failure(Error(QuilbarErrorDomain, FileReadUnknownError,
                         Dictionary{{LocalizedDescriptionKey, path_ + " became shorter while it was sent."},
                                    {FilePathErrorKey, path_}}));
  }
  offset_ += static_cast<std::uint64_t>(count);
  forgetWhatWasRead();
  return static_cast<std::size_t>(count);
}

// A large file that is read once shall not push everything else out of the system's memory.
void HTTPRequestBody::forgetWhatWasRead() {
  if (offset_ - forgotten_ < kForgottenPiece) return;
  (void)posix_fadvise(file_.get(), static_cast<off_t>(forgotten_), static_cast<off_t>(offset_ - forgotten_),
                      POSIX_FADV_DONTNEED);
  forgotten_ = offset_;
}

}  // namespace florvane
