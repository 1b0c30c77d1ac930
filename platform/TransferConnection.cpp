#include "platform/TransferConnection.h"

#include "platform/BackgroundThread.h"
#include "platform/TransferProtocol.h"

#include <array>
#include <cerrno>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr std::size_t kReadBytes = std::size_t{64} * 1024;

bool belongsToThisUser(int socket) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0 && credentials.uid == geteuid();
}

}  // namespace

class TransferConnection::Reader : public TransferFrameReader {};

Result<std::shared_ptr<TransferConnection>> TransferConnection::start(FileDescriptor socket, Handlers handlers) {
  if (!belongsToThisUser(socket.get())) return Failure(Error::posix(EPERM));
  FileDescriptor wakeup(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!wakeup.valid()) return Failure(Error::posix(errno));
  std::shared_ptr<TransferConnection> connection(
      new TransferConnection(std::move(socket), std::move(wakeup), std::move(handlers)));
  try {
    startBackgroundThread("transfers", [connection] { connection->run(); });
  } catch (const std::system_error& error) {
    return Failure(Error::posix(error.code().value()));
  }
  return connection;
}

TransferConnection::TransferConnection(FileDescriptor socket, FileDescriptor wakeup, Handlers handlers)
    : socket_(std::move(socket)),
      wakeup_(std::move(wakeup)),
      handlers_(std::move(handlers)),
      reader_(std::make_unique<Reader>()) {}

TransferConnection::~TransferConnection() = default;

Result<void> TransferConnection::send(const Dictionary& frame) {
  auto bytes = encodeTransferFrame(frame);
  if (!bytes) return Failure(bytes.error());
  std::lock_guard lock(mutex_);
  if (closed_) return Failure(Error::posix(EPIPE));
  bool waiting = !outgoing_.empty();
  outgoing_.append(bytes->view());
  if (!waiting && !flush()) return Failure(Error::posix(EPIPE));
  if (!waiting && !outgoing_.empty()) eventfd_write(wakeup_.get(), 1);
  return {};
}

bool TransferConnection::flush() {
  std::size_t sent = 0;
  while (sent < outgoing_.size()) {
    ssize_t count =
        ::send(socket_.get(), outgoing_.data() + sent, outgoing_.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno != EAGAIN) return false;
    if (count < 0) break;
    sent += static_cast<std::size_t>(count);
  }
  outgoing_.erase(0, sent);
  return true;
}

std::size_t TransferConnection::unsent() const {
  std::lock_guard lock(mutex_);
  return outgoing_.size();
}

void TransferConnection::close() {
  std::lock_guard lock(mutex_);
  closed_ = true;
  // Wakes the thread, which holds on to the descriptor until it has ended.
  shutdown(socket_.get(), SHUT_RDWR);
}

bool TransferConnection::receive() {
  std::array<std::uint8_t, kReadBytes> buffer;
  ssize_t count = recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (count < 0) return errno == EINTR || errno == EAGAIN;
  if (count == 0) return false;
  reader_->append({buffer.data(), static_cast<std::size_t>(count)});
  for (;;) {
    auto frame = reader_->next();
    if (!frame) return false;
    if (!*frame) return true;
    handlers_.received(**frame);
  }
}

void TransferConnection::run() {
  for (bool open = true; open;) {
    std::array<pollfd, 2> polled = {pollfd{socket_.get(), POLLIN, 0}, pollfd{wakeup_.get(), POLLIN, 0}};
    {
      std::lock_guard lock(mutex_);
      if (closed_) break;
      if (!outgoing_.empty()) polled[0].events |= POLLOUT;
    }
    if (poll(polled.data(), polled.size(), -1) < 0 && errno != EINTR) break;
    eventfd_t ignored = 0;
    if (polled[1].revents) eventfd_read(wakeup_.get(), &ignored);
    if (polled[0].revents & (POLLIN | POLLHUP | POLLERR)) open = receive();
    if (open && (polled[0].revents & POLLOUT)) {
      std::lock_guard lock(mutex_);
      // A peer that is gone may have left something to be read, whose end then ends this.
      if (!flush()) outgoing_.clear();
    }
  }
  close();
  Handlers handlers;
  std::swap(handlers, handlers_);
  handlers.closed();
}

}  // namespace florvane
