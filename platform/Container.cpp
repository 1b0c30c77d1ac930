#include "platform/Container.h"

#include "platform/Encoding.h"
#include "platform/FileSystem.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <mutex>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr char kGroupFolder[] = "florvane/group.quorl.Florvane";
constexpr char kDeviceIdentifierFile[] = "Device Identifier";

struct Location {
  std::mutex mutex;  // guards all fields
  std::string chosen;
  // What a relative path meant when it was first used, so that a later change of folder moves nothing.
  std::string source;
  std::string absolute;
};

Location& location() {
  // Never destroyed: threads may ask while the process ends.
  static auto& instance = *new Location;
  return instance;
}

// Null for an unset or an empty variable alike.
const char* environmentPath(const char* name) {
  const char* value = std::getenv(name);
  return value && *value ? value : nullptr;
}

std::optional<std::string> homeFolder() {
  if (const char* home = environmentPath("HOME")) return home;
  std::array<char, 16384> buffer{};
  passwd record{};
  passwd* found = nullptr;
  if (getpwuid_r(geteuid(), &record, buffer.data(), buffer.size(), &found) != 0 || !found) return std::nullopt;
  if (!found->pw_dir || !*found->pw_dir) return std::nullopt;
  return found->pw_dir;
}

std::optional<std::string> pathFromEnvironment() {
  if (const char* container = environmentPath("FLORVANE_CONTAINER")) return container;
  if (const char* data = environmentPath("XDG_DATA_HOME")) return std::string(data) + "/" + kGroupFolder;
  if (auto home = homeFolder()) return *home + "/.local/share/" + kGroupFolder;
  return std::nullopt;
}

Result<std::string> absolutePath() {
  auto& state = location();
  std::lock_guard lock(state.mutex);
  auto source = state.chosen.empty() ? pathFromEnvironment() : state.chosen;
  if (!source) {
    return Failure(Error(QuilbarErrorDomain, FileNoSuchFileError,
                         "There is no home folder to keep the container in; set FLORVANE_CONTAINER."));
  }
  if (*source != state.source) {
    std::error_code failure;
    auto absolute = std::filesystem::absolute(*source, failure);
    if (failure) return Failure(Error::fileRead(failure.value(), *source));
    state.source = *source;
    state.absolute = absolute.lexically_normal().string();
  }
  return state.absolute;
}

Error refusal(const std::string& path, const std::string& reason) {
  return Error(QuilbarErrorDomain, FileWriteNoPermissionError,
               {{LocalizedDescriptionKey, "The container folder \"" + path + "\" " + reason}, {FilePathErrorKey, path}})
      .withUnderlyingError(Error::posix(EPERM, path));
}

// Absent inside when there is none yet or what stands there is none.
Result<std::optional<std::string>> storedDeviceIdentifier(const std::string& path) {
  auto bytes = readFile(path, 4096);
  if (!bytes) {
    if (bytes.error().is(QuilbarErrorDomain, FileReadNoSuchFileError)) return std::nullopt;
    return Failure(bytes.error());
  }
  std::string_view text = bytes->view();
  while (text.ends_with('\n')) text.remove_suffix(1);
  if (!isUUID(text)) return std::nullopt;
  return std::string(text);
}

}  // namespace

void Container::setDirectory(std::string path) {
  auto& state = location();
  std::lock_guard lock(state.mutex);
  state.chosen = std::move(path);
}

std::optional<std::string> Container::directory() {
  auto path = requireDirectory();
  if (!path) return std::nullopt;
  return *path;
}

Result<std::string> Container::requireDirectory() {
  auto path = absolutePath();
  if (!path) return path;
  struct stat status{};
  if (stat(path->c_str(), &status) != 0) {
    if (auto made = createDirectories(*path, 0700); !made) return Failure(made.error());
    if (stat(path->c_str(), &status) != 0) return Failure(Error::fileRead(errno, *path));
  }
  if (!S_ISDIR(status.st_mode)) return Failure(Error::fileWrite(ENOTDIR, *path));
  if (status.st_uid != geteuid()) return Failure(refusal(*path, "belongs to another user."));
  if (status.st_mode & (S_IWGRP | S_IWOTH)) {
    return Failure(refusal(*path, "can be written by others; take that permission away (chmod go-w)."));
  }
  int error = 0;
  auto resolved = realPath(*path, &error);
  if (!resolved) return Failure(Error::fileRead(error, *path));
  return *resolved;
}

std::optional<std::string> deviceIdentifier() {
  auto directory = Container::directory();
  if (!directory) return std::nullopt;
  std::string path = *directory + "/" + kDeviceIdentifierFile;
  auto stored = storedDeviceIdentifier(path);
  if (!stored || *stored) return stored ? *stored : std::nullopt;
  auto lock = FileLock::acquire(path + ".lock", true);
  if (!lock) return std::nullopt;
  // Another process may have been first.
  stored = storedDeviceIdentifier(path);
  if (!stored || *stored) return stored ? *stored : std::nullopt;
  std::string identifier = makeUUID();
  if (!writeFileAtomically(path, Data::fromString(identifier + "\n"), 0600, true)) return std::nullopt;
  return identifier;
}

}  // namespace florvane
