#include "common/FVFPathUtils.h"

#include "common/FVFURLUtils.h"
#include "platform/Encoding.h"
#include "platform/Exceptions.h"
#include "platform/FileSystem.h"
#include "platform/Format.h"
#include "platform/URL.h"

#include <cerrno>
#include <mutex>
#include <vector>

#include <sys/stat.h>

namespace florvane {

namespace {

struct SharedDirectory {
  std::mutex mutex;  // guards path
  std::string path;
};

SharedDirectory& sharedDirectory() {
  static auto& instance = *new SharedDirectory;
  return instance;
}

// "/" first for an absolute path, then what stands between slashes.
std::vector<std::string_view> pathComponents(std::string_view path) {
  std::vector<std::string_view> components;
  if (path.starts_with('/')) components.push_back(path.substr(0, 1));
  while (!path.empty()) {
    std::size_t slash = std::min(path.find('/'), path.size());
    if (slash > 0) components.push_back(path.substr(0, slash));
    path.remove_prefix(std::min(slash + 1, path.size()));
  }
  return components;
}

std::string pathWithComponents(const std::vector<std::string_view>& components) {
  std::string path;
  for (std::string_view component : components) {
    if (!path.empty() && !path.ends_with('/')) path += '/';
    path += component;
  }
  return path;
}

// Whether the whole string, resolved by the system, is another path than it says. One that cannot be resolved is not.
bool resolvesToAnotherPath(const std::string& string, bool relativePath, const FVFPathHost& host) {
  if (!relativePath) {
    auto resolved = realPath(string);
    return resolved && *resolved != string;
  }
  if (host.currentDirectory.empty()) return false;
  // What a relative string resolves to is absolute, so it differs as soon as there is anything.
  struct stat status{};
  return stat((host.currentDirectory + "/" + string).c_str(), &status) == 0;
}

}  // namespace

FVFPathHost FVFPathHost::current() {
  auto& directory = sharedDirectory();
  std::lock_guard lock(directory.mutex);
  return {directory.path, hostHasPrivateDirectory()};
}

bool FVFPathUtils::isRelativePath(std::string_view string) { return !string.starts_with('/'); }

void FVFPathUtils::setCurrentDirectory(std::string path) {
  auto& directory = sharedDirectory();
  std::lock_guard lock(directory.mutex);
  directory.path = std::move(path);
}

std::string FVFPathUtils::stringBySanitizingPath(std::string_view string, bool relativePath,
                                                 bool allowMultipleComponents, const FVFPathHost& host) {
  std::string path(string);
  auto requireLegal = [&path](bool legal) {
    if (!legal) throw InvalidArgumentException(format("Illegal path: %@", path));
  };
  requireLegal(path.find('\0') == std::string::npos);
  bool isResolved = false;
  if (relativePath) {
    requireLegal(isRelativePath(path));
    requireLegal(isValidUTF8(path));
  } else {
    requireLegal(!isRelativePath(path));
    path = URLByReallyResolvingSymlinksInPath(URL::fileURL(path), host.hasPrivateDirectory).path();
    requireLegal(!isRelativePath(path));
    isResolved = path == string;
  }
  if (path.empty()) return path;
  auto components = pathComponents(path);
  requireLegal(components.size() <= 1 || allowMultipleComponents);
  if (relativePath) errno = ENOENT;
  for (std::string_view component : components) requireLegal(component != "." && component != "..");
  // It is the whole string that is looked up, so that once is as good as once a component, and not at all where its
  // resolution has just left it as it was.
  requireLegal(isResolved || !resolvesToAnotherPath(path, relativePath, host));
  std::string joined = pathWithComponents(components);
  return joined.size() == path.size() ? path : joined;
}

}  // namespace florvane
