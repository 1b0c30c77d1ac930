// Pulls plugs: an application writes while it, the transfer agent, the server or the network between them are taken
// away at random. Afterwards every write that was acknowledged is on the server, or its path says that it is a
// conflict; nothing is there twice, and no bytes that nobody wrote. FLORVANE_CAMPAIGN_KILLS asks for a longer campaign.

#include "tests/support/ChildProcess.h"
#include "tests/support/FaultProxy.h"
#include "tests/support/ServerProgram.h"
#include "tests/support/TemporaryDirectory.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace {

using namespace florvane::test;
using nlohmann::json;
namespace fs = std::filesystem;
using std::chrono::milliseconds;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kKills = 16;
#else
constexpr int kKills = 125;
#endif
constexpr int kKillsBetweenSettlings = 8;

int kills() {
  const char* asked = std::getenv("FLORVANE_CAMPAIGN_KILLS");
  return asked ? std::atoi(asked) : kKills;
}

class Campaign {
 public:
  explicit Campaign(std::uint64_t seed) : random_(seed) {
    for (const char* folder : {"sources", "container"}) fs::create_directory(work_.file(folder));
    fs::permissions(work_.file("container"), fs::perms::owner_all);
    proxy_ = std::make_unique<FaultProxy>(server_.port(), seed);
  }
  ~Campaign() {
    client_.reset();
    killAgent();
  }

  void run(int killCount) {
    ask({{"op", "list"}, {"path", ""}, {"sync", true}});
    ask({{"op", "advance"}, {"seconds", 11}});
    ask({{"op", "list"}, {"path", "Files"}, {"sync", true}});
    ask({{"op", "list"}, {"path", "Inbox"}, {"sync", true}});
    for (int kill = 0; kill < killCount && !::testing::Test::HasFailure(); ++kill) {
      writeSome();
      pullAPlug();
      if ((kill + 1) % kKillsBetweenSettlings == 0) settle();
    }
    settle();
    // A client that refuses everything would lose nothing, either.
    int acknowledged = 0;
    for (const auto& [path, written] : written_) acknowledged += written.acknowledged > 0 ? 1 : 0;
    EXPECT_GT(acknowledged, static_cast<int>(written_.size()) / 2);
  }

 private:
  int pick(int below) { return static_cast<int>(random_() % static_cast<std::uint64_t>(below)); }

  void killAgent() {
    for (pid_t process : processesOf("florvane-transferd", work_.file("container"))) kill(process, SIGKILL);
  }

  // A client that goes without having been killed is a failure of its own.
  json ask(const json& request) {
    if (!client_) {
      client_ = std::make_unique<ChildProcess>(
          std::vector<std::string>{FLORVANE_BIN_DIR "/client_peer", std::to_string(proxy_->port()),
                                   std::to_string(ahead_)},
          std::vector<std::string>{"FLORVANE_CONTAINER=" + work_.file("container")});
      if (!client_->readLine()) throw std::runtime_error("the client did not start");
      ahead_ += 11;
      ask({{"op", "restart"}});
    }
    return json::parse(client_->ask(request.dump()));
  }

  std::string source() {
    const std::string path = work_.file("sources/" + std::to_string(++versions_));
    const std::string contents = "version " + std::to_string(versions_) + "\n" +
                                 std::string(static_cast<std::size_t>(pick(4) == 0 ? pick(2'000'000) : pick(5000)),
                                             static_cast<char>('a' + versions_ % 26));
    writeText(path, contents);
    attempted_[contents] = versions_;
    return path;
  }

  void writeSome() {
    for (int count = 1 + pick(4); count > 0; --count) {
      const bool isDropped = pick(6) == 0;
      const std::string name = isDropped ? "drop " + std::to_string(versions_) : "file " + std::to_string(pick(40));
      const std::string path = (isDropped ? "Inbox/" : "Files/") + name;
      const std::string from = source();
      const json answer = ask({{"op", "write"}, {"path", path}, {"source", from}});
      Written& written = written_[path];
      written.last = versions_;
      if (answer["error"].is_null()) written.acknowledged = versions_;
    }
  }

