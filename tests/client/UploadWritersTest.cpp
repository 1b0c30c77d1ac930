#include "Client/Client/DCAgentTasks.h"
#include "Client/Client/DCBackgroundSessionIdentifier.h"
#include "Client/Client/DCUnsentFiles.h"
#include "Client/Client/DCUploadOutcome.h"
#include "tests/client/UploadClient.h"
#include "tests/support/ChildProcess.h"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <map>
#include <memory>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace florvane::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::IsEmpty;
using testing::SizeIs;

constexpr int kPatience = 2000;

std::string program(const std::string& name) { return fs::read_symlink("/proc/self/exe").parent_path() / name; }

// Another client process of the container. Transfers run inside it when nobody else has them yet.
class Peer {
 public:
  Peer(const TestContainer& container, std::uint16_t port, const std::string& agent = "/nowhere/florvane-transferd")
      : container_(container),
        process_({program("client_peer"), std::to_string(port), "0"}, {"FLORVANE_TRANSFERD=" + agent}) {
    if (!process_.readLine()) throw std::runtime_error("the peer did not start");
  }
  json ask(const json& request) {
    const bool isAsked = process_.writeLine(request.dump());
    const auto line = isAsked ? process_.readLine() : std::nullopt;
    if (!line) throw std::runtime_error("the peer is gone");
    return json::parse(*line);
  }
  void list(const std::string& path) {
    ask({{"op", "advance"}, {"seconds", 11}});
    ask({{"op", "list"}, {"path", path}, {"sync", true}});
  }
  // What the write was answered with: null for success.
  json write(const std::string& path, const std::string& text) {
    const std::string source = container_.file("peer-source-" + std::to_string(process_.pid()));
    writeText(source, text);
    return ask({{"op", "write"}, {"path", path}, {"source", source}})["error"];
  }
  json uploads() { return ask({{"op", "uploads"}})["uploads"]; }
  void restart() { ask({{"op", "restart"}}); }
  void kill() { process_.kill(SIGKILL); }

 private:
  const TestContainer& container_;
  ChildProcess process_;
};

// Until nothing is due any more, but for conflicts; what is left.
json settled(const std::vector<Peer*>& peers) {
  json left;
  for (int turn = 0; turn < kPatience; ++turn) {
    left = peers.front()->uploads();
    std::size_t conflicts = 0;
    for (const json& each : left) {
      conflicts += each["error"].get<std::string>().find("onflict") == std::string::npos ? 0U : 1U;
    }
    if (conflicts == left.size()) break;
    peers.front()->list("Files");  // as slow as the server is
    if (turn % 100 != 99) continue;
    for (Peer* peer : peers) {
      peer->ask({{"op", "advance"}, {"seconds", 61}});
      peer->restart();
    }
  }
  return left;
}

