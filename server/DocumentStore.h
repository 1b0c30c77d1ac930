#pragma once

#include "platform/Clock.h"
#include "platform/Data.h"
#include "platform/FileSystem.h"
#include "platform/UniqueFunction.h"
#include "platform/Value.h"
#include "server/StoreError.h"
#include "server/Upload.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace florvane {

// A folder that is shared under a name of its own.
struct ShareConfiguration {
  std::string name;
  std::string folder;
  bool readOnly = false;
  bool dropBox = false;  // takes files and never shows them
};

struct DocumentVersion {
  Data document;
  Data version;
  friend bool operator==(const DocumentVersion&, const DocumentVersion&) = default;
};

// A directory as its listing request is answered.
struct DirectoryListing {
  bool notModified = false;  // the caller's version is current: body is empty
  Dictionary metadata;       // of the directory itself, version included
  Data version;
  Data body;  // binary property list: an array of the children's dictionaries, sorted by name
};

// A file or a thumbnail, ready to be sent.
struct OpenDocument {
  bool notModified = false;   // the caller's version is current: nothing is open
  FileDescriptor descriptor;  // at offset 0; its bytes are those of `version` as long as nobody writes in place
  std::uint64_t size = 0;     // bytes
  Dictionary metadata;
  Data version;
};

// The answer to a stored upload.
struct StoredUpload {
  bool dropBox = false;  // then metadata and version are the stored file's own and body is empty
  Dictionary metadata;   // else the parent directory's, with its version and fresh listing
  Data version;
  Data body;
};

// A pending watch. Letting go of it cancels it; its handler is not called any more once the destructor has returned,
// unless that call had begun before.
class DocumentWatch {
 public:
  virtual ~DocumentWatch() = default;
  // Answers with every pair's current version although nothing changed, if it has not been answered yet. Returns at
  // once; the handler is called on a thread of the store.
  virtual void answerNow() = 0;
};

// The documents of the shares: identifiers that stay with a file through renames, edits and restarts, versions,
// listings, contents, thumbnails, uploads and watches. Knows no HTTP. Everything is safe to call from any thread and
// may block on the disk; directories do not wait for each other. Identifiers are 16 bytes, versions 16 bytes; an
// unknown identifier is NotFound. The share of an identifier is checked where one is given.
class DocumentStore {
 public:
  // Every pair that is left with its current version; NotFound when none is.
  using WatchHandler = UniqueFunction<void(StoreResult<std::vector<DocumentVersion>>)>;

  // Opens the index in the state folder (made when missing) and the shares' folders, and removes what an earlier run
  // left behind. One store at a time has a state folder; a second is refused. The clock outlives the store.
  static StoreResult<std::unique_ptr<DocumentStore>> open(const std::string& stateFolder,
                                                          std::vector<ShareConfiguration> shares, Clock& clock);
  virtual ~DocumentStore() = default;

  // The virtual root, whose children are the shares.
  virtual StoreResult<DirectoryListing> listRoot(const std::optional<Data>& unlessVersion) = 0;
  virtual StoreResult<DirectoryListing> list(const Data& directory, const std::optional<Data>& share,
                                             const std::optional<Data>& unlessVersion) = 0;
  // A file's bytes, or a thumbnail's. NotFound also for a picture that cannot be read.
  virtual StoreResult<OpenDocument> contents(const Data& document, const std::optional<Data>& share,
                                             const std::optional<Data>& unlessVersion) = 0;

  // Room for an upload of so many bytes (0 when unknown) to a new file of a directory, or in place of a document.
  // Forbidden in a read-only share, NoSpace when the bytes cannot fit.
  virtual StoreResult<Upload> beginWrite(const Data& parent, const std::optional<Data>& share,
                                         std::uint64_t expectedBytes) = 0;
  virtual StoreResult<Upload> beginReplace(const Data& document, const std::optional<Data>& share,
                                           std::uint64_t expectedBytes) = 0;
  // Stores the upload under a name that must be free (Conflict), or that is made free in a drop box. The bytes, the
  // metadata's dates and the name are on disk when this returns.
  virtual StoreResult<StoredUpload> write(const Data& parent, const std::optional<Data>& share, const std::string& name,
                                          const Dictionary& metadata, Upload upload) = 0;
  // Stores the upload in place of a document whose current version is the given one (else Conflict; a drop box keeps
  // both).
  virtual StoreResult<StoredUpload> replace(const Data& document, const std::optional<Data>& share,
                                            const std::optional<Data>& version, const Dictionary& metadata,
                                            Upload upload) = 0;

  // Calls the handler once, on a thread of the store or on the caller's before this returns, as soon as the current
  // version of any of the documents differs from the given one or a document is gone.
  virtual std::unique_ptr<DocumentWatch> watch(std::vector<DocumentVersion> documents, WatchHandler handler) = 0;
};

}  // namespace florvane
