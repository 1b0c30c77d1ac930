#pragma once

#include "tests/support/Certificates.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace florvane::test {

// Something that a test lets happen, once, and that others wait for.
class Signal {
 public:
  void raise();
  // False when it has not been raised within the patience of a test (20 s).
  bool wait();

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool raised_ = false;
};

// A server on a loopback port whose every connection is served by a script, each on a thread of its own. Speaks TLS
// when it is given a certificate. Destroying it closes all connections and waits for the scripts.
class ScriptedServer {
 public:
  struct Request {
    int connection = 0;  // counted from 1
    std::string method, target, body;
    std::map<std::string, std::string> headers;  // names in lower case
  };

  class Connection {
   public:
    // Reads one request to its end; absent when the peer has closed.
    std::optional<Request> read();
    // The head only; the body is left to readBody().
    std::optional<Request> readHead();
    void readBody(Request& request);
    // False when the peer is gone.
    bool send(const std::string& bytes);
    // Sends until the peer takes nothing any more for a fifth of a second; how much it took. Without TLS.
    std::size_t sendUntilStalled(const std::string& bytes);
    // Status 200 and that body; more fields end in "\r\n" each.
    bool respond(const std::string& body, const std::string& moreFields = {});
    // Ends the connection as a process does that is killed: no close of TLS, and with a reset on request.
    void cut(bool reset = false);
    int number() const { return number_; }

   private:
    friend class ScriptedServer;
    struct State;
    Connection(ScriptedServer& server, std::shared_ptr<State> state, int number);
    bool fill();
    ScriptedServer& server_;
    std::shared_ptr<State> state_;
    const int number_;
    std::string input_;
  };
  using Script = std::function<void(Connection&)>;

  explicit ScriptedServer(Script script, std::optional<Certificate> certificate = std::nullopt, bool ipv6 = false);
  ~ScriptedServer();
  // Answers every request of every connection by the function's text, sent as it is.
  static Script answering(std::function<std::string(const Request&)> answer);

  std::uint16_t port() const { return port_; }
  std::string url(const std::string& target) const;
  std::vector<Request> requests() const;
  int connections() const;
  int mostAtOnce() const;

 private:
  void accept();
  void serve(const std::shared_ptr<Connection::State>& state, int number);

  const Script script_;
  const bool ipv6_;
  std::shared_ptr<SSL_CTX> tls_;
  int listener_ = -1;
  std::uint16_t port_ = 0;
  mutable std::mutex mutex_;  // guards the rest
  std::vector<Request> requests_;
  std::map<int, std::shared_ptr<Connection::State>> open_;
  std::vector<std::thread> threads_;
  int connections_ = 0;
  int mostAtOnce_ = 0;
  bool closing_ = false;
  std::thread acceptor_;
};

// "HTTP/1.1 200 OK" with a length and that body.
std::string okAnswer(const std::string& body, const std::string& moreFields = {});

}  // namespace florvane::test
