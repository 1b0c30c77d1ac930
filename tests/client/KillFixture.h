#pragma once

#include "tests/client/ClientProcess.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestServer.h"

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace florvane::test {

// How often a process is killed; detectors make each start slow.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int killsOf(int kills) { return kills / 10; }
#else
constexpr int killsOf(int kills) { return kills; }
#endif

// Clients of one container and one server, killed at moments that the seed chooses.
class Killing {
 public:
  explicit Killing(int seed) : random_(static_cast<std::uint64_t>(seed)) { std::printf("seed %d\n", seed); }

 protected:
  int pick(int below) { return static_cast<int>(random_() % static_cast<std::uint64_t>(below)); }
  // Each by a later clock than those before, so that it asks the server anew.
  std::unique_ptr<ChildProcess> start(std::vector<std::string> environment = {}) {
    return startClient(container_.path(), server_.port(), ahead_ += 11, std::move(environment));
  }
  static nlohmann::json listingOf(const std::string& path) { return {{"op", "list"}, {"path", path}, {"sync", true}}; }
  // A moment of the machine's own: what is under way is cut where it happens to be.
  void goOnFor(int mostMicroseconds) { std::this_thread::sleep_for(std::chrono::microseconds(pick(mostMicroseconds))); }

  TestServer server_;
  TemporaryDirectory container_;
  int ahead_ = 0;

 private:
  std::mt19937_64 random_;
};

}  // namespace florvane::test
