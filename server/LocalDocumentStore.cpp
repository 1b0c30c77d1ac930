#include "server/LocalDocumentStore.h"

#include "common/FVFMetadataUtils.h"
#include "platform/Encoding.h"
#include "platform/ResourceValues.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr char kRootName[] = "root";
constexpr char kIndexName[] = "documents.sqlite";
constexpr char kLockName[] = "documents.lock";

tl::unexpected<StoreError> unknownDocument() {
  return tl::unexpected(StoreError{StoreStatus::NotFound, "The item is not on the server."});
}

StoreResult<FileDescriptor> lockState(const std::string& folder) {
  if (auto made = createDirectories(folder, 0700); !made) {
    return tl::unexpected(StoreError{StoreStatus::Internal, made.error().localizedDescription()});
  }
  const std::string path = folder + "/" + kLockName;
  FileDescriptor lock(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!lock.valid()) return tl::unexpected(storeError(errno, path));
  if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    return tl::unexpected(
        StoreError{StoreStatus::Conflict, "Another server is using the state folder “" + folder + "”."});
  }
  return lock;
}

StoreResult<std::vector<ServedShare>> openShares(StoreIndex& index, std::vector<ShareConfiguration> configurations,
                                                 const std::string& stateFolder) {
  std::set<std::string> names;
  std::vector<ServedShare> shares;
  const FileDescriptor state(::open(stateFolder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!state.valid()) return tl::unexpected(storeError(errno, stateFolder));
  for (ShareConfiguration& configuration : configurations) {
    const std::string name = configuration.name;
    if (!isLegalName(name)) {
      return tl::unexpected(StoreError{StoreStatus::BadRequest, "“" + name + "” cannot be a share's name."});
    }
    if (!names.insert(name).second) {
      return tl::unexpected(StoreError{StoreStatus::BadRequest, "There are two shares of the name “" + name + "”."});
    }
    auto folder = ShareFolder::open(std::move(configuration));
    if (!folder) return tl::unexpected(folder.error());
    auto known = index.share(name);
    if (!known) return tl::unexpected(known.error());
    auto hidden = (*folder)->stamp(state.get());
    if (!hidden) return tl::unexpected(hidden.error());
    shares.push_back({*std::move(folder), known->number, known->identifier, hidden->identity});
  }
  return shares;
}

}  // namespace

class LocalDocumentStore::RootSink : public DirectoryChangeSink {
 public:
  RootSink(DocumentWatches& watches, const DocumentIdentifier& root) : watches_(watches), root_(root) {}
  void entryChanged(std::string_view /*name*/) override { changesMissed(); }
  void directoryChanged() override { changesMissed(); }
  void changesMissed() override { watches_.documentsChanged({&root_, 1}); }

 private:
  DocumentWatches& watches_;
  const DocumentIdentifier root_;
};

StoreResult<std::unique_ptr<DocumentStore>> DocumentStore::open(const std::string& stateFolder,
                                                                std::vector<ShareConfiguration> shares, Clock& clock) {
  auto lock = lockState(stateFolder);
  if (!lock) return tl::unexpected(lock.error());
  auto index = StoreIndex::open(stateFolder + "/" + kIndexName, clock);
  if (!index) return tl::unexpected(index.error());
  auto served = openShares(**index, std::move(shares), stateFolder);
  if (!served) return tl::unexpected(served.error());
  const auto run = makeDocumentIdentifier();
  if (!run) return tl::unexpected(run.error());
  return std::make_unique<LocalDocumentStore>(*std::move(lock), *std::move(index), *std::move(served),
                                              hexEncode(run->data()), clock);
}

LocalDocumentStore::LocalDocumentStore(FileDescriptor stateLock, std::unique_ptr<StoreIndex> index,
                                       std::vector<ServedShare> shares, const std::string& run, Clock& clock)
    : stateLock_(std::move(stateLock)),
      index_(std::move(index)),
      uploads_(index_->owner(), run),
      watches_(*this, clock),
      catalog_(
          *index_, std::move(shares),
          [this](const DocumentIdentifier& directory) { watches_.directoryTouched(directory); },
          [this](const std::vector<DocumentIdentifier>& documents) { watches_.documentsChanged(documents); }),
      rootSink_(std::make_shared<RootSink>(watches_, index_->root())) {
  for (const ServedShare& share : catalog_.shares()) {
    uploads_.sweep(share.folder->descriptor());
    rootWatches_.push_back(
        catalog_.watcher().watchChild(share.folder->descriptor(), rootSink_, share.configuration().name));
  }
}

LocalDocumentStore::~LocalDocumentStore() { watches_.stop(); }

