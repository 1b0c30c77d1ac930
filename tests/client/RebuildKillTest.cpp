// Clients of one container are killed while they make its database anew, and while another writes. Whoever comes next
// finishes that: no waiting upload is lost or sent twice, and nothing counts as changed that is not.

#include "tests/client/KillFixture.h"

#include <filesystem>
#include <memory>
#include <set>
#include <string>

namespace {

using namespace florvane::test;
using nlohmann::json;
namespace fs = std::filesystem;

constexpr int kKills = killsOf(120);
constexpr int kFolders = 3, kFiles = 8, kKillsBetweenChecks = 6;

class RebuildKilling : Killing {
 public:
  explicit RebuildKilling(int seed) : Killing(seed) {
    fs::permissions(container_.path(), fs::perms::owner_all);
    for (int folder = 0; folder < kFolders; ++folder) {
      fs::create_directories(server_.files() + "/" + std::to_string(folder));
      for (int file = 0; file < kFiles; ++file) writeText(onServer(remote(folder, file)), remote(folder, file));
    }
  }

  void run() {
    downloadMost();
    server_.stop();
    for (const char* path : {"Files/0/new", "Files/1/new", "Files/0/1", "Files/2/2"}) {
      auto client = start();
      const json answer = ask(*client, writeOf(path));
      ASSERT_TRUE(answer["error"].is_null()) << answer;
      written_.insert(path);
    }
    for (int kill = 1; kill <= kKills && !::testing::Test::HasFailure(); ++kill) {
      killARebuild();
      if (kill % kKillsBetweenChecks == 0) check();
    }
    server_.restart();
    arrive();
  }

 private:
  static std::string remote(int folder, int file) {
    return "Files/" + std::to_string(folder) + "/" + std::to_string(file);
  }
  std::string onServer(const std::string& path) const {
    return server_.files() + path.substr(std::string("Files").size());
  }
  // Of each folder one is never fetched.
  static bool isRead(int file) { return file > 0; }
  static std::string textWrittenTo(const std::string& path) { return "written to " + path; }

  std::unique_ptr<ChildProcess> start() { return Killing::start({"FLORVANE_TRANSFERD=/nonexistent"}); }
  json writeOf(const std::string& path) {
    const std::string source = sources_.file(std::to_string(++sourceCount_));
    writeText(source, textWrittenTo(path));
    return {{"op", "write"}, {"path", path}, {"source", source}};
  }

  void downloadMost() {
    auto client = start();
    ask(*client, listingOf(""));
    ask(*client, listingOf("Files"));
    for (int folder = 0; folder < kFolders; ++folder) {
      ask(*client, listingOf("Files/" + std::to_string(folder)));
      for (int file = 0; file < kFiles; ++file) {
        if (isRead(file)) ask(*client, {{"op", "read"}, {"path", remote(folder, file)}});
      }
    }
    known_ = ask(*client, {{"op", "known"}})["paths"];
    ASSERT_GT(known_.size(), static_cast<std::size_t>(kFolders * kFiles));
  }

  void killARebuild() {
    auto client = start();
    auto other = pick(3) == 0 ? start() : nullptr;
    const std::string path = "Files/" + std::to_string(pick(kFolders)) + "/new " + std::to_string(pick(12));
    client->writeLine(json{{"op", "rebuild"}}.dump());
    if (other) other->writeLine(writeOf(path).dump());
    goOnFor(25'000);
    client->kill(SIGKILL);
    if (!other) return;
    if (pick(2) == 0) goOnFor(25'000);
    other->kill(SIGKILL);
    attempted_.insert(path);
    // What it said before it was killed counts.
    auto line = other->readLine();
    if (!line) return;
    EXPECT_TRUE(json::parse(*line)["error"].is_null()) << *line;
    written_.insert(path);
  }

  void check() {
    auto client = start();
    if (pick(2) == 0) {
      EXPECT_TRUE(ask(*client, {{"op", "rebuild"}})["error"].is_null());
    } else {
      ask(*client, {{"op", "stat"}, {"path", "Files"}});
    }
    std::set<std::string> waiting;
    const json uploads = ask(*client, {{"op", "uploads"}});
    for (const json& upload : uploads["uploads"]) {
      EXPECT_TRUE(waiting.insert(upload["path"]).second) << "twice: " << upload;
    }
    for (const std::string& path : written_) EXPECT_TRUE(waiting.contains(path)) << "lost: " << path;
    const json unsent = ask(*client, {{"op", "unsent"}});
    for (const json& path : unsent["paths"]) {
      EXPECT_TRUE(waiting.contains(path) || attempted_.contains(path)) << "counts as changed: " << path;
    }
    const json known = ask(*client, {{"op", "known"}});
    EXPECT_EQ(known["assertions"], json::array());
    EXPECT_EQ(known["paths"], known_);
    for (int folder = 0; folder < kFolders; ++folder) {
      const std::string path = remote(folder, 1 + pick(kFiles - 1));
      const json answer = ask(*client, {{"op", "read"}, {"path", path}});
      ASSERT_TRUE(answer["file"].is_string()) << path << answer;
      EXPECT_EQ(readText(answer["file"]), written_.contains(path) ? textWrittenTo(path) : path);
    }
  }

  void arrive() {
    auto client = start();
    for (int turn = 0; turn < 400; ++turn) {
      ask(*client, {{"op", "restart"}});
      ask(*client, {{"op", "advance"}, {"seconds", 61}});
      ask(*client, listingOf("Files"));
      if (ask(*client, {{"op", "uploads"}})["uploads"].empty()) break;
    }
    EXPECT_EQ(ask(*client, {{"op", "uploads"}})["uploads"], json::array());
    std::size_t files = 0;
    for (const auto& each : fs::recursive_directory_iterator(server_.files())) {
      if (!each.is_regular_file()) continue;
      ++files;
      const std::string path = "Files/" + each.path().lexically_relative(server_.files()).string();
      const std::string text = readText(each.path());
      if (written_.contains(path)) {
        EXPECT_EQ(text, textWrittenTo(path));
      } else {
        EXPECT_TRUE(text == path || (attempted_.contains(path) && text == textWrittenTo(path))) << path;
      }
    }
    EXPECT_GE(files, static_cast<std::size_t>(kFolders * kFiles));
    for (const std::string& path : written_) EXPECT_TRUE(fs::exists(onServer(path))) << path;
    EXPECT_EQ(ask(*client, {{"op", "unsent"}})["paths"], json::array());
  }

  const TemporaryDirectory sources_;
  int sourceCount_ = 0;
  json known_;
  std::set<std::string> written_, attempted_;
};

class RebuildKillTest : public ::testing::TestWithParam<int> {};

TEST_P(RebuildKillTest, WhoeverComesNextFinishesIt) { RebuildKilling(GetParam()).run(); }
INSTANTIATE_TEST_SUITE_P(Parts, RebuildKillTest, ::testing::Values(1, 2));

}  // namespace
