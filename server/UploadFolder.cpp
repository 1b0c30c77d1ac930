#include "server/UploadFolder.h"

#include "platform/Crypto.h"
#include "platform/Encoding.h"
#include "platform/ResourceValues.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

namespace {

StoreResult<void> syncFolder(int directory) {
  const FileDescriptor folder(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.valid() || ::fsync(folder.get()) != 0) return tl::unexpected(storeError(errno, ""));
  return {};
}

FileDescriptor openUploads(int directory) {
  return FileDescriptor(::openat(directory, kUploadsFolderName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

}  // namespace

StoreResult<Upload> UploadFolder::make(const ShareFolder& share, int directory, std::uint64_t expectedBytes) const {
  auto stamp = share.stamp(directory);
  if (!stamp) return tl::unexpected(stamp.error());
  const bool home = stamp->identity.device == 0;
  if (!home) sweep(directory);  // nobody knew at the start that there is one
  const int holder = home ? share.descriptor() : directory;
  if (::mkdirat(holder, kUploadsFolderName, 0700) != 0 && errno != EEXIST) {
    return tl::unexpected(storeError(errno, ""));
  }
  FileDescriptor folder = openUploads(holder);
  if (!folder.valid()) return tl::unexpected(storeError(errno, kUploadsFolderName));
  const auto suffix = randomBytes(16);
  if (!suffix) return tl::unexpected(StoreError{StoreStatus::Internal, suffix.error().localizedDescription()});
  const std::string name = run_ + hexEncode(*suffix);
  // The mode is a new file's; the folder keeps others out until it has its place.
  FileDescriptor file(::openat(folder.get(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
  if (!file.valid()) return tl::unexpected(storeError(errno, ""));
  Upload upload(std::move(folder), std::move(file), name);
  if (expectedBytes > INT64_MAX) return tl::unexpected(storeError(EFBIG, ""));
  if (expectedBytes > 0 &&
      ::fallocate(upload.descriptor(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(expectedBytes)) != 0 &&
      (errno == ENOSPC || errno == EDQUOT || errno == EFBIG)) {
    return tl::unexpected(storeError(errno, ""));
  }
  return upload;
}

void UploadFolder::sweep(int directory) const {
  FileDescriptor folder = openUploads(directory);
  if (!folder.valid()) return;
  DIR* const stream = ::fdopendir(folder.get());
  if (!stream) return;
  const int descriptor = folder.release();
  const std::unique_ptr<DIR, int (*)(DIR*)> closing(stream, ::closedir);
  while (const dirent* const entry = ::readdir(stream)) {
    const std::string_view name = entry->d_name;
    if (name.starts_with(owner_) && !name.starts_with(run_)) ::unlinkat(descriptor, entry->d_name, 0);
  }
}

StoreResult<void> UploadFolder::finish(const Upload& upload, const std::optional<Date>& modified) {
  struct stat status{};
  // Truncating at the end gives back what was reserved beyond the bytes that came.
  if (::fstat(upload.descriptor(), &status) != 0 || ::ftruncate(upload.descriptor(), status.st_size) != 0) {
    return tl::unexpected(storeError(errno, ""));
  }
  if (modified && !setContentModificationDate(upload.descriptor(), *modified)) {
    return tl::unexpected(StoreError{StoreStatus::BadRequest, "The server cannot keep such a modification date."});
  }
  if (::fsync(upload.descriptor()) != 0) return tl::unexpected(storeError(errno, ""));
  return {};
}

StoreResult<void> UploadFolder::publish(Upload& upload, int directory, const std::string& name) {
  int failure = 0;
  if (::renameat2(upload.folder_.get(), upload.name_.c_str(), directory, name.c_str(), RENAME_NOREPLACE) != 0) {
    failure = errno;
    if (failure == EINVAL || failure == ENOSYS) {
      // This file system cannot rename so; a link never replaces anything either.
      failure = ::linkat(upload.folder_.get(), upload.name_.c_str(), directory, name.c_str(), 0) != 0 ? errno : 0;
      if (failure == 0) ::unlinkat(upload.folder_.get(), upload.name_.c_str(), 0);
    }
  }
  if (failure != 0) return tl::unexpected(storeError(failure, name));
  upload.folder_.close();
  return syncFolder(directory);
}

StoreResult<void> UploadFolder::exchange(Upload& upload, const ShareFolder& share, int directory,
                                         const std::string& name, const FileStamp& expected) {
  const int uploads = upload.folder_.get();
  const char* const temporary = upload.name_.c_str();
  const auto fits = [&](const StoreResult<FileStamp>& stamp) { return stamp && stamp->sameContents(expected); };
  const tl::unexpected<StoreError> conflict(
      StoreError{StoreStatus::Conflict, "“" + name + "” was changed on the server at this very moment."});
  if (::renameat2(uploads, temporary, directory, name.c_str(), RENAME_EXCHANGE) == 0) {
    // The old file is out of everyone's way now. Had someone written to it, it goes back.
    if (!fits(share.stamp(uploads, temporary))) {
      ::renameat2(uploads, temporary, directory, name.c_str(), RENAME_EXCHANGE);
      return conflict;
    }
    ::unlinkat(uploads, temporary, 0);
  } else if (errno == EINVAL || errno == ENOSYS) {
    if (!fits(share.stamp(directory, name.c_str()))) return conflict;
    if (::renameat(uploads, temporary, directory, name.c_str()) != 0) return tl::unexpected(storeError(errno, name));
  } else if (errno == ENOENT) {
    return conflict;
  } else {
    return tl::unexpected(storeError(errno, name));
  }
  upload.folder_.close();
  return syncFolder(directory);
}

void UploadFolder::takePermissions(const Upload& upload, const FileStamp& replaced) {
  // Changing the owner may change the mode, so the mode comes last. Neither is worth losing the upload.
  if (::fchown(upload.descriptor(), replaced.owner, replaced.group) != 0) errno = 0;
  ::fchmod(upload.descriptor(), replaced.mode & 0777U);
}

}  // namespace florvane
