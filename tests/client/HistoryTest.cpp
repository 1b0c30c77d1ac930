// Six processes on one container for a while: two applications, a provider and the command line read and write, an
// editor changes the server's folder, and this one kills. Afterwards the history is gone through: every read was of a
// version that was there between the file's last confirmation and the answer, no acknowledged write is lost, and all
// agree with the server. FLORVANE_HISTORY_SECONDS asks for a longer one, FLORVANE_HISTORY_SEED for a certain one.

#include "tests/client/LivePeer.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <limits>
#include <memory>
#include <mutex>
#include <sstream>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

namespace {

using namespace florvane::test;
using nlohmann::json;
namespace fs = std::filesystem;

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kSecond = 1'000'000;
constexpr int kOperationsOfABatch = 100;
constexpr std::int64_t kOperationsOfAMinute = 20'000;
// A file is confirmed when an answer is taken in, which says what was when the server made it.
constexpr std::int64_t kLongestAnswer = kSecond;
// An upload's is kept until somebody takes it, past the agent's death and the application's.
constexpr std::int64_t kLongestKeptAnswer = 10 * kSecond;
constexpr std::int64_t kFirstOfEditor = 1'000'000;
// Whoever is killed, nobody waits until a limit of silence has passed.
constexpr std::int64_t kLongestOperation = 25 * kSecond;
// How long a file is fresh without being asked for.
constexpr std::int64_t kFreshness = 10 * kSecond;

std::int64_t now() {
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

struct Write {
  std::string path;
  std::int64_t version = 0, began = 0, ended = 0;  // killed over it: when that was noticed
  bool isAcknowledged = false;
};

struct Read {
  std::string who, path;
  std::int64_t version = 0, began = 0, ended = 0;
  std::int64_t confirmed = 0;  // 0 where nothing says so
};

// A version was at a path, from some moment between two to some moment before another.
struct Stay {
  std::int64_t before = 0, after = 0, until = kNever;
};

// A folder that moves keeps its files, whose newest contents may be answered to who asks by their older path.
std::string placeOf(std::string path) {
  if (const auto found = path.find("/outer/"); found != std::string::npos) path.replace(found, 7, "/inner/");
  return path;
}

class History {
 public:
  explicit History(std::uint64_t seed) : seed_(seed) {
    for (const char* folder : {"sources", "container"}) fs::create_directory(work_.file(folder));
    fs::permissions(work_.file("container"), fs::perms::owner_all);
  }
  ~History() {
    for (const auto& [who, target] : targets_) close(target);
    // The command line leaves some to finish its uploads.
    for (const char* program : {"florvane-transferd", "florvane"}) {
      for (pid_t process : processesOf(program, work_.file("container"))) kill(process, SIGKILL);
    }
  }

  void run(std::chrono::seconds duration) {
    ChildProcess editor(
        {FLORVANE_BIN_DIR "/history_editor", server_.files(), work_.file("parked"), std::to_string(seed_)});
    for (auto line = editor.readLine(); line && *line != "ready"; line = editor.readLine()) note(json::parse(*line));
    std::thread edits([&] {
      while (auto line = editor.readLine()) note(json::parse(*line));
    });
    const auto survivor = start("application");
    ask(*survivor, {{"op", "settle"}, {"path", ""}});

    end_ = now() + duration.count() * kSecond;
    std::vector<std::thread> workers;
    workers.emplace_back([&] { guarded([&] { use("application", *survivor); }); });
    workers.emplace_back([&] { guarded([&] { useAndRestart("other application"); }); });
    workers.emplace_back([&] { guarded([&] { useAndRestart("provider"); }); });
    workers.emplace_back([&] { guarded([&] { useCommandLine(); }); });
    killSome();
    for (auto& worker : workers) worker.join();
    editor.closeInput();
    edits.join();
    EXPECT_EQ(editor.wait(), 0);
    if (::testing::Test::HasFailure()) return;

    // What somebody was killed over, his next start finishes.
    const auto other = start("other application"), provider = start("provider");
    const auto conflicts = sendAll(*survivor);
    displaced_ = versionsBelow(work_.file("container/Recovered/Files/shared"));
    checkWrites(conflicts, *survivor);
    for (const Read& read : reads_) check(read);
    for (ChildProcess* each : {survivor.get(), other.get(), provider.get()}) {
      expectAgreement(*each, server_, conflicts);
      expectNothingElse(*each, conflicts);
    }
    checkCommandLine(conflicts);
    // What was done and is not yet forgotten, such as the transfers of the last minute, is no growth.
    for (int i = 0; i < 3; ++i) ask(*survivor, {{"op", "advance"}, {"seconds", 600}});
    expectAgreement(*survivor, server_, conflicts);
    expectNoGrowth(held_, ask(*survivor, {{"op", "usage"}}));
    expectNoAssertions(work_.file("log"));
    EXPECT_LT(longest_, kLongestOperation) << slowest_;
    report(conflicts.size());
  }

 private:
  // Of threads, where nothing else would catch it.
  template <typename Work>
  void guarded(const Work& work) {
    try {
      work();
    } catch (const std::exception& exception) {
      ADD_FAILURE() << exception.what();
      end_ = 0;
    }
  }

  // For 20,000 operations a minute, however long the machine takes.
  bool isOver() {
    std::lock_guard lock(mutex_);
    return now() >= end_ && (operations_ >= kOperationsOfAMinute || end_ == 0);
  }

  std::unique_ptr<ChildProcess> start(const std::string& who) {
    auto peer = makeLivePeer(work_.file("container"), server_.port(), who, work_.file("log"));
    if (who != "application") expose(who, *peer);
    try {
      if (!peer->readLine()) throw std::runtime_error(who + " did not start");
      ask(*peer, {{"op", "restart"}});
      if (who == "provider") ask(*peer, {{"op", "watch"}, {"path", "Files/theirs"}});
      if (who == "application") ask(*peer, {{"op", "watch"}, {"path", "Files/shared"}});
    } catch (const std::runtime_error&) {
      // Whoever uses it notices.
      if (peer->wait() != 128 + SIGKILL) throw;
    }
    return peer;
  }

  // Until somebody else takes the name; by a descriptor, since a number is given to another process in time.
  void expose(const std::string& who, const ChildProcess& process) {
    std::lock_guard lock(mutex_);
    if (auto old = targets_.extract(who)) close(old.mapped());
    if (const auto target = syscall(SYS_pidfd_open, process.pid(), 0); target >= 0) {
      targets_[who] = static_cast<int>(target);
    }
  }

  void killSome() {
    std::mt19937_64 random(seed_);
    while (!isOver()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100 + random() % 900));
      std::lock_guard lock(mutex_);
      if (const auto choice = random() % (targets_.size() + 1); choice < targets_.size()) {
        const auto& [who, target] = *std::next(targets_.begin(), static_cast<std::ptrdiff_t>(choice));
        if (syscall(SYS_pidfd_send_signal, target, SIGKILL, nullptr, 0) == 0) ++kinds_["kill of " + who];
      } else {
        for (pid_t process : processesOf("florvane-transferd", work_.file("container"))) kill(process, SIGKILL);
        ++kinds_["kill of agent"];
      }
      ++operations_;
    }
  }

