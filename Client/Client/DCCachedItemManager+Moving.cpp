#include "Client/Client/DCCachedItemEnvironment.h"
#include "Client/Client/DCCachedItemManager.h"
#include "Client/Client/DCFileStamp.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCTemporaryFile.h"
#include "common/PUAdditions.h"
#include "platform/Crypto.h"
#include "platform/FileSystem.h"
#include "platform/ResourceValues.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include <unistd.h>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCCachedItemManager";
constexpr char kParkedPrefix[] = ".florvane-parked-";
constexpr char kStagingPrefix[] = "/upload+";

std::string_view lastComponent(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

void logFailedRename(const std::string& from, const std::string& to, const Error& error) {
  DCLogWarning("Failed to rename '%@' to '%@': %@", from, to, error);
}

}  // namespace

bool DCCachedItemManager::isParkedPath(std::string_view path) { return lastComponent(path).starts_with(kParkedPrefix); }

void DCCachedItemManager::moveItem(const DCCachedItem::Ptr& item, const std::optional<Data>& documentIdentifier,
                                   const std::optional<Data>& versionIdentifier,
                                   const DCRelativePath::Ptr& toRelativePath) {
  DCLogTrace("-[DCCachedItemManager moveItem:withDocumentIdentifier:versionIdentifier:toRelativePath:]",
             {{"item", item->description()},
              {"documentIdentifier", documentIdentifier},
              {"versionIdentifier", versionIdentifier},
              {"toRelativePath", toRelativePath}});
  if (item->hasBeenRemoved() || item->isRoot() || toRelativePath->isRoot()) return;
  if (documentIdentifier && !item->documentIdentifier()) (void)item->updateDocumentIdentifier(documentIdentifier);
  const std::string from = item->relativePath()->string();
  if (from == toRelativePath->string()) {
    DCAssertionFailed(kSource, __LINE__, "![item.relativePath.string isEqualToString:relativePath.string]");
    return;
  }
  // What is below the one that makes room goes with it.
  if (makeRoom(item, toRelativePath)) movePath(item->relativePath()->string(), toRelativePath);
}

// False when the item has become what waited at the destination.
bool DCCachedItemManager::makeRoom(const DCCachedItem::Ptr& item, const DCRelativePath::Ptr& toRelativePath) {
  const std::string& to = toRelativePath->string();
  auto identifier = item->documentIdentifier();
  auto occupant = database().knownDocumentIdentifierForPath(to);
  if (occupant && occupant == identifier) return true;
  if (occupant) {
    const std::string name = kParkedPrefix + pu_hex(digest(DigestAlgorithm::SHA1, occupant->span()));
    movePath(to, toRelativePath->relativePathByDeletingLastPathComponent()->relativePathByAppendingPathComponent(name));
    return true;
  }
  auto upload = database().knownUploadForPath(to);
  auto staged = upload ? upload->fileURL() : std::nullopt;
  if (!staged) return true;
  if (std::dynamic_pointer_cast<DCCachedFile>(item) && identifier) {
    giveDocumentToStagedFile(item, toRelativePath);
    return false;
  }
  // Nothing can be made of bytes where a folder is now.
  return recoverUpload(to);
}

// The bytes of an upload are kept, and its record goes; false when they could not be.
bool DCCachedItemManager::recoverUpload(const std::string& path) {
  auto upload = database().uploadForPath(path);
  const auto source = upload ? upload->fileURL() : std::nullopt;
  if (source && fileExists(*source) && !recover(*source, path)) return false;
  if (upload) (void)database().removeUploadForPath(path);
  return true;
}

// Two that wanted one name: the new file goes on waiting, now as the contents of the document that has the name, and
// based on none of its versions, so that the server decides.
void DCCachedItemManager::giveDocumentToStagedFile(const DCCachedItem::Ptr& item, const DCRelativePath::Ptr& path) {
  const auto identifier = item->documentIdentifier();
  const std::string from = item->relativePath()->string();
  auto newFile = file(path);
  if (!newFile || !identifier) return;
  if (!recoverUpload(from)) return;
  if (auto contents = item->contentsPath(); contents && fileExists(*contents)) {
    if (item->isUnsent() && !recover(*contents, from)) return;
    (void)florvane::removeItem(*contents);
  }
  forgetItem(item);
  (void)newFile->updateDocumentIdentifier(identifier);
  (void)database().removePath(from);
}

void DCCachedItemManager::movePath(const std::string& from, const DCRelativePath::Ptr& to) {
  std::vector<FileMove> moves;
  {
    auto locked = lock();
    auto identifier = database().knownDocumentIdentifierForPath(from);
    // The new names first, then the records, then the old names go: killed in between, the file is where the record
    // says.
    if (identifier) moves = linkFiles(*identifier, from, to);
    moveRecords(from, to->string(), identifier, moves);
    moveRegistered(from, to->string());
    moveStagedFiles(to->string());
  }
  for (const FileMove& move : moves) moveFile(move);
}

