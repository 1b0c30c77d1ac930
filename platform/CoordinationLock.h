#pragma once

#include "platform/Error.h"
#include "platform/FileSystem.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace florvane {

// One item that an operation reads or writes. The path must have been resolved (resolvedItemPath).
struct CoordinatedItem {
  enum class Access : std::uint8_t {
    Read,       // shared with other readers
    Write,      // of the item itself: alone
    WriteTree,  // of the item and all below it: alone, nobody is below. For moving, deleting, replacing
  };
  std::string path;
  Access access = Access::Read;
};

// Locks of an operation's items, shared by processes and by threads, given back when this goes, even by a crash. Every
// path has two bytes of one lock file, at a place that a stable hash gives: one for the item, one for the tree below
// it, which whoever is below shares. All bytes of an operation are taken in ascending order, so operations never wait
// for each other in a circle; paths whose hashes collide only wait longer. What the calling thread holds already is not
// locked again. Belongs to the thread that made it and ends before those made earlier.
class CoordinationLock {
 public:
  // Blocks until all is held or the timeout has passed. Errors in POSIXErrorDomain: ETIMEDOUT, EDEADLK when the thread
  // reads already what it now asks to write (two such would wait for each other); else as in FileSystem.h, writing.
  static Result<CoordinationLock> acquire(const std::string& lockFile, const std::vector<CoordinatedItem>& items,
                                          std::optional<std::chrono::milliseconds> timeout = {});
  CoordinationLock(CoordinationLock&& other) noexcept;
  CoordinationLock& operator=(CoordinationLock&&) = delete;
  ~CoordinationLock();

 private:
  CoordinationLock(FileDescriptor descriptor, std::size_t held) : descriptor_(std::move(descriptor)), held_(held) {}
  FileDescriptor descriptor_;
  std::size_t held_;  // entries of this lock at the end of the thread's list
};

}  // namespace florvane
