#include "server/Server.h"

#include "platform/SystemLog.h"
#include "platform/URL.h"
#include "server/Administration.h"
#include "server/Connection.h"
#include "server/ServerCertificate.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <optional>
#include <thread>
#include <unordered_set>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/resource.h>

namespace florvane {

namespace {

namespace net = boost::asio;
using net::ip::tcp;

constexpr std::size_t kDescriptorsForFiles = 256;
constexpr std::size_t kMaximumConnections = 16'384;
constexpr auto kPauseWhenFull = std::chrono::milliseconds(100);
constexpr unsigned kMinimumDiskThreads = 4;

Failure invalid(const std::string& sentence) {
  return Failure(serverError(ServerErrorCode::InvalidArgument, sentence));
}

// Guesses are counted by this: an IPv6 client usually owns all addresses of a /64.
std::string clientAddress(const net::ip::address& address) {
  if (address.is_v4()) return address.to_string();
  net::ip::address_v6 v6 = address.to_v6();
  if (v6.is_v4_mapped()) return net::ip::make_address_v4(net::ip::v4_mapped, v6).to_string();
  auto bytes = v6.to_bytes();
  std::fill(bytes.begin() + 8, bytes.end(), std::uint8_t{0});
  return net::ip::address_v6(bytes).to_string() + "/64";
}

// A client that vanished without a word is noticed within a minute, even while its watch is held.
void setUp(tcp::socket& socket) {
  auto set = [&socket](const auto& option) {
    boost::system::error_code ignored;
    ignored = socket.set_option(option, ignored);
  };
  set(tcp::no_delay(true));
  set(net::socket_base::keep_alive(true));
  set(net::detail::socket_option::integer<IPPROTO_TCP, TCP_KEEPIDLE>(30));
  set(net::detail::socket_option::integer<IPPROTO_TCP, TCP_KEEPINTVL>(10));
  set(net::detail::socket_option::integer<IPPROTO_TCP, TCP_KEEPCNT>(3));
  set(net::detail::socket_option::integer<IPPROTO_TCP, TCP_USER_TIMEOUT>(60'000));
}

std::size_t connectionLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return kDescriptorsForFiles;
  std::size_t descriptors = limit.rlim_cur;
  return std::clamp<std::size_t>(descriptors - std::min(descriptors / 2, kDescriptorsForFiles), 16,
                                 kMaximumConnections);
}

// A program that somebody starts from this process must not keep the port or a connection open.
void closeOnExec(int descriptor) { fcntl(descriptor, F_SETFD, FD_CLOEXEC); }

}  // namespace

struct Server::State {
  State(ServerOptions serverOptions, Clock& clockToUse) : options(std::move(serverOptions)), clock(clockToUse) {}

  Result<void> openAdministration();
  Result<void> open();
  Result<void> listen();
  void run();
  net::awaitable<void> accept();
  net::awaitable<void> serve(tcp::socket socket);

  const ServerOptions options;
  Clock& clock;
  std::unique_ptr<Administration> administration;
  FileDescriptor lock;
  ServerCertificate certificate;
  std::unique_ptr<DocumentStore> store;
  std::optional<SASLEndpoint> sasl;
  std::optional<CommandHandler> commands;

