#include "Client/Client/DCCachedThumbnail.h"

#include "Client/Client/DCCachedDirectory.h"
#include "Client/Client/DCCachedItemEnvironment.h"
#include "Client/Client/DCCachedItemManager.h"
#include "Client/Client/DCLog.h"
#include "common/FVFMetadataUtils.h"
#include "platform/FileSystem.h"
#include "platform/ResourceValues.h"

#include <utility>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCCachedThumbnail";

DCRelativePath::Ptr thumbnailPath(const DCCachedFile& file) {
  return file.relativePath()->relativePathForAssetType(DCPathAssetTypeThumbnail,
                                                       file.documentIdentifier().value_or(Data()));
}

}  // namespace

DCCachedThumbnail::DCCachedThumbnail(DCCachedFile::Ptr underlyingItem)
    : DCCachedFile(thumbnailPath(*underlyingItem)), underlyingItem_(std::move(underlyingItem)) {}

DCCachedThumbnail::DCCachedThumbnail(DCCachedFile::Ptr underlyingItem, DCRelativePath::Ptr relativePath,
                                     EnvironmentPtr environment)
    : DCCachedFile(std::move(relativePath), std::move(environment)), underlyingItem_(std::move(underlyingItem)) {}

DCFullPath::Ptr DCCachedThumbnail::fullPath() const {
  DCLogTrace("-[DCCachedThumbnail fullPath]");
  return fullPathIfKnown();
}

DCFullPath::Ptr DCCachedThumbnail::_directoryPath() const {
  DCAssertionFailed(kSource, __LINE__, "0");
  return nullptr;
}

std::optional<Data> DCCachedThumbnail::documentIdentifier() const {
  DCLogTrace("-[DCCachedThumbnail documentIdentifier]");
  auto locked = lock();
  if (hasBeenRemoved()) return DCCachedItem::documentIdentifier();
  for (const auto& metadata : {underlyingItem_->parentContentsMetadata(), underlyingItem_->remoteMetadata()}) {
    if (metadata) return metadata->data(FVFileThumbnailDocumentIdentifierKey);
  }
  return std::nullopt;
}

std::optional<std::string> DCCachedThumbnail::contentsPath() const {
  auto locked = lock();
  auto identifier = documentIdentifier();
  return identifier ? std::optional(contentsPathForDocumentIdentifier(*identifier)) : std::nullopt;
}

std::string DCCachedThumbnail::contentsPathForDocumentIdentifier(const Data& documentIdentifier) const {
  auto metadata = remoteMetadata();
  auto name = metadata ? metadata->string(ResourceNameKey) : std::nullopt;
  if (!name || !DCDirectoryContents::isLegalChildName(*name)) name = relativePath()->lastPathComponent();
  return metadataFolder(documentIdentifier) + "/" + *name;
}

DCCachedDirectory::Ptr DCCachedThumbnail::parent() const { return underlyingItem_->parent(); }

std::optional<Dictionary> DCCachedThumbnail::parentContentsMetadata() const {
  DCLogTrace("-[DCCachedThumbnail parentContentsMetadata]");
  auto locked = lock();
  Dictionary metadata = underlyingItem_->parentContentsMetadata().value_or(Dictionary());
  auto remote = remoteMetadata();
  if (!remote) return metadata;
  for (const char* key : {FVDocumentIdentifierKey, FVFileThumbnailDocumentIdentifierKey, FVVersionIdentifierKey,
                          FVFileThumbnailedGenerationKey}) {
    if (auto value = remote->data(key)) metadata.set(key, *value);
  }
  auto own = remote->date(ResourceContentModificationDateKey);
  auto files = metadata.date(ResourceContentModificationDateKey);
  if (own && (!files || *own > *files)) metadata.set(ResourceContentModificationDateKey, *own);
  return metadata;
}

bool DCCachedThumbnail::updateDocumentIdentifier(const std::optional<Data>& documentIdentifier) {
  DCLogTrace("-[DCCachedThumbnail updateDocumentIdentifier:]", {{"documentIdentifier", documentIdentifier}});
  if (!documentIdentifier) DCAssertionFailed(kSource, __LINE__, "documentIdentifier");
  auto locked = lock();
  if (!documentIdentifier || this->documentIdentifier() != documentIdentifier) return false;
  if (hasBeenRemoved()) return true;
  // Recorded under its path, so that it goes where the file goes.
  const std::string path = _pathsKeyString();
  auto recorded = database().knownDocumentIdentifierForPath(path);
  if (recorded == documentIdentifier) return true;
  if (recorded) {
    (void)removeTree(metadataFolder(*recorded));
    (void)database().removeOtherMetadataForDocumentIdentifier(*recorded);
  }
  (void)database().setDocumentIdentifier(*documentIdentifier, path);
  return true;
}

DCCachedItemOrder DCCachedThumbnail::relativeAge() const {
  DCLogTrace("-[DCCachedThumbnail relativeAge]");
  auto locked = lock();
  if (!localContentModificationDate()) return DCCachedItemOrderUnknown;
  auto remote = remoteMetadata();
  if (!remote) return DCCachedItemOrderLocalIsOlder;
  if (auto entry = underlyingItem_->parentContentsMetadata()) {
    auto madeFrom = remote->data(FVFileThumbnailedGenerationKey);
    auto present = entry->data(FVFileThumbnailedGenerationKey);
    if (!present) present = entry->data(FVVersionIdentifierKey);
    if (madeFrom && present && *madeFrom != *present) return DCCachedItemOrderLocalIsOlder;
    auto own = remote->date(ResourceContentModificationDateKey),
         files = entry->date(ResourceContentModificationDateKey);
    if (own && files && *own != *files) return DCCachedItemOrderLocalIsOlder;
  }
  return DCCachedItem::relativeAge();
}

bool DCCachedThumbnail::isUpToDate() const {
  DCLogTrace("-[DCCachedThumbnail isUpToDate]");
  auto locked = lock();
  if (DCCachedItem::isUpToDate()) return true;
  return relativeAge() == DCCachedItemOrderSame && underlyingItem_->isUpToDate();
}

}  // namespace florvane
