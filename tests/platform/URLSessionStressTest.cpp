#include "tests/platform/URLSessionRecorder.h"

#include <random>
#include <thread>

namespace florvane::test {
namespace {

// Sessions of one pool with requests of every kind in flight, cancelled and invalidated from several threads at any
// moment: every task ends once, nothing is told after that, and nothing is left behind.
TEST(URLSessionStressTest, SurvivesCancellationsAndInvalidationsAtAnyMoment) {
  constexpr int kRounds = 4, kTasks = 50;
  ScriptedServer server(
      [](ScriptedServer::Connection& connection) {
        while (auto seen = connection.read()) {
          if (seen->target == "/cut") return connection.cut(true);
          if (!connection.respond(std::string(seen->target == "/large" ? 400'000 : 500, 'x'))) return;
        }
      },
      makeCertificate());
  TemporaryDirectory directory;
  writeText(directory.file("source"), std::string(100'000, 's'));
  for (int round = 0; round < kRounds; ++round) {
    auto recorder = std::make_shared<URLSessionRecorder>();
    URLSessionConfiguration configuration;
    configuration.connectionPool = round % 2 ? "stress" : "";
    configuration.downloadDirectory = directory.path();
    auto session = URLSession::create(configuration, recorder);
    std::vector<URLSessionTaskPtr> tasks;
    for (int i = 0; i < kTasks; ++i) {
      URLRequest request(URL::fromString(server.url(i % 10 == 0 ? "/cut" : i % 3 == 0 ? "/large" : "/")).value());
      if (i % 5 == 4) {
        request.method = "POST";
        tasks.push_back(session->uploadTask(request, URL::fileURL(directory.file("source"))));
      } else {
        tasks.push_back(i % 2 ? session->dataTask(request) : session->downloadTask(request));
      }
    }
    std::thread starter([&] {
      for (const auto& task : tasks) task->resume();
    });
    std::thread canceller([&] {
      std::mt19937 random(static_cast<unsigned>(round));
      for (int i = 0; i < kTasks / 2; ++i) {
        tasks[random() % kTasks]->cancel();
        std::this_thread::yield();
      }
    });
    starter.join();
    canceller.join();
    for (int i = 0; i < kTasks / 2; ++i) recorder->wait(tasks[static_cast<std::size_t>(i)]);
    std::thread retirer([] { URLSession::retireConnections("stress"); });
    session->invalidateAndCancel();
    retirer.join();
    recorder->waitUntilInvalid(session);
    for (const auto& task : tasks) EXPECT_EQ(recorder->wait(task).completions, 1);
    EXPECT_EQ(recorder->callsAfterEnd(), 0);
  }
}

}  // namespace
}  // namespace florvane::test
