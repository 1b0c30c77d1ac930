#include "platform/BackgroundURLSession.h"
#include "platform/Exceptions.h"
#include "platform/TransferAgent.h"
#include "platform/TransferSchedule.h"
#include "platform/TransferStore.h"
#include "tests/support/ManualClock.h"
#include "tests/support/RecordingSystemLog.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TransferRecorder.h"

#include <array>
#include <atomic>
#include <future>
#include <thread>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {
namespace {

using namespace std::chrono_literals;
using test::makeCertificate;
using test::ManualClock;
using test::okAnswer;
using test::ScriptedServer;
using test::TemporaryDirectory;
using test::TransferRecorder;
using test::writeText;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr char kSession[] = "5A0C~tests";

// A port that refuses connections until it is opened; then it answers requests with their Cookie field.
class LateServer {
 public:
  LateServer() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size), 0);
    port_ = ntohs(address.sin_port);
  }
  ~LateServer() {
    shutdown(listener_, SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
    close(listener_);
  }
  void open(int connections) {
    EXPECT_EQ(listen(listener_, 64), 0);
    thread_ = std::thread([this, connections] {
      for (int i = 0; i < connections; ++i) serve(accept(listener_, nullptr, nullptr));
    });
  }
  std::uint16_t port() const { return port_; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }

 private:
  static void serve(int connection) {
    std::string received;
    std::array<char, 4096> buffer;
    while (received.find("contents") == std::string::npos) {
      ssize_t count = read(connection, buffer.data(), buffer.size());
      if (count <= 0) break;
      received.append(buffer.data(), static_cast<std::size_t>(count));
    }
    auto field = received.find("Cookie: ");
    std::string cookie = field == std::string::npos ? "none" : received.substr(field + 8, 3);
    std::string answer = okAnswer(cookie, "Connection: close\r\n");
    (void)send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
    close(connection);
  }

  int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::uint16_t port_ = 0;
  std::thread thread_;
};

class BackgroundURLSessionTest : public testing::Test {
 protected:
  BackgroundURLSessionTest() {
    mkdir(container_.c_str(), 0700);
    writeText(file_, "contents");
  }
  ~BackgroundURLSessionTest() override {
    for (auto& session : sessions_) session->finishTasksAndInvalidate();
    stopAgent();
  }
  void startAgent() {
    auto agent = TransferAgent::start({.container = container_, .clock = &clock_, .onIdle = [this] { idle_ = true; }});
    ASSERT_TRUE(agent) << agent.error().description();
    agent_ = *agent;
  }
  void stopAgent() {
    if (agent_) agent_->stop();
    agent_.reset();
  }
  BackgroundURLSessionPtr makeSession(const std::shared_ptr<URLSessionDelegate>& delegate,
                                      const std::string& identifier = kSession) {
    auto configuration = URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier);
    configuration.containerDirectory = container_;
    configuration.agentProgram = "/nonexistent/agent";
    return sessions_.emplace_back(BackgroundURLSession::create(configuration, delegate));
  }
  URLSessionTaskPtr upload(const BackgroundURLSessionPtr& session, const std::string& url,
                           BackgroundTransfer transfer = {}, const std::string& cookie = {}) {
    URLRequest request(*URL::fromString(url));
    request.method = "POST";
    request.timeoutInterval = 30s;
    if (!cookie.empty()) request.headers.set("Cookie", cookie);
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

  TemporaryDirectory directory_;
  std::string container_ = directory_.file("container");
  std::string file_ = directory_.file("file");
  ManualClock clock_;
  std::atomic<bool> idle_ = false;
  std::shared_ptr<TransferAgent> agent_;
  std::vector<BackgroundURLSessionPtr> sessions_;
  std::shared_ptr<TransferRecorder> recorder_ = std::make_shared<TransferRecorder>();
};

