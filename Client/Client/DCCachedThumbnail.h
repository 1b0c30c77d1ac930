#pragma once

#include "Client/Client/DCCachedFile.h"

#include <memory>
#include <optional>
#include <string>

namespace florvane {

// The thumbnail image of a file. Its document identifier is the one that the file's entry names; its freshness is the
// file's.
class DCCachedThumbnail : public DCCachedFile {
 public:
  using Ptr = std::shared_ptr<DCCachedThumbnail>;

  explicit DCCachedThumbnail(DCCachedFile::Ptr underlyingItem);
  DCCachedThumbnail(DCCachedFile::Ptr underlyingItem, DCRelativePath::Ptr relativePath, EnvironmentPtr environment);

  const DCCachedFile::Ptr& underlyingItem() const { return underlyingItem_; }
  DCFullPath::Ptr fullPath() const override;
  std::optional<Data> documentIdentifier() const override;
  std::shared_ptr<DCCachedDirectory> parent() const override;
  std::optional<Dictionary> parentContentsMetadata() const override;
  bool updateDocumentIdentifier(const std::optional<Data>& documentIdentifier) override;
  // Made from another version of the file, or from the file at another date, counts as older.
  DCCachedItemOrder relativeAge() const override;
  bool isUpToDate() const override;
  // Never.
  bool needsInitialUpload() const override { return false; }
  bool needsUpload() const override { return false; }
  bool isUnsent() const override { return false; }

  std::string className() const override { return "DCCachedThumbnail"; }
  std::optional<Data> _localGenerationIdentifier() const override { return std::nullopt; }
  DCFullPath::Ptr _localGenerationIdentifierFullPath() const override { return nullptr; }
  // Not supported: a soft assertion.
  DCFullPath::Ptr _directoryPath() const;

 protected:
  bool keepsGenerations() const override { return false; }
  std::optional<std::string> contentsPath() const override;
  std::string contentsPathForDocumentIdentifier(const Data& documentIdentifier) const override;

 private:
  DCCachedFile::Ptr underlyingItem_;
};

}  // namespace florvane
