#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace florvane::test {

// Contents that say which version they are, at both ends, so that what is torn shows.
inline std::string versionText(std::int64_t version, int size) {
  const std::string number = std::to_string(version);
  return number + ":" + std::string(static_cast<std::size_t>(size), static_cast<char>('a' + version % 26)) + ":" +
         number + "\n";
}

// Absent for what versionText() does not make.
inline std::optional<std::int64_t> versionOfText(const std::string& text) {
  const auto colon = text.find(':');
  if (colon > 18 || text.find_first_not_of("0123456789") != colon) return std::nullopt;
  if (text.size() < 2 * colon + 3) return std::nullopt;
  const std::int64_t version = std::stoll(text);
  return text == versionText(version, static_cast<int>(text.size() - 2 * colon - 3)) ? std::optional(version)
                                                                                     : std::nullopt;
}

}  // namespace florvane::test
