#pragma once

#include "common/FVFFreshObjectFlusher.h"
#include "platform/Format.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace florvane {

// A list whose entries vanish a fixed time after they were added. Flushing costs what it drops. Thread-safe; objects
// and metadata that are dropped are destroyed outside the lock.
template <typename Object, typename Metadata>
class FVFFreshObjectQueue {
 public:
  struct Entry {
    Object object;
    Date date;  // when it was added
    std::optional<Metadata> metadata;
    friend bool operator==(const Entry&, const Entry&) = default;
  };
  // Names an entry for removeEntry(); grows with each entry.
  using Identifier = std::uint64_t;

  explicit FVFFreshObjectQueue(FVFObjectLifetime lifetime, Clock& clock = Clock::system())
      : state_(std::make_shared<State>(lifetime, clock)) {}
  FVFFreshObjectQueue(const FVFFreshObjectQueue&) = delete;
  FVFFreshObjectQueue& operator=(const FVFFreshObjectQueue&) = delete;

  Identifier addObject(Object object, std::optional<Metadata> andMetadata = std::nullopt) {
    std::lock_guard lock(state_->mutex);
    FVFFreshObjectFlusher& flusher = state_->flusher;
    Identifier identifier = state_->nextIdentifier++;
    state_->entries.emplace_hint(
        state_->entries.end(), identifier,
        Stored{{std::move(object), flusher.clock().now(), std::move(andMetadata)}, flusher.clock().monotonicNow()});
    if (state_->entries.size() == 1) state_->_renewFlusher();
    return identifier;
  }

  // The entry at an index from the oldest, expired or not; absent at or beyond the count. Costs its index: use
  // forEachFromNewest() for walks.
  std::optional<Object> objectAtIndex(std::size_t index, std::optional<Metadata>* metadata = nullptr,
                                      Date* date = nullptr) const {
    std::lock_guard lock(state_->mutex);
    if (index >= state_->entries.size()) return std::nullopt;
    const Entry& entry = std::next(state_->entries.begin(), static_cast<std::ptrdiff_t>(index))->second.entry;
    if (metadata) *metadata = entry.metadata;
    if (date) *date = entry.date;
    return entry.object;
  }
  // The newest object, never an expired one.
  std::optional<Object> lastObject() const {
    std::optional<Object> last;
    forEachFromNewest([&](const Entry& entry) {
      last = entry.object;
      return false;
    });
    return last;
  }
  // Visits what is not expired, the newest first, while the visitor returns true. The visitor runs under the queue's
  // lock and must not call the queue.
  template <typename Visitor>
  void forEachFromNewest(Visitor&& visitor) const {
    Dropped dropped;
    std::lock_guard lock(state_->mutex);
    state_->_flushOldObjects(dropped);
    for (auto entry = state_->entries.rbegin(); entry != state_->entries.rend(); ++entry) {
      if (!visitor(std::as_const(entry->second.entry))) return;
    }
  }

  void removeLastObject() {
    Dropped dropped;
    std::lock_guard lock(state_->mutex);
    if (!state_->entries.empty()) state_->remove(std::prev(state_->entries.end()), dropped);
  }
  // False when that entry is no longer there.
  bool removeEntry(Identifier identifier) {
    Dropped dropped;
    std::lock_guard lock(state_->mutex);
    auto entry = state_->entries.find(identifier);
    if (entry == state_->entries.end()) return false;
    state_->remove(entry, dropped);
    return true;
  }
  // These two compare with the entries themselves, not with the objects inside them: only an Entry can be contained.
  template <typename T>
  bool containsObject([[maybe_unused]] const T& object) const {
    if constexpr (std::is_same_v<T, Entry>) {
      std::lock_guard lock(state_->mutex);
      for (const auto& [identifier, stored] : state_->entries) {
        if (stored.entry == object) return true;
      }
    }
    return false;
  }
  template <typename T>
  void removeObject([[maybe_unused]] const T& object) {
    if constexpr (std::is_same_v<T, Entry>) {
      Dropped dropped;
      std::lock_guard lock(state_->mutex);
      for (auto entry = state_->entries.begin(); entry != state_->entries.end();) {
        auto next = std::next(entry);
        if (entry->second.entry == object) state_->remove(entry, dropped);
        entry = next;
      }
    }
  }

  // That of the oldest entry; absent when there is none.
  std::optional<Identifier> firstIdentifier() const {
    std::lock_guard lock(state_->mutex);
    if (state_->entries.empty()) return std::nullopt;
    return state_->entries.begin()->first;
  }

  // How many are not expired.
  std::size_t count() const {
    Dropped dropped;
    std::lock_guard lock(state_->mutex);
    state_->_flushOldObjects(dropped);
    return state_->entries.size();
  }
  // How many were dropped by expiry since the queue was made.
  std::uint64_t expiredObjectsCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->expired;
  }
  void flushOldObjects() { state_->flushOldObjects(); }

  std::string description() const {
    std::size_t present = count();
    return format("<%@ lifetime=%@, count=%zu, expired=%llu>", baseDescription("FVFFreshObjectQueue", this),
                  state_->flusher.lifetime().count(), present, expiredObjectsCount());
  }
  // With the objects that can be printed, newest first.
  std::string debugDescription() const {
    std::string text = description();
    if constexpr (std::is_constructible_v<FormatArgument, const Object&>) {
      forEachFromNewest([&](const Entry& entry) {
        text += format("\n  %@ %@", entry.date, entry.object);
        return true;
      });
    }
    return text;
  }

 private:
  struct Stored {
    Entry entry;
    MonotonicTime storedAt;
  };
  using Entries = std::map<Identifier, Stored>;
  using Dropped = std::vector<typename Entries::node_type>;

  // Shared with the timer's handler, which may be running while the queue goes.
  struct State : std::enable_shared_from_this<State> {
    State(FVFObjectLifetime lifetime, Clock& clock) : flusher(lifetime, clock) {}

    void remove(typename Entries::iterator entry, Dropped& dropped) {
      dropped.push_back(entries.extract(entry));
      if (entries.empty()) flusher.cancel();
    }
    void _flushOldObjects(Dropped& dropped) {
      MonotonicTime now = flusher.clock().monotonicNow();
      bool any = false;
      while (!entries.empty() && flusher.isExpired(entries.begin()->second.storedAt, now)) {
        remove(entries.begin(), dropped);
        ++expired;
        any = true;
      }
      if (any && !entries.empty()) _renewFlusher();
    }
    void _renewFlusher() {
      flusher.renew([weak = this->weak_from_this()] {
        if (auto state = weak.lock()) state->flushByTimer();
      });
    }
    void flushOldObjects() {
      Dropped dropped;
      std::lock_guard lock(mutex);
      _flushOldObjects(dropped);
    }
    // The timer is spent: unlike after other flushes it must be set again even when nothing was dropped.
    void flushByTimer() {
      Dropped dropped;
      std::lock_guard lock(mutex);
      _flushOldObjects(dropped);
      if (dropped.empty() && !entries.empty()) _renewFlusher();
    }

    std::mutex mutex;  // guards everything below
    FVFFreshObjectFlusher flusher;
    Entries entries;
    Identifier nextIdentifier = 0;
    std::uint64_t expired = 0;
  };

  std::shared_ptr<State> state_;
};

}  // namespace florvane