  static std::string somePath(std::mt19937_64& random) {
    auto pick = [&random](int below) { return std::to_string(random() % static_cast<std::uint64_t>(below)); };
    switch (random() % 10) {
      case 0:
        return random() % 2 ? "Files/theirs/moving" : "Files/theirs/moved";
      case 1:
        return (random() % 2 ? "Files/theirs/inner/deep " : "Files/theirs/outer/deep ") + pick(3);
      case 2:
      case 3:
        return "Files/shared/file " + pick(8);
      case 4:
      case 5:
        return "Files/ours/file " + pick(8);
      default:
        return "Files/theirs/file " + pick(10);
    }
  }

  std::string source(std::int64_t version, int size) const {
    const std::string path = work_.file("sources/" + std::to_string(version));
    writeText(path, versionText(version, size));
    return path;
  }

  // What somebody does in one go. Writes happen even if he is killed over them.
  void work(const std::string& who, ChildProcess& peer, std::mt19937_64& random) {
    auto pick = [&random](int below) { return static_cast<int>(random() % static_cast<std::uint64_t>(below)); };
    std::vector<Write> writes;
    json batch = json::array();
    for (int i = 0; i < kOperationsOfABatch; ++i) {
      const int what = pick(100);
      const std::string path = somePath(random);
      if (what < 1) {
        const std::string target = (pick(3) == 0 ? "Files/shared/file " : "Files/ours/file ") + std::to_string(pick(8));
        writes.push_back({.path = target, .version = nextVersion_++, .began = now(), .ended = kNever});
        batch.push_back({{"op", "write"}, {"path", target}, {"source", source(writes.back().version, pick(5000))}});
      } else if (what < 5) {
        batch.push_back({{"op", "list"}, {"path", path.substr(0, path.rfind('/'))}});
      } else {
        batch.push_back({{"op", what < 40 ? "stat" : "read"}, {"path", path}});
      }
    }
    batch.push_back({{"op", "calls"}});
    try {
      note(who, batch, ask(peer, {{"op", "batch"}, {"of", batch}})["answers"], writes);
    } catch (const std::runtime_error&) {
      std::lock_guard lock(mutex_);
      for (Write& write : writes) {
        write.ended = now();
        writes_.push_back(write);
      }
      throw;
    }
  }

