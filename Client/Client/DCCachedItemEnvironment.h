#pragma once

#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCListingCache.h"
#include "Client/Client/DCService.h"

#include <memory>
#include <mutex>
#include <string>

namespace florvane {

class DCCachedItemManager;

// What an item manager and its items share. Items keep it, so that they work on when the manager is dropped.
struct DCCachedItemEnvironment {
  // Guards the manager's registry, the changing fields of all its items, and the listings. Never held while a
  // coordinated accessor is waited for.
  std::recursive_mutex mutex;
  std::shared_ptr<DCService> service;
  std::shared_ptr<DCDatabase> database;
  std::string documentRoot;  // paths of the service's own folders
  std::string metadataRoot;
  std::weak_ptr<DCCachedItemManager> manager;
  DCListingCache listings;
};

}  // namespace florvane
