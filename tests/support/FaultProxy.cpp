#include "tests/support/FaultProxy.h"

#include <cerrno>
#include <chrono>
#include <optional>
#include <span>
#include <stdexcept>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace florvane::test {

namespace {

constexpr std::uint8_t kApplicationData = 0x17;

bool isOneByteATurn(FaultProxy::Fault fault) {
  return fault == FaultProxy::Fault::Trickle || fault == FaultProxy::Fault::Drip;
}

// Of those that let pass what there is once a turn; of the others none.
std::optional<std::chrono::milliseconds> turnOf(FaultProxy::Fault fault) {
  if (fault == FaultProxy::Fault::Drip) return std::chrono::seconds(1);
  if (fault == FaultProxy::Fault::Trickle || fault == FaultProxy::Fault::Delay) return std::chrono::milliseconds(100);
  return std::nullopt;
}

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

void closeWithReset(int socket) {
  const linger none{1, 0};
  setsockopt(socket, SOL_SOCKET, SO_LINGER, &none, sizeof(none));
  close(socket);
}

// Counts the application-data records of a TLS stream. A client's first one ends its handshake.
class RecordCounter {
 public:
  void take(std::span<const std::uint8_t> bytes) {
    for (std::size_t i = 0; i < bytes.size();) {
      if (left_ > 0) {
        const std::size_t skipped = std::min(left_, bytes.size() - i);
        left_ -= skipped;
        i += skipped;
        continue;
      }
      header_.push_back(bytes[i++]);
      if (header_.size() < 5) continue;
      if (header_[0] == kApplicationData) ++count_;
      left_ = std::size_t{header_[3]} << 8 | header_[4];
      header_.clear();
    }
  }
  std::size_t count() const { return count_; }

 private:
  std::vector<std::uint8_t> header_;
  std::size_t left_ = 0, count_ = 0;
};

}  // namespace

struct FaultProxy::Connection {
  Connection(int ofClient, int ofServer, std::size_t cut) : client(ofClient), server(ofServer), cutAfter(cut) {}
  ~Connection() {
    if (isReset) {
      closeWithReset(client);
      closeWithReset(server);
    } else {
      close(client);
      close(server);
    }
  }
  int client, server;
  std::size_t cutAfter;  // bytes of the client's
  std::size_t sent = 0, received = 0;
  bool isReset = false;
  bool isDead = false;
  RecordCounter records;
};

FaultProxy::FaultProxy(std::uint16_t target, std::uint64_t seed) : target_(target), random_(seed) {
  if (pipe2(wakeup_.data(), O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("pipe2");
  listen();
  thread_ = std::thread([this] { run(); });
}

FaultProxy::~FaultProxy() {
  {
    std::lock_guard lock(mutex_);
    stops_ = true;
  }
  wake();
  thread_.join();
  connections_.clear();
  if (listener_ >= 0) close(listener_);
  close(wakeup_[0]);
  close(wakeup_[1]);
}

void FaultProxy::setFault(Fault fault) {
  std::unique_lock lock(mutex_);
  fault_ = fault;
  wake();
  changed_.wait(lock, [&] { return inForce_ == fault || fault_ != fault; });
}

void FaultProxy::setTarget(std::uint16_t target) {
  std::lock_guard lock(mutex_);
  target_ = target;
}

std::size_t FaultProxy::connections() const {
  std::lock_guard lock(mutex_);
  return count_;
}

std::size_t FaultProxy::connectionsSoFar() const {
  std::lock_guard lock(mutex_);
  return soFar_;
}

void FaultProxy::wake() {
  const char byte = 0;
  (void)!write(wakeup_[1], &byte, 1);
}

void FaultProxy::listen() {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int yes = 1;
  setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  sockaddr_in address = loopback(port_);
  socklen_t length = sizeof(address);
  if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || ::listen(listener_, 256) != 0 ||
      getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("the proxy cannot listen");
  }
  port_ = ntohs(address.sin_port);
}

void FaultProxy::accept() {
  const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (client < 0) return;
  const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  {
    std::lock_guard lock(mutex_);
    ++soFar_;
    address = loopback(target_);
  }
  if (connect(server, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    closeWithReset(client);
    close(server);
    return;
  }
  const int yes = 1;
  setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof(yes));
  setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof(yes));
  auto connection = std::make_shared<Connection>(client, server, 600 + random_() % 20'000);
  connections_[client] = connection;
  connections_[server] = connection;
}

// The client's end stays open for as long as it likes.
void FaultProxy::lose(const std::shared_ptr<Connection>& connection, int from) {
  std::array<std::uint8_t, 65536> buffer;
  const ssize_t count = recv(from, buffer.data(), buffer.size(), MSG_DONTWAIT);
  const bool isEnd = count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);
  if (!isEnd) return;
  connections_.erase(connection->server);
  if (from == connection->client) connections_.erase(connection->client);
}

