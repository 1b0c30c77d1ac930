#include "platform/TypeDatabase.h"

#include "platform/FileSystem.h"

#include <algorithm>
#include <charconv>
#include <tuple>

#include <fnmatch.h>
#include <pugixml.hpp>

namespace florvane {

namespace {

constexpr char kSharedFolder[] = "/usr/share/mime";
constexpr char kUnknownType[] = "application/octet-stream";
constexpr std::uint64_t kLargestFile = std::uint64_t{16} << 20;  // bytes
constexpr std::size_t kMostDescriptions = 1024;
constexpr char kWildcards[] = "*?[";

// The letters of ASCII in lower case; patterns hold no others.
std::string folded(std::string_view text) {
  std::string result(text);
  for (char& character : result) {
    if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
  }
  return result;
}

std::string_view takeField(std::string_view& line) {
  std::size_t colon = std::min(line.find(':'), line.size());
  std::string_view field = line.substr(0, colon);
  line.remove_prefix(std::min(colon + 1, line.size()));
  return field;
}

// "image/png": two plain words. Types come from listings too, and this one is about to become a path.
bool isPlainType(std::string_view type) {
  std::size_t slash = type.find('/');
  if (slash == 0 || slash == std::string_view::npos || slash + 1 >= type.size()) return false;
  if (type[0] == '.' || type[slash + 1] == '.' || type.size() > 255) return false;
  return std::all_of(type.begin(), type.end(), [&](const char& character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9') ||
           std::string_view("+-._").find(character) != std::string_view::npos || &character == type.data() + slash;
  });
}

std::string readDescription(const std::string& path) {
  auto bytes = readFile(path, kLargestFile);
  pugi::xml_document document;
  if (!bytes || !document.load_buffer(bytes->bytes(), bytes->size())) return {};
  for (auto comment : document.child("mime-type").children("comment")) {
    if (!comment.attribute("xml:lang")) return comment.text().get();
  }
  return {};
}

}  // namespace

TypeDatabase::TypeDatabase(std::string folder) : folder_(std::move(folder)), unknownType_(kUnknownType) {
  readPatterns();
}

TypeDatabase& TypeDatabase::shared() {
  // Never destroyed: other threads may still ask while the process ends.
  static auto* database = new TypeDatabase(kSharedFolder);
  return *database;
}

void TypeDatabase::readPatterns() {
  auto bytes = readFile(folder_ + "/globs2", kLargestFile);
  if (!bytes) return;
  std::string_view text = bytes->view();
  while (!text.empty()) {
    std::size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (!line.empty() && line[0] != '#') addPattern(line);
  }
}

// A line is "weight:type:pattern" with further fields, the first of them flags parted by commas.
void TypeDatabase::addPattern(std::string_view line) {
  std::string_view weight = takeField(line), type = takeField(line), text = takeField(line), flags = takeField(line);
  Pattern pattern{std::string(text), Value(type)};
  if (std::from_chars(weight.data(), weight.data() + weight.size(), pattern.weight).ec != std::errc()) return;
  if (type.empty() || text.empty()) return;
  pattern.isCaseSensitive = ("," + std::string(flags) + ",").find(",cs,") != std::string::npos;
  if (!pattern.isCaseSensitive) pattern.text = folded(text);

  std::string_view suffix = std::string_view(pattern.text).substr(1);
  if (pattern.text.find_first_of(kWildcards) == std::string::npos) {
    wholeNames_[pattern.text].push_back(std::move(pattern));
  } else if (pattern.text[0] == '*' && !suffix.empty() && suffix.find_first_of(kWildcards) == std::string_view::npos) {
    suffixStarts_[static_cast<unsigned char>(suffix[0])] = true;
    suffixes_[std::string(suffix)].push_back(std::move(pattern));
  } else {
    wildcards_.push_back(std::move(pattern));
  }
}

const Value& TypeDatabase::typeForName(std::string_view name) const {
  std::string exact(name), lowered = folded(name);
  const Pattern* best = nullptr;
  auto consider = [&](const Pattern& pattern) {
    auto rank = [](const Pattern& of) { return std::tuple(of.weight, of.text.size(), of.isCaseSensitive); };
    if (!best || rank(pattern) > rank(*best)) best = &pattern;
  };
  auto look = [&](const Patterns& patterns, const std::string& text, std::size_t from, bool isCaseSensitive) {
    auto found = patterns.find(std::string_view(text).substr(from));
    if (found == patterns.end()) return;
    for (const auto& pattern : found->second) {
      if (pattern.isCaseSensitive == isCaseSensitive) consider(pattern);
    }
  };
  look(wholeNames_, exact, 0, true);
  look(wholeNames_, lowered, 0, false);
  if (best) return best->type;
  for (std::size_t at = 0; at < name.size(); ++at) {
    if (!suffixStarts_[static_cast<unsigned char>(name[at])] &&
        !suffixStarts_[static_cast<unsigned char>(lowered[at])]) {
      continue;
    }
    look(suffixes_, exact, at, true);
    look(suffixes_, lowered, at, false);
  }
  for (const auto& pattern : wildcards_) {
    if (best && pattern.weight < best->weight) continue;
    if (fnmatch(pattern.text.c_str(), (pattern.isCaseSensitive ? exact : lowered).c_str(), 0) == 0) consider(pattern);
  }
  return best ? best->type : unknownType_;
}

Value TypeDatabase::description(std::string_view type) {
  if (!isPlainType(type)) return type;
  std::lock_guard lock(mutex_);
  auto known = descriptions_.find(type);
  if (known != descriptions_.end()) return known->second;
  std::string text = readDescription(folder_ + "/" + std::string(type) + ".xml");
  Value description(text.empty() ? type : std::string_view(text));
  if (descriptions_.size() >= kMostDescriptions) descriptions_.clear();
  descriptions_.emplace(type, description);
  return description;
}

}  // namespace florvane
