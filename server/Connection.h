#pragma once

// Includes Asio: for Connection.cpp and Server.cpp only.

#include "platform/Clock.h"
#include "platform/Secret.h"
#include "server/Administration.h"
#include "server/CommandHandler.h"
#include "server/DocumentStore.h"
#include "server/RequestParser.h"
#include "server/SASLEndpoint.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>

namespace florvane {

// What all connections of a server use. Everything outlives them.
struct ConnectionServices {
  Administration& administration;
  DocumentStore& store;
  SASLEndpoint& sasl;
  CommandHandler& commands;
  Clock& clock;
  std::uint64_t maximumUploadSize;
  boost::asio::thread_pool& diskThreads;
  boost::asio::thread_pool& signInThreads;  // few: guesses at passwords must not hold up everyone's documents
  std::size_t waitingSignIns = 0;           // touched on the network thread only
};

// One client's connection: TLS, requests one after another, each answered before the next is read. Everything runs on
// the network thread; the blocking parts are handed to the pools.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(boost::asio::ip::tcp::socket socket, boost::asio::ssl::context& context, ConnectionServices& services,
             std::string address);
  // Returns when the connection has ended, however that came.
  boost::asio::awaitable<void> run();
  // Makes run() return soon.
  void close();

 private:
  template <typename T = void>
  using Awaitable = boost::asio::awaitable<T>;
  enum class Persistence { Keep, Close };

  Awaitable<> serve();
  Awaitable<Persistence> serveRequest();
  Awaitable<bool> readHead(RequestParser& parser);
  Awaitable<HTTPResponse> respond(RequestParser& parser);
  Awaitable<HTTPResponse> respondToSignIn(RequestParser& parser);
  Awaitable<HTTPResponse> respondToUpload(RequestParser& parser, const Command& command);
  Awaitable<HTTPResponse> respondToWatch(RequestParser& parser);
  Awaitable<bool> isSignedIn(const HTTPRequestHead& head);

  // The body, refused with 413 beyond the limit.
  Awaitable<tl::expected<Secret, HTTPResponse>> readBody(RequestParser& parser, std::size_t limit);
  // Adds to `body` until it holds at least that many bytes or the request is complete.
  Awaitable<> readBodyPiece(RequestParser& parser, std::string& body, std::size_t size);
  Awaitable<> allowBody(const RequestParser& parser);
  Awaitable<bool> discardBody(RequestParser& parser);
  Awaitable<> receive();
  void consume(std::size_t count);
  std::span<const std::uint8_t> received() const;

  Awaitable<> send(const HTTPResponse& response, bool keepAlive);
  Awaitable<> sendFile(const HTTPResponse& response, std::string head);
  Awaitable<> write(std::string_view bytes);

  // While a request is held back: notices that the client has gone.
  void startListening();
  Awaitable<> listeningEnded();
  // Returns when notify() has been called, or the connection is broken. Spurious returns are possible.
  Awaitable<> notified();
  void notify();
  Awaitable<> sleep(Duration duration);
  // Runs the function on the pool's threads, and the other work here at the same time, and returns what the function
  // returned when both have ended.
  template <typename F>
  Awaitable<std::invoke_result_t<F&>> blocking(boost::asio::thread_pool& pool, F function, Awaitable<> meanwhile = {});

  // Closes the connection unless it makes progress, that is calls this again, in time.
  void allow(Duration duration);
  void allowForever();
  void watchDeadline();

  boost::asio::ssl::stream<boost::asio::ip::tcp::socket> stream_;
  ConnectionServices& services_;
  const std::string address_;
  std::vector<std::uint8_t> buffer_;  // what was received and not used yet lies from used_ to filled_
  std::size_t used_ = 0, filled_ = 0;
  bool isListening_ = false, isBroken_ = false;
  boost::asio::steady_timer event_;  // never expires; cancelled to wake who waits
  boost::asio::steady_timer deadlineTimer_;
  std::optional<MonotonicTime> nextWatch_;
  MonotonicTime deadline_ = MonotonicTime::max();
  bool isWatchingDeadline_ = false;
};

}  // namespace florvane
