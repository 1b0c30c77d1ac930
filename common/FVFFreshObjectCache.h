#pragma once

#include "common/FVFFreshObjectFlusher.h"
#include "platform/Exceptions.h"
#include "platform/Format.h"

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

namespace florvane {

struct FVFFreshObjectCacheOptions {
  // Keeps an index by metadata, which every entry then needs.
  bool enableObjectForMetadata = false;
  // Every successful read starts an entry's lifetime anew.
  bool enableRefresh = false;
};

// A cache whose entries vanish a fixed time after they were stored or, with refresh enabled, last read. Of two entries
// with equal metadata the one stored last answers for it. Thread-safe; flushing costs what it drops.
template <typename Key, typename Object, typename Metadata = std::monostate, typename KeyHash = std::hash<Key>,
          typename MetadataHash = std::hash<Metadata>>
class FVFFreshObjectCache {
 public:
  explicit FVFFreshObjectCache(FVFObjectLifetime lifetime, FVFFreshObjectCacheOptions options = {},
                               Clock& clock = Clock::system())
      : state_(std::make_shared<State>(lifetime, options, clock)) {}
  FVFFreshObjectCache(const FVFFreshObjectCache&) = delete;
  FVFFreshObjectCache& operator=(const FVFFreshObjectCache&) = delete;

  void setObject(Object object, const Key& forKey) { setObject(std::move(object), std::nullopt, forKey); }
  // Throws InvalidArgumentException "null metadata" when there is none though an index is kept by it.
  void setObject(Object object, std::optional<Metadata> andMetadata, const Key& forKey) {
    Entries dropped;
    std::lock_guard lock(state_->mutex);
    state_->_setEntry(std::move(object), std::move(andMetadata), forKey, dropped);
  }

  // Absent when there is none or it has expired. `refreshDate` is when the entry was stored or last refreshed before
  // this read.
  std::optional<Object> objectForKey(const Key& key, std::optional<Metadata>* metadata = nullptr,
                                     Date* refreshDate = nullptr) {
    Entries dropped;
    std::lock_guard lock(state_->mutex);
    auto found = state_->cache.find(key);
    if (found == state_->cache.end()) return std::nullopt;
    return state_->read(found->second, nullptr, metadata, refreshDate, dropped);
  }
  std::optional<Object> objectForMetadata(const Metadata& metadata, std::optional<Key>* key = nullptr,
                                          Date* refreshDate = nullptr) {
    Entries dropped;
    std::lock_guard lock(state_->mutex);
    auto found = state_->cacheByMetadata.find(metadata);
    if (found == state_->cacheByMetadata.end()) return std::nullopt;
    return state_->read(found->second, key, nullptr, refreshDate, dropped);
  }

  void removeObjectForKey(const Key& key) {
    Entries dropped;
    std::lock_guard lock(state_->mutex);
    if (auto found = state_->cache.find(key); found != state_->cache.end()) state_->remove(found->second, dropped);
    if (state_->entries.empty()) state_->flusher.cancel();
  }
  void removeAllObjects() {
    Entries dropped;
    std::lock_guard lock(state_->mutex);
    state_->cache.clear();
    state_->cacheByMetadata.clear();
    dropped.swap(state_->entries);
    state_->flusher.cancel();
  }

  // These two do not flush; oldest first.
  std::vector<Key> allKeys() const {
    std::lock_guard lock(state_->mutex);
    std::vector<Key> keys;
    keys.reserve(state_->entries.size());
    for (const Entry& entry : state_->entries) keys.push_back(entry.key);
    return keys;
  }
  std::vector<Object> allValues() const {
    std::lock_guard lock(state_->mutex);
    std::vector<Object> values;
    values.reserve(state_->entries.size());
    for (const Entry& entry : state_->entries) values.push_back(entry.object);
    return values;
  }
  // How many are not expired.
  std::size_t count() const {
    Entries dropped;
    std::lock_guard lock(state_->mutex);
    state_->_flushOldObjects(dropped);
    return state_->entries.size();
  }
  // How many were dropped by expiry since the cache was made.
  std::uint64_t expiredObjectsCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->expired;
  }
  void flushOldObjects() { state_->flushOldObjects(); }

