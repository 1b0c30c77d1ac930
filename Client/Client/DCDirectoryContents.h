#pragma once

#include "platform/Data.h"
#include "platform/Value.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

namespace florvane {

// A listing with its indexes, made once and shared. Entries whose name is no legal single component ("", ".", "..",
// with "/" or NUL, over 255 bytes, not UTF-8) are left out, each with the soft assertion "childName"; of two entries of
// one name the first counts. Immutable, thread-safe.
class DCDirectoryContents {
 public:
  using Ptr = std::shared_ptr<const DCDirectoryContents>;

  static Ptr contentsWithEntries(const Array& entries);
  // Whether an item may be called so.
  static bool isLegalChildName(std::string_view name);
  // Of one entry, without a copy; null when there is none. Lives as long as the entry.
  static const Value* valueOfEntry(const Value& entry, const Key& key);
  // Empty, which no name is, when there is none.
  static std::string_view nameOfEntry(const Value& entry);

  const Array& entries() const { return entries_; }
  // Null when there is none; lives as long as this object.
  const Value* entryNamed(std::string_view name) const;
  const Value* entryWithDocumentIdentifier(const Data& documentIdentifier) const;

 private:
  Array entries_;
  // Places in entries_, by names and identifiers that live in it.
  std::unordered_map<std::string_view, std::size_t> byName_;
  std::unordered_map<std::string_view, std::size_t> byDocumentIdentifier_;
};

}  // namespace florvane
