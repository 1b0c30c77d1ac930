#pragma once

#include "platform/Date.h"

#include <algorithm>
#include <chrono>
#include <random>

namespace florvane {

// The pauses between attempts at something that fails: 1 s doubling to 60 s, each up to a quarter shorter at random so
// that clients do not come back all at once. For one thread at a time.
class FVFBackOff {
 public:
  static constexpr Duration firstPause = std::chrono::seconds(1);
  static constexpr Duration longestPause = std::chrono::seconds(60);

  Duration next() {
    std::uniform_int_distribution<Duration::rep> jitter(pause_.count() * 3 / 4, pause_.count());
    pause_ = std::min(pause_ * 2, longestPause);
    return Duration(jitter(random_));
  }
  // The next pause is the first again.
  void reset() { pause_ = firstPause; }

 private:
  Duration pause_ = firstPause;
  std::minstd_rand random_{std::random_device()()};
};

}  // namespace florvane
