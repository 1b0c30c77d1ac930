#include "platform/TransferFolder.h"

#include "platform/UnixSocketAddress.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr char kSocketName[] = "agent.socket";
constexpr char kNewSocketName[] = "agent.socket.new";
constexpr char kMarkName[] = "tasks";
constexpr char kFolder[] = "/Transfers";
constexpr int kBacklog = 64;

const sockaddr* generic(const sockaddr_un& address) { return reinterpret_cast<const sockaddr*>(&address); }

}  // namespace

std::string TransferFolder::storePathIn(const std::string& container) {
  return container + kFolder + "/transfers.sqlite";
}

Result<TransferFolder> TransferFolder::open(const std::string& container) {
  TransferFolder folder;
  folder.container_ = container;
  folder.path_ = container + kFolder;
  if (mkdir(folder.path_.c_str(), 0700) != 0 && errno != EEXIST) {
    return Failure(Error::fileWrite(errno, folder.path_));
  }
  FileDescriptor directory(::open(folder.path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
  struct stat status{};
  if (!directory.valid() || fstat(directory.get(), &status) != 0) return Failure(Error::fileRead(errno, folder.path_));
  if (status.st_uid != geteuid()) return Failure(Error::fileWrite(EPERM, folder.path_));
  if ((status.st_mode & 077) != 0 && fchmod(directory.get(), 0700) != 0) {
    return Failure(Error::fileWrite(errno, folder.path_));
  }
  return folder;
}

bool TransferFolder::mayHaveTasks() const { return fileExists(path_ + "/" + kMarkName); }

Result<void> TransferFolder::setMayHaveTasks(bool may) const {
  std::string mark = path_ + "/" + kMarkName;
  if (!may) return removeItem(mark);
  auto file = openFile(mark, O_WRONLY | O_CREAT | O_NOFOLLOW, 0600);
  if (!file) return Failure(file.error());
  return syncDirectory(path_);
}

Result<FileDescriptor> TransferFolder::listen() const {
  FileDescriptor directory(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!directory.valid() || !socket.valid()) return Failure(Error::posix(errno, path_));
  // Under another name until it listens: who finds the socket is served.
  sockaddr_un address = unixSocketAddress(path_, directory.get(), kNewSocketName);
  unlinkat(directory.get(), kNewSocketName, 0);
  if (bind(socket.get(), generic(address), sizeof address) != 0 ||
      fchmodat(directory.get(), kNewSocketName, 0600, 0) != 0 || ::listen(socket.get(), kBacklog) != 0 ||
      renameat(directory.get(), kNewSocketName, directory.get(), kSocketName) != 0) {
    return Failure(Error::posix(errno, path_));
  }
  return socket;
}

std::optional<FileDescriptor> TransferFolder::takeInheritedSocket() {
  const int count = sd_listen_fds(1);
  for (int descriptor = SD_LISTEN_FDS_START; descriptor < SD_LISTEN_FDS_START + count; ++descriptor) {
    if (sd_is_socket_unix(descriptor, SOCK_STREAM, 1, nullptr, 0) > 0) return FileDescriptor(descriptor);
  }
  return std::nullopt;
}

void TransferFolder::removeSocket() const { unlink((path_ + "/" + kSocketName).c_str()); }

Result<FileDescriptor> TransferFolder::connect() const {
  FileDescriptor directory(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!directory.valid() || !socket.valid()) return Failure(Error::posix(errno, path_));
  sockaddr_un address = unixSocketAddress(path_, directory.get(), kSocketName);
  if (::connect(socket.get(), generic(address), sizeof address) != 0) return Failure(Error::posix(errno, path_));
  return socket;
}

}  // namespace florvane