  void use(const std::string& who, ChildProcess& peer) {
    std::mt19937_64 random(seed_ * 1000 + nextRound_++);
    const std::int64_t third = now() + (end_ - now()) / 3;
    while (!isOver()) {
      work(who, peer, random);
      // Once with a connection to the agent, which may just have been killed.
      const bool isHeld = held_.is_object() && held_["threads"].contains("transfers");
      if (who == "application" && !isHeld && now() > third) held_ = ask(peer, {{"op", "usage"}});
    }
  }

  void useAndRestart(const std::string& who) {
    while (!isOver()) {
      const auto peer = start(who);
      try {
        use(who, *peer);
      } catch (const std::runtime_error&) {
        if (peer->wait() != 128 + SIGKILL) throw;
      }
    }
  }

  void note(const std::string& who, const json& requests, const json& answers, std::vector<Write>& writes) {
    std::lock_guard lock(mutex_);
    auto write = writes.begin();
    for (std::size_t i = 0; i < requests.size(); ++i) {
      const json &request = requests[i], &answer = answers[i];
      const std::string op = request["op"];
      ++operations_;
      ++kinds_[op];
      if (answer.contains("error") && !answer["error"].is_null()) {
        ++kinds_[op + " answered " + answer["error"]["text"].get<std::string>()];
      }
      const std::int64_t took = answer["ended"].get<std::int64_t>() - answer["began"].get<std::int64_t>();
      if (took > longest_) slowest_ = who + " " + request.dump();
      longest_ = std::max(longest_, took);
      if (op == "write") {
        write->began = answer["began"];
        write->ended = answer["ended"];
        write->isAcknowledged = answer["error"].is_null();
        writes_.push_back(*write++);
      } else if (op == "read" && !answer["version"].is_null()) {
        Read read{who, request["path"], answer["version"], answer["began"], answer["ended"], 0};
        if (!answer["confirmed"].is_null()) read.confirmed = answer["confirmed"];
        if (answer["state"] == 4) {
          read.confirmed = std::max(read.confirmed, read.began - kFreshness);
          if (!answer["listed"].is_null()) read.confirmed = std::max<std::int64_t>(read.confirmed, answer["listed"]);
        }
        reads_.push_back(std::move(read));
      } else if (op == "list" && answer["state"] != 2) {
        checkListing(who, request["path"], answer["began"], answer["items"]);
      }
    }
  }

  // What nobody removes is in the listings: certain files, and what clients have written where only they write.
  void checkListing(const std::string& who, const std::string& path, std::int64_t began, const json& items) {
    std::set<std::string> names, wanted;
    for (const json& item : items) names.insert(path + "/" + item["name"].get<std::string>());
    for (int file = 0; file < 10 && path == "Files/theirs"; ++file)
      wanted.insert(path + "/file " + std::to_string(file));
    for (const Write& write : writes_) {
      if (path == "Files/ours" && write.path.starts_with(path) && write.isAcknowledged && write.ended < began) {
        wanted.insert(write.path);
      }
    }
    for (const auto& each : wanted) EXPECT_TRUE(names.contains(each)) << who << " misses " << each << " in " << items;
  }

