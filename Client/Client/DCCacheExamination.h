#pragma once

#include "Client/Client/DCUnsentFiles.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace florvane {

// What the cache keeps of a service and whether it holds together, as it is when it is made. Reads without changing
// anything; blocks for as long as reading the store through takes.
struct DCCacheExamination {
  static DCCacheExamination examinationOfService(const std::shared_ptr<DCService>& service);
  // Folders of the cache that belong to none of these services.
  static std::vector<std::string> foldersOfOtherServices(const std::vector<std::string>& uniqueIdentifiers);

  std::optional<Error> storeError;         // the store cannot be read, is damaged, or is a newer version's
  bool rebuildIsUnfinished = false;        // then the rest says little
  std::vector<std::string> damagedStores;  // that were set aside
  std::size_t knownItems = 0;
  std::size_t pendingUploads = 0;
  std::vector<DCUnsentFile> unsentFiles;  // waiting uploads included
  std::vector<DCUnsentFile> filesWithoutUpload;
  // Folders of documents at which nothing points any more.
  std::size_t orphans = 0;
};

}  // namespace florvane
