#include "Client/Client/DCCachedFile.h"

#include "Client/Client/DCCachedItemEnvironment.h"
#include "Client/Client/DCCachedItemManager.h"
#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCFileStamp.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCSyncedFolders.h"
#include "Client/Client/DCTemporaryFile.h"
#include "common/FVFGenerationIdentifierUtils.h"
#include "common/FVFMetadataUtils.h"
#include "platform/FileSystem.h"
#include "platform/ResourceValues.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCCachedFile";
// Of a file that becomes known to the server while it is written, or whose folder goes with the last of the others.
constexpr int kWriteAttempts = 8;

std::optional<Data> generationOf(const std::string& path) {
  auto generation = FVFGenerationIdentifierUtils::versionIdentifierForFileWithURL(URL::fileURL(path));
  return generation ? *generation : std::nullopt;
}

DCSyncedFolders& syncedFolders() {
  static auto& folders = *new DCSyncedFolders;
  return folders;
}

Result<void> setDate(const std::string& path, Date date) {
  auto file = openFile(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
  if (!file) return Failure(file.error());
  return setContentModificationDate(file->get(), date);
}

}  // namespace

DCFullPath::Ptr DCCachedFile::_contentsFullPath() const { return fullPathIfKnown(); }

DCFullPath::Ptr DCCachedFile::_localGenerationIdentifierFullPath() const { return _contentsFullPath(); }

std::optional<Data> DCCachedFile::_localGenerationIdentifier() const {
  auto path = contentsPath();
  return path ? generationOf(*path) : std::nullopt;
}

std::optional<Data> DCCachedFile::contents() const {
  DCLogTrace("-[DCCachedFile contents]");
  return _contents();
}

// State.

bool DCCachedFile::needsInitialUpload() const {
  DCLogTrace("-[DCCachedFile needsInitialUpload]");
  auto locked = lock();
  return !documentIdentifier() && existsOnDisk() && !hasBeenUploaded() && !hasBeenDownloaded();
}

bool DCCachedFile::needsUpload() const {
  DCLogTrace("-[DCCachedFile needsUpload]");
  auto locked = lock();
  if (!existsOnDisk()) return false;
  if (needsInitialUpload()) return true;
  if (relativeAge() == DCCachedItemOrderLocalIsNewer) {
    // Bytes that came from the server are newer only where the server went back to older ones.
    const bool isServers = parentContentsMetadata() && !isUnsent();
    return !isServers;
  }
  if (!remoteMetadata()) return false;
  return !isKnownGeneration(_localGenerationIdentifier());
}

bool DCCachedFile::isUnsent() const {
  DCLogTrace("-[DCCachedFile isUnsent]");
  auto locked = lock();
  if (database().knownUploadForPath(_pathsKeyString())) return true;
  auto path = contentsPath();
  if (!path || !DCFileStamp::of(*path)) return false;
  return !isKnownGeneration(generationOf(*path));
}

// Writing.

DCFullPath::Ptr DCCachedFile::fullPathForWriting() const {
  if (auto path = fullPathIfKnown()) return path;
  auto relativePath = this->relativePath();
  return DCFullPath::uploadFullPathWithParentRelativePath(relativePath->relativePathByDeletingLastPathComponent(),
                                                          relativePath->lastPathComponent());
}

Date DCCachedFile::dateNewerThanKnown(Date date) const {
  std::optional<Date> known;
  for (const auto& metadata : {remoteMetadata(), parentContentsMetadata()}) {
    auto serverDate = metadata ? metadata->date(ResourceContentModificationDateKey) : std::nullopt;
    if (serverDate && (!known || *serverDate > *known)) known = serverDate;
  }
  if (!known || date > *known) return date;
  return std::max(environment_->service->clock().now(), *known + Duration(1));
}