  // One command after the other, each a process.
  void useCommandLine() {
    std::mt19937_64 random(seed_ * 1000 + 999);
    while (!isOver()) {
      const int what = static_cast<int>(random() % 10);
      const std::string path = somePath(random);
      Write write{.path = "Files/ours/file " + std::to_string(random() % 8), .began = now()};
      std::vector<std::string> command{"cat", "office:" + path};
      if (what == 0) command = {"ls", "--json", "office:" + path.substr(0, path.rfind('/'))};
      if (what == 1) command = {"stat", "--json", "office:" + path};
      if (what == 2) command = {"uploads", "--json", "office"};
      if (what == 3) {
        write.version = nextVersion_++;
        command = {"put", source(write.version, 100), "office:" + write.path};
      }
      if (what == 4 || what == 5) command = {"cat", "--fresh", "office:" + path};
      auto [status, output] = commandLine(command);
      // No such item, no server for the moment, a conflict: what happens in such a history.
      const bool isExpected = std::set{0, 3, 5, 6, 128 + SIGKILL}.contains(status);
      EXPECT_TRUE(isExpected) << command[0] << " " << path << " ended with " << status << ": " << lastComplaint();
      std::lock_guard lock(mutex_);
      ++operations_;
      ++kinds_["command"];
      write.ended = now();
      write.isAcknowledged = status == 0;
      if (what == 3) writes_.push_back(write);
      if (command[0] != "cat" || status != 0) continue;
      const std::int64_t confirmed = command[1] == "--fresh" ? write.began - kFreshness : 0;
      reads_.push_back({"command line", path, versionOfText(output).value_or(-1), write.began, write.ended, confirmed});
    }
  }

  std::pair<int, std::string> commandLine(std::vector<std::string> command) {
    command.insert(command.begin(), {FLORVANE_BIN_DIR "/florvane", "--debug", "--container", work_.file("container")});
    ChildProcess process(command, {}, work_.file("log"));
    expose("command line", process);
    std::string output;
    while (auto line = process.readLine()) output += *line + "\n";
    return {process.wait(), output};
  }

  // Of the command line.
  std::string lastComplaint() const {
    std::string last;
    std::ifstream log(work_.file("log"));
    for (std::string line; std::getline(log, line);) {
      if (line.starts_with("florvane: ")) last = line;
    }
    return last;
  }

  void note(const json& change) {
    std::lock_guard lock(mutex_);
    ++operations_;
    ++kinds_["edit"];
    std::map<std::string, std::int64_t> puts;
    for (const auto& [path, version] : change["puts"].items()) {
      puts[placeOf(path)] = std::max(puts[placeOf(path)], version.get<std::int64_t>());
    }
    for (const auto& [path, version] : puts) {
      auto& present = present_[path];
      if (present) stays_[path][present].back().until = change["after"];
      present = version;
      if (version != 0) stays_[path][version].push_back({change["before"], change["after"], kNever});
    }
    if (!change["took"].is_null()) took_[change["took"]] = change["after"];
  }

  void check(const Read& read) {
    std::ostringstream what;
    what << read.who << " read version " << read.version << " of " << read.path << ", confirmed "
         << (read.ended - read.confirmed) / 1000 << " ms before";
    ASSERT_NE(read.version, -1) << what.str() << ": it is torn";
    const auto stay = stayOf(read);
    ASSERT_TRUE(stay) << what.str() << ": it was never there";
    const std::int64_t answer = read.version < kFirstOfEditor ? kLongestKeptAnswer : std::max(kLongestAnswer, longest_);
    EXPECT_GE(stay->until, read.confirmed - answer)
        << what.str() << ": it was gone since " << (read.ended - stay->until) / 1000 << " ms";
    oldest_ = std::max(oldest_, read.confirmed - stay->until);
    // Nobody sees what was before a write that has been acknowledged, unless its document was taken away, and another
    // put there, before it could be sent.
    for (const Write& write : writes_) {
      const bool isPast = write.isAcknowledged && write.path == read.path && write.ended < read.began &&
                          !displaced_.contains(write.version);
      EXPECT_FALSE(isPast && write.began > stay->after)
          << what.str() << ", but version " << write.version << " was written " << (read.began - write.ended) / 1000
          << " ms before";
    }
  }

  // The last stay of that version at that path that began before the answer.
  std::optional<Stay> stayOf(const Read& read) const {
    for (const Write& write : writes_) {
      if (write.version != read.version) continue;
      if (write.path != read.path || write.began > read.ended) return std::nullopt;
      const auto took = took_.find(write.version);
      return Stay{write.began, write.ended, took == took_.end() ? kNever : took->second};
    }
    std::optional<Stay> found;
    if (const auto path = stays_.find(placeOf(read.path)); path != stays_.end()) {
      if (const auto stays = path->second.find(read.version); stays != path->second.end()) {
        for (const Stay& stay : stays->second) {
          if (stay.before <= read.ended) found = stay;
        }
      }
    }
    return found;
  }

