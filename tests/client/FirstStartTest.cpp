// Real processes of one container start for the first time at once, and end while others go on.

#include "Client/Client/DCPreferences.h"
#include "platform/FileSystem.h"
#include "tests/client/ClientProcess.h"
#include "tests/support/TestContainer.h"
#include "tests/support/TestServer.h"

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

namespace florvane::test {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

// Locks of a file that somebody waits for, as the kernel lists them.
std::size_t waitersFor(const std::string& path) {
  struct stat status{};
  if (stat(path.c_str(), &status) != 0) return 0;
  const std::string inode = ":" + std::to_string(status.st_ino) + " ";
  std::ifstream locks("/proc/locks");
  std::size_t waiters = 0;
  for (std::string line; std::getline(locks, line);) {
    const bool isOne = line.find(" -> ") != std::string::npos && line.find(inode) != std::string::npos;
    waiters += isOne ? 1 : 0;
  }
  return waiters;
}

TEST(FirstStart, OneOfManyWipesAndAnEndingProcessTakesNothingBack) {
  const TestContainer container;
  TestServer server;
  fs::permissions(container.path(), fs::perms::owner_all);
  auto preferences = DCPreferences::preferences();
  ASSERT_TRUE(preferences->setCurrentDataVersionNumber("0.9"));
  ASSERT_TRUE(preferences->setTraceLogsEnabled(true));
  ASSERT_TRUE(preferences->setLogLevel("debug"));
  fs::create_directories(container.file("Metadata/of an old version"));

  // All have seen the old version before the first of them may do anything about it.
  const std::string lockPath = container.file(".lock-data-version");
  std::vector<std::unique_ptr<ChildProcess>> clients;
  {
    auto lock = FileLock::acquire(lockPath, true);
    ASSERT_TRUE(lock);
    for (int i = 0; i < 3; ++i) {
      clients.push_back(std::make_unique<ChildProcess>(
          std::vector<std::string>{FLORVANE_BIN_DIR "/client_peer", std::to_string(server.port()), "0"}));
    }
    while (waitersFor(lockPath) < clients.size()) std::this_thread::yield();
    EXPECT_TRUE(fs::exists(container.file("Metadata/of an old version")));
  }
  int wipes = 0;
  for (auto& client : clients) {
    ASSERT_TRUE(client->readLine());
    wipes += ask(*client, {{"op", "logged"}, {"text", "_deleteAllContent]"}})["count"].get<int>();
  }
  EXPECT_EQ(wipes, 1);
  EXPECT_FALSE(fs::exists(container.file("Metadata/of an old version")));
  EXPECT_EQ(preferences->currentDataVersionNumber(), "1.1");
  EXPECT_EQ(ask(*clients[0], {{"op", "list"}, {"path", ""}, {"sync", true}})["items"].size(), 3U);

  // What others have set since, or done to the file, is there after the end of who knew it otherwise.
  ASSERT_TRUE(preferences->setXmlPropertyLists(true));
  const std::string file = container.file("Preferences/group.quorl.Florvane.plist");
  const std::string before = readText(file);
  clients[0]->writeLine(json{{"op", "quit"}}.dump());
  EXPECT_EQ(clients[0]->wait(), 0);
  EXPECT_EQ(readText(file), before);
  writeText(file, "no property list");
  clients[1]->writeLine(json{{"op", "quit"}}.dump());
  EXPECT_EQ(clients[1]->wait(), 0);
  EXPECT_EQ(readText(file), "no property list");
  fs::remove(file);
  clients[2]->writeLine(json{{"op", "quit"}}.dump());
  EXPECT_EQ(clients[2]->wait(), 0);
  EXPECT_FALSE(fs::exists(file));
}

}  // namespace
}  // namespace florvane::test
