#include "Client/Client/DCCachedDirectory.h"
#include "Client/Client/DCCachedItem+RemoteMetadata.h"
#include "Client/Client/DCCachedItem.h"
#include "Client/Client/DCCachedItemEnvironment.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCPreferences.h"
#include "Client/Client/DCTemporaryFile.h"
#include "common/FVFGenerationIdentifierUtils.h"
#include "common/FVFMetadataUtils.h"
#include "common/PUAdditions.h"
#include "platform/FileSystem.h"
#include "platform/Format.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCCachedItem";
constexpr char kRootIdentifierFile[] = "/root.docid";
constexpr char kRemoteMetadataSuffix[] = "-remoteMetadata.plist";
constexpr std::uint64_t kMostMetadata = std::uint64_t{64} << 20U;  // bytes

std::string remoteMetadataPath(const std::string& folder, const std::optional<Data>& versionIdentifier) {
  const std::string version = versionIdentifier ? pu_hex(*versionIdentifier) : "unversioned";
  return folder + "/" + format("%@-remoteMetadata.plist", version);
}

struct RemoteMetadataFile {
  std::string path;
  timespec modified;
};

bool isOlder(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

// The newest first.
std::vector<RemoteMetadataFile> remoteMetadataFiles(const std::string& folder) {
  std::vector<RemoteMetadataFile> files;
  std::error_code error;
  std::filesystem::directory_iterator entries(folder, error), end;
  while (!error && entries != end) {
    std::string path = entries->path().string();
    struct stat status{};
    if (path.ends_with(kRemoteMetadataSuffix) && stat(path.c_str(), &status) == 0) {
      files.push_back({std::move(path), status.st_mtim});
    }
    entries.increment(error);
  }
  std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) { return isOlder(b.modified, a.modified); });
  return files;
}

// A name of the same file, which takes no space, also where the disk is too full for a copy.
Result<DCTemporaryFile> temporaryOf(const std::string& source, const std::string& target, bool sharesFile) {
  if (!sharesFile) {
    if (auto copy = DCTemporaryFile::copyOf(source, target)) return copy;
  }
  return DCTemporaryFile::linkedTo(source, target);
}

PropertyListFormat formatWanted() {
  return DCPreferences::preferences()->xmlPropertyLists() ? PropertyListFormat::XML : PropertyListFormat::Binary;
}

}  // namespace

std::optional<Data> DCCachedItem::_contents() const {
  auto path = contentsPath();
  if (!path) return std::nullopt;
  auto bytes = readFile(*path);
  if (bytes) return *bytes;
  if (!bytes.error().is(QuilbarErrorDomain, FileReadNoSuchFileError)) DCAssertionFailed(kSource, __LINE__, "!error");
  return std::nullopt;
}

// Remote metadata.

std::optional<Dictionary> DCCachedItem::remoteMetadataFromDisk() const {
  DCLogTrace("-[DCCachedItem remoteMetadataFromDisk]");
  auto locked = lock();
  auto identifier = documentIdentifier();
  if (!identifier && isRoot()) {
    auto bytes = readFile(environment_->metadataRoot + kRootIdentifierFile, kMostMetadata);
    if (!bytes) {
      DCLogWarning("Unable to read root document identifier: %@", bytes.error());
      return std::nullopt;
    }
    identifier = *bytes;
  }
  if (!identifier) return std::nullopt;
  auto files = remoteMetadataFiles(metadataFolder(*identifier));
  if (files.empty()) return std::nullopt;
  auto bytes = readFile(files.front().path, kMostMetadata);
  if (!bytes) {
    DCLogWarning("Unable to read remote metadata: %@", bytes.error());
    return std::nullopt;
  }
  auto list = readPropertyList(*bytes);
  auto metadata = list ? list->asDictionary() : std::nullopt;
  if (!metadata) {
    DCLogWarning("Unable to deserialize remote metadata: %@",
                 list ? Error(QuilbarErrorDomain, PropertyListReadCorruptError, "It is no dictionary.") : list.error());
  }
  return metadata;
}

