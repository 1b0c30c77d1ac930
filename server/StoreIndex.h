#pragma once

#include "platform/Clock.h"
#include "server/DocumentIdentifier.h"
#include "server/FileStamp.h"
#include "server/StoreError.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace florvane {

// What is remembered of a document: where it was last seen and by what it is known again.
struct DocumentRecord {
  DocumentIdentifier identifier;
  DocumentIdentifier parent;
  std::string name;
  std::int64_t share = 0;  // number of its share
  FileIdentity identity;
  std::int64_t added = 0;               // when it came into its folder; nanoseconds since 1970
  std::optional<std::int64_t> created;  // as a client said; nanoseconds since 1970
  bool missing = false;                 // was not at its place when that was last looked at
};

// Documents and their identifiers, in an SQLite file that outlives the server. Every change is on disk when its
// function returns. Errors are Internal, or NoSpace. Thread-safe; readers do not wait for a writer.
class StoreIndex {
 public:
  static StoreResult<std::unique_ptr<StoreIndex>> open(const std::string& path, Clock& clock);
  ~StoreIndex();

  const DocumentIdentifier& root() const { return root_; }
  // Random text that marks the temporary files of this index's server.
  const std::string& owner() const { return owner_; }

  struct Share {
    std::int64_t number;
    DocumentIdentifier identifier;
  };
  // The share of that name, made at its first time.
  StoreResult<Share> share(const std::string& name);

  StoreResult<std::optional<DocumentRecord>> find(const DocumentIdentifier& identifier) const;
  // The directory that each of the documents is in, in the same order: none where it is unknown or a directory itself.
  StoreResult<std::vector<std::optional<DocumentIdentifier>>> directoriesOfFiles(
      const std::vector<DocumentIdentifier>& documents) const;
  // The record that has, or had, this place; the missing ones included.
  StoreResult<std::optional<DocumentRecord>> at(const DocumentIdentifier& parent, const std::string& name) const;
  StoreResult<std::vector<DocumentRecord>> childrenOf(const DocumentIdentifier& parent) const;
  StoreResult<std::optional<DocumentRecord>> withIdentity(std::int64_t share, const FileIdentity& identity) const;

  // Writes the records and marks others as missing, unless they have been seen elsewhere than in `parent` meanwhile;
  // all or nothing.
  StoreResult<void> update(const std::vector<DocumentRecord>& records, const DocumentIdentifier& parent,
                           const std::vector<DocumentIdentifier>& missing);

 private:
  struct Connection;
  StoreIndex(std::unique_ptr<Connection> writer, std::unique_ptr<Connection> reader, Clock& clock);

  std::unique_ptr<Connection> writer_;
  std::unique_ptr<Connection> reader_;
  Clock& clock_;
  DocumentIdentifier root_;
  std::string owner_;
};

// A new random identifier of a document that is no thumbnail.
StoreResult<DocumentIdentifier> makeDocumentIdentifier();

}  // namespace florvane