  net::io_context io{1};
  std::optional<net::executor_work_guard<net::io_context::executor_type>> work;
  std::optional<net::thread_pool> diskThreads, signInThreads;
  net::ssl::context tls{net::ssl::context::tls_server};
  std::optional<tcp::acceptor> acceptor;
  std::uint16_t port = 0;
  std::optional<ConnectionServices> services;
  std::unordered_set<Connection*> connections;  // network thread only
  bool isStopping = false;                      // network thread only
  std::thread thread;
};

Server::Server(ServerOptions options, Clock& clock) : state_(std::make_unique<State>(std::move(options), clock)) {}

Server::~Server() { stop(); }

Result<void> Server::start() {
  auto opened = state_->open();
  if (opened) opened = state_->listen();
  if (!opened) {
    stop();
    return opened;
  }
  State* state = state_.get();
  state->thread = std::thread([state] { state->run(); });
  return {};
}

void Server::stop() {
  State* state = state_.get();
  if (state->thread.joinable()) {
    net::post(state->io, [state] {
      state->isStopping = true;
      boost::system::error_code ignored;
      ignored = state->acceptor->close(ignored);
      for (Connection* connection : state->connections) connection->close();
      state->work.reset();
    });
    state->thread.join();
  }
  if (state->signInThreads) state->signInThreads->join();
  if (state->diskThreads) state->diskThreads->join();
  state->acceptor.reset();
  state->store.reset();
  state->lock.close();
}

std::uint16_t Server::port() const { return state_->port; }
std::string Server::url() const {
  return "https://" + bracketedHost(state_->options.listenHost) + ":" + std::to_string(state_->port);
}
const Data& Server::certificateDER() const { return state_->certificate.der; }

Result<void> Server::addUser(const std::string& name, const Secret& password) {
  if (auto opened = state_->openAdministration(); !opened) return opened;
  return state_->administration->users().add(name, password);
}

Result<void> Server::removeUser(const std::string& name) {
  if (auto opened = state_->openAdministration(); !opened) return opened;
  return state_->administration->removeUser(name);
}

Result<std::size_t> Server::revokeAllSessions() {
  if (auto opened = state_->openAdministration(); !opened) return Failure(opened.error());
  return state_->administration->sessions().revokeAll();
}

Result<void> Server::State::openAdministration() {
  if (administration) return {};
  auto opened = Administration::open(options.stateDirectory, clock);
  if (!opened) return Failure(opened.error());
  administration = std::move(*opened);
  return {};
}

Result<void> Server::State::open() {
  if (options.mechanisms.empty()) return invalid("The server needs a mechanism to sign users in.");
  for (const std::string& each : options.mechanisms) {
    if (each != "SRP" && each != "PLAIN") return invalid("The mechanism \"" + each + "\" is unknown.");
  }
  if (options.certificatePath.empty() != options.keyPath.empty()) {
    return invalid("A certificate and its key are given together.");
  }
  if (auto opened = openAdministration(); !opened) return opened;
  const StateDirectory& directory = administration->directory();
  auto locked = directory.lockForServer();
  if (!locked) return Failure(locked.error());
  lock = std::move(*locked);
  auto loaded = options.certificatePath.empty()
                    ? ServerCertificate::loadOrMake(directory.file("certificate.pem"), directory.file("key.pem"),
                                                    options.listenHost)
                    : ServerCertificate::load(options.certificatePath, options.keyPath);
  if (!loaded) return Failure(loaded.error());
  certificate = std::move(*loaded);
  auto documents = DocumentStore::open(directory.path(), options.shares, clock);
  if (!documents) return invalid(documents.error().sentence);
  store = std::move(*documents);
  return {};
}

Result<void> Server::State::listen() {
  auto failure = [this](const boost::system::error_code& error) {
    return Failure(serverError(ServerErrorCode::Network, "The server cannot listen on " + options.listenHost +
                                                             ", port " + std::to_string(options.port) + ": " +
                                                             error.message()));
  };
  boost::system::error_code error;
  error = tls.set_options(net::ssl::context::default_workarounds | net::ssl::context::no_compression, error);
  SSL_CTX_set_min_proto_version(tls.native_handle(), TLS1_2_VERSION);
  // A resumed handshake shows no certificate, and clients compare it on each connection.
  SSL_CTX_set_session_cache_mode(tls.native_handle(), SSL_SESS_CACHE_OFF);
  SSL_CTX_set_options(tls.native_handle(), SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_num_tickets(tls.native_handle(), 0);
  if (!error) error = tls.use_certificate_chain_file(certificate.certificatePath, error);
  if (!error) error = tls.use_private_key_file(certificate.keyPath, net::ssl::context::pem, error);
  if (error) {
    return Failure(serverError(ServerErrorCode::Certificate, "The certificate cannot be used: " + error.message()));
  }

  auto addresses = tcp::resolver(io).resolve(options.listenHost, std::to_string(options.port),
                                             tcp::resolver::passive | tcp::resolver::numeric_service, error);
  if (error) return failure(error);
  tcp::endpoint endpoint = addresses.begin()->endpoint();
  acceptor.emplace(io);
  error = acceptor->open(endpoint.protocol(), error);
  if (!error) closeOnExec(acceptor->native_handle());
  if (!error) error = acceptor->set_option(net::socket_base::reuse_address(true), error);
  if (!error) error = acceptor->bind(endpoint, error);
  if (!error) error = acceptor->listen(net::socket_base::max_listen_connections, error);
  if (error) return failure(error);
  port = acceptor->local_endpoint(error).port();

  sasl.emplace(options.mechanisms, *administration, certificate.der, clock);
  commands.emplace(*store);
  unsigned processors = std::max(1U, std::thread::hardware_concurrency());
  diskThreads.emplace(std::max(kMinimumDiskThreads, processors));
  signInThreads.emplace(std::max(1U, processors / 2));
  services.emplace(ConnectionServices{*administration, *store, *sasl, *commands, clock, options.maximumUploadSize,
                                      *diskThreads, *signInThreads});
  work.emplace(io.get_executor());
  net::co_spawn(io, accept(), net::detached);
  return {};
}

void Server::State::run() {
  while (true) {
    try {
      io.run();
      return;
    } catch (const std::exception& exception) {
      SystemLog::shared().write({3, std::string("A handler failed: ") + exception.what(), {}});
    }
  }
}

net::awaitable<void> Server::State::accept() {
  std::size_t limit = connectionLimit();
  net::steady_timer pause(io);
  while (!isStopping) {
    boost::system::error_code error;
    tcp::socket socket(io);
    if (connections.size() < limit) {
      co_await acceptor->async_accept(socket, net::redirect_error(net::use_awaitable, error));
    } else {
      error = net::error::no_descriptors;
    }
    if (isStopping) co_return;
    if (!error) {
      closeOnExec(socket.native_handle());
      net::co_spawn(io, serve(std::move(socket)), net::detached);
      continue;
    }
    // Full, or out of descriptors: those who wait in the queue are served as soon as somebody goes.
    pause.expires_after(kPauseWhenFull);
    co_await pause.async_wait(net::redirect_error(net::use_awaitable, error));
  }
}

net::awaitable<void> Server::State::serve(tcp::socket socket) {
  boost::system::error_code error;
  tcp::endpoint peer = socket.remote_endpoint(error);
  if (error) co_return;
  setUp(socket);
  auto connection = std::make_shared<Connection>(std::move(socket), tls, *services, clientAddress(peer.address()));
  connections.insert(connection.get());
  co_await connection->run();
  connections.erase(connection.get());
}

}  // namespace florvane