TEST(UploadWriters, ANewerWriteOfAnotherProcessOutlivesTheEndOfAnOlderUpload) {
  TestServer server;
  const std::string onServer = server.files() + "/a";
  writeText(onServer, "base");
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  faulty.setFault("watch", [](const auto&) { return FaultyServer::refusal(500, ""); });
  EXPECT_EQ(client.text(client.read("Files/a")), "base");
  Peer peer(client.container, faulty.port());
  peer.list("Files");

  Signal arrived, mayGo, isBlocked, mayContinue, mayGoAgain;
  std::atomic<int> replaces = 0;
  faulty.setFault("replace", [&](const auto&) -> std::optional<std::string> {
    if (++replaces == 1) arrived.raise();
    (replaces == 1 ? mayGo : mayGoAgain).wait();
    return std::nullopt;
  });
  ASSERT_FALSE(client.write("Files/a", "older").error);
  ASSERT_TRUE(arrived.wait());
  // The older upload is stored, and changed there by somebody else, before this process hears of its end; the other one
  // has seen that already, so that a listing is needed. When that is asked for, the other process writes.
  std::thread blocking([&] {
    client.onQueue([&] {
      isBlocked.raise();
      mayContinue.wait();
    });
  });
  ASSERT_TRUE(isBlocked.wait());
  mayGo.raise();
  while (textOf(onServer) != "older") std::this_thread::yield();
  writeText(onServer, "theirs, longer");
  peer.list("Files");
  std::atomic<bool> isFirst = true, isWritten = false;
  Signal written;
  faulty.setFault("ls", [&](const auto&) -> std::optional<std::string> {
    if (!isFirst.exchange(false)) return std::nullopt;
    isWritten = peer.write("Files/a", "newer bytes").is_null();
    written.raise();
    return std::nullopt;
  });
  mayContinue.raise();
  blocking.join();
  ASSERT_TRUE(written.wait());
  EXPECT_TRUE(isWritten);
  // This process has taken in what it was told.
  client.onQueue([] {});
  client.refresh("Files");
  mayGoAgain.raise();
  const json left = settled({&peer});
  ASSERT_THAT(left, SizeIs(1)) << "the newer bytes are neither sent nor due";
  EXPECT_EQ(left[0]["path"], "Files/a");
  EXPECT_EQ(client.text(client.read("Files/a")), "newer bytes");
  EXPECT_EQ(textOf(onServer), "theirs, longer");
}

