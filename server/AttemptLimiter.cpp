#include "server/AttemptLimiter.h"

#include <algorithm>
#include <chrono>

namespace florvane {

namespace {

using namespace std::chrono_literals;

constexpr unsigned kFreeFailures = 5;
constexpr Duration kFirstInterval = 250ms, kLongestInterval = 8s;
constexpr Duration kLongestWaitForUser = 2s;
// Below the 30 seconds of silence after which clients give up.
constexpr Duration kLongestWaitForAddress = 20s;
constexpr Duration kMemory = 15min;
constexpr std::size_t kMaximumEntries = 20'000;

std::string userKey(const std::string& user) { return "u" + user; }
std::string addressKey(const std::string& address) { return "a" + address; }

Duration interval(unsigned failures) {
  if (failures < kFreeFailures) return {};
  return std::min(kLongestInterval, kFirstInterval * (1 << std::min(failures - kFreeFailures, 10U)));
}

}  // namespace

std::optional<Duration> AttemptLimiter::delayForAttempt(const std::string& user, const std::string& address) {
  std::lock_guard lock(mutex_);
  MonotonicTime now = clock_.monotonicNow();
  Duration delay{};
  if (Entry* entry = find(userKey(user))) delay = std::min(interval(entry->failures), kLongestWaitForUser);
  if (Entry* entry = find(addressKey(address)); entry && entry->failures >= kFreeFailures) {
    MonotonicTime turn = std::max(now, entry->nextTurn);
    auto wait = std::chrono::duration_cast<Duration>(turn - now);
    if (wait > kLongestWaitForAddress) return std::nullopt;
    entry->nextTurn = turn + interval(entry->failures);
    delay = std::max(delay, wait);
  }
  return delay;
}

void AttemptLimiter::failed(const std::string& user, const std::string& address) {
  std::lock_guard lock(mutex_);
  count(userKey(user));
  count(addressKey(address));
}

void AttemptLimiter::succeeded(const std::string& user) {
  std::lock_guard lock(mutex_);
  forget(userKey(user));
}

AttemptLimiter::Entry* AttemptLimiter::find(const std::string& key) {
  auto found = entries_.find(key);
  if (found == entries_.end()) return nullptr;
  if (clock_.monotonicNow() - found->second.lastFailure < kMemory) return &found->second;
  forget(key);
  return nullptr;
}

void AttemptLimiter::count(const std::string& key) {
  Entry* entry = find(key);
  if (entry) {
    byLastFailure_.erase(entry->place);
  } else {
    if (entries_.size() >= kMaximumEntries) forget(std::string(byLastFailure_.front()));
    entry = &entries_[key];
  }
  ++entry->failures;
  entry->lastFailure = clock_.monotonicNow();
  entry->nextTurn = std::max(entry->nextTurn, entry->lastFailure + interval(entry->failures));
  entry->place = byLastFailure_.insert(byLastFailure_.end(), key);
}

void AttemptLimiter::forget(const std::string& key) {
  auto found = entries_.find(key);
  if (found == entries_.end()) return;
  byLastFailure_.erase(found->second.place);
  entries_.erase(found);
}

}  // namespace florvane
