#pragma once

#include "platform/Data.h"
#include "server/DirectoryEntry.h"
#include "server/DocumentIdentifier.h"
#include "server/StoreError.h"

#include <cstdint>
#include <list>
#include <mutex>
#include <string_view>
#include <unordered_map>

namespace florvane {

// Makes small pictures of picture files, one at a time, and keeps the latest ones. Thread-safe.
class ThumbnailMaker {
 public:
  // Whether a file of this MIME type and size (bytes) is one to make a thumbnail of.
  static bool handles(std::string_view type, std::uint64_t size);

  // A PNG of at most 256 points a side of an open file's picture, which is never enlarged. `version` is the file's.
  // NotFound when the bytes are no picture of the known kinds, or one too large to be decoded.
  StoreResult<Data> thumbnail(const DocumentIdentifier& file, const VersionDigest& version, int descriptor,
                              std::uint64_t size);

 private:
  struct Made {
    VersionDigest version;
    Data picture;
    std::list<DocumentIdentifier>::iterator use;
  };
  void keep(const DocumentIdentifier& file, const VersionDigest& version, const Data& picture);

  std::mutex mutex_;  // guards the rest, and lets one picture be decoded at a time, since each takes much memory
  std::unordered_map<DocumentIdentifier, Made, DocumentIdentifierHash> made_;
  std::list<DocumentIdentifier> uses_;  // the latest first
  std::size_t bytesHeld_ = 0;
};

}  // namespace florvane