Result<void> DCCachedFile::recordUpload(const std::string& target, const std::optional<Data>& generationIdentifier,
                                        UploadBefore& before) {
  const std::string path = _pathsKeyString();
  const Data key = _dataKey();
  // The version that is replaced: what was downloaded, else what the listing shows. A file that waits as a new one
  // replaces none, even when somebody else's has taken its name.
  const auto downloaded = lastRemoteMetadataVersionIdentifier();
  const auto entry = documentIdentifier() ? parentContentsMetadata() : std::nullopt;
  const auto listed = entry ? entry->data(FVVersionIdentifierKey) : std::nullopt;
  return database().performBatch(
      [&] {
        auto upload = database().uploadForPath(path);
        before = {upload != nullptr, upload ? upload->generationIdentifier() : std::nullopt};
        (void)database().saveUploadFileURL(URL::fileURL(target), path);
        upload = database().uploadForPath(path);
        if (!upload) return;
        // What a running task sends is known by the generation in its record.
        if (!upload->taskIdentifier() && upload->generationIdentifier() != generationIdentifier) {
          upload->removeTemporaryUploadFileIfNecessary();
          upload->setGenerationIdentifier(generationIdentifier);
        }
        if (before.wasThere) return;
        upload->setBaseVersionIdentifier(downloaded ? *downloaded : listed.value_or(Data()));
        if (listed && !downloaded) {
          (void)database().saveOtherMetadata({{DCFileLastRemoteMetadataVersionIdentifierKey, *listed}}, key);
        }
      },
      true);
}

// A write that failed before its contents were in place.
void DCCachedFile::takeBackRecord(const UploadBefore& before) {
  const std::string path = _pathsKeyString();
  if (!before.wasThere) {
    (void)database().removeUploadForPath(path);
    return;
  }
  (void)database().performBatch([&] {
    auto upload = database().uploadForPath(path);
    if (upload && !upload->taskIdentifier()) upload->setGenerationIdentifier(before.generationIdentifier);
  });
}

Result<void> DCCachedFile::preflightUploadFromURL(const URL& url) {
  DCLogTrace("-[DCCachedFile preflightUploadFromURL:]", {{"url", url}});
  auto locked = lock();
  auto fullPath = fullPathForWriting();
  if (!fullPath) DCAssertionFailed(kSource, __LINE__, "self.fullPath");
  if (url.path().empty()) DCAssertionFailed(kSource, __LINE__, "url");
  if (!fullPath) return Failure(Error::fileWrite(ENOENT, _pathsKeyString()));
  return database().saveUploadFileURL(fullPath->url(), _pathsKeyString());
}

void DCCachedFile::registerFileForUploadOfURL(const URL& url, std::int64_t taskIdentifier,
                                              const std::optional<Data>& generationIdentifier) {
  DCLogTrace("-[DCCachedFile registerFileForUploadOfURL:taskIdentifier:]",
             {{"url", url}, {"taskIdentifier", taskIdentifier}});
  auto locked = lock();
  auto upload = database().knownUploadForPath(_pathsKeyString());
  if (!upload || upload->fileURL() != url.path()) return;
  (void)database().saveUploadFileURL(url, generationIdentifier ? generationIdentifier : generationOf(url.path()),
                                     taskIdentifier, _pathsKeyString());
}

Result<void> DCCachedFile::updateFileFromURL(const URL& url, const Exclusion& exclusion) {
  DCLogTrace("-[DCCachedFile updateFileFromURL:]", {{"url", url}});
  std::string place;
  Result<bool> written = false;
  for (int attempt = 0; attempt < kWriteAttempts && written && !*written; ++attempt) {
    const std::string before = std::exchange(place, {});
    written = writeInPlace(url, exclusion, place);
    // Nobody looks for a new file there any more.
    const bool isLeftBehind = written && *written && !before.empty() && before != place;
    if (isLeftBehind && removeItem(before)) rmdir(folderOf(before).c_str());  // stays while others wait in it
  }
  if (written && !*written) written = Failure(Error::fileWrite(EBUSY, place));
  if (!written) {
    DCLogNotice("%@: Skip update of file '%@'", description(), place);
    return Failure(written.error());
  }
  auto locked = lock();
  forgetRemoteMetadata();
  return {};
}

