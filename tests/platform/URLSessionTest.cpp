#include "platform/URLSession.h"
#include "tests/platform/URLSessionRecorder.h"
#include "tests/support/ManualClock.h"

#include <atomic>
#include <filesystem>

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Calls = std::vector<std::string>;
using Connection = ScriptedServer::Connection;
using Request = ScriptedServer::Request;

std::vector<std::string> filesIn(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
  return names;
}

TEST_F(URLSessionTest, SendsTheRequestAsGivenAndTellsTheAnswerInOrder) {
  ScriptedServer server(ScriptedServer::answering([](const Request&) {
    return std::string("HTTP/1.1 100 Continue\r\n\r\n") + okAnswer("hello", "X-One: 1\r\nEmpty:\r\n");
  }));
  auto session = makeSession();
  URLRequest post = request(server.url("/a?b=c%26d"), "POST", "body bytes");
  post.headers.set("If-None-Match", "");
  post.headers.set("Cookie", "k=secret");
  auto task = session->dataTask(post);
  EXPECT_EQ(task->state(), URLSessionTaskState::Suspended);
  auto record = run(task);

  EXPECT_EQ(record.code(), 0);
  EXPECT_EQ(record.body, "hello");
  EXPECT_EQ(record.calls.front(), "send");
  EXPECT_THAT(Calls(record.calls.begin() + 1, record.calls.end()), ElementsAre("response", "data", "complete"));
  EXPECT_EQ(record.bytesSent, 10);
  EXPECT_EQ(task->response()->statusCode(), 200);
  EXPECT_EQ(task->response()->header("x-one"), "1");
  EXPECT_EQ(task->response()->header("Empty"), "");
  ASSERT_EQ(server.requests().size(), 1U);
  Request seen = server.requests()[0];
  EXPECT_EQ(seen.method + " " + seen.target + " " + seen.body, "POST /a?b=c%26d body bytes");
  EXPECT_EQ(seen.headers.at("if-none-match"), "");
  EXPECT_EQ(seen.headers.at("cookie"), "k=secret");
  for (const char* absent : {"expect", "content-type", "accept-encoding"}) EXPECT_FALSE(seen.headers.contains(absent));
  EXPECT_EQ(post.description().find("secret"), std::string::npos);
}

