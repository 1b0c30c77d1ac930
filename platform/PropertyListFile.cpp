#include "platform/PropertyListFile.h"

#include "platform/FileSystem.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr std::uint64_t kLargestFile = std::uint64_t{64} << 20;  // bytes

PropertyListFile::Stamp stampOf(const struct stat& status) { return {status.st_ino, status.st_size, status.st_mtim}; }

Error damaged(const std::string& path, const std::string& reason) {
  return {QuilbarErrorDomain,
          PropertyListReadCorruptError,
          {{LocalizedDescriptionKey, path + ": " + reason}, {FilePathErrorKey, path}}};
}

Error readableByOthers(const std::string& path) {
  return Error(QuilbarErrorDomain, FileReadNoPermissionError,
               {{LocalizedDescriptionKey, path + " holds secrets and is open to other users; make it your own "
                                                 "(chown) and take their permissions away (chmod 600)."},
                {FilePathErrorKey, path}})
      .withUnderlyingError(Error::posix(EPERM, path));
}

timespec dateAfter(const std::optional<PropertyListFile::Stamp>& previous) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (!previous) return now;
  timespec least = previous->modified;
  if (++least.tv_nsec == 1'000'000'000) least = {least.tv_sec + 1, 0};
  bool isLater = now.tv_sec != least.tv_sec ? now.tv_sec > least.tv_sec : now.tv_nsec > least.tv_nsec;
  return isLater ? now : least;
}

}  // namespace

Result<std::optional<PropertyListFile::Stamp>> PropertyListFile::stamp() const {
  struct stat status{};
  if (stat(path_.c_str(), &status) == 0) return stampOf(status);
  if (errno == ENOENT) return std::nullopt;
  return Failure(Error::fileRead(errno, path_));
}

Result<PropertyListFile::Version> PropertyListFile::read() const {
  auto file = openFile(path_, O_RDONLY);
  if (!file) {
    if (file.error().underlyingError()->code() == ENOENT) return Version();
    return Failure(file.error());
  }
  struct stat status{};
  if (fstat(file->get(), &status) != 0) return Failure(Error::fileRead(errno, path_));
  bool isPrivate = status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
  if (readers_ == Readers::OnlyOwner && !isPrivate) return Failure(readableByOthers(path_));
  auto bytes = readAll(file->get(), path_, kLargestFile);
  if (!bytes) return Failure(bytes.error());
  auto value = readPropertyList(*bytes);
  if (!value) return Failure(damaged(path_, value.error().localizedDescription()).withUnderlyingError(value.error()));
  auto contents = value->asDictionary();
  if (!contents) return Failure(damaged(path_, "The property list is no dictionary."));
  return Version{stampOf(status), *contents};
}

Result<void> PropertyListFile::update(const std::function<void(Dictionary&)>& change) const {
  auto lock = FileLock::acquire(path_ + ".lock", true);
  if (!lock) return Failure(lock.error());
  auto before = read();
  if (!before) return Failure(before.error());
  Dictionary after = before->contents;
  change(after);
  if (after == before->contents) return {};
  auto bytes = writePropertyList(Value(after), format_);
  if (!bytes) return Failure(bytes.error());
  return writeFileAtomically(path_, *bytes, 0600, true, dateAfter(before->stamp));
}

}  // namespace florvane
