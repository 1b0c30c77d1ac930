// Random histories of a server's folder, with a client that lists, reads, restarts and goes offline in between. After
// each of them settles, what the client says must be what is in the folder. A failing history's seed is printed and
// belongs into kKnownSeeds.

#include "tests/support/ChildProcess.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestServer.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

namespace {

using namespace florvane;
using namespace florvane::test;
using nlohmann::json;
namespace fs = std::filesystem;

// Seeds that failed once.
constexpr std::array<std::uint64_t, 7> kKnownSeeds{21, 35, 72, 294, 1'000'340, 2'000'468, 3'000'001};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::uint64_t kSequencesOfAPart = 25;
#else
constexpr std::uint64_t kSequencesOfAPart = 500;
#endif

std::uint64_t sequencesOfAPart() {
  const char* asked = std::getenv("FLORVANE_MODEL_SEQUENCES");
  return asked ? std::strtoull(asked, nullptr, 10) : kSequencesOfAPart;
}

std::int64_t modified(const fs::path& path) {
  struct stat info{};
  if (lstat(path.c_str(), &info) != 0) return -1;
  return info.st_mtim.tv_sec * std::int64_t{1'000'000} + info.st_mtim.tv_nsec / 1000;
}

// A server, the container of a client, and the client's process, which comes and goes.
class World {
 public:
  json ask(const json& request) {
    if (!client_) start();
    const std::string answer = client_->ask(request.dump());
    if (request.at("op") == "settle") ahead_ += 3600;
    if (request.at("op") == "advance") ahead_ += request.at("seconds").get<int>();
    return json::parse(answer);
  }
  void endClient(bool kills) {
    if (!client_) return;
    kills ? client_->kill(SIGKILL) : client_->closeInput();
    client_->wait();
    client_.reset();
  }
  // What clients that were killed left in the folder of temporaries goes when it is an hour old.
  void expectNoTemporaries() {
    endClient(false);
    ahead_ += 2 * 3600;
    ask({{"op", "list"}, {"path", ""}, {"sync", true}});
    for (const auto& each : fs::directory_iterator(fs::path(container()) / "tmp")) {
      ADD_FAILURE() << "left behind: " << each.path();
    }
  }
  TestServer server;
  const std::string& container() const { return container_.path(); }

 private:
  void start() {
    client_ =
        std::make_unique<ChildProcess>(std::vector<std::string>{FLORVANE_BIN_DIR "/client_peer",
                                                                std::to_string(server.port()), std::to_string(ahead_)},
                                       std::vector<std::string>{"FLORVANE_CONTAINER=" + container_.path()});
    if (!client_->readLine()) throw std::runtime_error("the client did not start");
  }

  TemporaryDirectory container_;
  std::unique_ptr<ChildProcess> client_;
  int ahead_ = 0;  // seconds: no client's clock is behind that of the one before
};

class History {
 public:
  History(World& world, std::uint64_t seed)
      : world_(world),
        random_(seed),
        name_("history-" + std::to_string(seed)),
        folder_(fs::path(world.server.files()) / name_),
        path_("Files/" + name_) {
    fs::create_directory(folder_);
  }
  ~History() { fs::remove_all(folder_); }

  void run() {
    world_.ask({{"op", "list"}, {"path", ""}, {"sync", true}});
    world_.ask({{"op", "advance"}, {"seconds", 11}});
    world_.ask({{"op", "list"}, {"path", "Files"}, {"sync", true}});
    const int rounds = 1 + pick(3);
    for (int round = 0; round < rounds && !::testing::Test::HasFailure(); ++round) {
      const bool isOffline = pick(12) == 0;
      if (isOffline) {
        note("offline");
        world_.server.stop();
      }
      for (int steps = 2 + pick(8); steps > 0; --steps) {
        if (pick(3) != 0) {
          change();
        } else {
          use();
        }
      }
      if (isOffline) {
        note("online");
        world_.server.restart();
      }
      settle();
    }
  }

  std::string story() const { return story_.str(); }

 private:
  int pick(int below) { return static_cast<int>(random_() % static_cast<std::uint64_t>(below)); }
  template <typename T>
  const T& pick(const std::vector<T>& from) {
    return from[static_cast<std::size_t>(pick(static_cast<int>(from.size())))];
  }
  void note(const std::string& what) { story_ << "  " << what << "\n"; }

  // Relative to the history's folder; "" is the folder itself.
  struct Tree {
    std::vector<std::string> directories{""}, files, all;
  };
  Tree tree() const {
    Tree tree;
    for (const auto& each : fs::recursive_directory_iterator(folder_)) {
      const std::string path = each.path().lexically_relative(folder_).string();
      (each.is_directory() ? tree.directories : tree.files).push_back(path);
      tree.all.push_back(path);
    }
    for (auto* list : {&tree.directories, &tree.files, &tree.all}) std::sort(list->begin(), list->end());
    return tree;
  }
  std::string freshPath(const Tree& tree) {
    static const std::vector<std::string> names{"a", "b", "c", "Déjà vu", "e f", "long name with + % & =.txt"};
    return (fs::path(pick(tree.directories)) / pick(names)).string();
  }

