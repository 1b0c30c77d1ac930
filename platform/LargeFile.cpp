#include "platform/LargeFile.h"

#include "platform/BackgroundThread.h"
#include "platform/FileSystem.h"

#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

namespace florvane {

namespace {

constexpr off_t kLargeFile = off_t{8} << 20U;  // bytes

}  // namespace

Result<void> removeLargeFile(const std::string& path) {
  FileDescriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  auto removed = removeItem(path);
  struct stat status{};
  const bool isLast = removed && file.valid() && fstat(file.get(), &status) == 0 && status.st_nlink == 0;
  if (!isLast || status.st_size < kLargeFile) return removed;
  try {
    startBackgroundThread("florvane.free", [last = std::move(file)]() mutable { last.close(); });
  } catch (const std::system_error&) {
    return removed;  // no more threads: what was meant for one is freed by now
  }
  return removed;
}

}  // namespace florvane
