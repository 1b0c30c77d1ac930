#include "Client/Client/DCTemporarySweeper.h"

#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCPath.h"
#include "platform/Encoding.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>
#include <unordered_set>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr Duration kInterval = std::chrono::hours(1);
constexpr Duration kAgeOfLitter = std::chrono::hours(1);
// Whoever types may take his time.
constexpr Duration kAgeOfInput = std::chrono::hours(24);
constexpr char kStoresFolder[] = "/db";
constexpr std::string_view kStoreExtension = ".sqlite";
constexpr std::size_t kDigestNameLength = 64;

struct Kind {
  std::string_view prefix;
  Duration age;
};
// The names of files that nobody looks for again once their maker is gone.
constexpr std::array<Kind, 5> kKinds = {{{"upload-response-", kAgeOfLitter},
                                         {".florvane-tmp-", kAgeOfLitter},
                                         {"download-", kAgeOfLitter},
                                         {"reading-", kAgeOfLitter},
                                         {"put-", kAgeOfInput}}};

bool isHexadecimal(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

// As DCManagedUpload names stable copies.
bool isNameOfUploadCopy(std::string name) {
  if (name.size() == kDigestNameLength && isHexadecimal(name)) return true;
  std::replace(name.begin(), name.end(), '_', '/');
  const auto decoded = base64Decode(name);
  if (!decoded) return false;
  const std::string_view text = decoded->view();
  const std::size_t dash = text.rfind('-');
  return dash != std::string_view::npos && dash > 0 && isHexadecimal(text.substr(dash + 1));
}

std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  std::filesystem::directory_iterator entries(folder, error), end;
  while (!error && entries != end) {
    names.push_back(entries->path().filename().string());
    entries.increment(error);
  }
  return names;
}

// Of the uploads of all services, also of those whose account is gone; absent when a store cannot be read.
std::optional<std::unordered_set<std::string>> pathsOfUploadCopies() {
  std::unordered_set<std::string> paths;
  DUPathVerifyPathSetup();
  const auto metadata = DUPathMetadataDirectoryPath();
  for (const std::string& name : namesIn(metadata ? *metadata + kStoresFolder : "")) {
    if (!name.ends_with(kStoreExtension)) continue;
    const std::string identifier = name.substr(0, name.size() - kStoreExtension.size());
    DCDatabase database(DCService::serviceWithHostName("localhost", identifier));
    if (database.storeError()) return std::nullopt;
    for (const auto& upload : database.allUploads()) {
      auto add = [&](const std::optional<Data>& generation) {
        auto copy = DCManagedUpload::temporaryUploadFileURLForItemAtPath(upload->path(), generation);
        if (copy) paths.insert(copy->path());
      };
      add(upload->generationIdentifier());
      for (const DCUploadAttempt& attempt : upload->attempts()) add(attempt.generationIdentifier);
    }
  }
  return paths;
}

// A file's date may be the server's; that of its status is ours.
bool isUntouchedFor(const std::string& path, Duration age, Date now) {
  struct stat status{};
  return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && now - Date::fromTimespec(status.st_ctim) > age;
}

void removeLitter(const std::string& path) {
  if (unlink(path.c_str()) == 0) {
    DCLogInfo("Removed '%@', which a process that has ended left behind", path);
  } else if (errno != ENOENT) {
    DCLogWarning("Unable to remove '%@': %s", path, std::strerror(errno));
  }
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
  const std::string prefix = folder + "/";
  std::vector<std::string> copies;
  for (const std::string& name : namesIn(folder)) {
    const std::string path = prefix + name;
    const auto* kind =
        std::find_if(kKinds.begin(), kKinds.end(), [&](const Kind& each) { return name.starts_with(each.prefix); });
    if (kind != kKinds.end()) {
      if (isUntouchedFor(path, kind->age, now)) removeLitter(path);
    } else if (isNameOfUploadCopy(name) && isUntouchedFor(path, kAgeOfLitter, now)) {
      copies.push_back(path);
    }
  }
  if (copies.empty()) return;
  // A copy is made before its attempt is recorded, but not an hour before.
  const auto known = pathsOfUploadCopies();
  for (const std::string& path : copies) {
    if (known && !known->contains(path)) removeLitter(path);
  }
}

}  // namespace florvane
