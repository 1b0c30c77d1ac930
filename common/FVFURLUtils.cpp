#include "common/FVFURLUtils.h"

#include "platform/FileSystem.h"

#include <array>
#include <climits>

namespace florvane {

namespace {

constexpr char kPrivate[] = "/private";

// Whether the path begins with one of the folders that some machines keep below /private.
bool isInSystemDirectory(std::string_view path) {
  constexpr std::array<std::string_view, 3> names = {"/tmp", "/var", "/etc"};
  for (std::string_view name : names) {
    if (path.starts_with(name) && (path.size() == name.size() || path[name.size()] == '/')) return true;
  }
  return false;
}

void appendComponents(std::string& path, std::string_view rest) {
  while (!rest.empty()) {
    std::size_t slash = std::min(rest.find('/'), rest.size());
    if (slash > 0) {
      if (!path.ends_with('/')) path += '/';
      path += rest.substr(0, slash);
    }
    rest.remove_prefix(std::min(slash + 1, rest.size()));
  }
}

// Links resolved in the longest part of the path that exists; the rest as it stands.
std::string resolvedPath(const std::string& path) {
  // The system resolves nothing longer than this.
  if (path.size() >= PATH_MAX) return path;
  for (std::size_t end = path.size(); end > 0;) {
    if (auto resolved = realPath(path.substr(0, end))) {
      appendComponents(*resolved, std::string_view(path).substr(end));
      return *resolved;
    }
    std::size_t slash = path.rfind('/', end - 1);
    end = slash == std::string::npos || end == 1 ? 0 : std::max<std::size_t>(slash, 1);
  }
  return path;
}

}  // namespace

bool hostHasPrivateDirectory() {
  static const bool answer = realPath("/tmp") == "/private/tmp" || realPath("/var") == "/private/var";
  return answer;
}

URL URLByReallyResolvingSymlinksInPath(const URL& url, bool hasPrivateDirectory) {
  if (!url.isFileURL() || !url.path().starts_with('/')) return url;
  std::string path = resolvedPath(url.path());
  // On such machines the ordinary resolution drops the first component, which is put back here: elsewhere /private is
  // a folder as any other.
  if (hasPrivateDirectory && isInSystemDirectory(path)) path = kPrivate + path;
  return URL::fileURL(path);
}

}  // namespace florvane
