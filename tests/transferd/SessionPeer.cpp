// A program with a background session, for the agent's tests.
//   upload CONTAINER SESSION URL FILE...   starts a task for each file, prints its identifier, waits to be killed
//   hold CONTAINER SESSION URL FILE...     the same, but never returns from being told of an ended task
//   stuck CONTAINER SESSION -              prints "told" when it is told of an ended task, and never returns from that
//   attach CONTAINER SESSION FILE          appends to the file what it is told, and ends with "finished"

#include "platform/BackgroundURLSession.h"
#include "tests/support/TransferRecorder.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

using namespace florvane;

namespace {

BackgroundURLSessionPtr makeSession(const std::string& container, const std::string& identifier,
                                    const std::shared_ptr<URLSessionDelegate>& delegate) {
  auto configuration = URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier);
  configuration.containerDirectory = container;
  return BackgroundURLSession::create(configuration, delegate);
}

std::string environmentValue(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() < 4) return 2;
  auto recorder = std::make_shared<test::TransferRecorder>();
  auto waitToBeKilled = [] {
    while (std::getchar() != EOF) {
    }
  };
  if (arguments[0] == "hold") recorder->onCompletion = waitToBeKilled;
  if (arguments[0] == "stuck") {
    recorder->onCompletion = [&] {
      std::puts("told");
      std::fflush(stdout);
      waitToBeKilled();
    };
  }
  auto session = makeSession(arguments[1], arguments[2], recorder);
  if (arguments[0] == "upload" || arguments[0] == "hold") {
    auto url = URL::fromString(arguments[3]);
    for (std::size_t i = 4; i < arguments.size(); ++i) {
      URLRequest request(*url);
      request.method = "POST";
      auto task = session->uploadTask(request, URL::fileURL(arguments[i]), {.path = "/" + std::to_string(i - 4)});
      if (!task) return 1;
      (*task)->resume();
      std::printf("%lu\n", static_cast<unsigned long>((*task)->taskIdentifier()));
      std::fflush(stdout);
    }
    waitToBeKilled();
    return 0;
  }
  for (std::size_t count = 1;; ++count) {
    auto lines = recorder->wait(count);
    std::ofstream(arguments[3], std::ios::app) << lines[count - 1] << "\n";
    if (lines[count - 1] != "finished") continue;
    std::ofstream(arguments[3], std::ios::app) << environmentValue("FLORVANE_CONTAINER") << " "
                                               << environmentValue("FLORVANE_BACKGROUND_SESSION") << "\nend\n";
    return 0;
  }
}
