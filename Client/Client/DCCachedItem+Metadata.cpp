#include "Client/Client/DCCachedDirectory.h"
#include "Client/Client/DCCachedItem+RemoteMetadata.h"
#include "Client/Client/DCCachedItem.h"
#include "Client/Client/DCCachedItemEnvironment.h"
#include "Client/Client/DCCachedItemManager.h"
#include "Client/Client/DCCachedThumbnail.h"
#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCTakeInLock.h"
#include "Client/Client/DCTemporaryFile.h"
#include "common/FVFGenerationIdentifierUtils.h"
#include "common/FVFMetadataUtils.h"
#include "platform/Exceptions.h"
#include "platform/FileSystem.h"
#include "platform/Format.h"
#include "platform/GenerationCounter.h"
#include "platform/ResourceValues.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCCachedItem";

}  // namespace

// The four sets.

std::optional<Dictionary> DCCachedItem::_fileSystemMetadataWithoutNeedingLocking() const {
  auto path = contentsPath();
  if (!path) return std::nullopt;
  if (!DCFileStamp::of(*path)) return std::nullopt;  // most items have no contents; an error costs more to make
  auto values = resourceValues(*path, DCCachedFSLocalAttributesKeysToGet());
  if (!values || values->empty()) return std::nullopt;
  if (isRoot()) values->set(ResourceNameKey, "");
  return std::move(*values);
}

Dictionary DCCachedItem::_storedLocalMetadata() const {
  if (auto stored = database().knownStoredLocalMetadataForDocumentIdentifier(_dataKey())) {
    return stored->dictionaryRepresentation();
  }
  return {{ResourcePathKey, path_->string()}, {ResourceNameKey, path_->lastPathComponent()}};
}

std::optional<Dictionary> DCCachedItem::localMetadata() const {
  DCLogTrace("-[DCCachedItem localMetadata]");
  auto locked = lock();
  auto fileSystem = _fileSystemMetadataWithoutNeedingLocking();
  Dictionary metadata = _storedLocalMetadata();
  if (metadata.empty() && !fileSystem) return std::nullopt;
  if (fileSystem) {
    for (const auto& [key, value] : *fileSystem) metadata.set(key, value);
  }
  if (database().knownUploadForPath(path_->string())) metadata.set(DCFileNeedsUploadKey, true);
  return metadata;
}

std::shared_ptr<DCManagedOtherMetadata> DCCachedItem::managedOtherMetadata() const {
  DCLogTrace("-[DCCachedItem managedOtherMetadata]");
  auto locked = lock();
  return database().knownOtherMetadataForDocumentIdentifier(_dataKey());
}

std::optional<Dictionary> DCCachedItem::otherMetadata() const {
  DCLogTrace("-[DCCachedItem otherMetadata]");
  auto managed = managedOtherMetadata();
  if (!managed) return std::nullopt;
  auto metadata = managed->dictionaryRepresentation();
  return metadata.empty() ? std::nullopt : std::optional(metadata);
}

std::optional<Dictionary> DCCachedItem::parentContentsMetadata() const {
  DCLogTrace("-[DCCachedItem parentContentsMetadata]");
  auto locked = lock();
  if (isRoot()) return std::nullopt;
  auto directory = parent();
  return directory ? directory->_parentContentsMetadataForChildAtRelativePath(path_) : std::nullopt;
}

// Bookkeeping.

void DCCachedItem::saveOtherMetadata(const Dictionary& values) {
  if (hasBeenRemoved_) return;
  // Logged when it fails; the values are in memory all the same.
  (void)database().saveOtherMetadata(values, _dataKey());
}

void DCCachedItem::setOtherMetadataDate(std::string_view key, const std::optional<Date>& date) {
  auto locked = lock();
  if (hasBeenRemoved_) return;
  auto managed = managedOtherMetadata();
  const bool isDownload = key == DCFileLastDownloadDateKey;
  auto present = !managed ? std::nullopt : isDownload ? managed->lastDownloadedDate() : managed->lastUploadDate();
  if (present == date) return;
  if (date) return saveOtherMetadata({{Key(key), *date}});
  if (isDownload) {
    managed->setLastDownloadedDate(std::nullopt);
  } else {
    managed->setLastUploadDate(std::nullopt);
  }
  (void)database().save();
}

