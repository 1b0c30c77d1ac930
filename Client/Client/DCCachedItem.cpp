#include "Client/Client/DCCachedItem.h"

#include "Client/Client/DCCachedDirectory.h"
#include "Client/Client/DCCachedItem+RemoteMetadata.h"
#include "Client/Client/DCCachedItemEnvironment.h"
#include "Client/Client/DCCachedItemManager.h"
#include "Client/Client/DCLog.h"
#include "common/FVFMetadataUtils.h"
#include "common/PUAdditions.h"
#include "platform/Exceptions.h"
#include "platform/Format.h"
#include "platform/ResourceValues.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include <sys/stat.h>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCCachedItem";
constexpr Duration kDirectoryFreshness = std::chrono::seconds(1);
constexpr Duration kItemFreshness = std::chrono::seconds(10);

[[noreturn]] void throwNotImplemented() {
  throw InternalInconsistencyException("Method must be implemented in subclass");
}

}  // namespace

std::span<const std::string_view> DCCachedFSLocalAttributesKeysToGet() {
  static constexpr std::array<std::string_view, 14> keys = {ResourceAddedToDirectoryDateKey,
                                                            ResourceContentModificationDateKey,
                                                            ResourceCreationDateKey,
                                                            ResourceFileResourceTypeKey,
                                                            ResourceFileSizeKey,
                                                            ResourceHasHiddenExtensionKey,
                                                            ResourceIsDirectoryKey,
                                                            ResourceIsHiddenKey,
                                                            ResourceIsPackageKey,
                                                            ResourceIsReadableKey,
                                                            ResourceIsWritableKey,
                                                            ResourceLocalizedTypeDescriptionKey,
                                                            ResourceNameKey,
                                                            ResourceTypeIdentifierKey};
  return keys;
}

DCCachedItem::DCCachedItem(const DCRelativePath::Ptr& relativePath)
    : DCCachedItem(relativePath,
                   DCCachedItemManager::cachedItemManagerForService(relativePath->service())->environment()) {}

DCCachedItem::DCCachedItem(DCRelativePath::Ptr relativePath, EnvironmentPtr environment)
    : environment_(std::move(environment)), path_(std::move(relativePath)), service_(path_->service()) {
  DCLogTrace("-[DCCachedItem initWithRelativePath:]", {{"relativePath", path_}});
}

DCCachedItem::~DCCachedItem() = default;

std::unique_lock<std::recursive_mutex> DCCachedItem::lock() const { return std::unique_lock(environment_->mutex); }

DCDatabase& DCCachedItem::database() const { return *environment_->database; }

DCRelativePath::Ptr DCCachedItem::relativePath() const {
  DCLogTrace("-[DCCachedItem relativePath]");
  auto locked = lock();
  return path_;
}

std::shared_ptr<DCService> DCCachedItem::service() const {
  DCLogTrace("-[DCCachedItem service]");
  auto locked = lock();
  return service_;
}

void DCCachedItem::setService(std::shared_ptr<DCService> service) {
  DCLogTrace("-[DCCachedItem setService:]", {{"service", service}});
  auto locked = lock();
  service_ = std::move(service);
}

std::string DCCachedItem::_pathsKeyString() const {
  auto locked = lock();
  return path_->string();
}

Data DCCachedItem::_dataKey() const {
  auto identifier = documentIdentifier();
  return identifier ? *identifier : Data::fromString(_pathsKeyString());
}

// Places.

std::string DCCachedItem::metadataFolder(const Data& documentIdentifier) const {
  return environment_->metadataRoot + "/" + pu_hex(documentIdentifier);
}

std::string DCCachedItem::contentsPathForDocumentIdentifier(const Data& documentIdentifier) const {
  return environment_->documentRoot + "/" + pu_hex(documentIdentifier) + "/" + path_->lastPathComponent();
}

std::optional<std::string> DCCachedItem::contentsPath() const {
  auto locked = lock();
  if (auto identifier = documentIdentifier()) return contentsPathForDocumentIdentifier(*identifier);
  auto upload = database().knownUploadForPath(path_->string());
  return upload ? upload->fileURL() : std::nullopt;
}

DCFullPath::Ptr DCCachedItem::fullPathIfKnown() const {
  auto locked = lock();
  auto path = contentsPath();
  if (!path) return nullptr;
  if (lastFullPath_ && lastFullPath_->string() == *path) return lastFullPath_;
  try {
    lastFullPath_ = DCFullPath::fullPathWithString(*path, path_);
  } catch (const InvalidArgumentException& exception) {
    DCLogWarning("%s", exception.reason());
    return nullptr;
  }
  return lastFullPath_;
}

