#include "platform/BackgroundURLSession.h"
#include "platform/TransferFolder.h"
#include "tests/client/UploadClient.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Process.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <future>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>

namespace florvane::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::ElementsAre;
using testing::IsEmpty;

// A process that works with the container.
class Application {
 public:
  Application(const std::string& container, std::uint16_t port, std::string bundle,
              std::vector<std::string> environment)
      : process_({std::string(FLORVANE_BIN_DIR) + "/client_peer", std::to_string(port), "0", std::move(bundle)},
                 withContainer(std::move(environment), container)) {
    EXPECT_TRUE(process_.readLine());
    for (const char* path : {"", "Files"}) {
      ask({{"op", "list"}, {"path", path}, {"sync", true}});
      ask({{"op", "advance"}, {"seconds", 11}});
    }
  }
  json ask(const json& request) {
    EXPECT_TRUE(process_.writeLine(request.dump()));
    const auto line = process_.readLine();
    EXPECT_TRUE(line) << request;
    return line ? json::parse(*line) : json();
  }
  // The task that sends what is due at a path; 0 when nothing is.
  std::uint64_t taskOf(const std::string& path) {
    const json uploads = ask({{"op", "uploads"}})["uploads"];
    const auto found =
        std::find_if(uploads.begin(), uploads.end(), [&](const json& each) { return each["path"] == path; });
    return found == uploads.end() ? 0 : (*found)["task"].get<std::uint64_t>();
  }
  std::vector<std::string> due() {
    std::vector<std::string> paths;
    const json uploads = ask({{"op", "uploads"}})["uploads"];
    for (const json& each : uploads) paths.push_back(each["path"]);
    return paths;
  }
  std::string session(const std::string& bundle) {
    return ask({{"op", "known"}})["service"].get<std::string>() + "~" + bundle;
  }
  void kill() { process_.kill(SIGKILL); }

 private:
  static std::vector<std::string> withContainer(std::vector<std::string> environment, const std::string& container) {
    environment.push_back("FLORVANE_CONTAINER=" + container);
    return environment;
  }
  ChildProcess process_;
};

// One container, one agent, and a server that holds the first request for each name until it may go on.
class UploadProcesses : public testing::Test {
 protected:
  struct Gate {
    Signal arrived, mayGo;
    std::atomic<int> requests = 0;
  };

  UploadProcesses() {
    fs::create_directory(container);
    fs::permissions(container, fs::perms::owner_all);
    auto hold = [this](const ScriptedServer::Request& request) -> std::optional<std::string> {
      for (auto& [name, gate] : gates) {
        const bool isOfGate = request.target.find("n=" + name) != std::string::npos;
        if (!isOfGate || ++gate.requests > 1) continue;
        gate.arrived.raise();
        gate.mayGo.wait();
      }
      return std::nullopt;
    };
    faulty.setFault("write", hold);
  }
  ~UploadProcesses() override {
    for (auto& [name, gate] : gates) gate.mayGo.raise();
    auto folder = TransferFolder::open(container);
    auto socket = folder ? folder->connect() : Result<FileDescriptor>(Failure(Error::posix(ENOENT)));
    ucred agent{};
    socklen_t size = sizeof agent;
    if (socket && getsockopt(socket->get(), SOL_SOCKET, SO_PEERCRED, &agent, &size) == 0) kill(agent.pid, SIGKILL);
  }

  std::unique_ptr<Application> launch(const std::string& bundle, std::vector<std::string> environment = {}) {
    return std::make_unique<Application>(container, faulty.port(), bundle, std::move(environment));
  }
  // As the agent starts it.
  std::unique_ptr<Application> relaunch(const std::string& bundle, const std::string& session) {
    return launch(bundle, {"FLORVANE_BACKGROUND_SESSION=" + session});
  }
  // Its task, which the server holds.
  std::uint64_t write(Application& application, const std::string& name, const std::string& text) {
    writeText(work.file("source"), text);
    const json answer = application.ask({{"op", "write"}, {"path", "Files/" + name}, {"source", work.file("source")}});
    EXPECT_TRUE(answer["error"].is_null()) << answer;
    EXPECT_TRUE(gates[name].arrived.wait());
    return application.taskOf("Files/" + name);
  }
  // Lets the server answer, and waits until the agent has the answer.
  void answer(const std::string& name, std::uint64_t task, const std::string& session) {
    gates[name].mayGo.raise();
    auto configuration = URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(session);
    configuration.containerDirectory = container;
    auto silent = BackgroundURLSession::create(configuration, nullptr);
    for (bool hasEnded = false; !hasEnded;) {
      std::promise<std::vector<URLSessionTaskPtr>> found;
      silent->getAllTasksWithCompletionHandler(
          [&](const auto& tasks) { found.set_value(tasks ? *tasks : std::vector<URLSessionTaskPtr>()); });
      const auto tasks = found.get_future().get();
      hasEnded = std::any_of(tasks.begin(), tasks.end(), [&](const URLSessionTaskPtr& each) {
        return each->taskIdentifier() == task && each->state() == URLSessionTaskState::Completed;
      });
    }
    silent->finishTasksAndInvalidate();
  }
  void untilNothingIsDue(Application& application) {
    while (!application.due().empty()) {
    }
  }
  std::string onServer(const std::string& name) const { return textOf(server.files() + "/" + name); }