TEST(UploadWriters, TwoThatRewriteTheSameFilesWhileUploadsEndLoseNothing) {
  TestServer server;
  writeText(server.files() + "/known", "base");
  UploadClient client(server);
  client.read("Files/known");
  Peer first(client.container, server.port()), second(client.container, server.port());
  for (Peer* peer : {&first, &second}) peer->list("Files");
  std::map<std::string, std::string> last;
  for (int round = 0; round < 24; ++round) {
    Peer& peer = round % 2 == 0 ? first : second;
    // The longer ones are still on their way when the next write comes.
    const std::string text = "round " + std::to_string(round) + std::string(round % 3 == 0 ? 300'000 : 10, 'x');
    for (const std::string& path : {std::string("Files/known"), "Files/new " + std::to_string(round / 4)}) {
      ASSERT_EQ(peer.write(path, text), nullptr) << path;
      last[path] = text;
    }
  }
  EXPECT_THAT(settled({&first, &second}), IsEmpty());
  for (const auto& [path, text] : last) {
    EXPECT_TRUE(textOf(server.files() + path.substr(5)) == text) << path;
    EXPECT_TRUE(client.text(client.read(path)) == text) << path;
  }
  // What a cancelled record stood for has ended by now.
  first.restart();
  for (int turn = 0; turn < kPatience && !client.database().cancelledUploads().empty(); ++turn) first.uploads();
  EXPECT_THAT(client.database().cancelledUploads(), IsEmpty());
}

TEST(UploadWriters, TwoThatRestartTheSameUploadsSendEachOnce) {
  TestServer server;
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  client.listFresh("Inbox");
  // A drop box would show the second copy of a file.
  constexpr std::size_t count = 20;
  for (std::size_t i = 0; i < count; ++i) {
    client.queueWithoutStart("Inbox/drop " + std::to_string(i), "bytes " + std::to_string(i));
  }
  Peer first(client.container, faulty.port()), second(client.container, faulty.port());
  std::thread other([&] { second.restart(); });
  first.restart();
  other.join();
  client.manager->restartUploads();
  EXPECT_THAT(settled({&first, &second}), IsEmpty());
  std::set<std::string> contents;
  std::size_t files = 0;
  for (const auto& each : fs::directory_iterator(server.inbox())) {
    if (!each.is_regular_file()) continue;
    ++files;
    contents.insert(textOf(each.path()));
  }
  EXPECT_EQ(contents.size(), count);
  EXPECT_EQ(files, count);
  EXPECT_EQ(faulty.requestsOf("write"), count);
}

TEST(UploadWriters, AnUploadWhoseProcessAndAgentAreKilledInTheLastAttemptIsSentByTheNext) {
  TestServer server;
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  Signal arrived, mayGo;
  std::atomic<int> writes = 0;
  faulty.setFault("write", [&](const auto&) -> std::optional<std::string> {
    const int number = ++writes;
    if (number <= DCFileUploadMaxNumberOfRetries) return FaultyServer::refusal(500, "Not now.");
    if (number > DCFileUploadMaxNumberOfRetries + 1) return std::nullopt;
    arrived.raise();
    mayGo.wait();
    return FaultyServer::loseTheRequest;
  });
  {
    Peer killed(client.container, faulty.port());
    ASSERT_EQ(killed.write("Files/a", "bytes"), nullptr);
    ASSERT_TRUE(arrived.wait());
    killed.kill();
  }
  mayGo.raise();
  client.database().refresh();
  auto upload = client.record("Files/a");
  ASSERT_TRUE(upload);
  EXPECT_EQ(upload->numberOfRetries(), DCFileUploadMaxNumberOfRetries);
  EXPECT_TRUE(upload->task());
  EXPECT_FALSE(DCUploadOutcome::hasGivenUp(*upload));
  fs::remove(client.container.file("Transfers/transfers.sqlite"));
  Peer next(client.container, faulty.port());
  next.restart();
  EXPECT_THAT(settled({&next}), IsEmpty());
  EXPECT_EQ(textOf(server.files() + "/a"), "bytes");
  EXPECT_EQ(writes, DCFileUploadMaxNumberOfRetries + 2);

  // What gave up waits for somebody, also when a kill took the reason.
  ASSERT_TRUE(client.database().saveUploadFileURL(client.source("x"), "Files/b"));
  upload = client.record("Files/b");
  upload->setNumberOfRetries(DCFileUploadMaxNumberOfRetries);
  EXPECT_TRUE(DCUploadOutcome::hasGivenUp(*upload));
  upload->addAttempt({1, Date::now(), Data::fromString("generation")});
  EXPECT_FALSE(DCUploadOutcome::hasGivenUp(*upload));
  upload->setError("Not now.");
  EXPECT_TRUE(DCUploadOutcome::hasGivenUp(*upload));
}

TEST(UploadWriters, DeletingAllLocalDataCancelsWhatADeadProcessLeftToTheAgent) {
  TestServer server;
  UploadClient client(server);
  const std::string session = DCBackgroundSessionIdentifier(*client.service, DCMainBundleIdentifier());
  {
    Peer killed(client.container, server.port(), program("florvane-transferd"));
    killed.list("Files");
    server.stop();
    ASSERT_EQ(killed.write("Files/a", "never sent"), nullptr);
    killed.kill();
  }
  auto tasks = DCAgentTasks::numberOfTasksInSession(session);
  ASSERT_TRUE(tasks);
  ASSERT_EQ(*tasks, 1U);
  client.manager->deleteAllLocalData();
  // Their ends are told to this process, which is the only one left.
  for (int turn = 0; turn < kPatience && tasks && *tasks > 0; ++turn) {
    client.onQueue([] {});
    tasks = DCAgentTasks::numberOfTasksInSession(session);
  }
  ASSERT_TRUE(tasks);
  EXPECT_EQ(*tasks, 0U);
  server.restart();
  EXPECT_FALSE(client.manager->hasPendingUploads());
  EXPECT_EQ(textOf(server.files() + "/a"), "(none)");
  const auto recovered = DCUnsentFiles::directory();
  ASSERT_TRUE(recovered);
  std::vector<std::string> kept;
  for (const auto& each : fs::recursive_directory_iterator(*recovered)) {
    if (each.is_regular_file()) kept.push_back(textOf(each.path()));
  }
  EXPECT_THAT(kept, testing::ElementsAre("never sent"));
}

}  // namespace
}  // namespace florvane::test
