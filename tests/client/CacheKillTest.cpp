// Clients of one container are killed while they list and read. Whoever comes next finds whole files and whole
// listings, and in the end nothing of the dead is left.

#include "tests/client/KillFixture.h"

#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace florvane::test;
using nlohmann::json;
namespace fs = std::filesystem;

constexpr int kKills = killsOf(150);
constexpr int kFolders = 5, kFiles = 8, kWideEntries = 2000;

class CacheKilling : Killing {
 public:
  explicit CacheKilling(int seed) : Killing(seed) {
    for (int folder = 0; folder < kFolders; ++folder) {
      fs::create_directories(folderPath(folder));
      for (int file = 0; file < kFiles; ++file) edit(folder, file);
    }
    fs::create_directories(server_.files() + "/wide");
    for (int entry = 0; entry < kWideEntries; ++entry) writeText(wideEntry(entry), "");
  }

  void run() {
    for (int kill = 0; kill < kKills && !::testing::Test::HasFailure(); ++kill) {
      std::vector<std::unique_ptr<ChildProcess>> clients;
      for (int count = pick(10) == 0 ? 2 : 1; count > 0; --count) {
        clients.push_back(start());
        if (kill > 0) check(*clients.back());
      }
      for (int edits = pick(4); edits > 0; --edits) edit(pick(kFolders), pick(kFiles));
      for (auto& client : clients) order(*client);
      goOnFor(8000);
      for (auto& client : clients) client->kill(SIGKILL);
    }
    ahead_ += 3700;
    auto last = start();
    ask(*last, listingOf(""));
    ask(*last, {{"op", "settle"}, {"path", "Files"}});
    EXPECT_EQ(ask(*last, {{"op", "known"}})["assertions"], json::array());
    for (const auto& each : fs::directory_iterator(container_.file("tmp"))) {
      ADD_FAILURE() << "left behind: " << each.path();
    }
  }

 private:
  std::string folderPath(int folder) { return server_.files() + "/folder " + std::to_string(folder); }
  std::string wideEntry(int entry) { return server_.files() + "/wide/entry " + std::to_string(entry); }
  static std::string remote(int folder) { return "Files/folder " + std::to_string(folder); }
  static std::string remote(int folder, int file) { return remote(folder) + "/file " + std::to_string(file); }

  void edit(int folder, int file) {
    const int version = ++versions_;
    // A whole version replaces the one before, so that a read that is torn was torn by the client.
    const std::string contents =
        std::to_string(version) + ":" +
        std::string(static_cast<std::size_t>(1000 + pick(150'000)), static_cast<char>('a' + version % 26)) + ":" +
        std::to_string(version);
    const std::string path = folderPath(folder) + "/file " + std::to_string(file);
    writeText(path + ".new", contents);
    fs::rename(path + ".new", path);
    contents_[remote(folder, file)].insert(contents);
  }

  // Work to be killed in; nobody waits for the answers.
  void order(ChildProcess& client) {
    client.writeLine(listingOf("").dump());
    client.writeLine(json{{"op", "advance"}, {"seconds", 11}}.dump());
    client.writeLine(listingOf("Files").dump());
    client.writeLine(json{{"op", "advance"}, {"seconds", 11}}.dump());
    if (pick(2) == 0) client.writeLine(listingOf("Files/wide").dump());
    for (int i = 0; i < 3; ++i) {
      const int folder = pick(kFolders);
      client.writeLine(listingOf(remote(folder)).dump());
      for (int file = 0; file < kFiles; ++file) {
        client.writeLine(json{{"op", "read"}, {"path", remote(folder, file)}}.dump());
      }
    }
  }

  // What the disk holds, whether it is old or new, is whole.
  void check(ChildProcess& client) {
    const json wide = ask(client, {{"op", "list"}, {"path", "Files/wide"}});
    if (wide["error"].is_null() && wide["state"] != 2) {
      EXPECT_EQ(wide["items"].size(), static_cast<std::size_t>(kWideEntries));
    }
    const int folder = pick(kFolders);
    const json listing = ask(client, {{"op", "list"}, {"path", remote(folder)}});
    if (!listing["error"].is_null() || listing["state"] == 2) return;
    EXPECT_EQ(listing["items"].size(), static_cast<std::size_t>(kFiles));
    for (int file = 0; file < kFiles; ++file) {
      const json answer = ask(client, {{"op", "read"}, {"path", remote(folder, file)}});
      EXPECT_EQ(answer["error"], json(nullptr)) << remote(folder, file);
      if (!answer["file"].is_string()) continue;
      EXPECT_TRUE(contents_[remote(folder, file)].contains(readText(answer["file"])))
          << remote(folder, file) << " is torn, state " << answer["state"];
    }
    EXPECT_EQ(ask(client, {{"op", "known"}})["assertions"], json::array());
  }

  int versions_ = 0;
  std::map<std::string, std::set<std::string>> contents_;
};

class CacheKillTest : public ::testing::TestWithParam<int> {};

TEST_P(CacheKillTest, NothingIsTornOrLeftBehind) { CacheKilling(GetParam()).run(); }
INSTANTIATE_TEST_SUITE_P(Parts, CacheKillTest, ::testing::Values(1, 2));

}  // namespace
