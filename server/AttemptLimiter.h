#pragma once

#include "platform/Clock.h"

#include <cstddef>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace florvane {

// Makes guessing passwords slow without shutting anybody out: after a few failures the attempts from an address are
// answered one after another, ever further apart, and the attempts on a user wait up to two seconds wherever they come
// from. Failures are forgotten a quarter of an hour after the last one. Thread-safe.
class AttemptLimiter {
 public:
  explicit AttemptLimiter(Clock& clock) : clock_(clock) {}

  // How long the answer to a new attempt must be held back, usually not at all. Absent when so many attempts from the
  // address wait already that this one should be turned away.
  std::optional<Duration> delayForAttempt(const std::string& user, const std::string& address);
  void failed(const std::string& user, const std::string& address);
  // Clears the user's failures; the address's stay, or one known password would hide guesses at the others.
  void succeeded(const std::string& user);

 private:
  struct Entry {
    unsigned failures = 0;
    MonotonicTime lastFailure, nextTurn;
    std::list<std::string>::iterator place;
  };
  Entry* find(const std::string& key);
  void count(const std::string& key);
  void forget(const std::string& key);

  Clock& clock_;
  std::mutex mutex_;  // guards all below
  std::unordered_map<std::string, Entry> entries_;
  std::list<std::string> byLastFailure_;  // oldest first
};

}  // namespace florvane