// False when another process has learnt meanwhile which document it is, so that the contents belong elsewhere.
Result<bool> DCCachedFile::writeInPlace(const URL& url, const Exclusion& exclusion, std::string& target) {
  if (exclusion) exclusion(false);
  DCFullPath::Ptr fullPath;
  {
    auto locked = lock();
    if (hasBeenRemoved()) return Failure(Error::fileWrite(ENOENT, _pathsKeyString()));
    fullPath = fullPathForWriting();
  }
  if (!fullPath) return Failure(Error::fileWrite(ENOENT, _pathsKeyString()));
  target = fullPath->string();
  if (auto made = createDirectories(folderOf(target)); !made) return Failure(made.error());
  auto source = DCFileStamp::of(url.path()), present = DCFileStamp::of(target);
  const bool isSame = source && present && source->isSameFile(*present);

  std::optional<DCTemporaryFile> copy;
  if (!isSame) {
    auto copied = DCTemporaryFile::copyOf(url.path(), target);
    if (!copied) return Failure(copied.error());
    copy.emplace(std::move(*copied));
  }
  // What takes long is done before others are kept out.
  if (auto synced = copy ? copy->sync() : syncFile(target); !synced) return Failure(synced.error());
  if (exclusion) exclusion(true);
  const std::string written = copy ? copy->path() : target;
  struct stat status{};
  if (stat(written.c_str(), &status) != 0) return Failure(Error::fileRead(errno, written));
  const Date date = Date::fromTimespec(status.st_mtim);
  if (const Date newer = dateNewerThanKnown(date); newer != date) {
    if (auto dated = setDate(written, newer); !dated) return Failure(dated.error());
    if (auto synced = copy ? copy->sync() : syncFile(target); !synced) return Failure(synced.error());
  }

  Result<void> done;
  bool isThere = false;
  auto put = [&](const URL&) {
    if (!belongsAt(target)) return;
    UploadBefore before;
    done = recordUpload(target, generationOf(written), before);
    if (!done) return;
    if (copy) done = copy->moveTo(target);
    if (!done) {
      takeBackRecord(before);
      // With its last file another process has taken the folder away.
      if (!DCFileStamp::of(folderOf(target))) done = {};
      return;
    }
    if (copy) done = syncDirectory(folderOf(target));
    // The folder may have been made for this file. It cannot be taken away and made again with the file in it.
    if (done) done = syncedFolders().syncNameOf(folderOf(target));
    // Whoever attaches an identifier looks for a new file once more when it is recorded.
    isThere = belongsAt(target);
  };
  auto manager = environment_->manager.lock();
  if (!manager) return Failure(Error::fileWrite(ECANCELED, target));
  auto coordinated =
      manager->coordinateWritingItemAtURL(URL::fileURL(target), FileCoordinatorWritingOptions::ForReplacing, put);
  if (!coordinated) return Failure(coordinated.error());
  if (!done) return Failure(done.error());
  return isThere;
}

bool DCCachedFile::belongsAt(const std::string& target) const {
  // Of other processes, too.
  database().refresh();
  auto locked = lock();
  auto fullPath = fullPathForWriting();
  return fullPath && fullPath->string() == target;
}

bool DCCachedFile::undoInterruptedWrite() {
  DCLogTrace("-[DCCachedFile undoInterruptedWrite]");
  auto locked = lock();
  auto upload = database().uploadForPath(_pathsKeyString());
  if (!upload || upload->taskIdentifier() || !upload->generationIdentifier()) return false;
  auto generation = _localGenerationIdentifier();
  if (generation == upload->generationIdentifier()) return false;
  // Contents that are neither those of the write nor the server's are somebody's later ones.
  if (generation && !isKnownGeneration(generation)) return false;
  if (!generation && existsOnDisk()) return false;
  const auto recorded = upload->fileURL();
  if (recorded && recorded != contentsPath() && fileExists(*recorded)) return false;
  DCLogInfo("Taking back a write to '%@' that did not come to its end", _pathsKeyString());
  (void)database().removeUploadForPath(_pathsKeyString());
  return true;
}

// Ends of uploads.

bool DCCachedFile::holdsNewerThan(const DCManagedUpload& upload) const {
  auto sent = upload.sentGenerationIdentifier();
  auto present = _localGenerationIdentifier();
  return sent && present && *sent != *present;
}

// Later than what was just stored of the server's, so that the next upload is not taken for the past.
void DCCachedFile::keepNewerThan(const Dictionary& remoteMetadata) {
  auto path = contentsPath();
  auto local = localContentModificationDate();
  auto servers = remoteMetadata.date(ResourceContentModificationDateKey);
  if (!path || !local || !servers || *local > *servers) return;
  auto dated = setDate(*path, std::max(environment_->service->clock().now(), *servers + Duration(1)));
  if (!dated) DCLogWarning("Unable to update attributes of '%@': %@", *path, dated.error());
}

