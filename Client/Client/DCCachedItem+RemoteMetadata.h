#pragma once

#include "Client/Client/DCCachedItem.h"
#include "Client/Client/DCFileStamp.h"

#include <optional>
#include <string>

namespace florvane {

struct DCCachedItem::RemoteMetadata {
  std::string folder;
  DCFileStamp stamp;
  std::optional<Dictionary> metadata;
};

}  // namespace florvane
