#pragma once

#include "platform/Error.h"

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

#include <sys/types.h>

namespace florvane {

// Folders whose names in the folders above are known to be on stable storage, so that the next file in one of them need
// not wait for that again. Thread-safe.
class DCSyncedFolders {
 public:
  // On return the name of the folder lasts, unless it is gone by then. Fine when it is.
  Result<void> syncNameOf(const std::string& folder);

 private:
  // Of this very folder: one that was removed and made again may have its inode, but not its birth.
  struct Identity {
    std::uint32_t deviceMajor = 0;
    std::uint32_t deviceMinor = 0;
    std::uint64_t inode = 0;
    std::int64_t bornSeconds = 0;
    std::uint32_t bornNanoseconds = 0;
    friend bool operator==(const Identity&, const Identity&) = default;
  };

  std::mutex mutex_;  // guards what follows
  std::unordered_map<std::string, Identity> known_;
};

}  // namespace florvane
