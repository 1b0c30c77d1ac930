#include "Client/Client/DCListingCache.h"

namespace florvane {

namespace {

constexpr std::size_t kMostEntries = 200'000;

}  // namespace

DCDirectoryContents::Ptr DCListingCache::contentsOfFile(const std::string& path, const Parse& parse) {
  // Taken before the file is read: what replaces it meanwhile is read again.
  auto stamp = DCFileStamp::of(path);
  if (auto found = places_.find(path); found != places_.end()) {
    const auto entry = found->second;
    if (stamp && entry->stamp == *stamp) {
      if (entry != entries_.begin()) entries_.splice(entries_.begin(), entries_, entry);
      return entry->contents;
    }
    remove(entry);
  }
  if (!stamp) return nullptr;
  auto contents = parse();
  // A damaged listing is reported by each look, and not kept.
  if (!contents) return nullptr;
  const std::size_t size = contents->entries().size() + 1;
  entries_.push_front({path, *stamp, contents, size});
  places_.emplace(entries_.front().path, entries_.begin());
  size_ += size;
  while (size_ > kMostEntries && entries_.size() > 1) remove(std::prev(entries_.end()));
  return contents;
}

void DCListingCache::remove(Entries::iterator entry) {
  size_ -= entry->size;
  places_.erase(entry->path);
  entries_.erase(entry);
}

}  // namespace florvane