TEST_F(URLSessionTest, RefusesFieldsThatWouldEndALineAndSchemesOtherThanHTTP) {
  ScriptedServer server(ScriptedServer::answering([](const Request&) { return okAnswer(""); }));
  auto session = makeSession();
  URLRequest injected = request(server.url("/"));
  injected.headers.set("X", "a\r\nEvil: 1");
  EXPECT_EQ(run(session->dataTask(injected)).code(), URLErrorBadURL);
  EXPECT_EQ(get(session, "ftp://127.0.0.1/").code(), URLErrorUnsupportedURL);
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(URLSessionTest, DownloadsToAFileThatLivesUntilItsHandlerReturns) {
  std::string body(3'000'000, 'x');
  ScriptedServer server(ScriptedServer::answering([&](const Request& seen) {
    return seen.target == "/empty" ? "HTTP/1.1 204 No Content\r\n\r\n" : okAnswer(body);
  }));
  auto session = makeSession();
  std::string kept = directory_.file("kept");
  recorder_->onDownload = [&](const URL& location) {
    struct stat status = {};
    EXPECT_EQ(stat(location.path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    EXPECT_EQ(link(location.path().c_str(), kept.c_str()), 0);
  };
  auto record = download(session, server.url("/"));
  EXPECT_EQ(record.calls, (Calls{"write", "finish", "complete"}));
  EXPECT_EQ(record.bytesWritten, 3'000'000);
  EXPECT_EQ(readText(kept), body);
  recorder_->onDownload = nullptr;
  EXPECT_EQ(download(session, server.url("/empty")).calls, (Calls{"finish", "complete"}));
  EXPECT_THAT(filesIn(directory_.path()), ElementsAre("kept"));
}

TEST_F(URLSessionTest, KeepsTheBodyOfARefusedDownloadToItself) {
  ScriptedServer server(ScriptedServer::answering(
      [](const Request&) { return std::string("HTTP/1.1 401 No\r\nContent-Length: 3\r\n\r\nwhy"); }));
  auto task = makeSession()->downloadTask(request(server.url("/")));
  EXPECT_EQ(run(task).calls, Calls{"complete"});
  EXPECT_EQ(task->response()->statusCode(), 401);
  EXPECT_THAT(filesIn(directory_.path()), IsEmpty());
}

TEST_F(URLSessionTest, SaysWhenADownloadCannotBeStored) {
  ScriptedServer server(ScriptedServer::answering([](const Request&) { return okAnswer("x"); }));
  URLSessionConfiguration configuration;
  auto session = URLSession::create(
      [&] {
        configuration.downloadDirectory = directory_.file("missing");
        return configuration;
      }(),
      recorder_);
  auto record = download(session, server.url("/"));
  EXPECT_EQ(record.code(), URLErrorCannotWriteToFile);
  ASSERT_TRUE(record.error && record.error->underlyingError());
  session->invalidateAndCancel();
  recorder_->waitUntilInvalid(session);
}

TEST_F(URLSessionTest, UploadsAFileOfTheSizeItHadAtTheStart) {
  std::string body(5'000'000, 'u');
  Signal halfway, shortened;
  ScriptedServer server([&](Connection& connection) {
    while (auto seen = connection.readHead()) {
      if (seen->target == "/cut") {
        halfway.raise();
        shortened.wait();
      }
      connection.readBody(*seen);
      if (!connection.respond(std::to_string(seen->body.size()))) return;
    }
  });
  auto session = makeSession();
  std::string source = directory_.file("source");
  writeText(source, body);
  URL file = URL::fileURL(source);
  auto record = run(session->uploadTask(request(server.url("/"), "POST"), file));
  EXPECT_EQ(record.body, "5000000");
  EXPECT_EQ(record.bytesSent, 5'000'000);

  truncate(source.c_str(), 500'000'000);
  auto cut = session->uploadTask(request(server.url("/cut"), "POST"), file);
  cut->resume();
  EXPECT_TRUE(halfway.wait());
  truncate(source.c_str(), 10);
  shortened.raise();
  EXPECT_TRUE(recorder_->wait(cut).error->is(QuilbarErrorDomain, FileReadUnknownError));
}

TEST_F(URLSessionTest, SaysWhenAnUploadsSourceCannotBeRead) {
  auto session = makeSession();
  auto code = [&](const std::string& path) {
    return run(session->uploadTask(request("http://127.0.0.1:9/", "POST"), URL::fileURL(path))).code();
  };
  EXPECT_EQ(code(directory_.file("missing")), URLErrorFileDoesNotExist);
  EXPECT_EQ(code(directory_.path()), URLErrorFileDoesNotExist);
  if (geteuid() != 0) {  // nothing is unreadable to root
    writeText(directory_.file("locked"), "x");
    chmod(directory_.file("locked").c_str(), 0);
    EXPECT_EQ(code(directory_.file("locked")), URLErrorNoPermissionsToReadFile);
  }
}

TEST_F(URLSessionTest, WaitsForASlowDelegateInsteadOfFillingTheMemory) {
  std::string body(std::size_t{60} << 20, 'd');
  std::size_t taken = 0;
  Signal stalled;
  ScriptedServer server([&](Connection& connection) {
    connection.read();
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n");
    taken = connection.sendUntilStalled(body);
    stalled.raise();
    connection.send(body.substr(taken));
  });
  recorder_->onCall = [&](const std::string& call) {
    if (call == "response") stalled.wait();
  };
  auto record = get(makeSession(), server.url("/"));
  EXPECT_EQ(record.code(), 0);
  EXPECT_TRUE(record.body == body);
  EXPECT_LT(taken, body.size() / 2);  // what the system's buffers hold included
}

TEST_F(URLSessionTest, TimesOutOnSilenceOnly) {
  ManualClock clock;
  Signal more, never;
  ScriptedServer server([&](Connection& connection) {
    connection.read();
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n12345");
    more.wait();
    connection.send("678");
    never.wait();
  });
  Signal first, second;
  std::atomic<int> chunks = 0;
  recorder_->onCall = [&](const std::string& call) {
    if (call == "data") (chunks++ == 0 ? first : second).raise();
  };
  URLSessionConfiguration configuration;
  configuration.clock = &clock;
  configuration.timeoutIntervalForRequest = std::chrono::seconds(30);
  auto task = makeSession(configuration)->dataTask(request(server.url("/")));
  task->resume();
  ASSERT_TRUE(first.wait());
  clock.advance(std::chrono::seconds(29));
  more.raise();
  ASSERT_TRUE(second.wait());
  // The timer of the start fires here and finds that the silence is one second old.
  clock.advance(std::chrono::seconds(1));
  while (clock.pendingTimers() == 0) std::this_thread::yield();
  EXPECT_EQ(task->state(), URLSessionTaskState::Running);
  clock.advance(std::chrono::seconds(29));
  auto record = recorder_->wait(task);
  never.raise();
  EXPECT_EQ(record.code(), URLErrorTimedOut);
  EXPECT_EQ(record.body, "12345678");
}

TEST_F(URLSessionTest, CancelsInEveryState) {
  Signal reached, release;
  ScriptedServer server([&](Connection& connection) {
    connection.read();
    reached.raise();
    release.wait();
  });
  auto session = makeSession();
  auto running = session->downloadTask(request(server.url("/")));
  running->resume();
  ASSERT_TRUE(reached.wait());
  Signal told;
  running->cancelByProducingResumeData([&](const std::optional<Data>& data) {
    EXPECT_FALSE(data);
    told.raise();
  });
  EXPECT_EQ(recorder_->wait(running).code(), URLErrorCancelled);
  EXPECT_TRUE(told.wait());
  running->cancel();

  auto suspended = session->dataTask(request(server.url("/")));
  suspended->cancel();
  suspended->resume();
  EXPECT_EQ(recorder_->wait(suspended).calls, Calls{"complete"});
  release.raise();
}

TEST_F(URLSessionTest, EndsTasksBeforeItBecomesInvalidAndLetsTheDelegateGo) {
  Signal reached, release;
  ScriptedServer server([&](Connection& connection) {
    connection.read();
    reached.raise();
    release.wait();
    connection.respond("late");
  });
  auto finishing = makeSession();
  auto task = finishing->dataTask(request(server.url("/")));
  task->resume();
  ASSERT_TRUE(reached.wait());
  finishing->finishTasksAndInvalidate();
  auto late = finishing->dataTask(request(server.url("/")));
  late->resume();
  EXPECT_EQ(late->state(), URLSessionTaskState::Completed);
  release.raise();
  EXPECT_EQ(recorder_->wait(task).body, "late");
  recorder_->waitUntilInvalid(finishing);

  auto other = std::make_shared<URLSessionRecorder>();
  std::weak_ptr<URLSessionRecorder> watched = other;
  auto dropped = URLSession::create({}, other);
  dropped->dataTask(request(server.url("/")))->resume();
  dropped->invalidateAndCancel();
  other->waitUntilInvalid(dropped);
  other.reset();
  dropped->delegateQueue()->sync([] {});
  EXPECT_TRUE(watched.expired());
}

TEST_F(URLSessionTest, RunsATaskToItsEndThoughNobodyKeepsTheSession) {
  ScriptedServer server(ScriptedServer::answering([](const Request&) { return okAnswer("kept"); }));
  auto recorder = std::make_shared<URLSessionRecorder>();
  auto session = URLSession::create({}, recorder);
  auto task = session->dataTask(request(server.url("/")));
  task->resume();
  std::weak_ptr<URLSession> watched = session;
  session.reset();
  EXPECT_EQ(recorder->wait(task).body, "kept");
  // The recorder keeps the task, the task its session, the session its delegate until it is invalidated.
  auto left = watched.lock();
  ASSERT_TRUE(left);
  left->invalidateAndCancel();
  recorder->waitUntilInvalid(left);
}

TEST_F(URLSessionTest, ServesManyRequestsOverAtMostEightConnectionsAndLongPollsBeside) {
  constexpr int kRequests = 100;
  Signal poll;
  ScriptedServer server([&](Connection& connection) {
    while (auto seen = connection.read()) {
      if (seen->target == "/poll") poll.wait();
      if (!connection.respond(seen->target)) return;
    }
  });
  URLSessionConfiguration configuration;
  configuration.connectionPool = "eight";
  auto session = makeSession(configuration);
  URLSessionConfiguration pollConfiguration = configuration;
  pollConfiguration.longPoll = true;
  auto longPoll = makeSession(pollConfiguration)->downloadTask(request(server.url("/poll"), "POST", "versions"));
  longPoll->resume();
  std::vector<URLSessionTaskPtr> tasks;
  for (int i = 0; i < kRequests; ++i) {
    tasks.push_back(session->downloadTask(request(server.url("/" + std::to_string(i)))));
    tasks.back()->resume();
  }
  for (int i = 0; i < kRequests; ++i)
    EXPECT_EQ(recorder_->wait(tasks[static_cast<std::size_t>(i)]).body, "/" + std::to_string(i));
  // A second session of the same pool goes on with its connections.
  EXPECT_EQ(get(makeSession(configuration), server.url("/again")).body, "/again");
  EXPECT_LE(server.connections(), 9);
  poll.raise();
  EXPECT_EQ(recorder_->wait(longPoll).body, "/poll");

  int before = server.connections();
  URLSession::retireConnections("eight");
  EXPECT_EQ(get(session, server.url("/after")).body, "/after");
  EXPECT_EQ(server.connections(), before + 1);
}

}  // namespace
}  // namespace florvane::test
