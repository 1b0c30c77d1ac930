#pragma once

#include "platform/Value.h"

#include <array>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace florvane {

// The shared MIME database of a folder such as /usr/share/mime: types by name patterns ("globs2") and what people call
// them. Read once; without the files every type is unknown. Thread-safe.
class TypeDatabase {
 public:
  explicit TypeDatabase(std::string folder);
  // That of the machine.
  static TypeDatabase& shared();

  // The MIME type for a file's name as a string value: of the patterns that match, a whole name goes before the heavier
  // pattern, that before the longer one, and that before one that minds the case of letters less.
  // "application/octet-stream" when none matches.
  const Value& typeForName(std::string_view name) const;
  // "PNG image" as a string value; the type itself when the database has no words for it.
  Value description(std::string_view type);

 private:
  struct TransparentHash : std::hash<std::string_view> {
    using is_transparent = void;
  };
  struct Pattern {
    std::string text;
    Value type;
    int weight = 0;
    bool isCaseSensitive = false;
  };
  using Patterns = std::unordered_map<std::string, std::vector<Pattern>, TransparentHash, std::equal_to<>>;

  void readPatterns();
  void addPattern(std::string_view line);

  std::string folder_;
  Value unknownType_;
  Patterns wholeNames_;
  Patterns suffixes_;                        // "*.png" under ".png"
  std::array<bool, 256> suffixStarts_ = {};  // the bytes that suffixes begin with
  std::vector<Pattern> wildcards_;           // all others
  std::mutex mutex_;                         // guards the descriptions
  std::map<std::string, Value, std::less<>> descriptions_;
};

}  // namespace florvane
