#include "Client/Client/DCTemporarySweeper.h"

#include "Client/Client/DCLog.h"
#include "Client/Client/DCPath.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr Duration kInterval = std::chrono::hours(1);
constexpr Duration kAgeOfLitter = std::chrono::hours(1);
// The names of files that nobody looks for again once their maker is gone.
constexpr std::array<std::string_view, 4> kPrefixes = {"upload-response-", ".florvane-tmp-", "download-", "reading-"};

bool isTemporary(std::string_view name) {
  return std::any_of(kPrefixes.begin(), kPrefixes.end(),
                     [&](std::string_view prefix) { return name.starts_with(prefix); });
}

}  // namespace

DCTemporarySweeper& DCTemporarySweeper::shared() {
  static auto* sweeper = new DCTemporarySweeper;
  return *sweeper;
}

void DCTemporarySweeper::sweepIfDue(const Clock& clock) {
  {
    std::lock_guard lock(mutex_);
    const MonotonicTime now = clock.monotonicNow();
    if (lastSweep_ && now >= *lastSweep_ && now - *lastSweep_ < kInterval) return;
    lastSweep_ = now;
  }
  if (auto folder = DUTemporaryDirectory()) sweep(*folder, clock.now());
}

void DCTemporarySweeper::sweep(const std::string& folder, Date now) {
  std::error_code error;
  std::filesystem::directory_iterator entries(folder, error), end;
  while (!error && entries != end) {
    const std::string path = entries->path().string();
    struct stat status{};
    // A file's date may be the server's; that of its status is ours.
    if (isTemporary(entries->path().filename().string()) && lstat(path.c_str(), &status) == 0 &&
        S_ISREG(status.st_mode) && now - Date::fromTimespec(status.st_ctim) > kAgeOfLitter) {
      if (unlink(path.c_str()) == 0) {
        DCLogInfo("Removed '%@', which a process that has ended left behind", path);
      } else if (errno != ENOENT) {
        DCLogWarning("Unable to remove '%@': %s", path, std::strerror(errno));
      }
    }
    entries.increment(error);
  }
}

}  // namespace florvane
