#pragma once

#include "Client/Client/DCCachedItem.h"
#include "Client/Client/DCDirectoryContents.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace florvane {

class DCCachedFile;

// A directory; its contents file is the server's listing of it.
class DCCachedDirectory : public DCCachedItem {
 public:
  using Ptr = std::shared_ptr<DCCachedDirectory>;
  using DCCachedItem::DCCachedItem;

  // The entries of the last listing, one metadata dictionary a child, each with the name key; absent when there is no
  // listing.
  std::optional<Array> contents() const;
  // The same with its indexes; null when there is no listing. Parsed once for as long as the file on disk stays the
  // same.
  DCDirectoryContents::Ptr directoryContents() const;
  // The direct children that have an upload record.
  std::vector<std::shared_ptr<DCCachedFile>> localItems() const;
  // Writable, not readable, and no package.
  bool isDropBox() const;
  // The listing's entry for a child; absent, with a soft assertion, when the path is not below this directory.
  std::optional<Dictionary> _parentContentsMetadataForChildAtRelativePath(
      const DCRelativePath::Ptr& childRelativePath) const;

  std::string className() const override { return "DCCachedDirectory"; }
  DCFullPath::Ptr _contentsFullPath() const override;
  DCFullPath::Ptr _directoryPath() const;
  std::optional<Data> _localGenerationIdentifier() const override;
  DCFullPath::Ptr _localGenerationIdentifierFullPath() const override;

 protected:
  std::optional<std::string> contentsPath() const override;
  std::string contentsPathForDocumentIdentifier(const Data& documentIdentifier) const override;
  std::optional<Dictionary> _fileSystemMetadataWithoutNeedingLocking() const override;

 private:
  static DCDirectoryContents::Ptr _contentsWithFixedConstantsFromContentsPropertyListData(const Data& data);
};

}  // namespace florvane
