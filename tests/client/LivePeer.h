#pragma once

#include "tests/client/ClientProcess.h"
#include "tests/client/VersionText.h"
#include "tests/support/ServerProgram.h"
#include "tests/support/TemporaryDirectory.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace florvane::test {

// A client_peer that lives by the machine's clock, with its log at the end of a file. Its first line says that it is
// ready. What a thread's cache of memory keeps would count as in use.
inline std::unique_ptr<ChildProcess> makeLivePeer(const std::string& container, std::uint16_t port,
                                                  const std::string& bundle, const std::string& log) {
  return std::make_unique<ChildProcess>(
      std::vector<std::string>{FLORVANE_BIN_DIR "/client_peer", std::to_string(port), "live", bundle},
      std::vector<std::string>{"FLORVANE_CONTAINER=" + container, "GLIBC_TUNABLES=glibc.malloc.tcache_count=0"}, log);
}

// The paths that stay in conflict when everything else has been sent, what was given up, too; throws where that does
// not come.
inline std::set<std::string> sendAll(ChildProcess& peer) {
  nlohmann::json uploads;
  // Waits are the agent's and the client's own, of a second and more.
  for (int turn = 0; turn < 900; ++turn) {
    if (turn % 50 == 0) ask(peer, {{"op", "restart"}});
    std::set<std::string> conflicts;
    uploads = ask(peer, {{"op", "uploads"}})["uploads"];
    for (const auto& each : uploads) {
      const std::string error = each["error"];
      if (error.find("onflict") != std::string::npos) {
        conflicts.insert(each["path"]);
      } else if (!error.empty() && turn % 20 == 19) {
        ask(peer, {{"op", "upload"}, {"path", each["path"]}});
      }
    }
    if (conflicts.size() == uploads.size()) return conflicts;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  throw std::runtime_error("never sent: " + uploads.dump());
}

// Everybody who asks anew sees in the share "Files" what is in its folder; `except` are paths that are not compared.
inline void expectAgreement(ChildProcess& peer, const ServerProgram& server, const std::set<std::string>& except = {}) {
  std::map<std::string, std::int64_t> expected, seen;
  for (const auto& each : std::filesystem::recursive_directory_iterator(server.files())) {
    const std::string path = "Files/" + each.path().lexically_relative(server.files()).string();
    if (!each.is_regular_file() || except.contains(path)) continue;
    expected[path] = versionOfText(readText(each.path())).value_or(-1);
  }
  nlohmann::json settled, unconfirmed{nullptr};
  // A request may still find a connection that was lost.
  for (int attempt = 0; attempt < 9 && !unconfirmed.empty(); ++attempt) {
    settled = ask(peer, {{"op", "settle"}, {"path", "Files"}});
    unconfirmed = settled["errors"];
    for (const auto& [path, answer] : settled["files"].items()) {
      if (answer["state"] == 2 && !except.contains(path)) unconfirmed.push_back({path, answer});
    }
  }
  EXPECT_EQ(unconfirmed, nlohmann::json::array());
  for (const auto& [path, answer] : settled["files"].items()) {
    if (!except.contains(path)) seen[path] = answer["version"].is_null() ? 0 : answer["version"].get<std::int64_t>();
  }
  EXPECT_EQ(seen, expected);
}

// Of two answers to "usage": what there is more of; empty when nothing has grown. How many connections there are
// depends on what was asked for last, and with each come and go its buffers.
inline std::vector<std::string> growth(const nlohmann::json& before, const nlohmann::json& after) {
  constexpr std::int64_t kBuffersOfAConnection = 64;  // kibibytes
  std::vector<std::string> grown;
  auto compare = [&](const std::string& what, std::int64_t count, std::int64_t limit) {
    if (count > limit) grown.push_back(what + ": " + std::to_string(count) + ", not " + std::to_string(limit));
  };
  compare("kibibytes", after["kibibytes"].get<std::int64_t>(),
          before["kibibytes"].get<std::int64_t>() * 105 / 100 + kBuffersOfAConnection);
  for (const char* what : {"threads", "descriptors"}) {
    for (const auto& [kind, count] : after[what].items()) {
      int limit = before[what].value(kind, 0);
      if (kind == "connection") limit = count;
      // That of a queue is started when it first has to wait: of the database, of signing in, of the log. A service's
      // own bear the beginning of its identifier.
      if (kind == "quorl.florvane.") limit = std::max(limit, 3);
      if (kind.size() == 15 && kind[8] == '-' && kind[13] == '-') limit = std::max(limit, 2);
      // SQLite keeps that of a second connection, which looking for litter makes each hour, for the next one.
      if (kind.ends_with(".sqlite")) limit = std::max(limit, 2);
      compare(what + (" " + kind), count.get<int>(), limit);
    }
  }
  return grown;
}

inline void expectNoGrowth(const nlohmann::json& before, const nlohmann::json& after) {
  std::printf("held at first: %s\nin the end:    %s\n", before.dump().c_str(), after.dump().c_str());
  EXPECT_EQ(growth(before, after), std::vector<std::string>());
}

// But for those that are asked for: where a file is read that never came, where an upload has ended whose record
// another process has already taken away, and where somebody removed the file before the server could list it.
inline void expectNoAssertions(const std::string& log) {
  std::ifstream file(log);
  std::map<std::string, int> assertions;
  for (std::string line; std::getline(file, line);) {
    auto has = [&line](const char* text) { return line.find(text) != std::string::npos; };
    const bool isFailure = has("failed assertion") || line.starts_with("terminate");
    const bool isDemanded = (has("Client/Client/DCError:") && has("failed assertion '0'")) ||
                            (has("Client/Client/DCDocumentManager:") && has("failed assertion 'file'")) ||
                            has("failed assertion 'remoteMetadata'");
    if (isFailure && !isDemanded) ++assertions[line];
  }
  for (const auto& [text, count] : assertions) ADD_FAILURE() << count << " times: " << text;
}

inline std::uint64_t seedOf(const char* variable) {
  const char* asked = std::getenv(variable);
  const std::uint64_t seed = asked ? std::strtoull(asked, nullptr, 10) : std::random_device()();
  std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
  return seed;
}

// How long to go on, a minute where nothing else is asked for.
inline std::chrono::seconds durationOf(const char* variable) {
  const char* asked = std::getenv(variable);
  return std::chrono::seconds(asked ? std::atoi(asked) : 60);
}

}  // namespace florvane::test