TEST_F(BackgroundURLSessionTest, RunsInsideThisProcessWhereThereIsNoAgentAndSaysSoOnce) {
  test::RecordingSystemLog log;
  ScriptedServer server(ScriptedServer::answering([](const auto& request) { return okAnswer(request.body); }));
  auto session = makeSession(recorder_);
  EXPECT_THROW(session->dataTask(URLRequest(*URL::fromString("http://a/"))), InvalidArgumentException);
  EXPECT_THROW(session->downloadTask(URLRequest(*URL::fromString("http://a/"))), InvalidArgumentException);
  EXPECT_THROW(BackgroundURLSession::create({}, recorder_), InvalidArgumentException);
  auto task = upload(session, server.url("/"), {.path = "/p", .generationIdentifier = Data::fromString("g")});
  EXPECT_THAT(recorder_->wait(1), ElementsAre(std::to_string(task->taskIdentifier()) + " 200 contents"));
  EXPECT_EQ(recorder_->bytesSent(), 8);
  EXPECT_EQ(task->state(), URLSessionTaskState::Completed);

  auto other = makeSession(nullptr, "another");
  auto kept = other->uploadTask(URLRequest(*URL::fromString("http://a/")), URL::fileURL(file_), {.path = "/q"});
  ASSERT_TRUE(kept);
  auto listed = tasks(other);
  ASSERT_EQ(listed.size(), 1U);  // of its own session only
  EXPECT_EQ(listed[0]->backgroundTransfer()->path, "/q");
  std::size_t said = 0;
  for (const auto& message : log.messages()) {
    said += message.text.find("Transfers run in this process.") != std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(said, 1U);
}

TEST_F(BackgroundURLSessionTest, TrustIsTheDelegatesWordOrThePin) {
  auto certificate = makeCertificate(), otherCertificate = makeCertificate();
  ScriptedServer server(ScriptedServer::answering([](const auto&) { return okAnswer("ok"); }), certificate);
  startAgent();
  const BackgroundTransfer pinned{.path = "/", .pinnedCertificate = certificate.der()};
  const BackgroundTransfer mispinned{.path = "/", .pinnedCertificate = otherCertificate.der()};
  // Default handling: the pin decides, and without one the system.
  auto session = makeSession(recorder_);
  upload(session, server.url("/"), mispinned);
  EXPECT_THAT(recorder_->wait(1).back(), HasSubstr(" -120"));
  ASSERT_TRUE(recorder_->lastError());
  auto shown = recorder_->lastError()->userInfo().array(URLErrorFailingPeerTrustKey);
  ASSERT_TRUE(shown);
  EXPECT_EQ((*shown)[0].asData(), certificate.der());
  upload(session, server.url("/"));
  EXPECT_THAT(recorder_->wait(2).back(), HasSubstr(" -120"));
  EXPECT_TRUE(server.requests().empty());
  upload(session, server.url("/"), pinned);
  EXPECT_THAT(recorder_->wait(3).back(), HasSubstr(" 200 ok"));

  // A session's own word goes before the pin, also on connections that the pin had opened.
  auto refusing = std::make_shared<TransferRecorder>();
  refusing->judge = [](const ServerTrust&) { return ChallengeDisposition::CancelAuthenticationChallenge; };
  upload(makeSession(refusing, "refusing"), server.url("/"), pinned);
  EXPECT_THAT(refusing->wait(1).back(), HasSubstr(" -120"));
  auto accepting = std::make_shared<TransferRecorder>();
  accepting->judge = [](const ServerTrust&) { return ChallengeDisposition::UseCredential; };
  upload(makeSession(accepting, "accepting"), server.url("/"), mispinned);
  EXPECT_THAT(accepting->wait(1).back(), HasSubstr(" 200 ok"));

  // Nobody attached: the pin.
  auto silent = makeSession(nullptr, "silent");
  upload(silent, server.url("/"), pinned);
  upload(silent, server.url("/"), mispinned);
  auto told = std::make_shared<TransferRecorder>();
  for (bool ended = false; !ended;) {
    auto all = tasks(silent);
    ended = all.size() == 2 && all[0]->state() == URLSessionTaskState::Completed &&
            all[1]->state() == URLSessionTaskState::Completed;
  }
  makeSession(told, "silent");
  EXPECT_THAT(told->wait(3), testing::UnorderedElementsAre(HasSubstr(" 200 ok"), HasSubstr(" -120"), "finished"));
}

TEST_F(BackgroundURLSessionTest, WaitsForTheServerWithTheNewestCookie) {
  LateServer server;
  startAgent();
  auto session = makeSession(recorder_), other = makeSession(std::make_shared<TransferRecorder>(), "B~other");
  auto first = upload(session, server.url(), {}, "old");
  auto second = session->uploadTask(URLRequest(*URL::fromString(server.url())), URL::fileURL(file_), {});
  ASSERT_TRUE(second);
  EXPECT_TRUE(session->replaceCookie({"127.0.0.1", server.port(), "5A0C~"}, Secret("new"), std::nullopt));
  EXPECT_TRUE(session->replaceCookie({"127.0.0.1", server.port(), "B~"}, Secret("foe"), std::nullopt));
  EXPECT_TRUE(session->replaceCookie({"127.0.0.2", server.port(), ""}, Secret("foe"), std::nullopt));
  server.open(2);
  // The clock is the agent's; only the network takes its own time.
  while (!recorder_->waitFor(1, 5ms)) clock_.advance(1s);
  EXPECT_THAT(recorder_->wait(1), ElementsAre(std::to_string(first->taskIdentifier()) + " 200 new"));
  EXPECT_TRUE(session->removeCookie({"127.0.0.1", server.port(), ""}));
  (*second)->resume();
  EXPECT_THAT(recorder_->wait(2).back(), std::to_string((*second)->taskIdentifier()) + " 200 none");
}

TEST_F(BackgroundURLSessionTest, WaitsNoLongerThanAWeek) {
  LateServer server;  // never opened
  startAgent();
  auto session = makeSession(recorder_);
  auto task = upload(session, server.url());
  for (int day = 0; day < 6; ++day) clock_.advance(24h);
  EXPECT_EQ(tasks(session).at(0)->state(), URLSessionTaskState::Running);
  while (!recorder_->waitFor(1, 5ms)) clock_.advance(1h);
  EXPECT_THAT(recorder_->wait(1), ElementsAre(std::to_string(task->taskIdentifier()) + " -1004"));
}

TEST_F(BackgroundURLSessionTest, EndsWhenThereIsNothingToDoAndNeverGivesAnIdentifierAgain) {
  startAgent();
  auto session = makeSession(nullptr);
  auto task = session->uploadTask(URLRequest(*URL::fromString("http://a/")), URL::fileURL(file_), {});
  ASSERT_TRUE(task);
  std::uint64_t identifier = (*task)->taskIdentifier();
  (*task)->cancel();
  task->reset();
  session->finishTasksAndInvalidate();
  session.reset();
  sessions_.clear();
  while (!idle_) {
    clock_.advance(1s);
    std::this_thread::yield();
  }
  stopAgent();
  ASSERT_EQ(unlink((container_ + "/Transfers/transfers.sqlite").c_str()), 0);
  unlink((container_ + "/Transfers/transfers.sqlite-wal").c_str());
  unlink((container_ + "/Transfers/transfers.sqlite-shm").c_str());
  startAgent();
  auto again = makeSession(nullptr)->uploadTask(URLRequest(*URL::fromString("http://a/")), URL::fileURL(file_), {});
  ASSERT_TRUE(again);
  EXPECT_GT((*again)->taskIdentifier(), identifier);
}

TEST_F(BackgroundURLSessionTest, SendsTwoThousandTasksEightAtATime) {
  constexpr std::size_t kTasks = 2000, kThreads = 8;
  ScriptedServer server(ScriptedServer::answering([](const auto& request) { return okAnswer(request.body); }));
  startAgent();
  auto session = makeSession(recorder_);
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (std::size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (std::size_t i = 0; i < kTasks / kThreads; ++i) upload(session, server.url("/"));
    });
  }
  for (auto& thread : threads) thread.join();
  auto lines = recorder_->wait(kTasks);
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(std::unique(lines.begin(), lines.end()), lines.end());
  EXPECT_THAT(lines, testing::Each(HasSubstr(" 200 contents")));
  EXPECT_EQ(server.requests().size(), kTasks);
  EXPECT_LE(server.mostAtOnce(), 8);
  while (!tasks(session).empty()) {
  }
}

