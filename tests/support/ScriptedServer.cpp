#include "tests/support/ScriptedServer.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace florvane::test {

namespace {

int checked(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

}  // namespace

void Signal::raise() {
  std::lock_guard lock(mutex_);
  raised_ = true;
  changed_.notify_all();
}

bool Signal::wait() {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return raised_; });
}

struct ScriptedServer::Connection::State {
  explicit State(int connected) : socket(connected) {}
  ~State() {
    if (tls) SSL_free(tls);
    close(socket);
  }
  const int socket;
  SSL* tls = nullptr;
};

ScriptedServer::Connection::Connection(ScriptedServer& server, std::shared_ptr<State> state, int number)
    : server_(server), state_(std::move(state)), number_(number) {}

bool ScriptedServer::Connection::fill() {
  std::array<char, 65536> buffer;
  auto count = state_->tls ? SSL_read(state_->tls, buffer.data(), buffer.size())
                           : recv(state_->socket, buffer.data(), buffer.size(), 0);
  if (count > 0) input_.append(buffer.data(), static_cast<std::size_t>(count));
  return count > 0;
}

std::optional<ScriptedServer::Request> ScriptedServer::Connection::readHead() {
  std::size_t end = 0;
  while ((end = input_.find("\r\n\r\n")) == std::string::npos) {
    if (!fill()) return std::nullopt;
  }
  Request request;
  request.connection = number_;
  std::string head = input_.substr(0, end + 2);
  input_.erase(0, end + 4);
  std::size_t line = head.find("\r\n");
  std::size_t first = head.find(' '), second = head.find(' ', first + 1);
  request.method = head.substr(0, first);
  request.target = head.substr(first + 1, second - first - 1);
  for (line += 2; line < head.size();) {
    std::size_t next = head.find("\r\n", line), colon = head.find(':', line);
    std::string name = head.substr(line, colon - line);
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    std::size_t value = head.find_first_not_of(' ', colon + 1);
    request.headers[name] = value < next ? head.substr(value, next - value) : "";
    line = next + 2;
  }
  return request;
}

void ScriptedServer::Connection::readBody(Request& request) {
  auto field = request.headers.find("content-length");
  std::size_t length = field == request.headers.end() ? 0 : std::stoul(field->second);
  while (input_.size() < length && fill()) {
  }
  request.body = input_.substr(0, length);
  input_.erase(0, length);
}

std::optional<ScriptedServer::Request> ScriptedServer::Connection::read() {
  auto request = readHead();
  if (!request) return std::nullopt;
  readBody(*request);
  std::lock_guard lock(server_.mutex_);
  server_.requests_.push_back(*request);
  return request;
}

bool ScriptedServer::Connection::send(const std::string& bytes) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    auto count = state_->tls ? SSL_write(state_->tls, bytes.data() + sent, static_cast<int>(bytes.size() - sent))
                             : ::send(state_->socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return false;
    sent += static_cast<std::size_t>(count);
  }
  return true;
}

std::size_t ScriptedServer::Connection::sendUntilStalled(const std::string& bytes) {
  timeval patience = {.tv_sec = 0, .tv_usec = 200'000};
  setsockopt(state_->socket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  std::size_t sent = 0;
  for (ssize_t count = 0; sent < bytes.size(); sent += static_cast<std::size_t>(count)) {
    count = ::send(state_->socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) break;
  }
  patience.tv_usec = 0;
  setsockopt(state_->socket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  return sent;
}

bool ScriptedServer::Connection::respond(const std::string& body, const std::string& moreFields) {
  return send(okAnswer(body, moreFields));
}

void ScriptedServer::Connection::cut(bool reset) {
  if (reset) {
    linger now = {.l_onoff = 1, .l_linger = 0};
    setsockopt(state_->socket, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    // A dissolved association sends the reset at once and leaves the descriptor to its owner.
    sockaddr unspecified = {};
    unspecified.sa_family = AF_UNSPEC;
    checked(connect(state_->socket, &unspecified, sizeof unspecified), "connect");
  } else {
    shutdown(state_->socket, SHUT_RDWR);
  }
}

ScriptedServer::ScriptedServer(Script script, std::optional<Certificate> certificate, bool ipv6)
    : script_(std::move(script)), ipv6_(ipv6) {
  signal(SIGPIPE, SIG_IGN);  // a client that has gone must not end the test
  if (certificate) {
    tls_.reset(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free);
    SSL_CTX_use_certificate(tls_.get(), certificate->certificate.get());
    SSL_CTX_use_PrivateKey(tls_.get(), certificate->key.get());
  }
  sockaddr_in6 address = {};
  socklen_t size = ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  if (ipv6) {
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
  } else {
    auto* narrow = reinterpret_cast<sockaddr_in*>(&address);
    narrow->sin_family = AF_INET;
    narrow->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  }
  listener_ = checked(socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  checked(bind(listener_, reinterpret_cast<sockaddr*>(&address), size), "bind");
  checked(listen(listener_, 128), "listen");
  checked(getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size), "getsockname");
  port_ = ntohs(address.sin6_port);  // at the same place in both kinds of address
  acceptor_ = std::thread([this] { accept(); });
}

ScriptedServer::~ScriptedServer() {
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  close(listener_);
  {
    std::lock_guard lock(mutex_);
    closing_ = true;
    for (const auto& [number, state] : open_) shutdown(state->socket, SHUT_RDWR);
  }
  for (auto& thread : threads_) thread.join();
}

void ScriptedServer::accept() {
  for (;;) {
    int connected = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connected < 0 && errno == EINTR) continue;
    if (connected < 0) return;
    auto state = std::make_shared<Connection::State>(connected);
    std::lock_guard lock(mutex_);
    int number = ++connections_;
    open_.emplace(number, state);
    mostAtOnce_ = std::max(mostAtOnce_, static_cast<int>(open_.size()));
    threads_.emplace_back([this, state, number] { serve(state, number); });
  }
}

void ScriptedServer::serve(const std::shared_ptr<Connection::State>& state, int number) {
  bool ready = true;
  if (tls_) {
    state->tls = SSL_new(tls_.get());
    SSL_set_fd(state->tls, state->socket);
    ready = SSL_accept(state->tls) == 1;
  }
  if (ready) {
    Connection connection(*this, state, number);
    script_(connection);
    if (state->tls) SSL_shutdown(state->tls);
  }
  shutdown(state->socket, SHUT_RDWR);
  std::lock_guard lock(mutex_);
  open_.erase(number);
}

ScriptedServer::Script ScriptedServer::answering(std::function<std::string(const Request&)> answer) {
  return [answer = std::move(answer)](Connection& connection) {
    while (auto request = connection.read()) {
      if (!connection.send(answer(*request))) return;
    }
  };
}

std::string ScriptedServer::url(const std::string& target) const {
  std::string host = ipv6_ ? "[::1]" : "127.0.0.1";
  return (tls_ ? "https://" : "http://") + host + ":" + std::to_string(port_) + target;
}

std::vector<ScriptedServer::Request> ScriptedServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

int ScriptedServer::connections() const {
  std::lock_guard lock(mutex_);
  return connections_;
}

int ScriptedServer::mostAtOnce() const {
  std::lock_guard lock(mutex_);
  return mostAtOnce_;
}

std::string okAnswer(const std::string& body, const std::string& moreFields) {
  return "HTTP/1.1 200 OK\r\n" + moreFields + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

}  // namespace florvane::test
