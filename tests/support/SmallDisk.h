#pragma once

#include "platform/FileSystem.h"

#include <cstddef>
#include <optional>
#include <string>

namespace florvane::test {

// A disk of so many bytes, mounted on a folder for this process and its children alone. To be made before there are
// other threads; what needs no such disk is to be made before TMPDIR names it.
class SmallDisk {
 public:
  SmallDisk(std::string folder, std::size_t bytes);
  ~SmallDisk();
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  // Why this machine does not let a process have a disk of its own; absent when it does.
  const std::optional<std::string>& obstacle() const { return obstacle_; }
  // Fills all but so many bytes, in whole pages.
  void leave(std::size_t bytes);
  // Gives back what leave() has taken.
  void release();

 private:
  const std::string folder_;
  std::optional<std::string> obstacle_;
  FileDescriptor filler_;
};

}  // namespace florvane::test