  void pullAPlug() {
    // Anywhere in the work that the writes have set off.
    std::this_thread::sleep_for(milliseconds(pick(25)));
    const int what = pick(12);
    if (what < 4 || what == 10) {
      // In a third of these a write is under way.
      if (client_ && pick(3) == 0) {
        const std::string path = "Files/file " + std::to_string(pick(40));
        client_->writeLine(json{{"op", "write"}, {"path", path}, {"source", source()}}.dump());
        written_[path].last = versions_;
        std::this_thread::sleep_for(std::chrono::microseconds(pick(4000)));
      }
      client_.reset();
    }
    if ((what >= 4 && what < 7) || what == 10) killAgent();
    if (what == 7 || what == 11) {
      server_.killAndRestart();
    }
    if (what >= 8 && what < 10) {
      static constexpr std::array kFaults{FaultProxy::Fault::Refuse, FaultProxy::Fault::Reset,
                                          FaultProxy::Fault::Silence, FaultProxy::Fault::LoseReply};
      proxy_->setFault(kFaults[static_cast<std::size_t>(pick(kFaults.size()))]);
      writeSome();
      std::this_thread::sleep_for(milliseconds(pick(100)));
      proxy_->setFault(FaultProxy::Fault::None);
    }
  }

  void settle() {
    ask({{"op", "restart"}});
    json uploads;
    // Waits are the agent's and the client's own, of a second and more.
    for (int turns = 0; turns < 900; ++turns) {
      uploads = ask({{"op", "uploads"}})["uploads"];
      bool allAreConflicts = true;
      for (const json& each : uploads) allAreConflicts = allAreConflicts && isConflict(each);
      if (allAreConflicts) break;
      if (turns % 50 == 49) ask({{"op", "restart"}});
      std::this_thread::sleep_for(milliseconds(50));
    }
    std::set<std::string> conflicts;
    for (const json& each : uploads) {
      EXPECT_TRUE(isConflict(each)) << "never sent: " << each;
      conflicts.insert(each["path"].get<std::string>());
    }
    compare(conflicts);
  }

  static bool isConflict(const json& upload) {
    return upload["error"].get<std::string>().find("onflict") != std::string::npos;
  }

  void compare(const std::set<std::string>& conflicts) {
    std::map<std::string, int> onServer;  // by path: the version
    for (const auto& [share, folder] : {std::pair("Files/", server_.files()), std::pair("Inbox/", server_.inbox())}) {
      for (const auto& each : fs::directory_iterator(folder)) {
        if (!each.is_regular_file()) continue;
        const std::string path = share + each.path().filename().string();
        const auto found = attempted_.find(readText(each.path()));
        ASSERT_NE(found, attempted_.end()) << path << " holds bytes that nobody wrote";
        for (const auto& [other, version] : onServer) {
          EXPECT_NE(version, found->second) << other << " and " << path << " are the same write";
        }
        onServer[path] = found->second;
      }
    }
    for (const auto& [path, written] : written_) {
      if (written.acknowledged == 0 || conflicts.contains(path)) continue;
      const auto found = onServer.find(path);
      ASSERT_NE(found, onServer.end()) << path << ", version " << written.acknowledged << " is not on the server";
      EXPECT_GE(found->second, written.acknowledged) << path;
      EXPECT_LE(found->second, written.last) << path;
    }
    for (const auto& [path, version] : onServer) EXPECT_TRUE(written_.contains(path)) << path << " came from nowhere";
  }

  struct Written {
    int acknowledged = 0;  // the newest version whose write was answered with success
    int last = 0;          // the newest that was tried
  };
  std::mt19937_64 random_;
  TemporaryDirectory work_;
  ServerProgram server_{work_.path()};
  std::unique_ptr<FaultProxy> proxy_;
  std::unique_ptr<ChildProcess> client_;
  int ahead_ = 0, versions_ = 0;
  std::map<std::string, int> attempted_;
  std::map<std::string, Written> written_;
};

class UploadCampaignTest : public ::testing::TestWithParam<int> {};

TEST_P(UploadCampaignTest, LosesNoAcknowledgedWrite) {
  const char* asked = std::getenv("FLORVANE_CAMPAIGN_SEED");
  const auto seed = asked ? std::strtoull(asked, nullptr, 10) : static_cast<unsigned long long>(GetParam());
  std::printf("seed %llu, %d plugs\n", seed, kills());
  Campaign campaign(seed);
  campaign.run(kills());
}
INSTANTIATE_TEST_SUITE_P(Parts, UploadCampaignTest, ::testing::Range(1, 5));

}  // namespace