void DCCachedFile::updateUploadedFileFromRemoteMetadata(const Dictionary& remoteMetadata) {
  DCLogTrace("-[DCCachedFile updateUploadedFileFromRemoteMetadata:]", {{"remoteMetadata", remoteMetadata}});
  if (remoteMetadata.empty()) DCAssertionFailed(kSource, __LINE__, "remoteMetadata.count > 0");
  auto identifier = remoteMetadata.data(FVDocumentIdentifierKey);
  if (!identifier) {
    DCLogInfo("Ignoring response with missing document identifier: %@", DCStringFromCollection(remoteMetadata));
    return;
  }
  auto locked = lock();
  if (hasBeenRemoved()) return;
  const auto previousVersion = versionIdentifier();
  if (!updateDocumentIdentifier(identifier)) throwDocumentIdentifierChanged(*identifier);
  _setRemoteMetadataWithoutNeedingLocking(remoteMetadata);
  (void)_saveRemoteMetadataOnDisk(remoteMetadata, *identifier, previousVersion);

  auto upload = database().uploadForPath(_pathsKeyString());
  auto sentFile = upload ? upload->fileURL() : std::nullopt;
  // Another process has given a new file its place, which a record of a fresh attempt may not name yet.
  if (sentFile && existsOnDisk() && !fileExists(*sentFile)) sentFile = contentsPath();
  if (sentFile && holdsNewerThan(*upload)) {
    keepNewerThan(remoteMetadata);
  } else if (sentFile) {
    auto replaced = _replaceFileWithURL(URL::fileURL(*sentFile), Replacement::WithSent);
    if (!replaced) DCAssertionFailed(kSource, __LINE__, "!error");
    if (recordAsSent(upload->sentGenerationIdentifier(), remoteMetadata)) {
      (void)database().removeUploadForPath(_pathsKeyString());
    }
  }
  if (!existsOnDisk()) DCAssertionFailed(kSource, __LINE__, "self.existsOnDisk");
}

// False when the contents turn out not to be those: somebody has just written them who does not coordinate.
bool DCCachedFile::recordAsSent(const std::optional<Data>& sentGenerationIdentifier, const Dictionary& remoteMetadata) {
  auto sent = sentGenerationIdentifier ? sentGenerationIdentifier : _localGenerationIdentifier();
  if (!sent) return true;
  saveOtherMetadata(
      {{DCFileLastUploadGenerationIdentifierKey, *sent}, {DCFileLastUpdateGenerationIdentifierKey, *sent}});
  if (auto date = remoteMetadata.date(ResourceContentModificationDateKey)) {
    auto dated = dateContents(*date, DCFileLastUploadGenerationIdentifierKey);
    if (!dated) DCLogWarning("Unable to update attributes of '%@': %@", contentsPath(), dated.error());
  }
  auto present = _localGenerationIdentifier();
  if (!present) return true;
  auto managed = managedOtherMetadata();
  const bool isSent = *present == *sent || (managed && managed->lastUploadGenerationIdentifier() == *present);
  if (isSent) saveOtherMetadata({{DCFileLastUpdateGenerationIdentifierKey, *present}});
  return isSent;
}

void DCCachedFile::updateUploadedFileToDropBox() {
  DCLogTrace("-[DCCachedFile updateUploadedFileToDropBox]");
  auto locked = lock();
  auto upload = database().uploadForPath(_pathsKeyString());
  if (upload && holdsNewerThan(*upload)) return;
  auto staged = upload ? upload->fileURL() : std::nullopt;
  (void)database().removeUploadForPath(_pathsKeyString());
  if (documentIdentifier()) return;
  // Nobody can ask for it again.
  if (staged) {
    (void)removeItem(*staged);
    rmdir(folderOf(*staged).c_str());  // stays while others wait in it
  }
  if (auto manager = environment_->manager.lock()) manager->forgetItem(shared_from_this());
}

void DCCachedFile::restoreFileFromRemoteMetadata(const Dictionary& remoteMetadata) {
  DCLogTrace("-[DCCachedFile restoreFileFromRemoteMetadata:]", {{"remoteMetadata", remoteMetadata}});
  auto locked = lock();
  _setRemoteMetadataWithoutNeedingLocking(remoteMetadata);
}

}  // namespace florvane
