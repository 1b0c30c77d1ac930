#include "Client/Client/DCProcessedListings.h"

#include <iterator>
#include <utility>

namespace florvane {

namespace {

constexpr std::size_t kMostEntries = 200'000;

}  // namespace

DCDirectoryContents::Ptr DCProcessedListings::listing(const Data& documentIdentifier) {
  auto found = places_.find(documentIdentifier);
  if (found == places_.end()) return nullptr;
  if (found->second != entries_.begin()) entries_.splice(entries_.begin(), entries_, found->second);
  return found->second->contents;
}

void DCProcessedListings::keep(const Data& documentIdentifier, DCDirectoryContents::Ptr contents) {
  forget(documentIdentifier);
  if (!contents) return;
  const std::size_t size = contents->entries().size() + 1;
  entries_.push_front({documentIdentifier, std::move(contents), size});
  places_.emplace(documentIdentifier, entries_.begin());
  size_ += size;
  while (size_ > kMostEntries && entries_.size() > 1) remove(std::prev(entries_.end()));
}

void DCProcessedListings::forget(const Data& documentIdentifier) {
  if (auto found = places_.find(documentIdentifier); found != places_.end()) remove(found->second);
}

void DCProcessedListings::clear() {
  places_.clear();
  entries_.clear();
  size_ = 0;
}

void DCProcessedListings::remove(Entries::iterator entry) {
  size_ -= entry->size;
  places_.erase(entry->documentIdentifier);
  entries_.erase(entry);
}

}  // namespace florvane
