#include "Client/Client/DCCachedItemEnvironment.h"
#include "Client/Client/DCCachedItemManager.h"
#include "Client/Client/DCFileStamp.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCTemporaryFile.h"
#include "common/PUAdditions.h"
#include "platform/FileSystem.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCCachedItemManager";

std::string_view lastComponent(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

}  // namespace

void DCCachedItemManager::removeItem(const DCCachedItem::Ptr& item) {
  DCLogTrace("-[DCCachedItemManager removeItem:]", {{"item", item->description()}});
  removeItems({item});
}

void DCCachedItemManager::removeItems(const std::vector<DCCachedItem::Ptr>& items) {
  std::vector<Removal> removals;
  for (const DCCachedItem::Ptr& item : items) {
    if (item->isRoot() || item->hasBeenRemoved()) continue;
    for (Removal& removal : takeOut(item)) removals.push_back(std::move(removal));
  }
  std::unordered_set<std::string> paths;
  for (const Removal& removal : removals) paths.insert(removal.path->string());
  // Files before records: what a kill interrupts is found again by its records.
  std::erase_if(removals, [&](Removal& removal) {
    auto removed = removeFiles(removal, paths);
    if (removed) return false;
    DCLogWarning("Unable to remove '%@': %@", removal.path->string(), removed.error());
    DCAssertionFailed(kSource, __LINE__, "!error && !error2");
    return true;
  });
  removeRecords(removals);
}

// The item and all below it, out of the registry.
std::vector<DCCachedItemManager::Removal> DCCachedItemManager::takeOut(const DCCachedItem::Ptr& item) {
  auto locked = lock();
  auto contents = item->_contentsFullPath(), full = item->fullPathIfKnown();
  const bool isSame = (!contents && !full) || (contents && full && contents->string() == full->string());
  if (!isSame) DCAssertionFailed(kSource, __LINE__, "[item.fullPath.string isEqualToString:contentsURL.path]");

  const std::string path = item->relativePath()->string();
  std::map<std::string, Removal> removals;
  removals[path] = {item->relativePath(), item->documentIdentifier(), item};
  auto add = [&](const std::string& below) -> Removal& {
    Removal& removal = removals[below];
    if (!removal.path) removal.path = DCRelativePath::relativePathWithString(below, service());
    return removal;
  };
  for (const auto& [below, identifier] : database().documentIdentifiersForPathsBelow(path)) {
    add(below).documentIdentifier = identifier;
  }
  for (const auto& [below, upload] : database().knownUploadsBelow(path, false)) add(below);
  const std::string prefix = path + "/";
  for (auto place = items_.lower_bound(prefix); place != items_.end() && place->first.starts_with(prefix);) {
    Removal& removal = add(place->first);
    removal.item = place->second;
    if (!removal.documentIdentifier) removal.documentIdentifier = place->second->documentIdentifier();
    place = items_.erase(place);
  }
  if (auto place = items_.find(path); place != items_.end() && place->second == item) items_.erase(place);
  std::vector<Removal> list;
  list.reserve(removals.size());
  for (auto& [key, removal] : removals) {
    if (removal.item) removal.item->setHasBeenRemoved(true);
    list.push_back(std::move(removal));
  }
  return list;
}

Result<void> DCCachedItemManager::removeFiles(Removal& removal, const std::unordered_set<std::string>& removedPaths) {
  if (!removal.documentIdentifier) return recoverUnsent(removal);
  auto remaining = database().pathsForDocumentIdentifier(*removal.documentIdentifier);
  std::erase_if(remaining, [&](const std::string& path) { return removedPaths.contains(path); });
  removal.isLastPath = remaining.empty();
  if (!removal.isLastPath) return leaveToOtherPath(removal, remaining);
  return removeDocument(removal);
}

// Bytes that were never sent leave the cache before anything removes them.
Result<void> DCCachedItemManager::recoverUnsent(const Removal& removal) {
  auto file = std::dynamic_pointer_cast<DCCachedFile>(removal.item);
  if (!file && !removal.item) file = std::make_shared<DCCachedFile>(removal.path, environment_);
  auto contents = file && file->isUnsent() ? file->contentsPath() : std::nullopt;
  if (!contents || !fileExists(*contents)) return {};
  return recover(*contents, removal.path->string());
}

