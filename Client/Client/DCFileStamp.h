#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include <sys/stat.h>

namespace florvane {

// How a file or a folder looked, to tell whether it was replaced or written since. Compared as a whole.
struct DCFileStamp {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  std::int64_t modified = 0;  // nanoseconds since 1970
  std::int64_t changed = 0;   // of the status; nobody can choose it
  friend bool operator==(const DCFileStamp&, const DCFileStamp&) = default;

  // Absent when there is nothing.
  static std::optional<DCFileStamp> of(const std::string& path) {
    struct stat status{};
    if (stat(path.c_str(), &status) != 0) return std::nullopt;
    return DCFileStamp{status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim),
                       nanoseconds(status.st_ctim)};
  }
  bool isSameFile(const DCFileStamp& other) const { return device == other.device && inode == other.inode; }
  // Whether a change after this look would show: not while the tick of the clock runs in which the last one happened.
  bool willShowChanges() const {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    constexpr std::int64_t tick = 20'000'000;  // longer than that of any file system
    return changed + tick <= nanoseconds(now);
  }

 private:
  static std::int64_t nanoseconds(const timespec& time) {
    constexpr std::int64_t perSecond = 1'000'000'000;
    return static_cast<std::int64_t>(time.tv_sec) * perSecond + time.tv_nsec;
  }
};

}  // namespace florvane
