#include "tests/support/TestServer.h"

#include "platform/Encoding.h"
#include "server/Administration.h"

#include <filesystem>
#include <stdexcept>

namespace florvane::test {

namespace {

template <typename T>
T require(Result<T> result) {
  if (!result) throw std::runtime_error(result.error().description());
  if constexpr (!std::is_void_v<T>) return std::move(*result);
}

}  // namespace

TestServer::TestServer(const Adjust& adjust, Clock& clock) : clock_(clock) {
  for (const std::string& each : {files(), library(), inbox()}) std::filesystem::create_directory(each);
  options_.stateDirectory = stateFolder();
  options_.port = 0;
  options_.shares = {{.name = "Files", .folder = files()},
                     {.name = "Library", .folder = library(), .readOnly = true},
                     {.name = "Inbox", .folder = inbox(), .dropBox = true}};
  require(require(Administration::open(stateFolder(), clock_))->users().add(user, Secret(password)));
  restart(adjust);
}

TestServer::~TestServer() = default;

void TestServer::stop() {
  if (server_) server_->stop();
}

void TestServer::restart(const Adjust& adjust) {
  stop();
  if (adjust) adjust(options_);
  server_ = std::make_unique<Server>(options_, clock_);
  require(server_->start());
  options_.port = server_->port();
}

void TestServer::forgetCertificate() {
  std::filesystem::remove(stateFolder() + "/certificate.pem");
  std::filesystem::remove(stateFolder() + "/key.pem");
}

Secret TestServer::makeCookie() {
  Secret key = require(require(Administration::open(stateFolder(), clock_))->sessions().create(user));
  return Secret("k=" + base64Encode(key.revealData()));
}

}  // namespace florvane::test
