#include "Client/Client/DCTemporaryFile.h"

#include "Client/Client/DCFileStamp.h"
#include "Client/Client/DCPath.h"
#include "platform/Encoding.h"
#include "platform/FileSystem.h"
#include "platform/ResourceValues.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

namespace {

// The prefix by which abandoned temporaries are known and swept.
constexpr char kPrefix[] = ".florvane-tmp-";
constexpr int kAttempts = 5;

// The folder of temporaries, unless a file there could not be renamed to the target.
std::string folderFor(const std::string& target) {
  auto temporary = DUTemporaryDirectory();
  struct stat ours{}, theirs{};
  std::string folder = folderOf(target);
  if (temporary && stat(temporary->c_str(), &ours) == 0 && stat(folder.c_str(), &theirs) == 0 &&
      ours.st_dev == theirs.st_dev) {
    return *temporary;
  }
  return folder;
}

}  // namespace

DCTemporaryFile::~DCTemporaryFile() {
  if (!path_.empty()) unlink(path_.c_str());
}

Result<DCTemporaryFile> DCTemporaryFile::linkedTo(const std::string& source, const std::string& target) {
  const std::string folder = folderFor(target);
  std::string path = folder + "/" + kPrefix + makeUUID();
  if (link(source.c_str(), path.c_str()) == 0) return DCTemporaryFile(std::move(path), true);
  if (errno == ENOENT) return Failure(Error::fileRead(errno, source));
  return copied(source, folder);
}

Result<DCTemporaryFile> DCTemporaryFile::copyOf(const std::string& source, const std::string& target) {
  const std::string folder = folderFor(target);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    auto before = DCFileStamp::of(source);
    auto copy = copied(source, folder);
    if (!copy || DCFileStamp::of(source) == before) return copy;
  }
  return Failure(Error::fileRead(EBUSY, source));
}

Result<DCTemporaryFile> DCTemporaryFile::copied(const std::string& source, const std::string& folder) {
  auto file = openFile(source, O_RDONLY | O_NONBLOCK);
  if (!file) return Failure(file.error());
  struct stat status{};
  if (fstat(file->get(), &status) != 0) return Failure(Error::fileRead(errno, source));
  auto made = makeTemporaryFile(folder, kPrefix);
  if (!made) return Failure(made.error());
  DCTemporaryFile copy(made->second);
  auto done = copyContents(file->get(), made->first.get(), source, copy.path_);
  if (!done) return Failure(done.error());
  // Whole microseconds, as dates are known everywhere else.
  done = setContentModificationDate(made->first.get(), Date::fromTimespec(status.st_mtim));
  if (!done) return Failure(done.error());
  return copy;
}

Result<void> DCTemporaryFile::sync() const { return syncContents(path_); }

Result<void> DCTemporaryFile::moveTo(const std::string& target) {
  if (rename(path_.c_str(), target.c_str()) != 0) return Failure(Error::fileWrite(errno, target));
  // Names of one file: a rename does nothing then, and the temporary one is still there.
  unlink(path_.c_str());
  path_.clear();
  return {};
}

}  // namespace florvane
