#include "platform/NotificationSocket.h"

#include "platform/Crypto.h"
#include "platform/Encoding.h"
#include "platform/UnixSocketAddress.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr char kCounterFile[] = "counter";
constexpr std::size_t kCounterSlots = 512;
constexpr std::size_t kCounterBytes = kCounterSlots * sizeof(std::uint64_t);
constexpr std::size_t kRandomBytes = 6;
constexpr std::size_t kNameLength = 1 + 2 * kRandomBytes;  // "n" and hexadecimal digits

bool isSocketName(std::string_view name) {
  return name.size() == kNameLength && name[0] == 'n' &&
         name.find_first_not_of("0123456789abcdef", 1) == std::string_view::npos;
}

// Each receiver has a slot of its own (two may share one, and then both believe that they missed something), so that
// one process that stands still does not make all others read everything again.
std::atomic_ref<std::uint64_t> slot(std::uint64_t* counters, const std::string& name) {
  std::size_t index = 0;
  for (char digit : std::string_view(name).substr(1, 3)) {
    index = index * 16 + static_cast<std::size_t>(digit <= '9' ? digit - '0' : digit - 'a' + 10);
  }
  return std::atomic_ref(counters[index % kCounterSlots]);
}

std::uint64_t* mapCounters(int folder) {
  FileDescriptor file(openat(folder, kCounterFile, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  struct stat status{};
  if (!file.valid() || fstat(file.get(), &status) != 0) return nullptr;
  if (status.st_size < static_cast<off_t>(kCounterBytes) && ftruncate(file.get(), kCounterBytes) != 0) return nullptr;
  void* mapped = mmap(nullptr, kCounterBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  return mapped == MAP_FAILED ? nullptr : static_cast<std::uint64_t*>(mapped);
}

FileDescriptor makeSocket() { return FileDescriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)); }

// The errno, or 0. A fresh socket for each datagram: what a stopped receiver leaves unread is charged to the sending
// socket and would use up the room for all others.
int sendDatagram(const sockaddr_un& address, std::span<const std::uint8_t> bytes) {
  FileDescriptor socket = makeSocket();
  if (!socket.valid()) return errno;
  auto sent = sendto(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                     reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return sent < 0 ? errno : 0;
}

// Calls visit(descriptor of the folder, name) for each socket's name.
template <typename Visit>
void forEachSocket(const std::string& folder, Visit&& visit) {
  struct Close {
    void operator()(DIR* directory) const { closedir(directory); }
  };
  std::unique_ptr<DIR, Close> directory(opendir(folder.c_str()));
  if (!directory) return;
  while (dirent* entry = readdir(directory.get())) {
    if (isSocketName(entry->d_name)) visit(dirfd(directory.get()), std::string(entry->d_name));
  }
}

void removeDeadSockets(const std::string& folder) {
  forEachSocket(folder, [&](int descriptor, const std::string& name) {
    sockaddr_un address = unixSocketAddress(folder, descriptor, name);
    FileDescriptor probe = makeSocket();
    if (!probe.valid()) return;
    if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return;
    if (errno == ECONNREFUSED) unlinkat(descriptor, name.c_str(), 0);
  });
}

}  // namespace

Result<std::unique_ptr<NotificationSocket>> NotificationSocket::bind(const std::string& folder) {
  if (auto made = createDirectories(folder, 0700); !made) return Failure(made.error());
  FileDescriptor directory(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.valid()) return Failure(Error::posix(errno, folder));
  struct stat status{};
  if (fstat(directory.get(), &status) == 0 && (status.st_mode & 077) != 0) fchmod(directory.get(), 0700);
  removeDeadSockets(folder);

  auto random = randomBytes(kRandomBytes);
  if (!random) return Failure(random.error());
  std::string name = "n" + hexEncode(*random);
  FileDescriptor socket = makeSocket();
  if (!socket.valid()) return Failure(Error::posix(errno, folder));
  std::unique_ptr<NotificationSocket> result(new NotificationSocket(folder, name, std::move(socket)));
  result->counters_ = mapCounters(directory.get());
  if (result->counters_) result->missedBefore_ = slot(result->counters_, name).load();

  // Bound under another name first: between the making of the name and the binding a poster would take it for dead.
  std::string temporary = "." + name;
  sockaddr_un address = unixSocketAddress(folder, directory.get(), temporary);
  if (::bind(result->descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      fchmodat(directory.get(), temporary.c_str(), 0600, 0) != 0 ||
      renameat(directory.get(), temporary.c_str(), directory.get(), name.c_str()) != 0) {
    int failure = errno;
    unlinkat(directory.get(), temporary.c_str(), 0);
    return Failure(Error::posix(failure, folder));
  }
  return result;
}

NotificationSocket::NotificationSocket(std::string folder, std::string name, FileDescriptor socket)
    : folder_(std::move(folder)),
      name_(std::move(name)),
      socket_(std::move(socket)),
      // One byte more than is ever sent, to tell a larger datagram.
      buffer_(std::make_unique<std::uint8_t[]>(kLargestMessage + 1)) {}

NotificationSocket::~NotificationSocket() {
  unlink();
  if (counters_) munmap(counters_, kCounterBytes);
}

void NotificationSocket::unlink() { ::unlink((folder_ + "/" + name_).c_str()); }

std::optional<Data> NotificationSocket::receive() {
  for (;;) {
    ssize_t size = recv(descriptor(), buffer_.get(), kLargestMessage + 1, MSG_DONTWAIT);
    if (size >= 0) return Data(buffer_.get(), static_cast<std::size_t>(size));
    if (errno != EINTR) return std::nullopt;
  }
}

bool NotificationSocket::takeMissed() {
  if (!counters_) return false;
  std::uint64_t missed = slot(counters_, name_).load();
  return std::exchange(missedBefore_, missed) != missed;
}

void NotificationSocket::sendToOthers(const std::string& folder, const std::string& ownName, const Data& message) {
  forEachSocket(folder, [&](int descriptor, const std::string& name) {
    if (name == ownName) return;
    sockaddr_un address = unixSocketAddress(folder, descriptor, name);
    int failure = sendDatagram(address, message.span());
    if (failure == 0 || failure == ENOENT) return;
    if (failure == ECONNREFUSED) {
      unlinkat(descriptor, name.c_str(), 0);
      return;
    }
    std::uint64_t* counters = mapCounters(descriptor);
    if (!counters) return;
    slot(counters, name).fetch_add(1);
    munmap(counters, kCounterBytes);
    // The receiver may have emptied its queue just before it was counted, and sleeps. If this finds the queue full
    // again, there is something left that will wake it.
    sendDatagram(address, {});
  });
}

}  // namespace florvane