  void write(const std::string& path) {
    // No two writes have one length, so that every one of them shows.
    ++writes_;
    const std::string bytes(static_cast<std::size_t>(writes_), static_cast<char>('a' + writes_ % 26));
    std::ofstream(folder_ / path, std::ios::binary | std::ios::trunc) << bytes;
  }

  void change() {
    const Tree now = tree();
    const std::string fresh = freshPath(now);
    const bool isFree = !fs::exists(folder_ / fresh);
    switch (pick(11)) {
      case 0:
      case 1:
        if (!isFree) return;
        note("create " + fresh);
        return write(fresh);
      case 2:
        if (!isFree) return;
        note("folder " + fresh);
        fs::create_directory(folder_ / fresh);
        return;
      case 3:
        if (now.files.empty()) return;
        return edit(pick(now.files));
      case 4:
      case 5:
        if (now.all.empty()) return;
        return move(pick(now.all), fresh);
      case 6:
        if (now.all.empty()) return;
        return replaceByOtherKind(pick(now.all));
      case 7: {
        if (now.all.empty()) return;
        const std::string gone = pick(now.all);
        note("remove " + gone);
        fs::remove_all(folder_ / gone);
        return;
      }
      case 8:
        return restore();
      case 9:
        if (now.all.empty()) return;
        return swap(pick(now.all), pick(now.all));
      default:
        return chain(now);
    }
  }