bool FaultProxy::pass(Connection& connection, Fault fault, int from) {
  const bool isRequest = from == connection.client;
  std::array<std::uint8_t, 65536> buffer;
  const ssize_t count = recv(from, buffer.data(), isOneByteATurn(fault) ? 1 : buffer.size(), MSG_DONTWAIT);
  if (count < 0) return errno == EAGAIN || errno == EINTR;
  if (count == 0) return false;
  const std::span bytes(buffer.data(), static_cast<std::size_t>(count));
  if (isRequest) {
    connection.records.take(bytes);
    connection.sent += bytes.size();
  } else {
    connection.received += bytes.size();
  }
  if (fault == Fault::Cut && !isRequest && connection.received > connection.cutAfter) return false;
  const bool isCut = (fault == Fault::Reset && isRequest && connection.sent > connection.cutAfter) ||
                     (fault == Fault::LoseReply && !isRequest && connection.records.count() > 1);
  if (isCut) {
    connection.isReset = true;
    return false;
  }
  const int to = isRequest ? connection.server : connection.client;
  for (std::size_t written = 0; written < bytes.size();) {
    const ssize_t sent = send(to, bytes.data() + written, bytes.size() - written, MSG_NOSIGNAL);
    if (sent < 0 && errno != EINTR) return false;
    if (sent > 0) written += static_cast<std::size_t>(sent);
  }
  return true;
}

void FaultProxy::run() {
  for (;;) {
    Fault fault = Fault::None;
    {
      std::lock_guard lock(mutex_);
      if (stops_) return;
      fault = fault_;
    }
    if (fault == Fault::Lose) {
      for (auto& [socket, connection] : connections_) connection->isDead = true;
    }
    if (fault == Fault::Refuse) {
      for (auto& [socket, connection] : connections_) connection->isReset = true;
      connections_.clear();
      if (listener_ >= 0) close(listener_);
      listener_ = -1;
    } else if (listener_ < 0) {
      listen();
    }
    {
      std::lock_guard lock(mutex_);
      inForce_ = fault;
      count_ = connections_.size() / 2;
    }
    changed_.notify_all();
    std::vector<pollfd> waiting{{wakeup_[0], POLLIN, 0}};
    if (listener_ >= 0) waiting.push_back({listener_, POLLIN, 0});
    const auto turn = turnOf(fault);
    const bool isPassing = !turn && fault != Fault::Silence && fault != Fault::Lose;
    for (const auto& [socket, connection] : connections_) {
      if (isPassing || connection->isDead) waiting.push_back({socket, POLLIN, 0});
    }
    poll(waiting.data(), waiting.size(), turn ? static_cast<int>(turn->count()) : -1);
    if (waiting[0].revents != 0) {
      std::array<char, 64> bytes;
      (void)!read(wakeup_[0], bytes.data(), bytes.size());
      continue;
    }
    if (turn) {
      for (const auto& [socket, connection] : std::map(connections_)) waiting.push_back({socket, POLLIN, POLLIN});
    }
    for (const pollfd& each : waiting) {
      if (each.revents == 0) continue;
      if (each.fd == listener_) {
        accept();
      } else if (auto found = connections_.find(each.fd); found != connections_.end()) {
        const auto connection = found->second;
        if (connection->isDead) {
          lose(connection, each.fd);
          continue;
        }
        if (pass(*connection, fault, each.fd)) continue;
        connections_.erase(connection->client);
        connections_.erase(connection->server);
      }
    }
  }
}

}  // namespace florvane::test
