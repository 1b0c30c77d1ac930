// An application at work for a while, behind a network and a server that fail in every way that they know. It holds no
// more in the end than when it had got going, and then everything settles. FLORVANE_SOAK_SECONDS asks for a longer one,
// FLORVANE_SOAK_SEED for a certain one.

#include "tests/client/LivePeer.h"
#include "tests/support/FaultProxy.h"

#include <array>
#include <atomic>
#include <csignal>
#include <memory>
#include <string>
#include <thread>

namespace {

using namespace florvane::test;
using nlohmann::json;
namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr int kOperationsOfABatch = 20, kFolders = 3, kFiles = 12;
constexpr milliseconds kFault{1200}, kPeace{600};

class Soak {
 public:
  explicit Soak(std::uint64_t seed) : random_(seed), proxy_(server_.port(), seed) {
    for (const char* folder : {"sources", "container", "files/written"}) fs::create_directory(work_.file(folder));
    fs::permissions(work_.file("container"), fs::perms::owner_all);
    for (int folder = 0; folder < kFolders; ++folder) {
      fs::create_directory(server_.files() + "/folder " + std::to_string(folder));
      for (int file = 0; file < kFiles; ++file) edit(fileAtServer(folder, file));
    }
    peer_ = makeLivePeer(work_.file("container"), proxy_.port(), "application", work_.file("log"));
    if (!peer_->readLine()) throw std::runtime_error("the client did not start");
    ask(*peer_, {{"op", "settle"}, {"path", ""}});
  }
  ~Soak() {
    peer_.reset();
    for (pid_t process : processesOf("florvane-transferd", work_.file("container"))) kill(process, SIGKILL);
  }

  void run(seconds duration) {
    // Every fault comes several times before what is held is looked at for the first time.
    work(duration / 2);
    const json before = usage();
    work(duration / 2);
    json after = usage();
    // A name that is being looked up, say, has its thread and its pair of sockets for a moment.
    for (int attempt = 0; attempt < 9 && !growth(before, after).empty(); ++attempt) after = usage();
    expectNoGrowth(before, after);
    std::printf("%zu operations\n", operations_);
    expectNoAssertions(work_.file("log"));
  }

 private:
  int pick(int below) { return static_cast<int>(random_() % static_cast<std::uint64_t>(below)); }
  std::string fileAtServer(int folder, int file) const {
    return server_.files() + "/folder " + std::to_string(folder) + "/file " + std::to_string(file);
  }

  void edit(const std::string& path) {
    writeText(work_.file("parked"), versionText(++versions_, pick(10) == 0 ? pick(200'000) : pick(2000)));
    fs::rename(work_.file("parked"), path);
  }

  // As many files as there were, in the end.
  void changeAtServer() {
    const std::string one = fileAtServer(pick(kFolders), pick(kFiles));
    const int what = fs::exists(one) ? pick(4) : 3;
    if (what == 0) {
      fs::rename(one, fileAtServer(pick(kFolders), pick(kFiles)));
    } else if (what == 1) {
      fs::remove(one);
    } else {
      edit(one);
    }
  }

  void work(seconds duration) {
    const auto end = steady_clock::now() + duration;
    std::atomic<bool> isOver = false;
    std::thread faults([&] { disturb(isOver); });
    while (steady_clock::now() < end) {
      for (int changes = pick(4); changes > 0; --changes) changeAtServer();
      json batch = json::array();
      for (int i = 0; i < kOperationsOfABatch; ++i) batch.push_back(someOperation());
      batch.push_back({{"op", "calls"}});
      operations_ += ask(*peer_, {{"op", "batch"}, {"of", batch}})["answers"].size();
    }
    isOver = true;
    faults.join();
  }

  json someOperation() {
    const std::string folder = "Files/folder " + std::to_string(pick(kFolders));
    const int file = pick(kFiles), what = pick(20);
    static constexpr std::array kOfFolders{"watch", "unwatch", "list", "list"};
    if (what < 4) return {{"op", kOfFolders[static_cast<std::size_t>(what)]}, {"path", folder}};
    const std::string name = "/file " + std::to_string(file);
    if (what > 4) return {{"op", what == 5 ? "stat" : "read"}, {"path", folder + name}};
    const std::string source = work_.file("sources/" + std::to_string(++versions_ % 8));
    writeText(source, versionText(versions_, pick(2000)));
    return {{"op", "write"}, {"path", "Files/written" + name}, {"source", source}};
  }

  void disturb(const std::atomic<bool>& isOver) {
    using Fault = FaultProxy::Fault;
    static constexpr std::array kFaults{Fault::Delay,     Fault::Cut,    Fault::Reset,  Fault::Drip,
                                        Fault::LoseReply, Fault::Refuse, Fault::Silence};
    for (std::size_t turn = 0; !isOver; ++turn) {
      const std::size_t which = turn % (kFaults.size() + 2);
      if (which < kFaults.size()) {
        proxy_.setFault(kFaults[which]);
      } else if (which == kFaults.size()) {
        server_.endSessions();
      } else {
        server_.setOutOfDescriptors(true);
      }
      std::this_thread::sleep_for(kFault);
      proxy_.setFault(Fault::None);
      server_.setOutOfDescriptors(false);
      std::this_thread::sleep_for(kPeace);
    }
  }

  // At rest. What was done and is not yet forgotten, such as the transfers of the last minute, is no growth.
  json usage() {
    for (int folder = 0; folder < kFolders; ++folder) {
      ask(*peer_, {{"op", folder == 0 ? "watch" : "unwatch"}, {"path", "Files/folder " + std::to_string(folder)}});
    }
    // An hour passes, too, in which litter is looked for.
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(sendAll(*peer_), std::set<std::string>()) << "nobody else writes there";
      expectAgreement(*peer_, server_);
      ask(*peer_, {{"op", "advance"}, {"seconds", 1800}});
    }
    // Connections come and go with what was asked for last. A lost one is closed when somebody wants it.
    proxy_.setFault(FaultProxy::Fault::Refuse);
    json usage;
    do {
      ask(*peer_, {{"op", "advance"}, {"seconds", 60}});
      ask(*peer_, {{"op", "refresh"}, {"path", "Files"}});
      usage = ask(*peer_, {{"op", "usage"}});
    } while (usage["descriptors"].contains("connection"));
    proxy_.setFault(FaultProxy::Fault::None);
    return usage;
  }

  std::mt19937_64 random_;
  TemporaryDirectory work_;
  ServerProgram server_{work_.path()};
  FaultProxy proxy_;
  std::unique_ptr<ChildProcess> peer_;
  std::int64_t versions_ = 0;
  std::size_t operations_ = 0;
};

TEST(SoakTest, HoldsNoMoreInTheEndAndSettles) {
  Soak soak(seedOf("FLORVANE_SOAK_SEED"));
  soak.run(durationOf("FLORVANE_SOAK_SECONDS"));
}

}  // namespace