std::vector<DCCachedItemManager::FileMove> DCCachedItemManager::linkFiles(const Data& documentIdentifier,
                                                                          const std::string& from,
                                                                          const DCRelativePath::Ptr& to) {
  std::vector<FileMove> moves;
  const std::string oldName(lastComponent(from)), newName = to->lastPathComponent();
  if (oldName == newName) return moves;
  const auto paths = database().pathsForDocumentIdentifier(documentIdentifier);
  const bool isShared = std::any_of(paths.begin(), paths.end(), [&](const std::string& path) {
    return path != from && path != to->string() && lastComponent(path) == oldName;
  });
  for (const std::string& root : {environment_->documentRoot, environment_->metadataRoot}) {
    const std::string folder = root + "/" + pu_hex(documentIdentifier) + "/";
    FileMove move{folder + oldName, folder + newName, isShared};
    auto stamp = DCFileStamp::of(move.from), present = DCFileStamp::of(move.to);
    if (!stamp) continue;
    if (!present || !present->isSameFile(*stamp)) {
      if (present && root == environment_->documentRoot) recoverFileIfUnsent(move.to, documentIdentifier, to);
      auto linked = DCTemporaryFile::linkedTo(move.from, move.to);
      auto moved = linked ? linked->moveTo(move.to) : Result<void>(Failure(linked.error()));
      if (!moved) {
        logFailedRename(move.from, move.to, moved.error());
        continue;
      }
    }
    moves.push_back(std::move(move));
  }
  return moves;
}

void DCCachedItemManager::moveRecords(const std::string& from, const std::string& to,
                                      const std::optional<Data>& documentIdentifier,
                                      const std::vector<FileMove>& moves) {
  auto upload = database().knownUploadForPath(from);
  const Data key = documentIdentifier.value_or(Data::fromString(from));
  auto stored = database().knownStoredLocalMetadataForDocumentIdentifier(key);
  if (!upload && !stored) {
    (void)database().renamePathsBelow(from, to);
    return;
  }
  (void)database().performBatch([&] {
    (void)database().renamePathsBelow(from, to);
    for (const FileMove& move : moves) {
      if (upload && upload->fileURL() == move.from) upload->setFileURL(move.to);
      if (stored) stored->updateWithValuesFromDictionary({{ResourcePathKey, move.to}});
    }
  });
}

// New files below what has moved wait where their new paths say, so that the old place is free for others.
void DCCachedItemManager::moveStagedFiles(const std::string& to) {
  auto uploads = database().knownUploadsBelow(to, false);
  if (auto own = database().knownUploadForPath(to)) uploads.emplace_back(to, own);
  for (const auto& [path, upload] : uploads) {
    auto staged = upload->fileURL();
    const bool isStaged = staged && staged->starts_with(environment_->documentRoot + kStagingPrefix);
    if (!isStaged || database().knownDocumentIdentifierForPath(path) || !fileExists(*staged)) continue;
    auto relativePath = DCRelativePath::relativePathWithString(path, service());
    const std::string target =
        DCFullPath::uploadFullPathWithParentRelativePath(relativePath->relativePathByDeletingLastPathComponent(),
                                                         relativePath->lastPathComponent())
            ->string();
    if (target == *staged) continue;
    auto linked = DCTemporaryFile::linkedTo(*staged, target);
    auto moved = linked ? linked->moveTo(target) : Result<void>(Failure(linked.error()));
    if (moved) moved = database().saveUploadFileURL(URL::fileURL(target), path);
    if (!moved) {
      logFailedRename(*staged, target, moved.error());
      continue;
    }
    auto left = DCFileStamp::of(*staged), present = DCFileStamp::of(target);
    // Not what another process has just put there.
    if (left && present && left->isSameFile(*present)) (void)florvane::removeItem(*staged);
    rmdir(folderOf(*staged).c_str());  // stays while others wait in it
  }
}

void DCCachedItemManager::moveRegistered(const std::string& from, const std::string& to) {
  std::vector<std::pair<std::string, DCCachedItem::Ptr>> moved;
  auto place = items_.find(from);
  if (place != items_.end()) {
    moved.emplace_back(to, place->second);
    items_.erase(place);
  }
  const std::string prefix = from + "/";
  for (place = items_.lower_bound(prefix); place != items_.end() && place->first.starts_with(prefix);) {
    moved.emplace_back(to + place->first.substr(from.size()), place->second);
    place = items_.erase(place);
  }
  for (auto& [path, item] : moved) {
    if (auto other = items_.find(path); other != items_.end()) {
      other->second->setHasBeenRemoved(true);
      items_.erase(other);
    }
    item->renameRelativePath(DCRelativePath::relativePathWithString(path, service()));
    items_.emplace(path, item);
  }
}

void DCCachedItemManager::moveFile(const FileMove& move) {
  if (move.keepsOld) return;
  Result<void> moved;
  auto coordinated = coordinator().coordinateWritingItemAtURL(
      URL::fileURL(move.from), FileCoordinatorWritingOptions::ForMoving, URL::fileURL(move.to),
      FileCoordinatorWritingOptions::ForReplacing, [&](const URL&, const URL&) {
        auto old = DCFileStamp::of(move.from), present = DCFileStamp::of(move.to);
        if (!old) return;
        // Replaced by somebody since it got its new name: his is the one.
        const bool isReplaced = !present || !present->isSameFile(*old);
        const int failed = isReplaced ? rename(move.from.c_str(), move.to.c_str()) : unlink(move.from.c_str());
        if (failed != 0) moved = Failure(Error::fileWrite(errno, move.to));
      });
  if (!coordinated) moved = coordinated;
  if (!moved) logFailedRename(move.from, move.to, moved.error());
}

}  // namespace florvane