// The document is still at another path, and what is known of it here goes on there.
Result<void> DCCachedItemManager::leaveToOtherPath(const Removal& removal, const std::vector<std::string>& remaining) {
  const std::string name = removal.path->lastPathComponent();
  auto sharing = std::find_if(remaining.begin(), remaining.end(),
                              [&](const std::string& path) { return lastComponent(path) == name; });
  const bool isShared = sharing != remaining.end();
  const std::string& heir = isShared ? *sharing : remaining.front();
  auto upload = database().knownUploadForPath(removal.path->string());
  const std::string folder = "/" + pu_hex(*removal.documentIdentifier) + "/";
  const std::string contents = environment_->documentRoot + folder + name;
  const std::string heirsContents = environment_->documentRoot + folder + std::string(lastComponent(heir));
  const bool heirHasOwn = contents != heirsContents && fileExists(heirsContents);
  const bool movesUpload = upload && !heirHasOwn && !database().knownUploadForPath(heir);
  if (upload && !movesUpload && !isShared) {
    if (auto recovered = recoverUnsent(removal); !recovered) return recovered;
  }
  if (!isShared && fileExists(contents)) {
    if (heirHasOwn) {
      if (auto recovered = recoverUnsent(removal); !recovered) return recovered;
      if (auto removed = florvane::removeItem(contents); !removed) return removed;
    } else if (rename(contents.c_str(), heirsContents.c_str()) != 0) {
      return Failure(Error::fileWrite(errno, heirsContents));
    }
  }
  const std::string listing = environment_->metadataRoot + folder + name;
  const std::string heirsListing = environment_->metadataRoot + folder + std::string(lastComponent(heir));
  if (!isShared && fileExists(listing) && rename(listing.c_str(), heirsListing.c_str()) != 0) {
    return Failure(Error::fileWrite(errno, heirsListing));
  }
  if (!movesUpload) return {};
  return database().performBatch([&] {
    (void)database().saveUploadFileURL(URL::fileURL(heirsContents), heir);
    if (auto moved = database().uploadForPath(heir)) moved->setGenerationIdentifier(upload->generationIdentifier());
  });
}

Result<void> DCCachedItemManager::removeDocument(const Removal& removal) {
  const std::string folder = "/" + pu_hex(*removal.documentIdentifier);
  for (const std::string& path : {environment_->documentRoot + folder, environment_->metadataRoot + folder}) {
    if (!DCFileStamp::of(path)) continue;
    Result<void> removed;
    auto coordinated =
        coordinateWritingItemAtURL(URL::fileURL(path), FileCoordinatorWritingOptions::ForDeleting, [&](const URL&) {
          // Another process may have written the file until now.
          removed = recoverUnsent(removal);
          if (removed) removed = removeTree(path);
        });
    if (!coordinated) return coordinated;
    if (!removed) return removed;
  }
  return {};
}

// What the record names was moved away with the item's files, unless another process has written the file since.
bool DCCachedItemManager::hasLateUpload(const Removal& removal) const {
  auto upload = removal.isLastPath ? database().knownUploadForPath(removal.path->string()) : nullptr;
  const auto source = upload ? upload->fileURL() : std::nullopt;
  return source && fileExists(*source);
}

void DCCachedItemManager::removeRecords(const std::vector<Removal>& removals) {
  if (removals.empty()) return;
  database().refresh();
  for (const Removal& removal : removals) {
    if (hasLateUpload(removal)) (void)recoverUpload(removal.path->string());
  }
  auto remove = [&] {
    for (const Removal& removal : removals) {
      const std::string& path = removal.path->string();
      (void)database().removePath(path);
      if (removal.isLastPath) {
        const Data key = removal.documentIdentifier.value_or(Data::fromString(path));
        if (database().knownStoredLocalMetadataForDocumentIdentifier(key)) {
          (void)database().removeStoredLocalMetadataForDocumentIdentifier(key);
        }
        if (database().knownOtherMetadataForDocumentIdentifier(key)) {
          (void)database().removeOtherMetadataForDocumentIdentifier(key);
        }
      }
      // One that came at the very last is sent as a new file.
      if (database().knownUploadForPath(path) && !hasLateUpload(removal)) (void)database().removeUploadForPath(path);
    }
  };
  (void)database().performBatch(remove);
}

}  // namespace florvane
