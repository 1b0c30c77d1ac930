#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>

namespace florvane::test {

// Stands between clients and a server of the loopback and passes their bytes on, or does to them what networks do.
// Thread-safe.
class FaultProxy {
 public:
  enum class Fault : std::uint8_t {
    None,
    Refuse,     // nobody listens, and open connections are reset
    Reset,      // connections are reset after some bytes of the client's
    Silence,    // nothing passes either way, nothing is closed
    Lose,       // the same, but what is sent is taken and lost: connections of that time stay dead without a word
    LoseReply,  // requests arrive, and the connection is reset when the answer comes
    Trickle,    // one byte a turn, ten turns a second
    Drip,       // one byte a second
    Delay,      // what there is passes ten times a second
    Cut,        // connections are closed, without a reset, after some bytes of the server's
  };

  // To that port of the loopback. The seed decides where a connection is cut.
  explicit FaultProxy(std::uint16_t target, std::uint64_t seed = 1);
  ~FaultProxy();
  FaultProxy(const FaultProxy&) = delete;
  FaultProxy& operator=(const FaultProxy&) = delete;

  std::uint16_t port() const { return port_; }
  // In force when this returns, also for connections that are open. Silence that ends goes on where it stopped.
  void setFault(Fault fault);
  // Connections from now on go to that port.
  void setTarget(std::uint16_t target);
  std::size_t connections() const;
  // Counted from the first.
  std::size_t connectionsSoFar() const;

 private:
  struct Connection;

  void run();
  void listen();
  void accept();
  void lose(const std::shared_ptr<Connection>& connection, int from);
  // False when the connection has ended.
  bool pass(Connection& connection, Fault fault, int from);
  void wake();

  std::uint16_t port_ = 0;
  int listener_ = -1;
  std::array<int, 2> wakeup_{-1, -1};

  mutable std::mutex mutex_;  // guards what follows
  Fault fault_ = Fault::None, inForce_ = Fault::None;
  std::condition_variable changed_;
  bool stops_ = false;
  std::uint16_t target_;
  std::size_t count_ = 0, soFar_ = 0;

  std::mt19937_64 random_;                                  // with connections_ the thread's own
  std::map<int, std::shared_ptr<Connection>> connections_;  // by both of their sockets
  std::thread thread_;
};

}  // namespace florvane::test
