#pragma once

#include "platform/Clock.h"
#include "platform/Error.h"
#include "platform/Secret.h"
#include "server/DocumentStore.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace florvane {

struct ServerOptions {
  std::string stateDirectory;
  std::vector<ShareConfiguration> shares;
  std::string listenHost = "127.0.0.1";           // a name or an address literal, IPv6 without brackets
  std::uint16_t port = 10548;                     // 0 takes a free one
  std::vector<std::string> mechanisms = {"SRP"};  // of "SRP" and "PLAIN", as they are offered
  // PEM files; both empty for the pair in the state folder, which is made when missing.
  std::string certificatePath, keyPath;
  std::uint64_t maximumUploadSize = std::uint64_t{64} << 30;  // bytes
};

// The HTTPS server: signs users in, answers the document commands and keeps what must outlive it in its state folder.
// Connections share one thread; disk and arithmetic run on a few others. Public operations are for one thread at a
// time. Errors are in ServerErrorDomain or QuilbarErrorDomain, with a sentence for the person who started it.
class Server {
 public:
  // The clock outlives the server.
  explicit Server(ServerOptions options, Clock& clock = Clock::system());
  // Stops it.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Connections are accepted when this returns without an error. Once for a server.
  Result<void> start();
  // Ends every connection and returns when all is at rest; what was answered with success is on disk. Idempotent.
  void stop();

  // The three below from start() on.
  std::uint16_t port() const;
  std::string url() const;  // "https://HOST:PORT", IPv6 in brackets
  const Data& certificateDER() const;

  // Users and sessions may be changed before the start and while the server runs.
  Result<void> addUser(const std::string& name, const Secret& password);
  // Ends the user's sessions too.
  Result<void> removeUser(const std::string& name);
  // Every client has to sign in again. Answers how many sessions there were.
  Result<std::size_t> revokeAllSessions();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace florvane