std::optional<Data> DCCachedItem::lastRemoteMetadataVersionIdentifier() const {
  DCLogTrace("-[DCCachedItem lastRemoteMetadataVersionIdentifier]");
  auto managed = managedOtherMetadata();
  return managed ? managed->lastRemoteMetadataVersionIdentifier() : std::nullopt;
}

std::optional<Date> DCCachedItem::lastRemoteMetadataUpdate() const {
  DCLogTrace("-[DCCachedItem lastRemoteMetadataUpdate]");
  auto managed = managedOtherMetadata();
  return managed ? managed->lastRemoteMetadataUpdateDate() : std::nullopt;
}

std::optional<Date> DCCachedItem::lastDownloadDate() const {
  DCLogTrace("-[DCCachedItem lastDownloadDate]");
  auto managed = managedOtherMetadata();
  return managed ? managed->lastDownloadedDate() : std::nullopt;
}

void DCCachedItem::setLastDownloadDate(const std::optional<Date>& date) {
  DCLogTrace("-[DCCachedItem setLastDownloadDate:]", {{"lastDownloadDate", date}});
  setOtherMetadataDate(DCFileLastDownloadDateKey, date);
}

std::optional<Date> DCCachedItem::lastUploadDate() const {
  DCLogTrace("-[DCCachedItem lastUploadDate]");
  auto managed = managedOtherMetadata();
  return managed ? managed->lastUploadDate() : std::nullopt;
}

void DCCachedItem::setLastUploadDate(const std::optional<Date>& date) {
  DCLogTrace("-[DCCachedItem setLastUploadDate:]", {{"lastUploadDate", date}});
  setOtherMetadataDate(DCFileLastUploadDateKey, date);
}

bool DCCachedItem::isKnownGeneration(const std::optional<Data>& generationIdentifier) const {
  if (!generationIdentifier) return false;
  auto managed = managedOtherMetadata();
  const std::optional<Data> known[] = {managed ? managed->lastUpdateGenerationIdentifier() : std::nullopt,
                                       managed ? managed->lastDownloadedGenerationIdentifier() : std::nullopt,
                                       managed ? managed->lastUploadGenerationIdentifier() : std::nullopt};
  bool isAnyRecorded = false;
  for (const auto& generation : known) {
    if (!generation) continue;
    if (*generation == *generationIdentifier) return true;
    isAnyRecorded = true;
  }
  if (isAnyRecorded) return false;
  // The store was lost, or another program put the file there: the server's bytes have the date and the size that it
  // told.
  auto metadata = remoteMetadata();
  auto date = metadata ? metadata->date(ResourceContentModificationDateKey) : std::nullopt;
  if (!date || date != localContentModificationDate()) return false;
  auto size = metadata->integer(ResourceFileSizeKey);
  auto stamp = DCFileStamp::of(contentsPath().value_or(""));
  return !size || (stamp && stamp->size == *size);
}

void DCCachedItem::_saveLastUpdateGenerationIdentifier(Dictionary values,
                                                       const std::optional<Data>& generationIdentifier) {
  if (auto path = _localGenerationIdentifierFullPath()) {
    auto full = fullPathIfKnown();
    DCAssert(full && path->string() == full->string(), kSource);
    if (auto generation = generationIdentifier ? generationIdentifier : _localGenerationIdentifier()) {
      values.set(DCFileLastUpdateGenerationIdentifierKey, *generation);
    }
  }
  // With first contents all of it is recorded by now.
  const Dictionary known = otherMetadata().value_or(Dictionary());
  const bool isKnown = std::all_of(values.begin(), values.end(), [&](const auto& entry) {
    const auto& [key, value] = entry;
    const Value* present = known.find(key.text());
    return present && *present == value;
  });
  if (!isKnown) saveOtherMetadata(values);
}

// As that of the last update, so that it stays known when the others change: a kill may have left it in one of those
// only.
Dictionary DCCachedItem::presentGenerationIfKnown() const {
  auto present = _localGenerationIdentifier();
  if (!present || !isKnownGeneration(present)) return {};
  return {{DCFileLastUpdateGenerationIdentifierKey, *present}};
}