  static std::set<std::int64_t> versionsBelow(const std::string& folder) {
    std::set<std::int64_t> versions;
    if (!fs::exists(folder)) return versions;
    for (const auto& each : fs::recursive_directory_iterator(folder)) {
      if (each.is_regular_file()) versions.insert(versionOfText(readText(each.path())).value_or(-1));
    }
    return versions;
  }

  // Of each path the last write, or one that may have come after it, is somewhere.
  void checkWrites(const std::set<std::string>& conflicts, ChildProcess& peer) {
    std::set<std::int64_t> kept = versionsBelow(server_.files());
    kept.merge(versionsBelow(work_.file("container/Recovered")));
    for (const auto& [version, date] : took_) kept.insert(version);
    for (const auto& path : conflicts) {
      const json answer = ask(peer, {{"op", "read"}, {"path", path}});
      EXPECT_EQ(answer["state"], 2) << path << " is in conflict: " << answer;
      if (!answer["version"].is_null()) kept.insert(answer["version"].get<std::int64_t>());
    }
    EXPECT_FALSE(kept.contains(-1)) << "something is torn";
    std::map<std::string, const Write*> last;
    for (const Write& write : writes_) {
      const Write*& known = last[write.path];
      if (write.isAcknowledged && (!known || known->began < write.began)) known = &write;
    }
    for (const auto& [path, newest] : last) {
      const bool isKept = !newest || std::any_of(writes_.begin(), writes_.end(), [&](const Write& write) {
        return write.path == newest->path && write.ended >= newest->began && kept.contains(write.version);
      });
      EXPECT_TRUE(isKept) << "lost: version " << newest->version << " of " << path;
    }
  }

  // Nobody knows of what is in no listing.
  void expectNothingElse(ChildProcess& peer, const std::set<std::string>& conflicts) {
    std::set<std::string> paths;
    for (const Read& read : reads_) paths.insert(read.path);
    for (const auto& path : paths) {
      const bool isThere = fs::exists(server_.files() + path.substr(std::string("Files").size()));
      if (isThere || conflicts.contains(path)) continue;
      const json answer = ask(peer, {{"op", "stat"}, {"path", path}});
      EXPECT_FALSE(answer["error"].is_null()) << path << " is " << answer;
    }
  }

  void checkCommandLine(const std::set<std::string>& conflicts) {
    for (const auto& each : fs::recursive_directory_iterator(server_.files())) {
      const std::string path = "Files/" + each.path().lexically_relative(server_.files()).string();
      if (!each.is_regular_file() || conflicts.contains(path)) continue;
      auto [status, output] = commandLine({"cat", "--fresh", "office:" + path});
      EXPECT_EQ(status, 0) << path;
      EXPECT_EQ(output, readText(each.path())) << path;
    }
  }

  void report(std::size_t conflicts) const {
    std::printf("%lld operations; %zu conflicts; the longest took %lld ms, the oldest read was %lld ms too old:\n",
                static_cast<long long>(operations_), conflicts, static_cast<long long>(longest_ / 1000),
                static_cast<long long>(oldest_ / 1000));
    for (const auto& [kind, count] : kinds_) std::printf("  %d %s\n", count, kind.c_str());
  }

  const std::uint64_t seed_;
  TemporaryDirectory work_;
  ServerProgram server_{work_.path()};
  std::atomic<std::int64_t> end_ = kNever;
  std::atomic<std::int64_t> nextVersion_ = 1;
  std::atomic<std::uint64_t> nextRound_ = 0;

  std::mutex mutex_;  // guards what follows while there are threads
  std::map<std::string, int> targets_;
  std::int64_t operations_ = 0, longest_ = 0, oldest_ = 0;
  std::map<std::string, int> kinds_;
  std::string slowest_;
  json held_;  // by who is never killed, after a third of the time
  std::vector<Write> writes_;
  std::vector<Read> reads_;
  std::map<std::string, std::map<std::int64_t, std::vector<Stay>>> stays_;  // by path and version
  std::map<std::string, std::int64_t> present_;  // the version that the editor has left there
  std::map<std::int64_t, std::int64_t> took_;    // what he took away, and when
  std::set<std::int64_t> displaced_;             // in Recovered, since their documents were taken away
};

TEST(HistoryTest, EverybodySeesWhatWasThere) {
  History history(seedOf("FLORVANE_HISTORY_SEED"));
  history.run(durationOf("FLORVANE_HISTORY_SECONDS"));
}

}  // namespace
