#pragma once

#include "platform/Clock.h"
#include "platform/Secret.h"
#include "server/Server.h"
#include "tests/support/TemporaryDirectory.h"

#include <functional>
#include <memory>
#include <string>

namespace florvane::test {

// A server in this process on a free loopback port, with a state folder and three shares of its own: "Files",
// "Library" (read-only) and "Inbox" (a drop box). The user "ada" may sign in, by SRP only unless changed.
class TestServer {
 public:
  using Adjust = std::function<void(ServerOptions&)>;
  static constexpr char user[] = "ada";
  static constexpr char password[] = "Notes by the Translator: G";

  // Started; `adjust` may change the options first. A failure throws.
  explicit TestServer(const Adjust& adjust = {}, Clock& clock = Clock::system());
  ~TestServer();

  Server& operator*() { return *server_; }
  Server* operator->() { return server_.get(); }
  std::uint16_t port() const { return options_.port; }
  std::string url() const { return server_->url(); }
  std::string stateFolder() const { return folder_.file("state"); }
  // Folders of the three shares.
  std::string files() const { return folder_.file("files"); }
  std::string library() const { return folder_.file("library"); }
  std::string inbox() const { return folder_.file("inbox"); }

  void stop();
  // Stops it if it runs, and starts one on the same port, state and shares. With other options `adjust` changes them
  // for good; a certificate swap removes the state folder's or names another.
  void restart(const Adjust& adjust = {});
  // So that the next start makes a certificate that nobody has seen.
  void forgetCertificate();
  // "k=...": a session of the user's without an exchange.
  Secret makeCookie();

 private:
  TemporaryDirectory folder_;
  Clock& clock_;
  ServerOptions options_;
  std::unique_ptr<Server> server_;
};

}  // namespace florvane::test
