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

  const DCCachedFile::Ptr& underlyingItem() const { return underlyingItem_; }
  DCFullPath::Ptr fullPath() const override;
  std::optional<Dictionary> parentContentsMetadata() const override;
  std::string className() const override { return "DCCachedThumbnail"; }

 private:
  DCCachedFile::Ptr underlyingItem_;
};

}  // namespace florvane