StoreResult<LocatedDocument> LocalDocumentStore::located(const Data& document, const std::optional<Data>& share) {
  const auto identifier = DocumentIdentifier::fromData(document);
  if (!identifier) return unknownDocument();
  auto found = catalog_.locate(identifier->document());
  if (found && share && !share->empty() && *share != found->share->identifier.data()) return unknownDocument();
  return found;
}

StoreResult<LocalDocumentStore::Root> LocalDocumentStore::root() const {
  static const ShareConfiguration asShared{kRootName, "", true, false};
  Root root;
  root.self.identifier = index_->root();
  root.self.name = kRootName;
  root.self.stamp.identity.directory = true;
  root.self.stamp.mode = S_IFDIR | 0555;
  VersionDigest sum;
  for (const ServedShare& share : catalog_.shares()) {
    auto stamp = share.folder->stamp(share.folder->descriptor());
    if (!stamp) return tl::unexpected(stamp.error());
    const std::int64_t birth = stamp->identity.birth;
    // The newest of the shares' dates is the root's, so that it grows older with none of them.
    FileStamp& own = root.self.stamp;
    own.modified = std::max(own.modified, stamp->modified);
    own.changed = std::max(own.changed, stamp->changed);
    own.identity.birth = own.identity.birth == 0 ? birth : std::min(own.identity.birth, birth);
    root.entries.push_back(DirectoryEntry::from(
        {share.identifier, index_->root(), share.configuration().name, share.number, stamp->identity, birth, {}, false},
        *stamp, share.configuration()));
    sum += root.entries.back().version;
  }
  root.self.added = root.self.stamp.identity.birth;
  root.self.updateVersion(asShared);
  std::sort(root.entries.begin(), root.entries.end(),
            [](const DirectoryEntry& a, const DirectoryEntry& b) { return a.name < b.name; });
  root.version = listingVersion(root.self.version, sum, root.entries.size());
  return root;
}

StoreResult<DirectoryListing> LocalDocumentStore::listRoot(const std::optional<Data>& unlessVersion) {
  static const ShareConfiguration asShared{kRootName, "", true, false};
  auto root = this->root();
  if (!root) return tl::unexpected(root.error());
  DirectoryListing listing;
  listing.version = root->version.data();
  listing.metadata = EntryMetadata(asShared).dictionary(root->self, root->version);
  listing.notModified = unlessVersion == listing.version;
  if (listing.notModified) return listing;
  Array dictionaries;
  for (const DirectoryEntry& entry : root->entries) {
    const auto share =
        std::find_if(catalog_.shares().begin(), catalog_.shares().end(),
                     [&](const ServedShare& candidate) { return candidate.identifier == entry.identifier; });
    dictionaries.append(EntryMetadata(share->configuration()).dictionary(entry));
  }
  auto body = listingBody(dictionaries);
  if (!body) return tl::unexpected(body.error());
  listing.body = *std::move(body);
  return listing;
}

StoreResult<void> LocalDocumentStore::makeBody(KnownDirectory& directory) {
  if (!directory.contents.body.empty()) return {};
  EntryMetadata metadata(directory.share().configuration());
  Array dictionaries;
  if (!directory.share().configuration().dropBox) {
    dictionaries.reserve(directory.contents.entries.size());
    for (const DirectoryEntry& entry : directory.contents.entries) dictionaries.append(metadata.dictionary(entry));
  }
  auto body = listingBody(dictionaries);
  if (!body) return tl::unexpected(body.error());
  directory.contents.body = *std::move(body);
  return {};
}

StoreResult<DirectoryListing> LocalDocumentStore::list(const Data& directory, const std::optional<Data>& share,
                                                       const std::optional<Data>& unlessVersion) {
  if (directory == index_->root().data()) return listRoot(unlessVersion);
  const auto located = this->located(directory, share);
  if (!located) return tl::unexpected(located.error());
  return catalog_.in(*located, [&](KnownDirectory& known, const LocatedDocument&) -> StoreResult<DirectoryListing> {
    DirectoryListing listing;
    listing.version = known.contents.version.data();
    listing.metadata =
        EntryMetadata(known.share().configuration()).dictionary(known.contents.self, known.contents.version);
    listing.notModified = unlessVersion == listing.version;
    if (listing.notModified) return listing;
    if (auto made = makeBody(known); !made) return tl::unexpected(made.error());
    listing.body = known.contents.body;
    return listing;
  });
}

