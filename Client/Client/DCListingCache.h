#pragma once

#include "Client/Client/DCDirectoryContents.h"
#include "Client/Client/DCFileStamp.h"

#include <cstddef>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

namespace florvane {

// Parsed listings by their files' paths, each for as long as its file is the same one; those that were not asked for
// longest go when there are too many entries altogether. Not locked by itself.
class DCListingCache {
 public:
  using Parse = std::function<DCDirectoryContents::Ptr()>;

  // Null when there is no file or nothing can be made of it.
  DCDirectoryContents::Ptr contentsOfFile(const std::string& path, const Parse& parse);

 private:
  struct Entry {
    std::string path;
    DCFileStamp stamp;
    DCDirectoryContents::Ptr contents;
    std::size_t size;
  };
  using Entries = std::list<Entry>;
  void remove(Entries::iterator entry);

  Entries entries_;  // the one asked for last first
  std::unordered_map<std::string_view, Entries::iterator> places_;
  std::size_t size_ = 0;
};

}  // namespace florvane
