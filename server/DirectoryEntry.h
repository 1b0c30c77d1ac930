#pragma once

#include "platform/Data.h"
#include "platform/Value.h"
#include "server/DocumentIdentifier.h"
#include "server/DocumentStore.h"
#include "server/FileStamp.h"
#include "server/StoreIndex.h"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace florvane {

// 16 bytes that differ whenever what they stand for differs. Sums of them stand for sets, and can be kept up to date
// entry by entry.
struct VersionDigest {
  std::uint64_t low = 0;
  std::uint64_t high = 0;

  VersionDigest& operator+=(const VersionDigest& other);
  VersionDigest& operator-=(const VersionDigest& other);
  Data data() const;
  friend bool operator==(const VersionDigest&, const VersionDigest&) = default;
};

// A document as its directory's listing shows it.
struct DirectoryEntry {
  DocumentIdentifier identifier;
  std::string name;
  FileStamp stamp;
  std::int64_t added = 0;               // nanoseconds since 1970
  std::optional<std::int64_t> created;  // nanoseconds since 1970, where a client said it; else the file's birth
  VersionDigest version;  // of everything above: a file's version, and what tells that a directory's entry changed

  static DirectoryEntry from(const DocumentRecord& record, const FileStamp& stamp, const ShareConfiguration& share);
  DocumentRecord record(std::int64_t share, const DocumentIdentifier& parent) const;
  // To be called when any field has changed.
  void updateVersion(const ShareConfiguration& share);
};

// The version of a directory's listing: of itself, and of its entries taken together.
VersionDigest listingVersion(const VersionDigest& directory, const VersionDigest& sumOfEntries, std::size_t count);

// Dictionaries of entries, for headers and listings. One for each thread; cheapest when used for many.
class EntryMetadata {
 public:
  explicit EntryMetadata(const ShareConfiguration& share) : share_(share) {}
  // `version` replaces the entry's own, as a directory's listing version does in headers.
  Dictionary dictionary(const DirectoryEntry& entry, const std::optional<VersionDigest>& version = {});

 private:
  struct Type {
    Value identifier;
    Value description;
  };
  const Type& type(const std::string& identifier);

  const ShareConfiguration& share_;
  std::unordered_map<std::string, Type> types_;
};

// A listing body of dictionaries.
StoreResult<Data> listingBody(const Array& dictionaries);

}  // namespace florvane
