#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace florvane {

// One object per key for the life of the process, made on first demand. Only the look-up happens under the registry's
// lock: making an object may wait for a queue whose items ask the registry themselves. Thread-safe.
template <typename T>
class DCServiceRegistry {
 public:
  template <typename Make>
  std::shared_ptr<T> objectForKey(const std::string& key, Make&& make) {
    std::shared_ptr<Slot> slot;
    {
      std::lock_guard lock(mutex_);
      auto& entry = slots_[key];
      if (!entry) entry = std::make_shared<Slot>();
      slot = entry;
    }
    std::call_once(slot->once, [&] { slot->object = make(); });
    return slot->object;
  }

  // The next demand makes a new object.
  void removeObjectForKey(const std::string& key) {
    std::lock_guard lock(mutex_);
    slots_.erase(key);
  }

 private:
  struct Slot {
    std::once_flag once;
    std::shared_ptr<T> object;
  };
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<Slot>> slots_;
};

}  // namespace florvane