StoreResult<OpenDocument> LocalDocumentStore::contents(const Data& document, const std::optional<Data>& share,
                                                       const std::optional<Data>& unlessVersion) {
  const auto located = this->located(document, share);
  if (!located) return tl::unexpected(located.error());
  const ShareConfiguration& configuration = located->share->configuration();
  if (located->stamp.identity.directory) return unknownDocument();
  if (configuration.dropBox) {
    return tl::unexpected(StoreError{StoreStatus::Forbidden, "A drop box does not give its files back."});
  }
  const DirectoryEntry entry = located->entry();
  OpenDocument opened;
  opened.version = entry.version.data();
  opened.notModified = unlessVersion == opened.version;
  if (opened.notModified) {
    opened.metadata = EntryMetadata(configuration).dictionary(entry);
    return opened;
  }
  // Through the descriptor, so that it is this very file whatever its path names by now.
  const std::string path = "/proc/self/fd/" + std::to_string(located->descriptor.get());
  FileDescriptor descriptor(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!descriptor.valid()) return tl::unexpected(storeError(errno, entry.name));
  if (DocumentIdentifier::fromData(document)->isThumbnail()) return thumbnail(*located, entry, descriptor.get());
  opened.metadata = EntryMetadata(configuration).dictionary(entry);
  opened.size = entry.stamp.size;
  opened.descriptor = std::move(descriptor);
  return opened;
}

StoreResult<OpenDocument> LocalDocumentStore::thumbnail(const LocatedDocument& located, const DirectoryEntry& entry,
                                                        int descriptor) {
  if (!ThumbnailMaker::handles(typeIdentifierForName(entry.name), entry.stamp.size)) return unknownDocument();
  auto picture = thumbnails_.thumbnail(entry.identifier, entry.version, descriptor, entry.stamp.size);
  if (!picture) return tl::unexpected(picture.error());
  OpenDocument opened;
  opened.descriptor = FileDescriptor(::memfd_create("thumbnail", MFD_CLOEXEC));
  if (!opened.descriptor.valid()) return tl::unexpected(storeError(errno, entry.name));
  if (!writeAll(opened.descriptor.get(), picture->span(), entry.name) ||
      ::lseek(opened.descriptor.get(), 0, SEEK_SET) != 0) {
    return tl::unexpected(storeError(EIO, entry.name));
  }
  const std::string type = "image/png";
  opened.size = picture->size();
  opened.version = entry.version.data();
  opened.metadata = EntryMetadata(located.share->configuration()).dictionary(entry);
  opened.metadata.set(ResourceNameKey, hexEncode(entry.identifier.data()) + ".png");
  opened.metadata.set(FVDocumentIdentifierKey, entry.identifier.thumbnail().data());
  opened.metadata.set(FVFileThumbnailedGenerationKey, entry.version.data());
  opened.metadata.set(ResourceFileSizeKey, opened.size);
  opened.metadata.set(ResourceTypeIdentifierKey, type);
  opened.metadata.set(ResourceLocalizedTypeDescriptionKey, localizedTypeDescription(type));
  opened.metadata.set(ResourceIsWritableKey, false);
  opened.metadata.set(ResourceIsHiddenKey, false);
  return opened;
}

std::unique_ptr<DocumentWatch> LocalDocumentStore::watch(std::vector<DocumentVersion> documents, WatchHandler handler) {
  return watches_.add(std::move(documents), std::move(handler));
}

std::vector<StoreResult<Data>> LocalDocumentStore::currentVersions(const std::vector<DocumentVersion>& documents,
                                                                   const Attention* attention) {
  std::vector<DocumentIdentifier> identifiers;
  identifiers.reserve(documents.size());
  for (const DocumentVersion& each : documents) {
    identifiers.push_back(DocumentIdentifier::fromData(each.document).value_or(DocumentIdentifier()).document());
  }
  const auto neighbours =
      attention ? catalog_.versionsOfNeighbours(identifiers, attention->directories) : DirectoryCatalog::Versions();
  std::vector<StoreResult<Data>> versions;
  versions.reserve(documents.size());
  for (std::size_t i = 0; i < documents.size(); ++i) {
    const auto found = neighbours.find(identifiers[i]);
    versions.push_back(found == neighbours.end() ? currentVersion(documents[i].document) : found->second.data());
  }
  return versions;
}

StoreResult<Data> LocalDocumentStore::currentVersion(const Data& document) {
  if (document == index_->root().data()) {
    return root().map([](const Root& root) { return root.version.data(); });
  }
  const auto located = this->located(document, std::nullopt);
  if (!located) return tl::unexpected(located.error());
  if (!located->stamp.identity.directory) return located->entry().version.data();
  return catalog_.in(*located, [](KnownDirectory& known, const LocatedDocument&) -> StoreResult<Data> {
    return known.contents.version.data();
  });
}

}  // namespace florvane
