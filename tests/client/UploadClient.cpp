#include "tests/client/UploadClient.h"

#include "Client/Client/DCLog.h"
#include "common/FVFQueueManager.h"
#include "platform/FileSystem.h"

#include <future>
#include <stdexcept>

namespace florvane::test {

namespace {

std::string commandOf(const std::string& target) {
  const std::string prefix = "/fv/v1/";
  if (!target.starts_with(prefix)) return target;
  return target.substr(prefix.size(), target.find('?') - prefix.size());
}

// Sends one request and waits for the whole answer; trusts everybody.
class Courier : public URLSessionDelegate {
 public:
  struct Delivery {
    std::shared_ptr<const HTTPURLResponse> response;
    std::string body;
  };
  std::promise<Delivery> delivered;

  void didReceiveChallenge(SessionRef /*session*/, const URLAuthenticationChallenge& challenge,
                           const ChallengeCompletion& completionHandler) override {
    const URLCredential credential{challenge.serverTrust};
    completionHandler(ChallengeDisposition::UseCredential, &credential);
  }
  using URLSessionDelegate::didReceiveChallenge;
  void didReceiveResponse(SessionRef /*session*/, TaskRef dataTask, const HTTPURLResponse& /*response*/) override {
    delivery_.response = dataTask->response();
  }
  void didReceiveData(SessionRef /*session*/, TaskRef /*dataTask*/, const Data& data) override {
    delivery_.body.append(data.view());
  }
  void didCompleteWithError(SessionRef /*session*/, TaskRef /*task*/, const std::optional<Error>& /*error*/) override {
    delivered.set_value(delivery_);
  }

