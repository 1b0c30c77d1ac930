#include "common/FVFPathUtils.h"
#include "platform/Exceptions.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

namespace {

using namespace florvane;

const FVFPathHost kHosts[] = {{"", false}, {"/", true}};

std::optional<std::string> sanitized(std::string_view string, bool relativePath, bool multiple,
                                     const FVFPathHost& host) {
  try {
    return FVFPathUtils::stringBySanitizingPath(string, relativePath, multiple, host);
  } catch (const InvalidArgumentException&) {
    return std::nullopt;
  }
}

void require(bool condition) {
  if (!condition) std::abort();
}

// What every sanitised path promises: it leads nowhere but down, component by component.
void checkComponents(const std::string& path) {
  require(path.find('\0') == std::string::npos);
  require(path.find("//") == std::string::npos);
  require(path.size() < 2 || !path.ends_with('/'));
  std::string framed = "/" + path + "/";
  require(framed.find("/../") == std::string::npos && framed.find("/./") == std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  std::string string(reinterpret_cast<const char*>(bytes), size);
  for (const FVFPathHost& host : kHosts) {
    if (auto path = sanitized(string, true, true, host)) {
      checkComponents(*path);
      require(!path->starts_with('/'));
      require(sanitized(*path, true, true, host) == path);
      auto single = sanitized(string, true, false, host);
      require(single.has_value() == (path->find('/') == std::string::npos));
    }
    if (auto path = sanitized("/florvane-fuzz/" + string, false, true, host)) {
      checkComponents(*path);
      require(path->starts_with("/florvane-fuzz"));
      require(sanitized(*path, false, true, host) == path);
    }
  }
  return 0;
}