DCFullPath::Ptr DCCachedItem::fullPath() const {
  DCLogTrace("-[DCCachedItem fullPath]");
  auto fullPath = fullPathIfKnown();
  DCAssert(fullPath, kSource);
  return fullPath;
}

DCFullPath::Ptr DCCachedItem::_contentsFullPath() const { throwNotImplemented(); }

std::optional<Data> DCCachedItem::_localGenerationIdentifier() const { throwNotImplemented(); }

DCFullPath::Ptr DCCachedItem::_localGenerationIdentifierFullPath() const { throwNotImplemented(); }

// Identity.

std::optional<Data> DCCachedItem::documentIdentifier() const {
  DCLogTrace("-[DCCachedItem documentIdentifier]");
  auto locked = lock();
  if (hasBeenRemoved_) return documentIdentifierWhenRemoved_;
  return database().knownDocumentIdentifierForPath(path_->string());
}

std::optional<Data> DCCachedItem::versionIdentifier() const {
  DCLogTrace("-[DCCachedItem versionIdentifier]");
  auto metadata = remoteMetadata();
  return metadata ? metadata->data(FVVersionIdentifierKey) : std::nullopt;
}

std::optional<Data> DCCachedItem::toldVersionIdentifier() const {
  DCLogTrace("-[DCCachedItem toldVersionIdentifier]");
  auto locked = lock();
  return toldVersionIdentifier_;
}

void DCCachedItem::setToldVersionIdentifier(const std::optional<Data>& versionIdentifier) {
  DCLogTrace("-[DCCachedItem setToldVersionIdentifier:]", {{"versionIdentifier", versionIdentifier}});
  auto locked = lock();
  toldVersionIdentifier_ = versionIdentifier;
}

DCCachedDirectory::Ptr DCCachedItem::parent() const {
  DCLogTrace("-[DCCachedItem parent]");
  auto manager = environment_->manager.lock();
  if (!manager) manager = DCCachedItemManager::cachedItemManagerForService(service());
  return manager->parentOfItem(*this);
}

bool DCCachedItem::isRoot() const {
  DCLogTrace("-[DCCachedItem isRoot]");
  auto locked = lock();
  const bool isRoot = path_->string().empty();
  DCAssert(isRoot == path_->isRoot(), kSource);
  return isRoot;
}

bool DCCachedItem::existsOnDisk() const {
  DCLogTrace("-[DCCachedItem existsOnDisk]");
  auto path = contentsPath();
  if (!path) return false;
  static constexpr std::array<std::string_view, 1> keys = {ResourceFileResourceTypeKey};
  auto values = resourceValues(*path, keys);
  if (values) return values->contains(ResourceFileResourceTypeKey);
  const Error& error = values.error();
  if (!error.is(QuilbarErrorDomain, FileReadNoSuchFileError)) DCAssertionFailed(kSource, __LINE__, "!error");
  return false;
}

bool DCCachedItem::existsOnServer() const {
  DCLogTrace("-[DCCachedItem existsOnServer]");
  return documentIdentifier().has_value();
}

void DCCachedItem::renameRelativePath(const DCRelativePath::Ptr& relativePath) {
  DCLogTrace("-[DCCachedItem renameRelativePath:]", {{"relativePath", relativePath}});
  if (!relativePath) return;
  auto locked = lock();
  path_ = relativePath;
}

std::string DCCachedItem::description() const {
  auto locked = lock();
  return format("<%@ path='%@', id=%@, service=%@>", baseDescription(className(), this), path_->string(),
                documentIdentifier(), service_->uniqueIdentifier());
}

// Freshness.

std::optional<Date> DCCachedItem::localContentModificationDate() const {
  auto path = contentsPath();
  struct stat status{};
  if (!path || lstat(path->c_str(), &status) != 0) return std::nullopt;
  return Date::fromTimespec(status.st_mtim);
}

DCCachedItemOrder DCCachedItem::relativeAge() const {
  DCLogTrace("-[DCCachedItem relativeAge]");
  auto locked = lock();
  auto localDate = localContentModificationDate();
  if (!localDate) return DCCachedItemOrderUnknown;
  std::vector<Date> dates{*localDate};
  if (auto metadata = remoteMetadata()) {
    auto remoteModDate = metadata->date(ResourceContentModificationDateKey);
    DCAssert(remoteModDate, kSource);
    if (remoteModDate) dates.push_back(*remoteModDate);
  }
  if (auto entry = parentContentsMetadata()) {
    auto parentModDate = entry->date(ResourceContentModificationDateKey);
    DCAssert(parentModDate, kSource);
    if (parentModDate) dates.push_back(*parentModDate);
  }
  if (dates.size() == 1) return DCCachedItemOrderLocalIsNewer;
  std::sort(dates.begin(), dates.end());
  if (*localDate != dates.back()) return DCCachedItemOrderLocalIsOlder;
  return *localDate == dates[dates.size() - 2] ? DCCachedItemOrderSame : DCCachedItemOrderLocalIsNewer;
}