 private:
  Delivery delivery_;
};

}  // namespace

std::string textOf(const std::string& path) {
  auto bytes = readFile(path);
  return bytes ? std::string(bytes->view()) : "(none)";
}

std::string FaultyServer::refusal(int status, const std::string& sentence) {
  return "HTTP/1.1 " + std::to_string(status) + " Refused\r\nContent-Length: " + std::to_string(sentence.size()) +
         "\r\n\r\n" + sentence;
}

FaultyServer::FaultyServer(TestServer& server)
    : server_(server),
      certificate_(readCertificate(server.stateFolder() + "/certificate.pem", server.stateFolder() + "/key.pem")) {
  relay_ = std::make_unique<ScriptedServer>([this](ScriptedServer::Connection& connection) { serve(connection); },
                                            certificate_);
}

FaultyServer::~FaultyServer() {
  {
    std::lock_guard lock(mutex_);
    isEnding_ = true;
    for (const auto& session : passing_) session->invalidateAndCancel();
  }
  relay_.reset();
}

void FaultyServer::setFault(const std::string& command, Fault fault) {
  std::lock_guard lock(mutex_);
  faults_[command] = std::move(fault);
}

std::size_t FaultyServer::requestsOf(const std::string& command) {
  std::lock_guard lock(mutex_);
  return counts_[command];
}

void FaultyServer::cutRequestsOf(const std::string& command, int count) {
  std::lock_guard lock(mutex_);
  cuts_[command] = count;
}

void FaultyServer::serve(ScriptedServer::Connection& connection) {
  while (auto request = connection.readHead()) {
    Fault fault;
    bool isCut = false;
    {
      std::lock_guard lock(mutex_);
      const std::string command = commandOf(request->target);
      ++counts_[command];
      if (auto found = faults_.find(command); found != faults_.end()) fault = found->second;
      if (auto cut = cuts_.find(command); cut != cuts_.end() && cut->second > 0) {
        --cut->second;
        isCut = true;
      }
    }
    if (!isCut) connection.readBody(*request);
    auto answer = fault && !isCut ? fault(*request) : std::nullopt;
    if (isCut || answer == loseTheRequest) {
      connection.cut(true);
      return;
    }
    const bool isPassedOn = !answer || answer == loseTheReply || answer == cutTheReply;
    if (!isPassedOn) {
      connection.send(*answer);
      continue;
    }
    const std::string passed = passOn(*request);
    if (answer == loseTheReply) {
      connection.cut(true);
      return;
    }
    if (answer == cutTheReply) {
      connection.send(passed.substr(0, passed.size() - 1));
      connection.cut();
      return;
    }
    connection.send(passed);
  }
}

std::string FaultyServer::passOn(const ScriptedServer::Request& request) {
  URLRequest passed(*URL::fromString(server_.url() + request.target));
  passed.method = request.method;
  for (const auto& [name, value] : request.headers) {
    if (name != "host" && name != "content-length") passed.headers.set(name, value);
  }
  if (request.method == "POST") passed.body = Data::fromString(request.body);
  auto courier = std::make_shared<Courier>();
  auto future = courier->delivered.get_future();
  auto session = URLSession::create(URLSessionConfiguration::defaultConfiguration(), courier);
  {
    std::lock_guard lock(mutex_);
    if (isEnding_) return refusal(502, "");
    passing_.insert(session);
    session->dataTask(passed)->resume();
  }
  auto delivery = future.get();
  session->invalidateAndCancel();
  {
    std::lock_guard lock(mutex_);
    passing_.erase(session);
  }
  if (!delivery.response) return refusal(502, "The server behind is gone.");
  std::string text = "HTTP/1.1 " + std::to_string(delivery.response->statusCode()) + " Passed\r\n";
  for (const auto& [name, value] : delivery.response->headers().fields()) {
    const bool isOfConnection = equalIgnoringCase(name, "content-length") || equalIgnoringCase(name, "connection");
    if (!isOfConnection) text.append(name).append(": ").append(value).append("\r\n");
  }
  return text + "Content-Length: " + std::to_string(delivery.body.size()) + "\r\n\r\n" + delivery.body;
}

UploadClient::UploadClient(TestServer& server) : DocumentClient((Environment(), server.port())) {
  dc_log_set_level(dc_log_default_category(), DCLogLevelInfo);
  listFresh("");
  listFresh("Files");
}

UploadClient::UploadClient(TestServer& server, FaultyServer& faulty) : DocumentClient((Environment(), faulty.port())) {
  dc_log_set_level(dc_log_default_category(), DCLogLevelInfo);
  auto stored = DCPreferences::preferences()->setAuthCookie(server.makeCookie(), faulty.certificate().der(), service);
  if (!stored) throw std::runtime_error(stored.error().description());
  listFresh("");
  listFresh("Files");
}

URL UploadClient::source(const std::string& text) {
  const std::string path = container.file("source-" + std::to_string(++sources_));
  writeText(path, text);
  return URL::fileURL(path);
}

Answer<URL> UploadClient::write(const std::string& path, const std::string& text) {
  return writeFrom(path, source(text).path());
}

Answer<URL> UploadClient::writeFrom(const std::string& path, const std::string& sourcePath) {
  auto promise = std::make_shared<std::promise<Answer<URL>>>();
  manager->writeToFileAtPath(path, URL::fileURL(sourcePath),
                             [promise](const std::optional<URL>& url, const std::optional<Error>& error) {
                               promise->set_value({0, url, error});
                             });
  return promise->get_future().get();
}

URL UploadClient::queueWithoutStart(const std::string& path, const std::string& text) {
  const auto staged = manager->fileURLOfItemAtPath(path);
  if (!staged) throw std::runtime_error(staged.error().description());
  writeText(staged->path(), text);
  const auto saved = database().saveUploadFileURL(*staged, path);
  if (!saved) throw std::runtime_error(saved.error().description());
  return *staged;
}

Answer<URL> UploadClient::upload(const std::string& path) {
  auto promise = std::make_shared<std::promise<Answer<URL>>>();
  manager->startUploadingItemAtPath(path, [promise](const std::optional<URL>& url, const std::optional<Error>& error) {
    promise->set_value({0, url, error});
  });
  return promise->get_future().get();
}

bool UploadClient::sent(const std::string& path) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    if (!record(path)) return true;
    (void)upload(path);
  }
  return !record(path);
}

void UploadClient::onQueue(const std::function<void()>& work) {
  FVFQueueManager::sharedQueueManager()
      .queueForServiceWithUniqueIdentifier(service->uniqueIdentifier())
      ->dispatchSynchronousBlock(work);
}

}  // namespace florvane::test