std::optional<Dictionary> DCCachedItem::remoteMetadata() const {
  DCLogTrace("-[DCCachedItem remoteMetadata]");
  auto locked = lock();
  auto identifier = documentIdentifier();
  if (!identifier) return std::nullopt;
  std::string folder = metadataFolder(*identifier);
  auto stamp = DCFileStamp::of(folder);
  if (!stamp) return std::nullopt;
  if (remoteMetadata_ && remoteMetadata_->folder == folder && remoteMetadata_->stamp == *stamp) {
    return remoteMetadata_->metadata;
  }
  const bool mayKeep = stamp->willShowChanges();
  auto metadata = remoteMetadataFromDisk();
  remoteMetadata_.reset();
  if (mayKeep) remoteMetadata_ = std::make_unique<RemoteMetadata>(RemoteMetadata{folder, *stamp, metadata});
  return metadata;
}

void DCCachedItem::_saveRootDocumentIdentifierOnDisk(const Data& documentIdentifier) const {
  auto saved = _replaceFileAtURL(URL::fileURL(environment_->metadataRoot + kRootIdentifierFile), documentIdentifier);
  if (!saved) {
    DCLogWarning("Unable to write data to '%@': %@", environment_->metadataRoot + kRootIdentifierFile, saved.error());
  }
}

bool DCCachedItem::_saveRemoteMetadataOnDisk(const Dictionary& metadata, const Data& documentIdentifier,
                                             const std::optional<Data>& previousVersionIdentifier) {
  DCLogTrace("-[DCCachedItem _saveRemoteMetadataOnDisk:documentIdentifier:previousVersionIdentifier:]",
             {{"documentIdentifier", documentIdentifier}, {"previousVersionIdentifier", previousVersionIdentifier}});
  const std::string folder = metadataFolder(documentIdentifier);
  const std::string path = remoteMetadataPath(folder, metadata.data(FVVersionIdentifierKey));
  const bool isFirst = !fileExists(folder);
  const bool saved = _saveDictionary(metadata, path, remoteMetadataPath(folder, previousVersionIdentifier));
  remoteMetadata_.reset();
  if (!saved || isFirst) return saved;
  // The newest file is the one that counts, whatever the clock did meanwhile.
  auto files = remoteMetadataFiles(folder);
  if (files.size() > 1 && (files.front().path != path || !isOlder(files[1].modified, files[0].modified))) {
    timespec date = files.front().modified;
    date.tv_nsec = date.tv_nsec / 1000 * 1000 + 1000;
    if (date.tv_nsec >= 1'000'000'000) {
      ++date.tv_sec;
      date.tv_nsec = 0;
    }
    const timespec times[] = {{0, UTIME_OMIT}, date};
    if (utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) return false;
  }
  return true;
}

void DCCachedItem::_clearRemoteMetadataOnDiskWithDocumentIdentifier(const Data& documentIdentifier,
                                                                    const std::optional<Data>& versionIdentifier) {
  DCLogTrace("-[DCCachedItem _clearRemoteMetadataOnDiskWithDocumentIdentifier:versionIdentifier:]",
             {{"documentIdentifier", documentIdentifier}, {"versionIdentifier", versionIdentifier}});
  remoteMetadata_.reset();
  const std::string path = remoteMetadataPath(metadataFolder(documentIdentifier), versionIdentifier);
  if (auto removed = removeItem(path); !removed) {
    DCLogWarning("Unable to remove remote metadata '%@': %@", path, removed.error());
  }
}

void DCCachedItem::clearRemoteMetadata() {
  DCLogTrace("-[DCCachedItem clearRemoteMetadata]");
  auto locked = lock();
  if (auto identifier = documentIdentifier()) {
    _clearRemoteMetadataOnDiskWithDocumentIdentifier(*identifier, versionIdentifier());
  }
}

void DCCachedItem::forgetRemoteMetadata() {
  auto identifier = documentIdentifier();
  if (!identifier) return;
  remoteMetadata_.reset();
  for (const auto& file : remoteMetadataFiles(metadataFolder(*identifier))) {
    if (auto removed = removeItem(file.path); !removed) {
      DCLogWarning("Unable to remove remote metadata '%@': %@", file.path, removed.error());
    }
  }
}

std::optional<Dictionary> DCCachedItem::_readDictionaryFromPath(const std::string& path) const {
  auto bytes = readFile(path, kMostMetadata);
  if (!bytes) return std::nullopt;
  auto list = readPropertyList(*bytes);
  return list ? list->asDictionary() : std::nullopt;
}

