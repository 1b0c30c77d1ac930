#include "server/DirectoryCatalog.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <utility>

#include <fcntl.h>

namespace florvane {

namespace {

// Folders inside an attended folder that are watched for its sake: their dates stand in its listing.
constexpr std::size_t kMaximumChildWatches = 1'000;
// What a directory weighs beside its entries, counted in entries.
constexpr std::size_t kDirectoryWeight = 20;

struct ByName {
  using is_transparent = void;
  template <typename A, typename B>
  bool operator()(const A& a, const B& b) const {
    return nameOf(a) < nameOf(b);
  }
  static std::string_view nameOf(std::string_view name) { return name; }
  template <typename T>
    requires requires(const T& named) { named.name; }
  static std::string_view nameOf(const T& named) {
    return named.name;
  }
};

// What happens in a folder, and through another link to a file, is not announced in the folder that it is listed in.
bool isUnsteady(const DirectoryEntry& entry) { return entry.stamp.identity.directory || entry.stamp.links > 1; }

// An editor that keeps the old file under such a name and writes a new one means the new one to be the document.
bool isBackupName(std::string_view name, std::string_view original) {
  if (!name.starts_with(original)) return false;
  const std::string_view rest = name.substr(original.size());
  return rest == "~" || rest == ".bak" || rest == ".orig" || (rest.starts_with(".~") && rest.ends_with('~'));
}

}  // namespace

// The work of bringing a directory's entries up to date.
struct DirectoryCatalog::Merge {
  std::vector<DirectoryEntry> resolved;  // what stands at the names now; newcomers have no identifier yet
  std::vector<std::size_t> newcomers;    // indices of resolved
  std::vector<DirectoryEntry> lost;      // entries whose file is not at their name any more
  std::set<DocumentIdentifier> taken;    // identifiers that newcomers took over
  std::vector<DocumentIdentifier> changed;
  std::vector<DocumentRecord> records;  // to be written
};

StoreResult<void> DirectoryCatalog::load(KnownDirectory& directory) {
  auto records = index_.childrenOf(directory.identifier());
  if (!records) return tl::unexpected(records.error());
  auto& contents = directory.contents;
  contents.entries.clear();
  contents.sum = {};
  contents.body = {};
  for (DocumentRecord& record : *records) {
    if (record.missing) continue;
    FileStamp stamp;
    stamp.identity = record.identity;
    contents.entries.push_back({record.identifier, std::move(record.name), stamp, record.added, record.created, {}});
  }
  std::sort(contents.entries.begin(), contents.entries.end(), ByName());
  contents.loaded = true;
  return {};
}

StoreResult<std::vector<DirectoryCatalog::Found>> DirectoryCatalog::look(
    const KnownDirectory& directory, int descriptor, const std::optional<std::vector<std::string>>& names) const {
  auto all = names ? StoreResult<std::vector<std::string>>(*names) : ShareFolder::names(descriptor);
  if (!all) return tl::unexpected(all.error());
  std::vector<Found> found;
  found.reserve(all->size());
  const FileIdentity& hidden = directory.share().hidden;
  for (std::string& name : *all) {
    if (!isLegalName(name)) continue;
    auto stamp = directory.share().folder->stamp(descriptor, name.c_str());
    if (!stamp) {
      if (stamp.error().status == StoreStatus::NotFound) continue;
      return tl::unexpected(stamp.error());
    }
    if (!stamp->isRegular() && !stamp->identity.directory) continue;
    if (hidden.directory && stamp->identity == hidden) continue;
    found.push_back({std::move(name), *stamp});
  }
  std::sort(found.begin(), found.end(), ByName());
  return found;
}

// Whether what was found at some names is what is known of them.
bool DirectoryCatalog::isAsKnown(const std::vector<DirectoryEntry>& entries, const std::vector<Found>& found,
                                 const std::vector<std::string>& names) {
  auto next = found.begin();
  for (const std::string& name : names) {
    const auto known = std::lower_bound(entries.begin(), entries.end(), name, ByName());
    const bool wasThere = known != entries.end() && known->name == name;
    const bool isThere = next != found.end() && next->name == name;
    if (wasThere != isThere || (isThere && !(known->stamp == next->stamp))) return false;
    if (isThere) ++next;
  }
  return true;
}

StoreResult<void> DirectoryCatalog::refresh(KnownDirectory& directory, const LocatedDocument& located,
                                            const ClientDates* dates) {
  auto& contents = directory.contents;
  const int descriptor = located.descriptor.get();
  const auto stamp = located.share->folder->stamp(descriptor);
  if (!stamp) {
    contents.loaded = false;
    return tl::unexpected(stamp.error());
  }
  // Another folder has taken the place: what is watched and remembered is the former one's.
  if (!(contents.self.stamp.identity == stamp->identity)) contents.watch = nullptr;
  bool everything = false;
  if (!contents.loaded) {
    if (auto loaded = load(directory); !loaded) return loaded;
    everything = true;
  }
  if (!contents.watch || !contents.watch->active()) {
    contents.watch =
        ShareFolder::announcesChanges(descriptor) ? watcher_.watch(descriptor, directory.weak_from_this()) : nullptr;
    directory.announced = contents.watch != nullptr;
    everything = true;
  }
  watcher_.drain();
  KnownDirectory::Pending pending = directory.takePending();

  std::optional<std::vector<std::string>> names;
  if (!everything && !pending.everything) {
    names.emplace(pending.names.begin(), pending.names.end());
    for (const DirectoryEntry& entry : contents.entries) {
      if (names->size() == pending.names.size() + contents.unsteady) break;
      if (isUnsteady(entry) && !pending.names.contains(entry.name)) names->push_back(entry.name);
    }
    std::sort(names->begin(), names->end());
  }
  auto found = look(directory, descriptor, names);
  StoreResult<void> merged;
  if (!found) {
    merged = tl::unexpected(found.error());
  } else if (!names || dates || !isAsKnown(contents.entries, *found, *names)) {
    merged = merge(directory, *std::move(found), names, dates);
  }
  if (!merged) {
    // Nothing half done is kept: the next look starts from the index.
    contents.loaded = false;
    return merged;
  }
  DirectoryEntry self = DirectoryEntry::from(located.record, *stamp, located.share->configuration());
  const VersionDigest sum = located.share->configuration().dropBox ? VersionDigest{} : contents.sum;
  const std::size_t count = located.share->configuration().dropBox ? 0 : contents.entries.size();
  const VersionDigest version = listingVersion(self.version, sum, count);
  contents.self = std::move(self);
  if (!(version == contents.version)) {
    contents.version = version;
    contents.body = {};
    contents.changed.push_back(directory.identifier());
  }
  const std::size_t weight = contents.entries.size() + kDirectoryWeight;
  held_ += weight - directory.weight.exchange(weight);
  watchChildren(directory, descriptor);
  return {};
}

StoreResult<void> DirectoryCatalog::merge(KnownDirectory& directory, std::vector<Found> found,
                                          const std::optional<std::vector<std::string>>& names,
                                          const ClientDates* dates) {
  auto& contents = directory.contents;
  const ShareConfiguration& share = directory.share().configuration();
  std::vector<DirectoryEntry> previous;   // entries at the names that were looked at
  std::vector<DirectoryEntry> untouched;  // the rest
  if (!names) {
    previous = std::move(contents.entries);
  } else {
    for (DirectoryEntry& entry : contents.entries) {
      const bool looked = std::binary_search(names->begin(), names->end(), entry.name);
      (looked ? previous : untouched).push_back(std::move(entry));
    }
  }
  contents.entries.clear();

  Merge merge;
  merge.resolved.reserve(found.size());
  auto before = previous.begin();
  for (Found& item : found) {
    for (; before != previous.end() && before->name < item.name; ++before) merge.lost.push_back(std::move(*before));
    const bool sameName = before != previous.end() && before->name == item.name;
    if (sameName && before->stamp.identity == item.stamp.identity) {
      DirectoryEntry& entry = merge.resolved.emplace_back(std::move(*before++));
      const bool dated = dates && dates->identity == item.stamp.identity;
      if (entry.stamp == item.stamp && !dated) continue;
      contents.sum -= entry.version;
      entry.stamp = item.stamp;
      if (dated) {
        entry.created = dates->created ? dates->created : entry.created;
        entry.added = dates->added.value_or(entry.added);
        merge.records.push_back(entry.record(directory.share().number, directory.identifier()));
      }
      entry.updateVersion(share);
      contents.sum += entry.version;
      merge.changed.push_back(entry.identifier);
      continue;
    }
    if (sameName) merge.lost.push_back(std::move(*before++));
    merge.newcomers.push_back(merge.resolved.size());
    merge.resolved.push_back({{}, std::move(item.name), item.stamp, item.stamp.changed, {}, {}});
  }
  std::move(before, previous.end(), std::back_inserter(merge.lost));

  if (auto identified = identify(directory, merge); !identified) return identified;
  for (const std::size_t index : merge.newcomers) {
    DirectoryEntry& entry = merge.resolved[index];
    if (dates && dates->identity == entry.stamp.identity) {
      entry.created = dates->created ? dates->created : entry.created;
      entry.added = dates->added.value_or(entry.added);
    }
    entry.updateVersion(share);
    contents.sum += entry.version;
    merge.changed.push_back(entry.identifier);
    merge.records.push_back(entry.record(directory.share().number, directory.identifier()));
  }
  std::vector<DocumentIdentifier> missing;
  for (const DirectoryEntry& entry : merge.lost) {
    contents.sum -= entry.version;
    contents.childWatches.erase(entry.identifier);  // it names the place that the folder has left
    if (merge.taken.contains(entry.identifier)) continue;
    missing.push_back(entry.identifier);
    merge.changed.push_back(entry.identifier);
  }
  if (!merge.records.empty() || !missing.empty()) {
    auto written = index_.update(merge.records, directory.identifier(), missing);
    if (!written) return written;
  }
  contents.entries.reserve(untouched.size() + merge.resolved.size());
  std::merge(std::move_iterator(untouched.begin()), std::move_iterator(untouched.end()),
             std::move_iterator(merge.resolved.begin()), std::move_iterator(merge.resolved.end()),
             std::back_inserter(contents.entries), ByName());
  contents.unsteady =
      static_cast<std::size_t>(std::count_if(contents.entries.begin(), contents.entries.end(), isUnsteady));
  contents.changed.insert(contents.changed.end(), merge.changed.begin(), merge.changed.end());
  return {};
}

// Gives every newcomer its identifier: that of the same file under its former name here, else that of the file whose
// name it took, else that of the same file elsewhere, else that which its name had before, else a new one.
StoreResult<void> DirectoryCatalog::identify(const KnownDirectory& directory, Merge& merge) const {
  if (merge.newcomers.empty()) return {};
  std::map<FileIdentity, const DirectoryEntry*> lostByIdentity;
  std::map<std::string_view, const DirectoryEntry*> lostByName;
  for (const DirectoryEntry& entry : merge.lost) {
    lostByIdentity.emplace(entry.stamp.identity, &entry);
    lostByName.emplace(entry.name, &entry);
  }
  const auto take = [&](DirectoryEntry& newcomer, const DirectoryEntry& lost) {
    if (!merge.taken.insert(lost.identifier).second) return;
    newcomer.identifier = lost.identifier;
    newcomer.added = lost.added;
    newcomer.created = lost.created;
  };
  for (const std::size_t index : merge.newcomers) {
    DirectoryEntry& newcomer = merge.resolved[index];
    const auto same = lostByIdentity.find(newcomer.stamp.identity);
    if (same != lostByIdentity.end() && !isBackupName(newcomer.name, same->second->name)) {
      take(newcomer, *same->second);
    }
  }
  for (const std::size_t index : merge.newcomers) {
    DirectoryEntry& newcomer = merge.resolved[index];
    if (newcomer.identifier != DocumentIdentifier{}) continue;
    const auto sameName = lostByName.find(newcomer.name);
    if (sameName != lostByName.end() &&
        sameName->second->stamp.identity.directory == newcomer.stamp.identity.directory) {
      // Unless the file that had the name was met elsewhere since, with its identifier.
      auto record = index_.at(directory.identifier(), newcomer.name);
      if (!record) return tl::unexpected(record.error());
      if (*record && (*record)->identifier == sameName->second->identifier) take(newcomer, *sameName->second);
    }
    if (newcomer.identifier != DocumentIdentifier{}) continue;
    auto taken = takeRecord(directory, merge, newcomer);
    if (!taken) return tl::unexpected(taken.error());
    if (*taken) continue;
    auto fresh = makeDocumentIdentifier();
    if (!fresh) return tl::unexpected(fresh.error());
    newcomer.identifier = *fresh;
  }
  return {};
}

StoreResult<bool> DirectoryCatalog::takeRecord(const KnownDirectory& directory, Merge& merge,
                                               DirectoryEntry& newcomer) const {
  const auto take = [&](const DocumentRecord& record) {
    if (!merge.taken.insert(record.identifier).second) return false;
    newcomer.identifier = record.identifier;
    newcomer.created = record.created;
    return true;
  };
  auto same = index_.withIdentity(directory.share().number, newcomer.stamp.identity);
  if (!same) return tl::unexpected(same.error());
  if (*same) {
    const DocumentRecord& record = **same;
    const bool certain = newcomer.stamp.identity.birth != 0 || record.name == newcomer.name;
    if (certain && !isBackupName(newcomer.name, record.name) && !standsElsewhere(record, newcomer.stamp) &&
        take(record)) {
      return true;
    }
  }
  auto former = index_.at(directory.identifier(), newcomer.name);
  if (!former) return tl::unexpected(former.error());
  return *former && (*former)->missing && (*former)->identity.directory == newcomer.stamp.identity.directory &&
         take(**former);
}

// Whether the file is still where its record says, beside being where it was found now: then they are two links.
bool DirectoryCatalog::standsElsewhere(const DocumentRecord& record, const FileStamp& stamp) const {
  if (stamp.links < 2) return false;
  const auto place = this->place(record.identifier);
  if (!place) return false;
  const auto there = place->share->folder->open(place->path, O_PATH);
  if (!there) return false;
  const auto found = place->share->folder->stamp(there->get());
  return found && found->identity == stamp.identity;
}

void DirectoryCatalog::watchChildren(KnownDirectory& directory, int descriptor) {
  auto& contents = directory.contents;
  if (!directory.isAttended() || !contents.watch) {
    contents.childWatches.clear();
    return;
  }
  if (contents.unsteady == 0) return;
  for (const DirectoryEntry& entry : contents.entries) {
    if (contents.childWatches.size() >= kMaximumChildWatches) return;
    if (!entry.stamp.identity.directory || contents.childWatches.contains(entry.identifier)) continue;
    const FileDescriptor child(::openat(descriptor, entry.name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!child.valid()) continue;
    auto watch = watcher_.watchChild(child.get(), directory.weak_from_this(), entry.name);
    if (!watch) return;
    contents.childWatches.emplace(entry.identifier, std::move(watch));
    // What happened in it between the look and now was not announced.
    directory.entryChanged(entry.name);
  }
}

}  // namespace florvane
