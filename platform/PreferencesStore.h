#pragma once

#include "platform/Error.h"
#include "platform/Value.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace florvane {

// A key/value store in one property-list file (mode 0600) that several processes share: read when the file has changed,
// written atomically under a lock on a file beside it. Writes are on disk when the call returns. An unreadable or
// damaged file is an error for every call and is never overwritten with less. Thread-safe; objects on the same path
// may coexist in one process.
class PreferencesStore {
 public:
  explicit PreferencesStore(std::string path);
  ~PreferencesStore();

  Result<std::optional<Value>> read(std::string_view key) const;
  // Everything, as one consistent snapshot.
  Result<Dictionary> snapshot() const;
  // Reads, changes and writes as one step under the lock; nothing is written when the change leaves it equal. The
  // change may read this store but not update it.
  Result<void> update(const std::function<void(Dictionary&)>& change);
  // Absent removes the key.
  Result<void> set(std::string_view key, std::optional<Value> value);
  // Flushes file and folder to stable storage.
  Result<void> synchronize();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace florvane
