#include "server/StateDirectory.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

Error serverError(ServerErrorCode code, const std::string& sentence) {
  return Error(ServerErrorDomain, static_cast<std::int64_t>(code), sentence);
}

Result<StateDirectory> StateDirectory::open(const std::string& path) {
  if (auto made = createDirectories(path, 0700); !made) return Failure(made.error());
  FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat info{};
  if (!folder.valid() || fstat(folder.get(), &info) != 0) return Failure(Error::fileRead(errno, path));
  if (info.st_uid != geteuid()) {
    return Failure(
        serverError(ServerErrorCode::InvalidArgument, "The state folder " + path + " belongs to another user."));
  }
  if ((info.st_mode & 077) != 0 && fchmod(folder.get(), 0700) != 0) return Failure(Error::fileWrite(errno, path));
  return StateDirectory(path);
}

Result<FileDescriptor> StateDirectory::lockForServer() const {
  std::string lockPath = file("server.lock");
  FileDescriptor lock(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!lock.valid()) return Failure(Error::fileWrite(errno, lockPath));
  if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) return Failure(Error::fileWrite(errno, lockPath));
    return Failure(serverError(ServerErrorCode::InUse, "Another server is running on the state folder " + path_ + "."));
  }
  return lock;
}

}  // namespace florvane
