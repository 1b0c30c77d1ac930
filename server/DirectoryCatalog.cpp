#include "server/DirectoryCatalog.h"

#include <algorithm>
#include <unordered_set>
#include <utility>

#include <fcntl.h>

namespace florvane {

namespace {

// No path is deeper; a longer chain of records is a ring, left by moves that were seen in the wrong order.
constexpr int kMaximumDepth = 256;
// Entries held in memory, at about 400 bytes each with their share of a body.
constexpr std::size_t kEntriesBudget = 1'000'000;
// Going through so many entries costs about as much as looking one file up on the disk.
constexpr std::size_t kEntriesForAFile = 200;

tl::unexpected<StoreError> notFound() {
  return tl::unexpected(StoreError{StoreStatus::NotFound, "The item is not on the server any more."});
}

}  // namespace

DirectoryCatalog::DirectoryCatalog(StoreIndex& index, std::vector<ServedShare> shares, KnownDirectory::Touched touched,
                                   Changed changed)
    : index_(index), shares_(std::move(shares)), touched_(std::move(touched)), changed_(std::move(changed)) {}

StoreResult<DirectoryCatalog::Place> DirectoryCatalog::place(const DocumentIdentifier& document) const {
  Place place;
  std::vector<std::string> names;
  DocumentIdentifier current = document;
  for (int depth = 0; depth < kMaximumDepth; ++depth) {
    const auto share = std::find_if(shares_.begin(), shares_.end(),
                                    [&](const ServedShare& candidate) { return candidate.identifier == current; });
    if (share != shares_.end()) {
      place.share = &*share;
      for (auto name = names.rbegin(); name != names.rend(); ++name) {
        if (!place.path.empty()) place.path += '/';
        place.path += *name;
      }
      return place;
    }
    auto record = index_.find(current);
    if (!record) return tl::unexpected(record.error());
    if (!*record || (*record)->parent == DocumentIdentifier{}) return notFound();
    names.push_back((*record)->name);
    current = (*record)->parent;
    if (depth == 0) place.record = *std::move(*record);
  }
  return notFound();
}

StoreResult<LocatedDocument> DirectoryCatalog::locate(const DocumentIdentifier& document) {
  // The second look comes after the folders above were read again, which finds what was renamed or replaced.
  for (bool again : {false, true}) {
    auto place = this->place(document);
    if (!place) return tl::unexpected(place.error());
    const bool isShare = place->path.empty();
    StoreError failure{StoreStatus::NotFound, "The item is not on the server any more."};
    if (auto opened = place->share->folder->open(place->path, O_PATH)) {
      auto stamp = place->share->folder->stamp(opened->get());
      if (!stamp) return tl::unexpected(stamp.error());
      if (isShare) {
        place->record = {document,
                         index_.root(),
                         place->share->configuration().name,
                         place->share->number,
                         stamp->identity,
                         stamp->identity.birth,
                         {},
                         false};
      }
      if (stamp->identity == place->record.identity) {
        return LocatedDocument{place->share, std::move(place->record), *std::move(opened), *stamp};
      }
    } else if (opened.error().status != StoreStatus::NotFound) {
      return tl::unexpected(opened.error());
    }
    if (again || isShare) return tl::unexpected(failure);
    refresh(place->record.parent);
  }
  return notFound();
}

StoreResult<std::shared_ptr<KnownDirectory>> DirectoryCatalog::known(const LocatedDocument& located) {
  if (!located.stamp.identity.directory) {
    return tl::unexpected(StoreError{StoreStatus::NotFound, "“" + located.record.name + "” is not a folder."});
  }
  std::vector<std::shared_ptr<KnownDirectory>> evicted;  // go after the lock does
  const std::lock_guard lock(mutex_);
  const DocumentIdentifier& identifier = located.record.identifier;
  const auto found = known_.find(identifier);
  if (found != known_.end()) {
    uses_.splice(uses_.begin(), uses_, found->second.use);
    return found->second.directory;
  }
  auto directory = std::make_shared<KnownDirectory>(identifier, *located.share, touched_);
  uses_.push_front(identifier);
  known_.emplace(identifier, Kept{directory, uses_.begin()});
  evictBeyondBudget(evicted);
  return directory;
}

void DirectoryCatalog::evictBeyondBudget(std::vector<std::shared_ptr<KnownDirectory>>& evicted) {
  for (auto use = uses_.end(); held_ > kEntriesBudget && use != uses_.begin();) {
    --use;
    const auto found = known_.find(*use);
    // Whoever holds a reference is using it.
    if (found->second.directory->isAttended() || found->second.directory.use_count() > 1) continue;
    held_ -= found->second.directory->weight;
    evicted.push_back(std::move(found->second.directory));
    known_.erase(found);
    use = uses_.erase(use);
  }
}

Attention DirectoryCatalog::attend(const std::vector<DocumentIdentifier>& documents) {
  Attention attention;
  attention.directories.resize(documents.size());
  if (auto known = index_.directoriesOfFiles(documents)) attention.directories = *std::move(known);
  std::unordered_set<DocumentIdentifier, DocumentIdentifierHash> directories;
  for (std::size_t i = 0; i < documents.size(); ++i) {
    directories.insert(attention.directories[i].value_or(documents[i]));
  }
  attention.hold.reserve(directories.size());
  for (const DocumentIdentifier& directory : directories) attendDirectory(directory, attention);
  return attention;
}

void DirectoryCatalog::attendDirectory(const DocumentIdentifier& directory, Attention& attention) {
  auto located = locate(directory);
  if (!located) return;
  auto known = this->known(*located);
  if (!known) return;
  // Attention first: what changes during the look is then reported.
  attention.hold.push_back((*known)->attend());
  refresh(directory);
  attention.announced = attention.announced && (*known)->announced;
}

DirectoryCatalog::Versions DirectoryCatalog::versionsOfNeighbours(
    const std::vector<DocumentIdentifier>& documents,
    const std::vector<std::optional<DocumentIdentifier>>& directories) {
  using Identifiers = std::unordered_set<DocumentIdentifier, DocumentIdentifierHash>;
  std::unordered_map<DocumentIdentifier, Identifiers, DocumentIdentifierHash> byDirectory;
  for (std::size_t i = 0; i < documents.size(); ++i) {
    if (directories[i]) byDirectory[*directories[i]].insert(documents[i]);
  }
  Versions versions;
  for (const auto& [directory, files] : byDirectory) {
    if (files.size() < 2) continue;
    // What cannot be answered for here is left to whoever asks about it alone.
    (void)in(directory, [&, &wanted = files](KnownDirectory& known, const LocatedDocument&) -> StoreResult<void> {
      if (wanted.size() * kEntriesForAFile < known.contents.entries.size()) return {};
      for (const DirectoryEntry& entry : known.contents.entries) {
        if (wanted.contains(entry.identifier)) versions.emplace(entry.identifier, entry.version);
      }
      return {};
    });
  }
  return versions;
}

void DirectoryCatalog::refresh(const DocumentIdentifier& directory) {
  const auto result = in(directory, [](KnownDirectory&, const LocatedDocument&) -> StoreResult<void> { return {}; });
  // A directory that is gone is a change of its own and of all that was in it; other failures show when someone asks.
  if (result || result.error().status != StoreStatus::NotFound) return;
  std::vector<DocumentIdentifier> gone = {directory};
  std::shared_ptr<KnownDirectory> known;
  {
    const std::lock_guard lock(mutex_);
    const auto found = known_.find(directory);
    if (found != known_.end()) known = found->second.directory;
  }
  if (known && known->isAttended()) {
    const std::lock_guard lock(known->mutex);
    for (const DirectoryEntry& entry : known->contents.entries) gone.push_back(entry.identifier);
  }
  changed_(gone);
}

std::vector<DocumentIdentifier> DirectoryCatalog::unannounced() {
  const std::lock_guard lock(mutex_);
  std::vector<DocumentIdentifier> found;
  for (const auto& [identifier, kept] : known_) {
    if (kept.directory->isAttended() && !kept.directory->announced) found.push_back(identifier);
  }
  return found;
}

}  // namespace florvane
