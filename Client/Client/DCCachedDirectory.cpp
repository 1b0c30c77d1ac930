#include "Client/Client/DCCachedDirectory.h"

#include "Client/Client/DCCachedFile.h"
#include "Client/Client/DCCachedItemEnvironment.h"
#include "Client/Client/DCCachedItemManager.h"
#include "Client/Client/DCLog.h"
#include "common/FVFGenerationIdentifierUtils.h"
#include "common/FVFMetadataUtils.h"
#include "platform/PropertyList.h"
#include "platform/ResourceValues.h"

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCCachedDirectory";
constexpr char kRootContentsFile[] = "/root.plist";
constexpr std::string_view kDateKeySuffix = "DateKey";

}  // namespace

std::optional<std::string> DCCachedDirectory::contentsPath() const {
  if (isRoot()) return environment_->metadataRoot + kRootContentsFile;
  return DCCachedItem::contentsPath();
}

std::string DCCachedDirectory::contentsPathForDocumentIdentifier(const Data& documentIdentifier) const {
  return metadataFolder(documentIdentifier) + "/" + relativePath()->lastPathComponent();
}

DCFullPath::Ptr DCCachedDirectory::_contentsFullPath() const { return fullPathIfKnown(); }

DCFullPath::Ptr DCCachedDirectory::_directoryPath() const { return fullPathIfKnown(); }

DCFullPath::Ptr DCCachedDirectory::_localGenerationIdentifierFullPath() const { return _directoryPath(); }

std::optional<Data> DCCachedDirectory::_localGenerationIdentifier() const {
  auto locked = lock();
  auto metadata = localMetadata();
  auto path = contentsPath();
  if (!path || !metadata || !metadata->boolean(ResourceIsPackageKey).value_or(false)) return std::nullopt;
  auto identifier = FVFGenerationIdentifierUtils::versionIdentifierForPackageWithURL(URL::fileURL(*path));
  return identifier ? *identifier : std::nullopt;
}

DCDirectoryContents::Ptr DCCachedDirectory::_contentsWithFixedConstantsFromContentsPropertyListData(const Data& data) {
  auto list = readPropertyList(data);
  auto entries = list ? list->asArray() : std::nullopt;
  if (!entries) {
    DCAssertionFailed(kSource, __LINE__, "!error");
    return nullptr;
  }
  return DCDirectoryContents::contentsWithEntries(*entries);
}

DCDirectoryContents::Ptr DCCachedDirectory::directoryContents() const {
  DCLogTrace("-[DCCachedDirectory directoryContents]");
  auto locked = lock();
  auto path = contentsPath();
  if (!path) return nullptr;
  return environment_->listings.contentsOfFile(*path, [&]() -> DCDirectoryContents::Ptr {
    auto data = _contents();
    return data ? _contentsWithFixedConstantsFromContentsPropertyListData(*data) : nullptr;
  });
}

std::optional<Array> DCCachedDirectory::contents() const {
  DCLogTrace("-[DCCachedDirectory contents]");
  auto contents = directoryContents();
  return contents ? std::optional(contents->entries()) : std::nullopt;
}

std::optional<Dictionary> DCCachedDirectory::_parentContentsMetadataForChildAtRelativePath(
    const DCRelativePath::Ptr& childRelativePath) const {
  DCLogTrace("-[DCCachedDirectory _parentContentsMetadataForChildAtRelativePath:]",
             {{"childRelativePath", childRelativePath}});
  auto locked = lock();
  const bool legalChild = isRoot() || DUPathStringHasPathPrefix(childRelativePath->string(), _pathsKeyString());
  DCAssert(legalChild, kSource);
  if (!legalChild) return std::nullopt;
  auto contents = directoryContents();
  const Value* entry = contents ? contents->entryNamed(childRelativePath->lastPathComponent()) : nullptr;
  return entry ? entry->asDictionary() : std::nullopt;
}

std::optional<Dictionary> DCCachedDirectory::_fileSystemMetadataWithoutNeedingLocking() const {
  auto base = DCCachedItem::_fileSystemMetadataWithoutNeedingLocking();
  auto path = contentsPath();
  if (!base || !path) return std::nullopt;
  auto fresh = resourceValues(*path, DCCachedFSLocalAttributesKeysToGet());
  Dictionary metadata;
  for (const auto& [key, value] : *base) {
    // A listing's size is not that of the directory.
    if (key.text() == ResourceFileSizeKey) continue;
    const bool isKept = key.text().ends_with(kDateKeySuffix) || key.text() == FVVersionIdentifierKey;
    const Value* now = isKept || !fresh ? nullptr : fresh->find(key.text());
    metadata.set(key, now ? *now : value);
  }
  // The contents file stands for the directory that it lists.
  metadata.set(ResourceFileResourceTypeKey, ResourceTypeDirectory);
  metadata.set(ResourceIsDirectoryKey, true);
  metadata.set(ResourceTypeIdentifierKey, "inode/directory");
  metadata.set(ResourceLocalizedTypeDescriptionKey, localizedTypeDescription("inode/directory"));
  if (isRoot()) metadata.set(ResourceNameKey, "");
  return metadata;
}

std::vector<DCCachedFile::Ptr> DCCachedDirectory::localItems() const {
  DCLogTrace("-[DCCachedDirectory localItems]");
  auto locked = lock();
  std::vector<DCCachedFile::Ptr> items;
  auto manager = environment_->manager.lock();
  if (!manager) return items;
  for (const auto& [path, upload] : database().knownUploadsBelow(_pathsKeyString(), true)) {
    auto file = manager->file(DCRelativePath::relativePathWithString(path, service()));
    DCAssert(file, kSource);
    if (file) items.push_back(std::move(file));
  }
  return items;
}

bool DCCachedDirectory::isDropBox() const {
  DCLogTrace("-[DCCachedDirectory isDropBox]");
  auto locked = lock();
  auto metadata = parentContentsMetadata();
  if (!metadata) metadata = remoteMetadata();
  if (!metadata) return false;
  return metadata->boolean(ResourceIsWritableKey).value_or(false) &&
         !metadata->boolean(ResourceIsReadableKey).value_or(true) &&
         !metadata->boolean(ResourceIsPackageKey).value_or(false);
}

}  // namespace florvane
