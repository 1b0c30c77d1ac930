#pragma once

#include "Client/Client/Florvane.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <span>
#include <stop_token>
#include <string>
#include <thread>

#include <sys/types.h>

namespace florvane::tools {

// A copy of a file that is made, on a thread of its own, while the file is still being downloaded: in an unnamed file
// of the destination's folder, which is gone with the process. For one thread, besides its own.
class FollowingCopy {
 public:
  explicit FollowingCopy(std::string folder) : folder_(std::move(folder)) {}
  ~FollowingCopy();
  FollowingCopy(const FollowingCopy&) = delete;
  FollowingCopy& operator=(const FollowingCopy&) = delete;

  // Follows the file from its beginning, and no longer the one before if that was another. Nothing is followed where
  // there is no point in it: no unnamed files or not twice the room there, or a file system that copies without
  // writing. The size is the one in the end, in bytes; 0 when it is not known.
  void follow(const std::string& path, std::int64_t size);
  // The copy, when the file that was followed has become that one and nobody has written to it since; else invalid.
  FileDescriptor finish(const std::string& cached);

 private:
  void run(const std::stop_token& stopped);
  void writeDirectly(bool directly);
  bool copyPiece(std::span<std::uint8_t> piece);
  void stop();

  const std::string folder_;
  std::string path_;
  FileDescriptor source_, copy_;
  timespec begun_{};
  off_t copied_ = 0;  // bytes
  bool isDirect_ = false, mayBeDirect_ = false;
  std::jthread thread_;
  std::mutex mutex_;  // guards nothing but the pause
  std::condition_variable_any pause_;
};

}  // namespace florvane::tools
