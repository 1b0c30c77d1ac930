#include "server/Connection.h"

#include "platform/Encoding.h"
#include "platform/FileSystem.h"
#include "platform/SystemLog.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <unistd.h>

namespace florvane {

namespace {

namespace net = boost::asio;
using namespace std::chrono_literals;

constexpr Duration kHandshakeTime = 15s, kIdleTime = 75s, kHeadTime = 30s, kBodySilence = 30s, kWriteSilence = 60s;
constexpr Duration kClosingTime = 5s;
constexpr Duration kLongestWatch = 240s, kWatchLeeway = 1s;
// Between two watches of a connection, so that a burst of changes is a few answers and not one for each.
constexpr Duration kWatchPause = 5ms;
constexpr std::size_t kReceiveSize = 32U << 10;
constexpr std::size_t kPieceSize = 512U << 10;  // of files, in memory at a time twice
// What a client may send while its request is held back, before nobody listens any more.
constexpr std::size_t kMaximumSentAhead = 64U << 10;
constexpr std::uint64_t kMaximumDiscarded = 256U << 20;
constexpr std::size_t kMaximumWaitingSignIns = 256;
constexpr std::size_t kMaximumCookiesTried = 8;

bool isSignIn(const HTTPRequestHead& head) {
  std::string_view target = head.target;
  return target.substr(0, target.find('?')) == "/sasl";
}

struct Piece {
  std::string bytes;
  int failure = 0;
};

// Short at the end of the file or with a failure.
Piece readPiece(int descriptor, std::uint64_t offset, std::uint64_t size) {
  Piece piece;
  piece.bytes.resize(size);
  std::size_t done = 0;
  while (done < size) {
    ssize_t count = pread(descriptor, piece.bytes.data() + done, size - done, static_cast<off_t>(offset + done));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) piece.failure = errno;
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  piece.bytes.resize(done);
  return piece;
}

std::span<const std::uint8_t> bytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

HTTPResponse tooLarge() { return HTTPResponse::sentence(413, "This is larger than the server takes."); }

HTTPResponse uploadFailure(const Error& error) {
  if (error.is(QuilbarErrorDomain, FileWriteOutOfSpaceError)) {
    return HTTPResponse::sentence(507, "There is no space left on the server.");
  }
  SystemLog::shared().write({3, "Receiving an upload failed: " + error.description(), {}});
  return HTTPResponse::sentence(500, "The file could not be stored.");
}

class Counted {
 public:
  explicit Counted(std::size_t& count) : count_(count) { ++count_; }
  ~Counted() { --count_; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;

 private:
  std::size_t& count_;
};

// What a pending watch and the connection that waits for it share.
struct WatchOutcome {
  std::optional<StoreResult<std::vector<DocumentVersion>>> versions;
};

}  // namespace

Connection::Connection(net::ip::tcp::socket socket, net::ssl::context& context, ConnectionServices& services,
                       std::string address)
    : stream_(std::move(socket), context),
      services_(services),
      address_(std::move(address)),
      event_(stream_.get_executor(), MonotonicTime::max()),
      deadlineTimer_(stream_.get_executor()) {}

Connection::Awaitable<> Connection::run() {
  auto self = shared_from_this();
  try {
    co_await serve();
  } catch (const boost::system::system_error&) {
    // The client went, or was not heard of for too long.
  } catch (const std::exception& exception) {
    SystemLog::shared().write({3, std::string("A connection failed: ") + exception.what(), {}});
  }
  close();
  co_await listeningEnded();
}

void Connection::close() {
  isBroken_ = true;
  allowForever();
  boost::system::error_code ignored;
  ignored = stream_.next_layer().close(ignored);
  event_.cancel();
}

Connection::Awaitable<> Connection::serve() {
  allow(kHandshakeTime);
  co_await stream_.async_handshake(net::ssl::stream_base::server, net::use_awaitable);
  // Not awaited in a loop's condition: GCC 12 lays that coroutine's frame out wrongly.
  for (auto persistence = Persistence::Keep; persistence == Persistence::Keep;) persistence = co_await serveRequest();
  allow(kClosingTime);
  co_await stream_.async_shutdown(net::use_awaitable);
}

Connection::Awaitable<Connection::Persistence> Connection::serveRequest() {
  RequestParser parser;
  if (!co_await readHead(parser)) co_return Persistence::Close;
  HTTPResponse response = co_await respond(parser);
  response.fields.emplace_back("Date", httpDate(services_.clock.now()));
  const HTTPRequestHead& head = parser.head();
  // The rest of a refused body is read so that the refusal is not lost in a reset, but nobody waits for much of it.
  bool isShort =
      parser.isDone() || (!head.expectsContinue && head.contentLength.value_or(kMaximumDiscarded) < kPieceSize);
  bool keepAlive = head.keepAlive && isShort;
  co_await send(response, keepAlive);
  if (!co_await discardBody(parser)) keepAlive = false;
  co_return keepAlive ? Persistence::Keep : Persistence::Close;
}

Connection::Awaitable<bool> Connection::readHead(RequestParser& parser) {
  allow(kIdleTime);
  bool hasBegun = used_ != filled_;
  if (hasBegun) allow(kHeadTime);
  std::string body;
  for (;;) {
    auto [outcome, consumed] = parser.step(received(), body);
    consume(consumed);
    if (outcome == RequestParser::Outcome::Head) co_return true;
    if (outcome != RequestParser::Outcome::NeedMore) {
      co_await send(outcome == RequestParser::Outcome::HeadTooLarge
                        ? HTTPResponse::sentence(431, "The request's header is too large.")
                        : HTTPResponse::sentence(400, "The request cannot be understood."),
                    false);
      co_return false;
    }
    co_await receive();
    if (!hasBegun) allow(kHeadTime);
    hasBegun = true;
  }
}

Connection::Awaitable<HTTPResponse> Connection::respond(RequestParser& parser) {
  const HTTPRequestHead& head = parser.head();
  if (isSignIn(head)) co_return co_await respondToSignIn(parser);
  if (!co_await isSignedIn(head)) co_return HTTPResponse::sentence(401, "Please sign in.");
  auto command = Command::parse(head);
  if (!command) co_return command.error();
  if (command->isUpload()) co_return co_await respondToUpload(parser, *command);
  if (command->kind == Command::Kind::Watch) co_return co_await respondToWatch(parser);
  allowForever();
  co_return co_await blocking(services_.diskThreads, [&] { return services_.commands.answer(*command); });
}

Connection::Awaitable<bool> Connection::isSignedIn(const HTTPRequestHead& head) {
  std::vector<Secret> keys;
  for (std::string_view cookie : head.cookies("k")) {
    auto key = base64Decode(cookie);
    if (key && key->size() == kCookieKeyLength && keys.size() < kMaximumCookiesTried) keys.emplace_back(key->view());
  }
  if (keys.empty()) co_return false;
  allowForever();
  co_return co_await blocking(services_.diskThreads, [&] {
    SessionStore& sessions = services_.administration.sessions();
    return std::ranges::any_of(keys, [&](const Secret& key) { return sessions.user(key).has_value(); });
  });
}

Connection::Awaitable<HTTPResponse> Connection::respondToSignIn(RequestParser& parser) {
  if (parser.head().method != "POST") {
    HTTPResponse response = HTTPResponse::sentence(405, "This takes another method.");
    response.fields.emplace_back("Allow", "POST");
    co_return response;
  }
  auto body = co_await readBody(parser, SASLEndpoint::kMaximumMessageSize);
  if (!body) co_return body.error();
  if (services_.waitingSignIns >= kMaximumWaitingSignIns) {
    co_return HTTPResponse::sentence(503, "Too many are signing in at the moment; try again later.");
  }
  allowForever();
  SASLEndpoint::Answer answer;
  {
    Counted waiting(services_.waitingSignIns);
    answer = co_await blocking(services_.signInThreads,
                               [&] { return services_.sasl.answer(parser.head(), *body, address_); });
  }
  co_await sleep(answer.delay);
  co_return answer.response;
}

Connection::Awaitable<HTTPResponse> Connection::respondToUpload(RequestParser& parser, const Command& command) {
  std::uint64_t length = parser.head().contentLength.value_or(0), stored = 0;
  if (length > services_.maximumUploadSize) co_return tooLarge();
  allowForever();
  auto upload =
      co_await blocking(services_.diskThreads, [&] { return services_.commands.beginUpload(command, length); });
  if (!upload) co_return upload.error();
  co_await allowBody(parser);
  std::string piece, next;
  co_await readBodyPiece(parser, piece, kPieceSize);
  while (!piece.empty()) {
    stored += piece.size();
    if (stored > services_.maximumUploadSize) co_return tooLarge();
    // The next piece comes in while this one goes to the disk.
    next.clear();
    auto store = [&] { return writeAll(upload->descriptor(), bytes(piece), "upload"); };
    auto written = co_await blocking(services_.diskThreads, store, readBodyPiece(parser, next, kPieceSize));
    if (!written) co_return uploadFailure(written.error());
    piece.swap(next);
  }
  allowForever();
  co_return co_await blocking(services_.diskThreads,
                              [&] { return services_.commands.finishUpload(command, std::move(*upload)); });
}

Connection::Awaitable<HTTPResponse> Connection::respondToWatch(RequestParser& parser) {
  auto body = co_await readBody(parser, CommandHandler::kMaximumWatchBodySize);
  if (!body) co_return body.error();
  allowForever();
  if (nextWatch_) co_await sleep(std::chrono::duration_cast<Duration>(*nextWatch_ - services_.clock.monotonicNow()));
  auto outcome = std::make_shared<WatchOutcome>();
  auto begin = [&]() -> tl::expected<std::shared_ptr<DocumentWatch>, HTTPResponse> {
    auto versions = CommandHandler::watchedVersions(body->revealData());
    if (!versions) return tl::unexpected(versions.error());
    auto answered = [weak = weak_from_this(), outcome,
                     executor = stream_.get_executor()](StoreResult<std::vector<DocumentVersion>> result) {
      net::post(executor, [weak, outcome, result = std::move(result)]() mutable {
        outcome->versions = std::move(result);
        if (auto self = weak.lock()) self->notify();
      });
    };
    return std::shared_ptr<DocumentWatch>(services_.store.watch(std::move(*versions), std::move(answered)));
  };
  auto watch = co_await blocking(services_.diskThreads, begin);
  if (!watch) co_return watch.error();
  auto timer = services_.clock.schedule(services_.clock.monotonicNow() + kLongestWatch, kWatchLeeway,
                                        [pending = std::weak_ptr<DocumentWatch>(*watch)] {
                                          if (auto one = pending.lock()) one->answerNow();
                                        });
  while (!outcome->versions && !isBroken_) {
    startListening();
    co_await notified();
  }
  timer->cancel();
  watch->reset();
  if (isBroken_) throw boost::system::system_error(net::error::connection_reset);
  if (outcome->versions->has_value()) nextWatch_ = services_.clock.monotonicNow() + kWatchPause;
  co_return co_await blocking(services_.diskThreads, [&] { return CommandHandler::watchAnswer(*outcome->versions); });
}

Connection::Awaitable<tl::expected<Secret, HTTPResponse>> Connection::readBody(RequestParser& parser,
                                                                               std::size_t limit) {
  if (parser.head().contentLength.value_or(0) > limit) co_return tl::unexpected(tooLarge());
  co_await allowBody(parser);
  std::string body;
  co_await readBodyPiece(parser, body, limit + 1);
  if (body.size() > limit) co_return tl::unexpected(tooLarge());
  Secret secret(body);
  std::ranges::fill(body, '\0');
  co_return secret;
}

Connection::Awaitable<> Connection::readBodyPiece(RequestParser& parser, std::string& body, std::size_t size) {
  while (!parser.isDone() && body.size() < size) {
    auto [outcome, consumed] = parser.step(received(), body);
    consume(consumed);
    if (outcome == RequestParser::Outcome::Malformed) {
      throw boost::system::system_error(net::error::invalid_argument, "a malformed body");
    }
    if (outcome != RequestParser::Outcome::NeedMore) continue;
    allow(kBodySilence);
    co_await receive();
  }
}

Connection::Awaitable<> Connection::allowBody(const RequestParser& parser) {
  if (parser.head().expectsContinue && !parser.isDone()) co_await write("HTTP/1.1 100 Continue\r\n\r\n");
}

Connection::Awaitable<bool> Connection::discardBody(RequestParser& parser) {
  std::uint64_t discarded = 0;
  std::string piece;
  while (!parser.isDone() && discarded < kMaximumDiscarded) {
    piece.clear();
    co_await readBodyPiece(parser, piece, 1);
    discarded += piece.size();
  }
  co_return parser.isDone();
}

Connection::Awaitable<> Connection::receive() {
  co_await listeningEnded();
  if (isBroken_) throw boost::system::system_error(net::error::connection_reset);
  if (buffer_.size() - filled_ < kReceiveSize) buffer_.resize(std::max(buffer_.size() * 2, filled_ + kReceiveSize));
  filled_ += co_await stream_.async_read_some(net::buffer(buffer_.data() + filled_, buffer_.size() - filled_),
                                              net::use_awaitable);
}

void Connection::consume(std::size_t count) {
  used_ += count;
  if (used_ != filled_ || isListening_) return;
  used_ = filled_ = 0;
  // A large head came through; connections that only wait should not hold on to its room.
  if (buffer_.size() > 4 * kReceiveSize) buffer_ = {};
}

std::span<const std::uint8_t> Connection::received() const {
  return std::span(buffer_).subspan(used_, filled_ - used_);
}

Connection::Awaitable<> Connection::send(const HTTPResponse& response, bool keepAlive) {
  std::string head = response.head(keepAlive);
  if (response.file) {
    co_await sendFile(response, std::move(head));
  } else if (response.body.size() <= kReceiveSize) {
    co_await write(head.append(response.body.view()));
  } else {
    co_await write(head);
    for (std::size_t offset = 0; offset < response.body.size(); offset += kPieceSize) {
      co_await write(response.body.view().substr(offset, kPieceSize));
    }
  }
}

Connection::Awaitable<> Connection::sendFile(const HTTPResponse& response, std::string head) {
  auto read = [&](std::uint64_t offset, Awaitable<> meanwhile) {
    std::uint64_t size = std::min<std::uint64_t>(kPieceSize, response.fileSize - offset);
    auto readIt = [descriptor = response.file->get(), offset, size] { return readPiece(descriptor, offset, size); };
    return blocking(services_.diskThreads, readIt, std::move(meanwhile));
  };
  allowForever();
  Piece piece = co_await read(0, {});
  piece.bytes.insert(0, head);
  std::uint64_t offset = std::min<std::uint64_t>(kPieceSize, response.fileSize);
  std::uint64_t sent = 0, total = head.size() + response.fileSize;
  for (;;) {
    sent += piece.bytes.size();
    if (sent == total) {
      co_await write(piece.bytes);
      co_return;
    }
    if (piece.failure != 0 || sent != head.size() + offset) {
      // The file shrank or cannot be read on; a body that breaks off tells the client.
      throw boost::system::system_error(net::error::broken_pipe, "a file that cannot be read to its end");
    }
    Piece next = co_await read(offset, write(piece.bytes));
    offset += std::min<std::uint64_t>(kPieceSize, response.fileSize - offset);
    piece = std::move(next);
  }
}

Connection::Awaitable<> Connection::write(std::string_view text) {
  allow(kWriteSilence);
  co_await net::async_write(stream_, net::buffer(text), net::use_awaitable);
}

void Connection::startListening() {
  if (isListening_ || isBroken_ || filled_ - used_ >= kMaximumSentAhead) return;
  isListening_ = true;
  if (buffer_.size() - filled_ < kReceiveSize) buffer_.resize(filled_ + kReceiveSize);
  stream_.async_read_some(net::buffer(buffer_.data() + filled_, kReceiveSize),
                          [self = shared_from_this()](const boost::system::error_code& error, std::size_t count) {
                            self->isListening_ = false;
                            self->filled_ += count;
                            if (error) self->isBroken_ = true;
                            self->notify();
                          });
}

Connection::Awaitable<> Connection::listeningEnded() {
  while (isListening_) co_await notified();
}

Connection::Awaitable<> Connection::notified() {
  boost::system::error_code cancelled;
  co_await event_.async_wait(net::redirect_error(net::use_awaitable, cancelled));
}

void Connection::notify() { event_.cancel(); }

Connection::Awaitable<> Connection::sleep(Duration duration) {
  if (duration <= Duration::zero()) co_return;
  auto isOver = std::make_shared<bool>(false);
  auto timer = services_.clock.schedule(services_.clock.monotonicNow() + duration, {},
                                        [isOver, weak = weak_from_this(), executor = stream_.get_executor()] {
                                          net::post(executor, [isOver, weak] {
                                            *isOver = true;
                                            if (auto self = weak.lock()) self->notify();
                                          });
                                        });
  while (!*isOver && !isBroken_) co_await notified();
}

template <typename F>
Connection::Awaitable<std::invoke_result_t<F&>> Connection::blocking(net::thread_pool& pool, F function,
                                                                     Awaitable<> meanwhile) {
  std::optional<std::invoke_result_t<F&>> answer;
  std::exception_ptr failure, failureMeanwhile;
  bool isDone = false;
  // The guard keeps the network thread running until it has heard of the end; this frame lives as long.
  net::post(pool, [&, guard = net::make_work_guard(stream_.get_executor())] {
    try {
      answer.emplace(function());
    } catch (...) {
      failure = std::current_exception();
    }
    net::post(guard.get_executor(), [&isDone, this] {
      isDone = true;
      notify();
    });
  });
  try {
    if (meanwhile.valid()) co_await std::move(meanwhile);
  } catch (...) {
    failureMeanwhile = std::current_exception();
  }
  while (!isDone) co_await notified();
  if (failureMeanwhile) std::rethrow_exception(failureMeanwhile);
  if (failure) std::rethrow_exception(failure);
  co_return std::move(*answer);
}

void Connection::allow(Duration duration) {
  deadline_ = std::chrono::steady_clock::now() + duration;
  if (!isWatchingDeadline_ || deadline_ < deadlineTimer_.expiry()) watchDeadline();
}

void Connection::allowForever() { deadline_ = MonotonicTime::max(); }

void Connection::watchDeadline() {
  isWatchingDeadline_ = true;
  deadlineTimer_.expires_at(deadline_);
  deadlineTimer_.async_wait([weak = weak_from_this()](const boost::system::error_code& error) {
    auto self = weak.lock();
    if (!self || error) return;  // replaced by an earlier one
    self->isWatchingDeadline_ = false;
    if (self->deadline_ <= std::chrono::steady_clock::now()) return self->close();
    if (self->deadline_ != MonotonicTime::max()) self->watchDeadline();
  });
}

}  // namespace florvane
