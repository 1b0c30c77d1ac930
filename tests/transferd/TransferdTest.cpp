#include "platform/PropertyList.h"
#include "platform/TransferFolder.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Process.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TransferRecorder.h"

#include <array>
#include <csignal>
#include <filesystem>
#include <future>
#include <thread>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace florvane {
namespace {

using test::okAnswer;
using test::readText;
using test::runProcess;
using test::ScriptedServer;
using test::Signal;
using test::TemporaryDirectory;
using test::TransferRecorder;
using test::writeText;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

const std::string kAgent = std::string(FLORVANE_BIN_DIR) + "/florvane-transferd";
const std::string kPeer = std::string(FLORVANE_BIN_DIR) + "/session_peer";
constexpr char kSession[] = "5A0C~tests";

// A process of session_peer, killed at the end at the latest.
class Peer {
 public:
  explicit Peer(std::vector<std::string> arguments) {
    std::array<int, 2> input{}, output{};
    EXPECT_EQ(pipe2(input.data(), O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(output.data(), O_CLOEXEC), 0);
    arguments.insert(arguments.begin(), kPeer);
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (auto& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    process_ = fork();
    if (process_ == 0) {
      dup2(input[0], 0);
      dup2(output[1], 1);
      execv(pointers[0], pointers.data());
      _exit(127);
    }
    close(input[0]);
    close(output[1]);
    input_ = FileDescriptor(input[1]);
    output_ = fdopen(output[0], "r");
  }
  ~Peer() { killNow(); }
  std::string line() {
    std::string text;
    for (int c = 0; (c = std::fgetc(output_)) != EOF && c != '\n';) text.push_back(static_cast<char>(c));
    return text;
  }
  void killNow() {
    if (process_ <= 0) return;
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
    process_ = -1;
    std::fclose(output_);
  }

 private:
  pid_t process_ = -1;
  FileDescriptor input_;
  FILE* output_ = nullptr;
};

class TransferdTest : public testing::Test {
 protected:
  TransferdTest() {
    // As a program that is not careful would: the agent must not hold on to it.
    leaked_ = open("/dev/zero", O_RDONLY);
    setenv("FLORVANE_TRANSFERD", kAgent.c_str(), 1);
    mkdir(container_.c_str(), 0700);
    writeText(file_, "contents");
  }
  ~TransferdTest() override {
    for (auto& session : sessions_) session->finishTasksAndInvalidate();
    sessions_.clear();
    if (auto agent = agentProcess()) kill(*agent, SIGKILL);
    close(leaked_);
  }

  std::shared_ptr<TransferRecorder> attach(std::vector<std::string> relaunch = {}) {
    auto recorder = std::make_shared<TransferRecorder>();
    open_ = makeSession(recorder, std::move(relaunch));
    return recorder;
  }
  BackgroundURLSessionPtr makeSession(const std::shared_ptr<URLSessionDelegate>& delegate,
                                      std::vector<std::string> relaunch = {}) {
    auto configuration = URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(kSession);
    configuration.containerDirectory = container_;
    configuration.relaunchCommand = std::move(relaunch);
    return sessions_.emplace_back(BackgroundURLSession::create(configuration, delegate));
  }
  void detach() {
    sessions_.back()->finishTasksAndInvalidate();
    sessions_.pop_back();
  }
  URLSessionTaskPtr upload(const BackgroundURLSessionPtr& session, const std::string& url,
                           BackgroundTransfer transfer = {}) {
    URLRequest request(*URL::fromString(url));
    request.method = "POST";
    auto task = session->uploadTask(request, URL::fileURL(file_), std::move(transfer));
    EXPECT_TRUE(task);
    if (task) (*task)->resume();
    return task ? *task : nullptr;
  }
  std::vector<URLSessionTaskPtr> tasks(const BackgroundURLSessionPtr& session) {
    std::promise<std::vector<URLSessionTaskPtr>> found;
    session->getAllTasksWithCompletionHandler(
        [&](const auto& result) { found.set_value(result ? *result : std::vector<URLSessionTaskPtr>()); });
    return found.get_future().get();
  }
  // The process that listens for sessions, as the system knows it.
  std::optional<pid_t> agentProcess() {
    auto folder = TransferFolder::open(container_);
    auto socket = folder ? folder->connect() : Result<FileDescriptor>(Failure(Error::posix(ENOENT)));
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (!socket || getsockopt(socket->get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return std::nullopt;
    return credentials.pid;
  }
  pid_t killAgent() {
    pid_t agent = agentProcess().value_or(-1);
    EXPECT_GT(agent, 0);
    EXPECT_EQ(kill(agent, SIGKILL), 0);
    return agent;
  }

  TemporaryDirectory directory_;
  // Longer than the address of a socket may be.
  std::string container_ = directory_.file(std::string(120, 'c'));
  std::string file_ = directory_.file("file");
  std::vector<BackgroundURLSessionPtr> sessions_;
  BackgroundURLSessionPtr open_;
  int leaked_ = -1;
};

TEST_F(TransferdTest, OutlivesItsClientAndTellsTheNextOneOnce) {
  Signal mayAnswer;
  ScriptedServer server([&](ScriptedServer::Connection& connection) {
    while (auto request = connection.read()) {
      if (!mayAnswer.wait()) return;
      connection.respond("received " + request->body);
    }
  });
  // The third ends at once: its maker must not have acknowledged that before it is killed.
  Peer client({"hold", container_, kSession, server.url("/write"), file_, file_, directory_.file("missing")});
  std::string first = client.line(), second = client.line(), third = client.line();
  client.killNow();
  mayAnswer.raise();
  auto silent = makeSession(nullptr);
  auto ended = [&] {
    auto all = tasks(silent);
    return std::all_of(all.begin(), all.end(),
                       [](const auto& task) { return task->state() == URLSessionTaskState::Completed; });
  };
  while (!ended()) {
  }

  auto recorder = attach();
  auto lines = recorder->wait(4);
  EXPECT_EQ(lines.back(), "finished");
  lines.pop_back();
  EXPECT_THAT(lines, testing::UnorderedElementsAre(first + " 200 received contents", second + " 200 received contents",
                                                   third + " -1100"));
  EXPECT_EQ(server.requests().size(), 2U);
  // By now everything is acknowledged: there is nothing left, and nothing is told again.
  while (!tasks(open_).empty()) {
  }
  detach();
  auto next = attach();
  EXPECT_TRUE(tasks(open_).empty());
  EXPECT_EQ(next->count(), 0U);
  EXPECT_EQ(recorder->wait(5).back(), "invalid");
}

TEST_F(TransferdTest, ServesTheSocketThatAServiceManagerListensOnAndLeavesItInItsPlace) {
  constexpr char kManager[] = R"(
import os, socket, sys
container, agent = sys.argv[1:]
os.makedirs(container + "/Transfers", 0o700)
listening = socket.socket(socket.AF_UNIX)
listening.bind(container + "/Transfers/agent.socket")
listening.listen()
os.dup2(listening.fileno(), 3)
os.environ.update(LISTEN_FDS="1", LISTEN_PID=str(os.getpid()))
os.execv(agent, [agent, "--container", container])
)";
  container_ = directory_.file("short");
  test::ChildProcess agent({"python3", "-c", kManager, container_, kAgent});
  ASSERT_EQ(agent.readLine(), "ready");
  auto recorder = attach();
  ScriptedServer server(ScriptedServer::answering([](const auto&) { return okAnswer("ok"); }));
  upload(open_, server.url("/"));
  EXPECT_THAT(recorder->wait(1)[0], HasSubstr(" 200 ok"));
  EXPECT_EQ(agentProcess(), agent.pid());
  detach();
  kill(agent.pid(), SIGTERM);
  EXPECT_EQ(agent.wait(), 0);
  EXPECT_TRUE(std::filesystem::exists(container_ + "/Transfers/agent.socket"));
}

TEST_F(TransferdTest, HoldsNothingOfItsClientAndRunsOnce) {
  auto recorder = attach();
  auto session = open_;
  EXPECT_FALSE(agentProcess());  // nothing to do, no agent
  EXPECT_TRUE(tasks(session).empty());
  EXPECT_FALSE(agentProcess());
  ScriptedServer server(ScriptedServer::answering([](const auto&) { return okAnswer("ok"); }));
  upload(session, server.url("/"));
  recorder->wait(1);
  pid_t agent = agentProcess().value_or(-1);
  ASSERT_GT(agent, 0);
  std::string held;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(agent) + "/fd")) {
    std::error_code closedMeanwhile;
    held += std::filesystem::read_symlink(entry.path(), closedMeanwhile).string() + "\n";
  }
  EXPECT_THAT(held, Not(HasSubstr("/dev/zero")));
  EXPECT_THAT(readText("/proc/" + std::to_string(agent) + "/cmdline"), HasSubstr("--container"));

  struct stat status{};
  ASSERT_EQ(stat((container_ + "/Transfers").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700U);
  ASSERT_EQ(stat((container_ + "/Transfers/transfers.sqlite").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);

  auto another = runProcess({kAgent, "--container", container_});
  EXPECT_EQ(another.exitStatus, 1);
  EXPECT_THAT(another.standardError, HasSubstr("florvane-transferd: "));
  EXPECT_EQ(agentProcess(), agent);
  EXPECT_THAT(runProcess({kAgent, "--help"}).standardOutput, HasSubstr("--container"));
  EXPECT_EQ(runProcess({kAgent, "--version"}).exitStatus, 0);
  EXPECT_NE(runProcess({kAgent}).exitStatus, 0);
}

TEST_F(TransferdTest, GoesOnWithWaitingTasksAfterBeingKilled) {
  // A port that refuses, since nobody listens, until somebody does.
  int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
  std::uint16_t port = ntohs(address.sin_port);

  auto recorder = attach();
  auto session = open_;
  auto task = upload(session, "http://127.0.0.1:" + std::to_string(port) + "/");
  auto suspended = session->uploadTask(URLRequest(*URL::fromString("http://127.0.0.1:9/")), URL::fileURL(file_), {});
  ASSERT_TRUE(task && suspended);
  pid_t before = killAgent();
  auto listed = tasks(session);  // comes back by itself
  ASSERT_EQ(listed.size(), 2U);
  EXPECT_EQ(listed[0], task);
  EXPECT_EQ(listed[0]->state(), URLSessionTaskState::Running);
  EXPECT_EQ(listed[1]->state(), URLSessionTaskState::Suspended);
  EXPECT_NE(agentProcess(), before);

  ASSERT_EQ(listen(listener, 8), 0);
  std::thread server([listener] {
    int connection = accept(listener, nullptr, nullptr);
    std::string received;
    std::array<char, 4096> buffer;
    while (received.find("contents") == std::string::npos) {
      ssize_t count = read(connection, buffer.data(), buffer.size());
      if (count <= 0) break;
      received.append(buffer.data(), static_cast<std::size_t>(count));
    }
    std::string answer = okAnswer("at last");
    EXPECT_EQ(write(connection, answer.data(), answer.size()), static_cast<ssize_t>(answer.size()));
    close(connection);
  });
  session->retryWaitingTasks("127.0.0.1", port);
  EXPECT_THAT(recorder->wait(1), ElementsAre(std::to_string(task->taskIdentifier()) + " 200 at last"));
  server.join();
  close(listener);
}

TEST_F(TransferdTest, NeverSendsTwiceWhatMayHaveArrived) {
  Signal received, over;
  ScriptedServer server([&](ScriptedServer::Connection& connection) {
    auto request = connection.read();
    received.raise();
    over.wait();
  });
  auto recorder = attach();
  auto task = upload(open_, server.url("/"));
  ASSERT_TRUE(received.wait());
  killAgent();
  // What was missed ends with a line of its own.
  EXPECT_THAT(recorder->wait(2), ElementsAre(std::to_string(task->taskIdentifier()) + " -1005", "finished"));
  EXPECT_EQ(server.requests().size(), 1U);
  over.raise();
}

TEST_F(TransferdTest, KeepsAnAnswerThroughItsOwnDeathUntilItIsAcknowledged) {
  const std::string large(std::size_t{3} * 1024 * 1024, 'x');
  ScriptedServer server(ScriptedServer::answering(
      [&](const ScriptedServer::Request& request) { return okAnswer(request.target == "/large" ? large : "small"); }));
  auto silent = makeSession(nullptr);
  auto first =
      upload(silent, server.url("/small"), {.path = "/Files/a", .generationIdentifier = Data::fromString("g")});
  auto second = upload(silent, server.url("/large"));
  auto allEnded = [&] {
    auto all = tasks(silent);
    return all.size() == 2 && all[0]->state() == URLSessionTaskState::Completed &&
           all[1]->state() == URLSessionTaskState::Completed;
  };
  while (!allEnded()) {
  }
  killAgent();
  {
    // Told, but the process dies before its delegate has returned: that does not count.
    Peer stuck({"stuck", container_, kSession, "-"});
    EXPECT_EQ(stuck.line(), "told");
    auto found = tasks(silent);
    ASSERT_EQ(found.size(), 2U);
    ASSERT_TRUE(found[0]->backgroundTransfer());
    EXPECT_EQ(found[0]->backgroundTransfer()->path, "/Files/a");
    EXPECT_EQ(found[0]->backgroundTransfer()->generationIdentifier, Data::fromString("g"));
  }
  // Nor does an acknowledgement that the agent could not note any more: then it tells again, and the session knows.
  auto recorder = std::make_shared<TransferRecorder>();
  Signal inCompletion, mayReturn;
  recorder->onCompletion = [&] {
    inCompletion.raise();
    mayReturn.wait();
  };
  auto owner = makeSession(recorder);
  ASSERT_TRUE(inCompletion.wait());
  killAgent();
  mayReturn.raise();
  EXPECT_THAT(recorder->wait(3),
              testing::UnorderedElementsAre(
                  std::to_string(first->taskIdentifier()) + " 200 small",
                  std::to_string(second->taskIdentifier()) + " 200 " + std::to_string(large.size()), "finished"));
  EXPECT_TRUE(tasks(silent).empty());
  EXPECT_TRUE(std::filesystem::is_empty(container_ + "/Transfers/Answers"));
}

TEST_F(TransferdTest, StartsTheSessionsProgramWhenNobodyIsAttached) {
  Signal mayAnswer;
  ScriptedServer server([&](ScriptedServer::Connection& connection) {
    while (connection.read()) {
      if (!mayAnswer.wait()) return;
      connection.respond("ok");
    }
  });
  const std::string told = directory_.file("told");
  auto recorder = attach({kPeer, "attach", container_, kSession, told});
  auto first = upload(open_, server.url("/1")), second = upload(open_, server.url("/2"));
  detach();
  open_.reset();
  recorder->wait(1);
  int watch = inotify_init1(IN_CLOEXEC);
  ASSERT_GE(inotify_add_watch(watch, directory_.path().c_str(), IN_MODIFY | IN_CREATE), 0);
  mayAnswer.raise();
  std::array<char, 4096> events;
  auto text = [&] { return fileExists(told) ? readText(told) : std::string(); };
  while (text().find("end\n") == std::string::npos) {
    ASSERT_GT(read(watch, events.data(), events.size()), 0);
  }
  close(watch);
  // Everything told by one process, in the container and for the session that its environment names.
  EXPECT_THAT(text(), HasSubstr(std::to_string(first->taskIdentifier()) + " 200 ok\n"));
  EXPECT_THAT(text(), HasSubstr(std::to_string(second->taskIdentifier()) + " 200 ok\n"));
  EXPECT_THAT(text(), HasSubstr("finished\n" + container_ + " " + kSession + "\nend\n"));
}

TEST_F(TransferdTest, CancelsForASessionThatIsNeverAttached) {
  Peer client({"upload", container_, kSession, "http://127.0.0.1:1/", file_, file_});
  std::string first = client.line(), second = client.line();
  auto other = makeSession(nullptr);
  auto listed = tasks(other);
  ASSERT_EQ(listed.size(), 2U);
  EXPECT_EQ(std::to_string(listed[1]->taskIdentifier()), second);
  EXPECT_EQ(listed[1]->backgroundTransfer()->path, "/1");
  listed[1]->cancel();
  while (!tasks(other).empty() && tasks(other).size() == 2) {
  }
  listed = tasks(other);
  ASSERT_EQ(listed.size(), 1U);  // its maker was told
  EXPECT_EQ(std::to_string(listed[0]->taskIdentifier()), first);
}

TEST_F(TransferdTest, RefusesGarbageHugeFramesAndOtherUsers) {
  Signal mayAnswer;
  ScriptedServer server([&](ScriptedServer::Connection& connection) {
    connection.read();
    if (mayAnswer.wait()) connection.respond("ok");
  });
  auto recorder = attach();
  auto task = upload(open_, server.url("/"));
  auto folder = TransferFolder::open(container_);
  ASSERT_TRUE(folder);
  auto refused = [&](std::string_view bytes) {
    auto socket = folder->connect();
    EXPECT_TRUE(socket);
    // The agent may close before it has taken everything.
    (void)send(socket->get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    std::array<char, 4096> buffer;
    ssize_t count = 0;
    while ((count = read(socket->get(), buffer.data(), buffer.size())) > 0) {
    }
    return true;
  };
  EXPECT_TRUE(refused(std::string("\xff\xff\xff\x7fhuge")));
  EXPECT_TRUE(refused(std::string("\x08\0\0\0garbage!", 12)));
  auto list = writePropertyList(Array{1, 2}, PropertyListFormat::Binary);
  std::string frame = {static_cast<char>(list->size()), 0, 0, 0};
  EXPECT_TRUE(refused(frame.append(list->view())));
  auto unknown = writePropertyList(Dictionary{{"type", "nonsense"}}, PropertyListFormat::Binary);
  frame = {static_cast<char>(unknown->size()), 0, 0, 0};
  EXPECT_TRUE(refused(frame.append(unknown->view())));

  if (geteuid() == 0) {
    // Past the folder's mode, which keeps others out to begin with.
    const std::string transfers = container_ + "/Transfers", socketPath = transfers + "/agent.socket";
    chmod(directory_.path().c_str(), 0755);
    chmod(container_.c_str(), 0755);
    chmod(transfers.c_str(), 0755);
    chmod(socketPath.c_str(), 0666);
    auto result = test::runPython(
        "import os, socket, sys\n"
        "os.chdir(sys.argv[1])\n"
        "os.setgid(65534); os.setuid(65534)\n"
        "s = socket.socket(socket.AF_UNIX); s.connect('agent.socket')\n"
        "try: print('answer:', s.recv(10))\n"
        "except ConnectionResetError: print('answer:', b'')\n",
        {transfers});
    EXPECT_EQ(result.standardOutput, "answer: b''\n") << result.standardError;
  }
  mayAnswer.raise();
  EXPECT_THAT(recorder->wait(1), ElementsAre(std::to_string(task->taskIdentifier()) + " 200 ok"));
}

}  // namespace
}  // namespace florvane
