#pragma once

#include "platform/Data.h"
#include "platform/Value.h"

#include <cstddef>
#include <memory>
#include <mutex>
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
  // Whether they stand in the plain order of their names.
  bool isSortedByName() const { return isSorted_; }
  // Null when there is none; lives as long as this object.
  const Value* entryNamed(std::string_view name) const;
  const Value* entryWithDocumentIdentifier(const Data& documentIdentifier) const;

  // Looks entries up, at the price of one comparison each as long as names are asked for in their order.
  class Walk {
   public:
    // Of what outlives this.
    explicit Walk(const DCDirectoryContents& contents) : contents_(contents) {}
    const Value* entryNamed(std::string_view name);

   private:
    const DCDirectoryContents& contents_;
    std::size_t next_ = 0;
  };

 private:
  Array entries_;
  bool isSorted_ = true;
  // Places in entries_, by names and identifiers that live in it: names only where they have no order to be searched
  // by, identifiers from the first look-up on.
  std::unordered_map<std::string_view, std::size_t> byName_;
  mutable std::once_flag identifiersIndexed_;
  mutable std::unordered_map<std::string_view, std::size_t> byDocumentIdentifier_;
};

}  // namespace florvane