  std::string description() const {
    std::size_t present = count();
    return format("<%@ lifetime=%@, count=%zu, expired=%llu>", baseDescription("FVFFreshObjectCache", this),
                  state_->flusher.lifetime().count(), present, expiredObjectsCount());
  }
  // With the keys that can be printed.
  std::string debugDescription() const {
    std::string text = description();
    if constexpr (std::is_constructible_v<FormatArgument, const Key&>) {
      for (const Key& key : allKeys()) text += format("\n  %@", key);
    }
    return text;
  }

 private:
  struct Entry {
    Key key;
    Object object;
    std::optional<Metadata> metadata;
    Date refresh;
    MonotonicTime refreshedAt;
  };
  using Entries = std::list<Entry>;  // by refreshedAt, so that what expires stands in front
  using Place = typename Entries::iterator;

  // Shared with the timer's handler, which may be running while the cache goes. Dropped entries are destroyed by the
  // callers after the lock.
  struct State : std::enable_shared_from_this<State> {
    State(FVFObjectLifetime lifetime, FVFFreshObjectCacheOptions chosen, Clock& clock)
        : options(chosen), flusher(lifetime, clock) {}

    void _setEntry(Object object, std::optional<Metadata> andMetadata, const Key& forKey, Entries& dropped) {
      if (options.enableObjectForMetadata && !andMetadata) throw InvalidArgumentException("null metadata");
      bool wasEmpty = entries.empty();
      if (auto old = cache.find(forKey); old != cache.end()) remove(old->second, dropped);
      Clock& clock = flusher.clock();
      auto entry = entries.insert(
          entries.end(), Entry{forKey, std::move(object), std::move(andMetadata), clock.now(), clock.monotonicNow()});
      cache.emplace(forKey, entry);
      if (options.enableObjectForMetadata) cacheByMetadata.insert_or_assign(*entry->metadata, entry);
      if (wasEmpty) _renewFlusher();
    }
    void remove(Place entry, Entries& dropped) {
      cache.erase(entry->key);
      if (options.enableObjectForMetadata) {
        auto indexed = cacheByMetadata.find(*entry->metadata);
        if (indexed != cacheByMetadata.end() && indexed->second == entry) cacheByMetadata.erase(indexed);
      }
      dropped.splice(dropped.end(), entries, entry);
    }
    std::optional<Object> read(Place entry, std::optional<Key>* key, std::optional<Metadata>* metadata,
                               Date* refreshDate, Entries& dropped) {
      MonotonicTime now = flusher.clock().monotonicNow();
      if (flusher.isExpired(entry->refreshedAt, now)) {
        _flushOldObjects(dropped);
        return std::nullopt;
      }
      if (key) *key = entry->key;
      if (metadata) *metadata = entry->metadata;
      if (refreshDate) *refreshDate = entry->refresh;
      if (options.enableRefresh) {
        entry->refresh = flusher.clock().now();
        entry->refreshedAt = now;
        entries.splice(entries.end(), entries, entry);
      }
      return entry->object;
    }
    void _flushOldObjects(Entries& dropped) {
      MonotonicTime now = flusher.clock().monotonicNow();
      std::uint64_t before = expired;
      while (!entries.empty() && flusher.isExpired(entries.front().refreshedAt, now)) {
        remove(entries.begin(), dropped);
        ++expired;
      }
      if (entries.empty()) {
        flusher.cancel();
      } else if (expired != before) {
        _renewFlusher();
      }
    }
    void _renewFlusher() {
      flusher.renew([weak = this->weak_from_this()] {
        if (auto state = weak.lock()) state->flushByTimer();
      });
    }
    void flushOldObjects() {
      Entries dropped;
      std::lock_guard lock(mutex);
      _flushOldObjects(dropped);
    }
    // The timer is spent: unlike after other flushes it must be set again even when nothing was dropped.
    void flushByTimer() {
      Entries dropped;
      std::lock_guard lock(mutex);
      _flushOldObjects(dropped);
      if (dropped.empty() && !entries.empty()) _renewFlusher();
    }

    const FVFFreshObjectCacheOptions options;
    std::mutex mutex;  // guards everything below
    FVFFreshObjectFlusher flusher;
    Entries entries;
    std::unordered_map<Key, Place, KeyHash> cache;
    std::unordered_map<Metadata, Place, MetadataHash> cacheByMetadata;
    std::uint64_t expired = 0;
  };

  std::shared_ptr<State> state_;
};

}  // namespace florvane
