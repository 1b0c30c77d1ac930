// Changes a share's folder as somebody at the server does, until its input ends.
//   history_editor FOLDER PARKED SEED
// What nobody else touches is in "theirs", what clients write, too, in "shared". The first line is "ready", then comes
// a line a change: {"before", "after": microseconds between which it happened, "puts": {path: version or 0 for none},
// "took": the version that was there before it, or null}.

#include "platform/Clock.h"
#include "tests/client/VersionText.h"
#include "tests/support/TemporaryDirectory.h"

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <unistd.h>

namespace {

using namespace florvane::test;
using nlohmann::json;
namespace fs = std::filesystem;

class Editor {
 public:
  Editor(fs::path folder, const fs::path& parked, const char* seed)
      : folder_(std::move(folder)), parked_(parked), random_(std::stoull(seed)) {}

  void run() {
    for (const char* each : {"theirs/inner", "shared", "ours"}) fs::create_directories(folder_ / each);
    for (int file = 0; file < 10; ++file) edit("theirs/file " + std::to_string(file));
    for (int file = 0; file < 3; ++file) edit("theirs/inner/deep " + std::to_string(file));
    edit("theirs/moving");
    for (int file = 0; file < 4; ++file) edit("shared/file " + std::to_string(file));
    std::cout << "ready" << std::endl;
    pollfd input{STDIN_FILENO, POLLIN, 0};
    while (poll(&input, 1, 10 + pick(60)) == 0) change();
  }

 private:
  int pick(int below) { return static_cast<int>(random_() % static_cast<std::uint64_t>(below)); }
  static std::int64_t now() { return florvane::Clock::system().now().microsecondsSince1970(); }

  void change() {
    const std::string shared = "shared/file " + std::to_string(pick(8));
    switch (pick(10)) {
      case 0:
        return remove(shared);
      case 1:
      case 2:
        return edit(shared);
      case 3:
        return swap("theirs/file " + std::to_string(pick(5)), "theirs/file " + std::to_string(5 + pick(5)));
      case 4:
        return move(moving_, moving_ == "theirs/moving" ? "theirs/moved" : "theirs/moving");
      case 5:
        return move(inner_, inner_ == "theirs/inner" ? "theirs/outer" : "theirs/inner");
      case 6:
        return edit(std::string(inner_).append("/deep ") + std::to_string(pick(3)));
      default:
        return edit("theirs/file " + std::to_string(pick(10)));
    }
  }

  bool rename(const std::string& from, const std::string& to, unsigned flags) {
    return renameat2(AT_FDCWD, (folder_ / from).c_str(), AT_FDCWD, (folder_ / to).c_str(), flags) == 0;
  }

  // The whole of a version at once, for whatever is there; that shows what it was.
  void edit(const std::string& path) {
    const std::int64_t version = ++newest_, before = now();
    writeText(parked_, versionText(version, pick(20) == 0 ? pick(300'000) : pick(3000)));
    bool isExchanged = false;
    // Somebody else may put a file there meanwhile, or for the first time.
    while (!(isExchanged = rename(parked_, path, RENAME_EXCHANGE)) && !rename(parked_, path, RENAME_NOREPLACE)) {
    }
    say(before, {{path, version}}, isExchanged);
  }

  void remove(const std::string& path) {
    const std::int64_t before = now();
    if (rename(path, parked_, 0)) say(before, {{path, 0}}, true);
  }

  void swap(const std::string& one, const std::string& other) {
    const std::int64_t before = now();
    if (!rename(one, other, RENAME_EXCHANGE)) throw std::runtime_error("swap");
    say(before, {{one, versions_[other]}, {other, versions_[one]}}, false);
  }

  // A file, or a folder with what is in it.
  void move(std::string& place, const std::string& to) {
    const std::string from = std::exchange(place, to);
    const std::int64_t before = now();
    if (!rename(from, to, RENAME_NOREPLACE)) throw std::runtime_error("move");
    std::map<std::string, std::int64_t> puts;
    for (const auto& [path, version] : versions_) {
      if (version == 0 || !path.starts_with(from)) continue;
      puts[path] = 0;
      puts[to + path.substr(from.size())] = version;
    }
    say(before, puts, false);
  }

  void say(std::int64_t before, const std::map<std::string, std::int64_t>& puts, bool takesParked) {
    json change = {{"before", before}, {"after", now()}, {"puts", json::object()}, {"took", nullptr}};
    for (const auto& [path, version] : puts) {
      versions_[path] = version;
      change["puts"]["Files/" + path] = version;
    }
    if (takesParked) {
      change["took"] = versionOfText(readText(parked_)).value_or(-1);
      fs::remove(parked_);
    }
    std::cout << change << std::endl;
  }

  const fs::path folder_;
  const std::string parked_;
  std::mt19937_64 random_;
  std::int64_t newest_ = 1'000'000;
  std::map<std::string, std::int64_t> versions_;
  std::string moving_ = "theirs/moving", inner_ = "theirs/inner";
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  try {
    Editor(argv[1], argv[2], argv[3]).run();
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "history_editor: %s\n", exception.what());
    return 1;
  }
  return 0;
}
