#pragma once

#include "Client/Client/DCBackgroundSessionManager.h"
#include "Client/Client/DCPreferences.h"
#include "tests/client/DocumentClient.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TestServer.h"

#include <cstdlib>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace florvane::test {

// A server that passes requests on to a real one, whose certificate it shows, so that clients may sign in through it;
// and does with them, or with the answers, what a test says.
class FaultyServer {
 public:
  // Said for each request: an answer to be sent instead, or nothing.
  using Fault = std::function<std::optional<std::string>(const ScriptedServer::Request& request)>;
  // As an answer: the request is passed on, and then the connection is reset without a word.
  static constexpr char loseTheReply[] = "lose";
  // As an answer: the connection is reset before the request is passed on.
  static constexpr char loseTheRequest[] = "drop";
  // As an answer: the request is passed on, and of what comes back the last bytes are missing.
  static constexpr char cutTheReply[] = "cut";
  static std::string refusal(int status, const std::string& sentence);

  explicit FaultyServer(TestServer& server);
  // What is being passed on is given up.
  ~FaultyServer();
  // Of the requests of that command ("/sasl" for the messages of signing in).
  void setFault(const std::string& command, Fault fault);
  // The next requests of the command are reset when their head has come.
  void cutRequestsOf(const std::string& command, int count);
  std::size_t requestsOf(const std::string& command);
  std::uint16_t port() const { return relay_->port(); }
  const Certificate& certificate() const { return certificate_; }

 private:
  void serve(ScriptedServer::Connection& connection);
  std::string passOn(const ScriptedServer::Request& request);

  TestServer& server_;
  const Certificate certificate_;
  std::mutex mutex_;  // guards what follows, up to the relay
  bool isEnding_ = false;
  std::set<URLSessionPtr> passing_;
  std::map<std::string, Fault> faults_;
  std::map<std::string, std::size_t> counts_;
  std::map<std::string, int> cuts_;
  std::unique_ptr<ScriptedServer> relay_;
};

// A document client that writes, with the transfer agent inside this process. Its folder "Files" has been listed.
class UploadClient : public DocumentClient {
 public:
  explicit UploadClient(TestServer& server);
  // Signed in already.
  UploadClient(TestServer& server, FaultyServer& faulty);

  // A source file with that text and date.
  URL source(const std::string& text);
  Answer<URL> write(const std::string& path, const std::string& text);
  Answer<URL> writeFrom(const std::string& path, const std::string& sourcePath);
  // As a kill leaves it between a write and its upload: a staged new file and its record, which nobody sends yet. The
  // file.
  URL queueWithoutStart(const std::string& path, const std::string& text);
  // Joins the upload of the item, or starts one; what the first attempt came to.
  Answer<URL> upload(const std::string& path);
  // Until nothing of the path waits to be sent; false when it does not come to that.
  bool sent(const std::string& path);
  std::shared_ptr<DCManagedUpload> record(const std::string& path) { return manager->uploadForItemAtPath(path); }
  // Runs on the service's queue and waits.
  void onQueue(const std::function<void()>& work);
  DCDatabase& database() { return *DCDatabase::databaseForService(service); }

 private:
  struct Environment {
    Environment() { setenv("FLORVANE_TRANSFERD", "/nowhere/florvane-transferd", 1); }
  };
  int sources_ = 0;
};

// The text of a file; "(none)" where there is none.
std::string textOf(const std::string& path);

}  // namespace florvane::test
