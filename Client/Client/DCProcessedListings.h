#pragma once

#include "Client/Client/DCDirectoryContents.h"
#include "platform/Data.h"

#include <cstddef>
#include <list>
#include <unordered_map>

namespace florvane {

// The listings that this process has taken in, by their directory's document identifier (the root's is empty until it
// has one); those that were not asked for longest go when there are too many entries altogether. Not locked by itself.
class DCProcessedListings {
 public:
  // Null when there is none.
  DCDirectoryContents::Ptr listing(const Data& documentIdentifier);
  void keep(const Data& documentIdentifier, DCDirectoryContents::Ptr contents);
  void forget(const Data& documentIdentifier);
  void clear();

 private:
  struct Entry {
    Data documentIdentifier;
    DCDirectoryContents::Ptr contents;
    std::size_t size;
  };
  using Entries = std::list<Entry>;
  void remove(Entries::iterator entry);

  Entries entries_;  // the one asked for last first
  std::unordered_map<Data, Entries::iterator, DataHash> places_;
  std::size_t size_ = 0;
};

}  // namespace florvane
