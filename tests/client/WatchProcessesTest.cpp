#include "tests/client/ClientProcess.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestServer.h"

#include <csignal>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

namespace florvane::test {
namespace {

using nlohmann::json;
using Call = std::pair<std::string, std::string>;  // what, and of which path

// What is told of the file comes by its own registration and by that of its folder.
constexpr std::size_t kRegistrations = 2;

// A process that watches the folder "Files" and the file "notes" in it.
class Watcher {
 public:
  Watcher(const std::string& container, std::uint16_t port) : process_(startClient(container, port, 0)) {
    for (const char* path : {"", "Files"}) ask({{"op", "list"}, {"path", path}, {"sync", true}});
    for (const char* path : {"Files", "Files/notes"}) ask({{"op", "watch"}, {"path", path}});
  }
  json ask(const json& request) { return test::ask(*process_, request); }
  std::size_t told(const Call& call) {
    const json answer = ask({{"op", "calls"}});
    for (const json& each : answer["calls"]) ++told_[{each[0], each[1]}];
    return told_[call];
  }
  // ctest's limit ends a wait in vain. Time passes meanwhile: what could not be fetched at once is tried again later.
  void untilTold(const Call& call, std::size_t times) {
    while (told(call) < times) ask({{"op", "advance"}, {"seconds", 1}});
  }
  void stop() { ::kill(process_->pid(), SIGSTOP); }
  void goOn() { ::kill(process_->pid(), SIGCONT); }

 private:
  std::unique_ptr<ChildProcess> process_;
  std::map<Call, std::size_t> told_;
};

class WatchProcesses : public testing::Test {
 protected:
  // At once, so that there is one version of it.
  void put(const std::string& text) {
    writeText(folder.file("new"), text);
    std::filesystem::rename(folder.file("new"), server.files() + "/notes");
  }
  // Watcher by watcher: so often has each been told by now.
  void untilTold(const Call& call, std::size_t times) {
    for (Watcher* each : {&first, &second}) each->untilTold(call, times);
  }
  // While the slower one sleeps the other finds out, fetches and stores everything.
  template <typename Change>
  void change(Watcher* slower, const Call& call, std::size_t times, Change&& make) {
    Watcher& faster = slower == &first ? second : first;
    if (slower) slower->stop();
    make();
    if (slower) {
      faster.untilTold(kFolder, ++folders);
      faster.untilTold(call, times);
      slower->goOn();
    } else {
      ++folders;
    }
    untilTold(kFolder, folders);
    untilTold(call, times);
  }

  const Call kFolder{"contents of directory", "Files"}, kFile{"contents", "Files/notes"};
  TemporaryDirectory folder;
  TestServer server;
  const std::string container = [this] {
    put("1");
    return folder.file("container");
  }();
  std::size_t folders = 0;
  Watcher first{container, server.port()}, second{container, server.port()};
};

TEST_F(WatchProcesses, AreEachToldOnceOfWhatTheOtherMayHaveFetched) {
  std::size_t files = 0;
  for (int round = 0; round < 4; ++round) {
    for (Watcher* slower : {&first, &second, static_cast<Watcher*>(nullptr)}) {
      files += kRegistrations;
      change(slower, kFile, files, [&] { put(std::string(files + 1, 'x')); });
    }
  }
  for (Watcher* each : {&first, &second}) {
    EXPECT_EQ(each->told(kFolder), folders);
    EXPECT_EQ(each->told(kFile), files);
    EXPECT_EQ(each->told({"attributes", "Files"}), folders);
    EXPECT_GE(each->told({"attributes", "Files/notes"}), files);
  }
}

TEST_F(WatchProcesses, FollowAFileThatGoesAndComesAgain) {
  std::size_t files = 0;
  for (Watcher* slower : {&first, &second}) {
    change(slower, kFile, files, [&] { std::filesystem::remove(server.files() + "/notes"); });
    files += kRegistrations;
    change(slower, kFile, files, [&] { put("again"); });
    files += kRegistrations;
    change(nullptr, kFile, files, [&] { put("and again"); });
  }
  EXPECT_EQ(first.told(kFile), files);
  EXPECT_EQ(second.told(kFile), files);
}

TEST_F(WatchProcesses, HearOfWhatTheOtherHasSent) {
  writeText(folder.file("mine"), "sent by the first");
  first.ask({{"op", "write"}, {"path", "Files/notes"}, {"source", folder.file("mine")}});
  second.untilTold(kFile, kRegistrations);
  EXPECT_EQ(readText(second.ask({{"op", "read"}, {"path", "Files/notes"}})["file"]), "sent by the first");
  while (!first.ask({{"op", "uploads"}})["uploads"].empty()) std::this_thread::yield();
  EXPECT_EQ(first.told(kFile), 0U) << "its own bytes";
  // And of no more than that.
  put("somebody else's");
  first.untilTold(kFile, kRegistrations);
  second.untilTold(kFile, 2 * kRegistrations);
  EXPECT_EQ(first.told(kFile), kRegistrations);
  EXPECT_EQ(second.told(kFile), 2 * kRegistrations);
}

TEST_F(WatchProcesses, SeeEachOthersUploadsAtOnce) {
  writeText(folder.file("mine"), "not to be sent");
  server.stop();
  EXPECT_TRUE(second.ask({{"op", "uploads"}})["uploads"].empty());
  EXPECT_FALSE(second.ask({{"op", "pending"}})["any"]);
  first.ask({{"op", "write"}, {"path", "Files/notes"}, {"source", folder.file("mine")}});
  EXPECT_TRUE(second.ask({{"op", "pending"}})["any"]);
  const json uploads = second.ask({{"op", "uploads"}})["uploads"];
  ASSERT_EQ(uploads.size(), 1U);
  EXPECT_EQ(uploads[0]["path"], "Files/notes");
}

}  // namespace
}  // namespace florvane::test