  const TemporaryDirectory work;
  const std::string container = work.file("container");
  std::map<std::string, Gate> gates = makeGates();
  TestServer server;
  FaultyServer faulty{server};

 private:
  static std::map<std::string, Gate> makeGates() {
    std::map<std::string, Gate> made;
    for (const char* name : {"alpha", "beta", "gamma"}) made[name];
    return made;
  }
};

TEST_F(UploadProcesses, ARelaunchedApplicationHearsExactlyWhatItMissedInOrder) {
  const std::string bundle = "test.app";
  auto application = launch(bundle);
  const std::string session = application->session(bundle);
  std::map<std::string, std::uint64_t> tasks;
  for (const char* name : {"alpha", "beta", "gamma"})
    tasks[name] = write(*application, name, std::string("of ") + name);
  application->kill();
  for (const char* name : {"gamma", "alpha", "beta"}) answer(name, tasks[name], session);

  application = relaunch(bundle, session);
  EXPECT_EQ(application->ask({{"op", "events"}})["ended"],
            json::array({tasks["gamma"], tasks["alpha"], tasks["beta"]}));
  untilNothingIsDue(*application);
  for (const char* name : {"alpha", "beta", "gamma"}) EXPECT_EQ(onServer(name), std::string("of ") + name);
  EXPECT_EQ(faulty.requestsOf("write"), 3U);
  EXPECT_THAT(application->ask({{"op", "known"}})["assertions"], IsEmpty());
  application->kill();
  // It has been told once.
  application = relaunch(bundle, session);
  EXPECT_THAT(application->ask({{"op", "events"}})["ended"], IsEmpty());
}

TEST_F(UploadProcesses, ApplicationsOfOneContainerHearOfTheirOwnUploadsOnly) {
  const std::string firstBundle = "test.first", secondBundle = "test.second";
  auto first = launch(firstBundle), second = launch(secondBundle);
  const std::string firstSession = first->session(firstBundle), secondSession = second->session(secondBundle);
  const std::uint64_t alpha = write(*first, "alpha", "the first's"), beta = write(*second, "beta", "the second's");
  EXPECT_THAT(first->due(), testing::UnorderedElementsAre("Files/alpha", "Files/beta"));
  first->kill();
  second->kill();
  answer("alpha", alpha, firstSession);
  answer("beta", beta, secondSession);

  second = relaunch(secondBundle, secondSession);
  EXPECT_EQ(second->ask({{"op", "events"}})["ended"], json::array({beta}));
  while (second->taskOf("Files/beta") != 0) {
  }
  // The other's is left to it, also by who starts again whatever is due.
  second->ask({{"op", "restart"}});
  EXPECT_THAT(second->due(), ElementsAre("Files/alpha"));
  first = relaunch(firstBundle, firstSession);
  EXPECT_EQ(first->ask({{"op", "events"}})["ended"], json::array({alpha}));
  untilNothingIsDue(*first);
  untilNothingIsDue(*second);
  EXPECT_EQ(onServer("alpha"), "the first's");
  EXPECT_EQ(onServer("beta"), "the second's");
  EXPECT_EQ(faulty.requestsOf("write"), 2U);
}

TEST_F(UploadProcesses, ACommandTakesBackWhatAnApplicationIsSending) {
  auto application = launch("test.app");
  (void)write(*application, "alpha", "older");
  writeText(work.file("newer"), "newer, from the command line");
  const auto put = runProcess({std::string(FLORVANE_BIN_DIR) + "/florvane", "--container", container, "put", "--wait",
                               work.file("newer"), "office:Files/alpha"});
  EXPECT_EQ(put.exitStatus, 0) << put.standardError;
  EXPECT_EQ(onServer("alpha"), "newer, from the command line");
  // What the network still held comes too late.
  gates["alpha"].mayGo.raise();
  untilNothingIsDue(*application);
  EXPECT_EQ(onServer("alpha"), "newer, from the command line");
  EXPECT_EQ(gates["alpha"].requests, 2);
  // And the application goes on from there.
  writeText(work.file("source"), "newest");
  application->ask({{"op", "advance"}, {"seconds", 60}});
  application->ask({{"op", "list"}, {"path", "Files"}, {"sync", true}});
  const json answer = application->ask({{"op", "write"}, {"path", "Files/alpha"}, {"source", work.file("source")}});
  EXPECT_TRUE(answer["error"].is_null()) << answer;
  untilNothingIsDue(*application);
  EXPECT_EQ(onServer("alpha"), "newest");
  EXPECT_THAT(application->ask({{"op", "known"}})["assertions"], IsEmpty());
}

}  // namespace
}  // namespace florvane::test