bool DCCachedItem::isUpToDate() const {
  DCLogTrace("-[DCCachedItem isUpToDate]");
  auto locked = lock();
  const auto age = relativeAge();
  if (age == DCCachedItemOrderLocalIsNewer) return true;
  if (age != DCCachedItemOrderSame) return false;
  if (auto downloaded = lastDownloadDate()) {
    const Duration elapsed = environment_->service->clock().now() - *downloaded;
    const bool isDirectory = dynamic_cast<const DCCachedDirectory*>(this) != nullptr;
    // A clock that was set back says nothing of how long ago it was.
    if (elapsed >= Duration::zero() && elapsed <= (isDirectory ? kDirectoryFreshness : kItemFreshness)) return true;
  }
  if (isRoot()) return false;
  auto directory = parent();
  return directory && directory->isUpToDate();
}

bool DCCachedItem::isRemoteMetadataUpToDate() const {
  DCLogTrace("-[DCCachedItem isRemoteMetadataUpToDate]");
  return isUpToDate();
}

bool DCCachedItem::isContentsUpToDate() const {
  DCLogTrace("-[DCCachedItem isContentsUpToDate]");
  return isUpToDate();
}

// Synchronisation.

bool DCCachedItem::hasBeenRemoved() const {
  DCLogTrace("-[DCCachedItem hasBeenRemoved]");
  auto locked = lock();
  return hasBeenRemoved_;
}

void DCCachedItem::setHasBeenRemoved(bool hasBeenRemoved) {
  DCLogTrace("-[DCCachedItem setHasBeenRemoved:]", {{"hasBeenRemoved", hasBeenRemoved}});
  auto locked = lock();
  if (hasBeenRemoved && !hasBeenRemoved_) documentIdentifierWhenRemoved_ = documentIdentifier();
  hasBeenRemoved_ = hasBeenRemoved;
}

bool DCCachedItem::hasBeenDownloaded() const {
  DCLogTrace("-[DCCachedItem hasBeenDownloaded]");
  auto locked = lock();
  if (!lastDownloadDate()) return false;
  if (documentIdentifier()) return true;
  // Another process may have taken it away in between.
  if (!lastDownloadDate()) return false;
  DCAssertionFailed(kSource, __LINE__, "self.documentIdentifier");
  return true;
}

bool DCCachedItem::hasBeenUploaded() const {
  DCLogTrace("-[DCCachedItem hasBeenUploaded]");
  auto locked = lock();
  if (!lastUploadDate()) return false;
  if (documentIdentifier()) return true;
  // Another process may have taken it away in between.
  if (!lastUploadDate()) return false;
  DCAssertionFailed(kSource, __LINE__, "self.documentIdentifier");
  return true;
}

bool DCCachedItem::needsInitialDownload() const {
  DCLogTrace("-[DCCachedItem needsInitialDownload]");
  auto locked = lock();
  if (hasBeenDownloaded()) return false;
  if (!isRoot() && relativeAge() != DCCachedItemOrderUnknown) return false;
  // Without contents it is what a kill left of a download, or the beginning of one by another process.
  if (localContentModificationDate()) DCAssert(!remoteMetadata(), kSource);
  return true;
}

bool DCCachedItem::needsDownload() const {
  DCLogTrace("-[DCCachedItem needsDownload]");
  auto locked = lock();
  if (needsInitialDownload()) return true;
  const auto age = relativeAge();
  return age == DCCachedItemOrderUnknown || age == DCCachedItemOrderLocalIsOlder;
}

bool DCCachedItem::needsInitialUpload() const {
  DCLogTrace("-[DCCachedItem needsInitialUpload]");
  return false;
}

bool DCCachedItem::needsUpload() const {
  DCLogTrace("-[DCCachedItem needsUpload]");
  return false;
}

bool DCCachedItem::needsInitialSynchronization() const {
  DCLogTrace("-[DCCachedItem needsInitialSynchronization]");
  auto locked = lock();
  if (!needsInitialUpload() || !needsInitialDownload()) return false;
  DCAssert(existsOnDisk(), kSource);
  DCAssert(!existsOnServer(), kSource);
  return true;
}

bool DCCachedItem::isUnsent() const { return false; }

}  // namespace florvane