TEST_F(BackgroundURLSessionTest, InvalidatingCancelsWhoeverMadeTheTasks) {
  LateServer server;
  startAgent();
  auto first = makeSession(recorder_);
  auto maker = std::make_shared<TransferRecorder>();
  auto task = upload(makeSession(maker), server.url());
  first->invalidateAndCancel();
  EXPECT_THAT(recorder_->wait(1), ElementsAre("invalid"));
  EXPECT_THAT(maker->wait(1), ElementsAre(std::to_string(task->taskIdentifier()) + " -999"));
}

TEST_F(BackgroundURLSessionTest, EndsAfterItsDeathOnlyWhatMayHaveLeft) {
  auto folder = TransferFolder::open(container_);
  ASSERT_TRUE(folder);
  std::array<std::uint64_t, 2> made{};
  {
    auto store = TransferStore::open(*folder, clock_);
    ASSERT_TRUE(store);
    for (std::uint64_t& identifier : made) {
      TransferTask task(URLRequest(*URL::fromString("http://127.0.0.1:1/")));
      task.session = kSession;
      task.sourcePath = file_;
      identifier = (*store)->create(task, Data::fromString(std::to_string(&identifier - made.data()))).value_or(0);
      EXPECT_TRUE((*store)->setWaiting(identifier, clock_.now() + 1h));
      EXPECT_TRUE((*store)->setSending(identifier).value_or(false));
    }
    EXPECT_TRUE((*store)->setUnsent(made[0]));
  }
  startAgent();
  makeSession(recorder_);
  EXPECT_THAT(recorder_->wait(2), ElementsAre(std::to_string(made[1]) + " -1005", "finished"));
  EXPECT_EQ(tasks(sessions_.front()).at(0)->taskIdentifier(), made[0]);
}