bool DCCachedItem::_saveDictionary(const Dictionary& dictionary, const std::string& path,
                                   const std::optional<std::string>& previousVersionPath) const {
  if (auto made = createDirectories(folderOf(path)); !made) {
    DCLogWarning("Unable to create containing directory '%@': %@", folderOf(path), made.error());
    DCAssertionFailed(kSource, __LINE__, "!error");
  }
  auto data = writePropertyList(dictionary, formatWanted());
  if (!data) {
    DCLogInfo("Unable to serialize dictionary '%@': %@", DCStringFromCollection(dictionary), data.error());
    return false;
  }
  if (auto written = _replaceFileAtURL(URL::fileURL(path), *data); !written) {
    DCLogWarning("Unable to write data to '%@': %@", path, written.error());
    return false;
  }
  if (previousVersionPath && *previousVersionPath != path && unlink(previousVersionPath->c_str()) != 0) {
    DCLogInfo("Unable to remove previous data at '%@': %s", *previousVersionPath, std::strerror(errno));
  }
  return true;
}

Result<void> DCCachedItem::_replaceFileAtURL(const URL& url, const Data& data) const {
  struct stat status{};
  if (stat(url.path().c_str(), &status) == 0 && static_cast<std::size_t>(status.st_size) == data.size()) {
    auto present = readFile(url.path(), data.size());
    if (present && *present == data) return {};
  }
  if (auto made = createDirectories(folderOf(url.path())); !made) {
    DCLogWarning("Unable to create directory for file '%@': %@", url.path(), made.error());
    DCAssertionFailed(kSource, __LINE__, "!error");
  }
  return writeFileAtomically(url.path(), data);
}

// Contents.

Result<bool> DCCachedItem::_replaceFileWithURL(const URL& url, Replacement replacement,
                                               const PreparedResponse* response) {
  DCLogTrace("-[DCCachedItem _replaceFileWithURL:error:]", {{"url", url}});
  auto locked = lock();
  if (!documentIdentifier()) {
    DCAssert(!hasBeenDownloaded(), kSource);
    DCAssert(!hasBeenUploaded(), kSource);
    DCLogInfo("Skipping update of filesystem for '%@' because because the document identifier isn't yet known",
              _pathsKeyString());
    return false;
  }
  const std::string target = *contentsPath();
  auto sourceStamp = DCFileStamp::of(url.path()), targetStamp = DCFileStamp::of(target);
  if (!sourceStamp) {
    DCLogDebug("%@: Unable to obtain file resource identifier(s): %@", description(),
               Error::fileRead(errno, url.path()));
  }
  const bool isSame = sourceStamp && targetStamp && sourceStamp->isSameFile(*targetStamp);
  const bool isServers = replacement == Replacement::WithServers;
  auto generation = response ? response->generationIdentifier : std::nullopt;
  if (!isSame) {
    if (auto made = createDirectories(folderOf(target)); !made) {
      DCLogWarning("Unable to update file '%@': %@", target, made.error());
      return Failure(made.error());
    }
  }
  // Of a listing the status tells whether it was read already, and it changes when another name of the file goes.
  const bool sharesFile = dynamic_cast<const DCCachedDirectory*>(this) == nullptr;
  // Where nothing stands there is nothing to be replaced, and a link replaces nothing.
  const bool isLinked =
      !isSame && isServers && sharesFile && !targetStamp && link(url.path().c_str(), target.c_str()) == 0;
  if (!isSame && !isLinked) {
    auto temporary = temporaryOf(url.path(), target, sharesFile);
    if (!temporary) {
      DCLogWarning("Unable to copy file '%@' from file at '%@': %@", target, url.path(), temporary.error());
      return Failure(temporary.error());
    }
    if (keepsGenerations() && isServers) {
      if (!temporary->isLink()) {
        // A link has the generation that is recorded already, a copy one of its own.
        auto own = FVFGenerationIdentifierUtils::versionIdentifierForOwnFileWithURL(URL::fileURL(temporary->path()));
        generation = own ? *own : std::nullopt;
        if (generation) saveOtherMetadata({{DCFileLastDownloadGenerationIdentifierKey, *generation}});
      }
      if (isUnsent()) return false;
    }
    if (auto moved = temporary->moveTo(target); !moved) {
      DCLogWarning("Unable to copy file '%@' from file at '%@': %@", target, url.path(), moved.error());
      return Failure(moved.error());
    }
  }
  if (isServers) {
    Dictionary values;
    if (response && response->downloadDate) values.set(DCFileLastDownloadDateKey, *response->downloadDate);
    _saveLastUpdateGenerationIdentifier(std::move(values), generation);
  }
  return true;
}

}  // namespace florvane