  void edit(const std::string& path) {
    std::ifstream file(folder_ / path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    versions_.push_back({path, bytes.str(), fs::last_write_time(folder_ / path)});
    note("edit " + path);
    write(path);
  }

  void restore() {
    if (versions_.empty()) return;
    const Version& version = pick(versions_);
    if (!fs::is_regular_file(folder_ / version.path)) return;
    note("restore " + version.path);
    std::ofstream(folder_ / version.path, std::ios::binary | std::ios::trunc) << version.bytes;
    fs::last_write_time(folder_ / version.path, version.date);
  }

  static bool isWithin(const std::string& path, const std::string& folder) {
    return path == folder || path.starts_with(folder + "/");
  }

  void move(const std::string& from, const std::string& to) {
    if (isWithin(to, from)) return;
    if (fs::exists(folder_ / to) && (fs::is_directory(folder_ / to) || fs::is_directory(folder_ / from))) return;
    note("move " + from + " -> " + to);
    fs::rename(folder_ / from, folder_ / to);
  }

  void replaceByOtherKind(const std::string& path) {
    const bool wasFolder = fs::is_directory(folder_ / path);
    note("other kind " + path);
    fs::remove_all(folder_ / path);
    if (wasFolder) {
      write(path);
    } else {
      fs::create_directory(folder_ / path);
      if (pick(2) == 0) write(path + "/inside");
    }
  }

  void swap(const std::string& one, const std::string& other) {
    if (isWithin(one, other) || isWithin(other, one)) return;
    note("swap " + one + " <-> " + other);
    const fs::path parked = folder_ / ".parked";
    fs::rename(folder_ / one, parked);
    fs::rename(folder_ / other, folder_ / one);
    fs::rename(parked, folder_ / other);
  }

  // b to c, then a to b: each name has another's document afterwards.
  void chain(const Tree& now) {
    std::vector<std::string> siblings;
    const std::string& parent = pick(now.directories);
    for (const auto& path : now.all) {
      if (fs::path(path).parent_path() == parent) siblings.push_back(path);
    }
    if (siblings.size() < 2) return;
    note("chain in " + parent);
    const fs::path end = folder_ / parent / ("end" + std::to_string(++writes_));
    fs::rename(folder_ / siblings.back(), end);
    for (std::size_t i = siblings.size() - 1; i > 0; --i) fs::rename(folder_ / siblings[i - 1], folder_ / siblings[i]);
  }

  std::string remote(const std::string& path) const { return path.empty() ? path_ : path_ + "/" + path; }

  // What a person does in between; whatever the answer, it must be one.
  void use() {
    const Tree now = tree();
    switch (pick(7)) {
      case 0:
      case 1: {
        const std::string path = remote(pick(now.directories));
        note("list " + path);
        world_.ask({{"op", "list"}, {"path", path}, {"sync", pick(2) == 0}});
        return;
      }
      case 2:
      case 3: {
        if (now.files.empty()) return;
        const std::string path = remote(pick(now.files));
        note("read " + path);
        world_.ask({{"op", "read"}, {"path", path}});
        return;
      }
      case 4: {
        const std::string path = remote(freshPath(now));
        note("stat " + path);
        world_.ask({{"op", "stat"}, {"path", path}});
        return;
      }
      case 5: {
        const int seconds = 1 + pick(30);
        note("advance " + std::to_string(seconds));
        world_.ask({{"op", "advance"}, {"seconds", seconds}});
        return;
      }
      default: {
        const bool kills = pick(2) == 0;
        note(kills ? "kill the client" : "restart the client");
        checkAssertions(world_.ask({{"op", "known"}}));
        world_.endClient(kills);
      }
    }
  }

  void settle() {
    note("settle");
    const json settled = world_.ask({{"op", "settle"}, {"path", path_}});
    EXPECT_EQ(settled["errors"], json::array());
    const json known = world_.ask({{"op", "known"}});
    compareWithServer(settled);
    checkAssertions(known);
    checkLitter(known);
    if (pick(4) == 0) checkSilence();
  }

  void compareWithServer(const json& settled) {
    const Tree now = tree();
    std::set<std::string> directories, files;
    for (const auto& path : now.directories) directories.insert(remote(path));
    for (const auto& path : now.files) files.insert(remote(path));
    std::set<std::string> listedDirectories, listedFiles;
    for (const auto& [path, listing] : settled["directories"].items()) {
      listedDirectories.insert(path);
      EXPECT_EQ(listing["state"], 4) << path;
      for (const json& item : listing["items"]) {
        const fs::path local = folder_ / fs::path(path).lexically_relative(path_) / item["name"].get<std::string>();
        if (!fs::is_regular_file(local)) continue;
        EXPECT_EQ(item.value("size", std::int64_t{-1}), static_cast<std::int64_t>(fs::file_size(local))) << local;
        EXPECT_EQ(item.value("modified", std::int64_t{-1}), modified(local)) << local;
      }
    }
    for (const auto& [path, answer] : settled["files"].items()) {
      listedFiles.insert(path);
      const fs::path local = folder_ / fs::path(path).lexically_relative(path_);
      if (!fs::is_regular_file(local)) continue;
      EXPECT_EQ(answer["state"], 4) << path;
      ASSERT_TRUE(answer["file"].is_string()) << path;
      EXPECT_EQ(readText(answer["file"]), readText(local.string())) << path << " " << answer;
    }
    EXPECT_EQ(listedDirectories, directories);
    EXPECT_EQ(listedFiles, files);
  }

  void checkAssertions(const json& known) { EXPECT_EQ(known["assertions"], json::array()); }

  // Database and disk hold what belongs to an item of the tree, and nothing else.
  void checkLitter(const json& known) {
    std::set<std::string> identifiers, expected;
    for (const auto& path : tree().all) expected.insert(remote(path));
    for (const auto& [path, identifier] : known["paths"].items()) {
      identifiers.insert(identifier.get<std::string>());
      const bool isOurs = path.starts_with(path_ + "/");
      EXPECT_TRUE(!isOurs || expected.contains(path)) << "a record of " << path;
    }
    const std::string service = known["service"];
    for (const char* root : {"File Provider Storage", "Metadata"}) {
      const fs::path folder = fs::path(world_.container()) / root / service;
      if (!fs::exists(folder)) continue;
      for (const auto& each : fs::directory_iterator(folder)) {
        const std::string name = each.path().filename();
        EXPECT_TRUE(!each.is_directory() || identifiers.contains(name)) << each.path();
      }
    }
  }

  // Nothing has changed, so delegates hear of nothing.
  void checkSilence() {
    std::vector<std::string> watched;
    for (const auto& path : tree().directories) watched.push_back(remote(path));
    for (const auto& path : watched) world_.ask({{"op", "watch"}, {"path", path}});
    world_.ask({{"op", "settle"}, {"path", path_}});
    EXPECT_EQ(world_.ask({{"op", "calls"}})["calls"], json::array());
    for (const auto& path : watched) world_.ask({{"op", "unwatch"}, {"path", path}});
  }

  struct Version {
    std::string path, bytes;
    fs::file_time_type date;
  };
  World& world_;
  std::mt19937_64 random_;
  const std::string name_;
  const fs::path folder_;
  const std::string path_;
  std::vector<Version> versions_;
  int writes_ = 0;
  std::ostringstream story_;
};

bool follow(World& world, std::uint64_t seed) {
  History history(world, seed);
  try {
    history.run();
  } catch (const std::exception& exception) {
    ADD_FAILURE() << exception.what();
  }
  if (!::testing::Test::HasFailure()) return true;
  ADD_FAILURE() << "seed " << seed << ":\n" << history.story();
  return false;
}

// The parts run side by side.
class CacheModelTest : public ::testing::TestWithParam<int> {};

TEST_P(CacheModelTest, AgreesWithTheServer) {
  World world;
  const std::uint64_t first = 1 + static_cast<std::uint64_t>(GetParam()) * 1'000'000;
  std::printf("seeds %llu to %llu\n", static_cast<unsigned long long>(first),
              static_cast<unsigned long long>(first + sequencesOfAPart() - 1));
  for (std::uint64_t seed = first; seed < first + sequencesOfAPart(); ++seed) {
    if (!follow(world, seed)) return;
  }
  world.expectNoTemporaries();
}
INSTANTIATE_TEST_SUITE_P(Parts, CacheModelTest, ::testing::Range(0, 4));

TEST(CacheModelKnownSeedsTest, AgreeWithTheServer) {
  World world;
  if (const char* asked = std::getenv("FLORVANE_MODEL_SEED")) {
    follow(world, std::strtoull(asked, nullptr, 10));
    return;
  }
  for (std::uint64_t seed : kKnownSeeds) {
    if (!follow(world, seed)) return;
  }
}

}  // namespace