TEST(TransferScheduleTest, OneTaskTriesAServerThatIsAwayAndSessionsTakeTurns) {
  TransferSchedule schedule;
  const TransferServer server{"a", 1}, other{"b", 1};
  MonotonicTime now;
  for (std::uint64_t task = 1; task <= 10; ++task) schedule.add(task, "many", server);
  schedule.add(11, "few", server);
  schedule.add(12, "few", other);
  schedule.add(12, "few", other);  // twice is once
  std::vector<std::uint64_t> started;
  while (auto task = schedule.next(now)) started.push_back(*task);
  EXPECT_THAT(started, testing::UnorderedElementsAre(1, 2, 3, 4, 5, 6, 7, 11, 12));
  EXPECT_LE(std::find(started.begin(), started.end(), 11) - started.begin(), 1);
  EXPECT_TRUE(schedule.remove(9));
  EXPECT_FALSE(schedule.remove(9));
  EXPECT_FALSE(schedule.remove(1));  // runs

  for (std::uint64_t task : started) {
    if (task != 12) schedule.didFail(task, now);  // together, which counts once
  }
  auto delay = [&] { return std::chrono::duration_cast<Duration>(*schedule.deadline() - now); };
  for (Duration longest = 1s; longest <= 64s; longest *= 2) {
    longest = std::min<Duration>(longest, 60s);
    EXPECT_LE(delay(), longest);
    EXPECT_GE(delay(), longest * 3 / 4);
    EXPECT_FALSE(schedule.next(now + delay() - 1us));
    now += delay();
    auto task = schedule.next(now);
    ASSERT_TRUE(task);
    EXPECT_FALSE(schedule.next(now));  // one on behalf of all
    schedule.didFail(*task, now);
    if (longest == 60s) break;
  }
  schedule.retry(server);
  auto task = schedule.next(now);
  ASSERT_TRUE(task);
  EXPECT_FALSE(schedule.isReached(*task));
  schedule.didReach(*task);
  std::size_t running = 1;
  std::uint64_t last = 0;
  for (; auto next = schedule.next(now); ++running) EXPECT_TRUE(schedule.isReached(last = *next));
  EXPECT_EQ(running, 8U);
  EXPECT_FALSE(schedule.deadline());
  schedule.didFail(*task, now);
  EXPECT_FALSE(schedule.isReached(last));
}

}  // namespace
}  // namespace florvane
