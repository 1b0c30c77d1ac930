#pragma once

#include "server/DirectoryCatalog.h"
#include "server/DocumentStore.h"
#include "server/DocumentWatches.h"
#include "server/StoreIndex.h"
#include "server/ThumbnailMaker.h"
#include "server/UploadFolder.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace florvane {

// The document store of the shares' folders on this machine.
class LocalDocumentStore final : public DocumentStore, private DocumentWatches::Source {
 public:
  LocalDocumentStore(FileDescriptor stateLock, std::unique_ptr<StoreIndex> index, std::vector<ServedShare> shares,
                     const std::string& run, Clock& clock);
  ~LocalDocumentStore() override;

  StoreResult<DirectoryListing> listRoot(const std::optional<Data>& unlessVersion) override;
  StoreResult<DirectoryListing> list(const Data& directory, const std::optional<Data>& share,
                                     const std::optional<Data>& unlessVersion) override;
  StoreResult<OpenDocument> contents(const Data& document, const std::optional<Data>& share,
                                     const std::optional<Data>& unlessVersion) override;
  StoreResult<Upload> beginWrite(const Data& parent, const std::optional<Data>& share,
                                 std::uint64_t expectedBytes) override;
  StoreResult<Upload> beginReplace(const Data& document, const std::optional<Data>& share,
                                   std::uint64_t expectedBytes) override;
  StoreResult<StoredUpload> write(const Data& parent, const std::optional<Data>& share, const std::string& name,
                                  const Dictionary& metadata, Upload upload) override;
  StoreResult<StoredUpload> replace(const Data& document, const std::optional<Data>& share,
                                    const std::optional<Data>& version, const Dictionary& metadata,
                                    Upload upload) override;
  std::unique_ptr<DocumentWatch> watch(std::vector<DocumentVersion> documents, WatchHandler handler) override;

 private:
  struct Root {
    DirectoryEntry self;
    std::vector<DirectoryEntry> entries;  // sorted by name
    VersionDigest version;
  };
  // A change of a share's own folder shows in the virtual root.
  class RootSink;
  struct Dates;

  // The document of an identifier from outside, in the share that is named with it.
  StoreResult<LocatedDocument> located(const Data& document, const std::optional<Data>& share);
  StoreResult<Root> root() const;
  StoreResult<OpenDocument> thumbnail(const LocatedDocument& located, const DirectoryEntry& entry, int descriptor);
  StoreResult<LocatedDocument> locatedForStoring(const Data& document, const std::optional<Data>& share);
  static StoreResult<void> makeBody(KnownDirectory& directory);
  static StoreResult<StoredUpload> answer(KnownDirectory& directory, const FileIdentity& stored);
  static StoreResult<FileDescriptor> publishUnderFreeName(Upload& upload, int directory, const std::string& name);
  StoreResult<StoredUpload> store(KnownDirectory& directory, const LocatedDocument& located, const std::string& name,
                                  const Dates& dates, Upload& upload);

  std::vector<StoreResult<Data>> currentVersions(const std::vector<DocumentVersion>& documents,
                                                 const Attention* attention) override;
  StoreResult<Data> currentVersion(const Data& document);
  Attention attend(const std::vector<DocumentIdentifier>& documents) override { return catalog_.attend(documents); }
  void refresh(const DocumentIdentifier& directory) override { catalog_.refresh(directory); }
  std::vector<DocumentIdentifier> unannounced() override { return catalog_.unannounced(); }

  const FileDescriptor stateLock_;
  const std::unique_ptr<StoreIndex> index_;
  const UploadFolder uploads_;
  ThumbnailMaker thumbnails_;
  DocumentWatches watches_;
  DirectoryCatalog catalog_;
  std::shared_ptr<RootSink> rootSink_;
  std::vector<std::unique_ptr<DirectoryWatcher::Watch>> rootWatches_;
};

}  // namespace florvane