Result<void> DCCachedItem::dateContents(Date date, std::string_view generationKey) {
  const std::string path = contentsPath().value_or("");
  if (localContentModificationDate() == date) return {};
  if (keepsGenerations()) {
    // Known before the file has it, so that a kill in between does not make it look written.
    auto generation = generationCounterOfItemDated(path, date);
    if (!generation) return Failure(generation.error());
    Dictionary values = presentGenerationIfKnown();
    if (*generation) values.set(Key(generationKey), **generation);
    if (!values.empty()) saveOtherMetadata(values);
  }
  auto file = openFile(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
  if (!file) return Failure(file.error());
  return setContentModificationDate(file->get(), date);
}

void DCCachedItem::markContentsStale() {
  DCLogTrace("-[DCCachedItem markContentsStale]");
  auto locked = lock();
  if (hasBeenRemoved_ || isUnsent()) return;
  auto local = localContentModificationDate();
  if (!local) return;
  Date newest = *local;
  if (auto entry = parentContentsMetadata()) {
    newest = entry->date(ResourceContentModificationDateKey).value_or(newest);
  }
  auto dated = dateContents(newest - Duration(1), DCFileLastDownloadGenerationIdentifierKey);
  if (!dated) {
    DCLogWarning("Unable to update attributes of '%@': %@", contentsPath(), dated.error());
    return;
  }
  _saveLastUpdateGenerationIdentifier();
}

void DCCachedItem::prepareForDownload() {
  DCLogTrace("-[DCCachedItem prepareForDownload]");
  auto isWithoutContents = [this] {
    auto locked = lock();
    return !hasBeenRemoved_ && !isUnsent() && remoteMetadata() && !holdsContentsOfRemoteMetadata();
  };
  if (!isWithoutContents()) return;
  // Another process may be about to put in their place what belongs to it.
  const DCTakeInLock takingIn(environment_->service);
  auto locked = lock();
  if (isWithoutContents()) forgetRemoteMetadata();
}

bool DCCachedItem::holdsContentsOfRemoteMetadata() const {
  DCLogTrace("-[DCCachedItem holdsContentsOfRemoteMetadata]");
  auto locked = lock();
  auto metadata = remoteMetadata();
  if (!metadata) return false;
  auto date = metadata->date(ResourceContentModificationDateKey);
  auto local = localContentModificationDate();
  return local && (!date || *local == *date);
}

// Identity.

bool DCCachedItem::updateDocumentIdentifier(const std::optional<Data>& documentIdentifier) {
  DCLogTrace("-[DCCachedItem updateDocumentIdentifier:]", {{"documentIdentifier", documentIdentifier}});
  DCAssert(documentIdentifier, kSource);
  if (!documentIdentifier) return false;
  auto locked = lock();
  if (auto present = this->documentIdentifier()) return *present == *documentIdentifier;
  if (hasBeenRemoved_) return false;

  const Data previousDataKey = _dataKey();
  auto other = otherMetadata();
  auto stored = database().knownStoredLocalMetadataForDocumentIdentifier(previousDataKey);
  auto upload = database().knownUploadForPath(path_->string());
  const std::string path = path_->string();
  if (upload) {
    // The process that sends it may have been told, too.
    database().refresh();
    if (auto present = this->documentIdentifier()) return *present == *documentIdentifier;
  }
  if (!other && !stored && !upload) {
    (void)database().setDocumentIdentifier(*documentIdentifier, path);
  } else {
    const auto staged = upload ? upload->fileURL() : std::nullopt;
    const std::string target = contentsPathForDocumentIdentifier(*documentIdentifier);
    const bool isAdopted = upload && adoptStagedFile(*documentIdentifier);
    std::optional<Data> present;
    (void)database().performBatch([&] {
      present = database().documentIdentifierForPath(path);
      if (present) return;
      (void)database().setDocumentIdentifier(*documentIdentifier, path);
      if (isAdopted) upload->setFileURL(target);
      if (other) {
        (void)database().saveOtherMetadata(*other, *documentIdentifier);
        (void)database().removeOtherMetadataForDocumentIdentifier(previousDataKey);
      }
      if (stored) {
        (void)database().saveStoredLocalMetadata(stored->dictionaryRepresentation(), *documentIdentifier);
        (void)database().removeStoredLocalMetadataForDocumentIdentifier(previousDataKey);
      }
      // The bytes were written as a new file: they replace no version that is known.
      auto managed = upload ? database().otherMetadataForDocumentIdentifier(*documentIdentifier) : nullptr;
      if (managed) managed->setLastRemoteMetadataVersionIdentifier(std::nullopt);
    });
    if (present && *present != *documentIdentifier) return false;
    if (upload && !present) forgetRemoteMetadata();
    // Until now the record named the staged file, and from now on the other name of the same.
    if (isAdopted && staged && *staged != target) {
      database().performWhenStable(
          [self = shared_from_this(), staged = *staged, target, adopted = DCFileStamp::of(target)] {
            self->takeStagedFileAway(staged, target, adopted);
          });
    }
  }
  if (_dataKey() == previousDataKey)
    DCAssertionFailed(kSource, __LINE__, "![previousDataKey isEqualToData:self._dataKey]");
  return true;
}

bool DCCachedItem::adoptStagedFile(const Data& documentIdentifier) {
  auto staged = contentsPath();
  if (!staged || !fileExists(*staged)) return false;
  const std::string target = contentsPathForDocumentIdentifier(documentIdentifier);
  if (*staged == target) return true;
  // Another process is about to say the same.
  auto stagedStamp = DCFileStamp::of(*staged), targetStamp = DCFileStamp::of(target);
  if (stagedStamp && targetStamp && stagedStamp->isSameFile(*targetStamp)) return true;
  auto manager = environment_->manager.lock();
  if (manager && fileExists(target)) manager->recoverFileIfUnsent(target, documentIdentifier, path_);
  auto linked =
      createDirectories(folderOf(target)).and_then([&] { return DCTemporaryFile::linkedTo(*staged, target); });
  auto moved = linked ? linked->moveTo(target) : Result<void>(Failure(linked.error()));
  if (moved) moved = syncDirectory(folderOf(target));
  if (!moved) DCLogWarning("Failed to rename '%@' to '%@': %@", *staged, target, moved.error());
  return moved.has_value();
}

// Another process may have put newer contents there when the identifier was not recorded yet. Whoever does so
// afterwards sees it there and writes once more.
void DCCachedItem::takeStagedFileAway(const std::string& staged, const std::string& target,
                                      const std::optional<DCFileStamp>& adopted) const {
  auto left = DCFileStamp::of(staged);
  if (left && adopted && left->isSameFile(*adopted)) {
    (void)removeItem(staged);
  } else if (left && rename(staged.c_str(), target.c_str()) != 0) {
    DCLogWarning("Failed to rename '%@' to '%@': %@", staged, target, Error::fileWrite(errno, target));
  }
  rmdir(folderOf(staged).c_str());  // stays while others wait in it
}

void DCCachedItem::throwDocumentIdentifierChanged(const Data& documentIdentifier) const {
  throw InternalInconsistencyException(
      format("Document identifier %@ has changed for '%@'", documentIdentifier, path_->string()));
}

// Answers.

void DCCachedItem::_setRemoteMetadataWithoutNeedingLocking(const Dictionary& remoteMetadata, Dictionary values) {
  DCLogTrace("-[DCCachedItem _setRemoteMetadataWithoutNeedingLocking:error:]", {{"remoteMetadata", remoteMetadata}});
  auto documentIdentifier = remoteMetadata.data(FVDocumentIdentifierKey);
  auto versionIdentifier = remoteMetadata.data(FVVersionIdentifierKey);
  DCAssert(documentIdentifier, kSource);
  DCAssert(versionIdentifier, kSource);
  if (!documentIdentifier) return;
  if (!updateDocumentIdentifier(documentIdentifier)) throwDocumentIdentifierChanged(*documentIdentifier);
  values.set(DCFileLastRemoteMetadataUpdateDateKey, environment_->service->clock().now());
  if (versionIdentifier) values.set(DCFileLastRemoteMetadataVersionIdentifierKey, *versionIdentifier);
  saveOtherMetadata(values);
}

std::optional<DCCachedItem::PreparedResponse> DCCachedItem::_prepareForResponse(
    const FVFResponseContainer& responseContainer) {
  DCRelativePath::Ptr renamedPath;
  PreparedResponse response;
  {
    auto locked = lock();
    response.previousVersionIdentifier = versionIdentifier();
    response.previousBaseVersionIdentifier = lastRemoteMetadataVersionIdentifier();
    response.metadata = responseContainer.metadata().value_or(Dictionary());
    auto identifier = response.metadata.data(FVDocumentIdentifierKey);
    if (!identifier) {
      DCLogInfo("Ignoring response with missing document identifier: %@", DCStringFromCollection(response.metadata));
      return std::nullopt;
    }
    response.documentIdentifier = *identifier;
    if (hasBeenRemoved_) {
      DCLogInfo("Ignoring response for an item that was removed: '%@'", path_->string());
      return std::nullopt;
    }
    if (isUnsent()) {
      DCLogInfo("Ignoring response for '%@', whose contents have not been sent yet", path_->string());
      return std::nullopt;
    }
    if (responseContainer.transferType() != FVFResponseContainerTransferTypeFull) {
      DCAssertionFailed(kSource, __LINE__, "responseContainer.transferType == FVFResponseContainerTransferTypeFull");
    }
    if (!updateDocumentIdentifier(identifier)) throwDocumentIdentifierChanged(*identifier);

    auto name = response.metadata.string(ResourceNameKey);
    const std::string ownName = path_->lastPathComponent();
    if (!name || (!isRoot() && !DCDirectoryContents::isLegalChildName(*name))) {
      DCAssertionFailed(kSource, __LINE__, "name");
      DCLogDebug("Metadata missing name: %@", DCStringFromCollection(response.metadata));
      name = ownName;
      response.metadata.set(ResourceNameKey, *name);
    }
    const bool isThumbnail = dynamic_cast<const DCCachedThumbnail*>(this) != nullptr;
    if (!isRoot() && !isThumbnail && *name != ownName) {
      renamedPath = path_->relativePathByDeletingLastPathComponent()->relativePathByAppendingPathComponent(*name);
    }
  }
  // Without the lock: moves coordinate.
  if (renamedPath) {
    if (auto manager = environment_->manager.lock()) {
      manager->moveItem(shared_from_this(), response.documentIdentifier, response.previousVersionIdentifier,
                        renamedPath);
    }
  }
  return response;
}

bool DCCachedItem::_storeResponse(const FVFResponseContainer& responseContainer, PreparedResponse response) {
  auto locked = lock();
  if (hasBeenRemoved_ || isUnsent()) return false;
  (void)_saveRemoteMetadataOnDisk(response.metadata, response.documentIdentifier, response.previousVersionIdentifier);
  if (isRoot()) _saveRootDocumentIdentifierOnDisk(response.documentIdentifier);

  if (!responseContainer.url()) {
    DCLogWarning("Unable to update attributes of '%@': %@", std::optional<std::string>(), Error::posix(ENOENT));
    return false;
  }
  const URL& url = *responseContainer.url();
  const bool isDirectory = dynamic_cast<const DCCachedDirectory*>(this) != nullptr;
  const Dictionary attributes =
      isDirectory ? FVFMetadataUtils::metadataForDirectoryContentsFile(response.metadata) : response.metadata;
  if (auto set = FVFMetadataUtils::setMetadataOnURL(url, attributes); !set) {
    DCLogWarning("Unable to update attributes of '%@': %@", url.path(), set.error());
    return false;
  }
  Dictionary values;
  if (keepsGenerations()) {
    // Known before it is in place: a kill in between must not make the server's bytes look like somebody's own.
    auto generation = FVFGenerationIdentifierUtils::versionIdentifierForOwnFileWithURL(url);
    values = presentGenerationIfKnown();
    if (generation && *generation) {
      response.generationIdentifier = *generation;
      values.set(DCFileLastDownloadGenerationIdentifierKey, **generation);
      const auto target = contentsPath();
      if (target && !DCFileStamp::of(*target)) {
        // There is no other generation to be kept meanwhile, so that one step is enough for all.
        values.set(DCFileLastUpdateGenerationIdentifierKey, **generation);
        if (response.downloadDate) values.set(DCFileLastDownloadDateKey, *response.downloadDate);
      }
    }
  }
  _setRemoteMetadataWithoutNeedingLocking(response.metadata, std::move(values));
  auto replaced = _replaceFileWithURL(url, Replacement::WithServers, &response);
  if (!replaced) DCAssertionFailed(kSource, __LINE__, "!error");
  if (replaced && !*replaced && keepsGenerations()) {
    // Somebody wrote the file at the last moment. What he wrote is based on what was there before.
    forgetRemoteMetadata();
    if (auto managed = managedOtherMetadata()) {
      managed->setLastRemoteMetadataVersionIdentifier(response.previousBaseVersionIdentifier);
      (void)database().save();
    }
  }
  return replaced && *replaced;
}

bool DCCachedItem::updateItemFromResponseContainer(const FVFResponseContainer& responseContainer) {
  DCLogTrace("-[DCCachedItem updateItemFromResponseContainer:]", {{"responseContainer", responseContainer}});
  auto prepared = _prepareForResponse(responseContainer);
  return prepared && _storeResponse(responseContainer, *prepared);
}

}  // namespace florvane
