#include "Client/Client/DCCacheExamination.h"

#include "Client/Client/DCPath.h"
#include "platform/Encoding.h"
#include "platform/FileSystem.h"
#include "platform/SQLiteStore.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <system_error>
#include <unordered_set>

namespace florvane {

namespace {

constexpr char kDamagedInfix[] = ".damaged-";
constexpr char kStoresDirectoryName[] = "db";

std::string join(std::string folder, const std::string& name) { return folder.append("/").append(name); }

std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  std::filesystem::directory_iterator entries(folder, error), end;
  while (!error && entries != end) {
    names.push_back(entries->path().filename().string());
    entries.increment(error);
  }
  return names;
}

}  // namespace

DCCacheExamination DCCacheExamination::examinationOfService(const std::shared_ptr<DCService>& service) {
  DCCacheExamination examination;
  DUPathVerifyPathSetup();
  const std::string folder = join(*DUPathMetadataDirectoryPath(), kStoresDirectoryName);
  const std::string name = service->uniqueIdentifier() + ".sqlite";
  examination.rebuildIsUnfinished = fileExists(DCDatabase::rebuildMarkOfService(*service));
  for (const auto& each : namesIn(folder)) {
    if (each.starts_with(name + kDamagedInfix)) examination.damagedStores.push_back(join(folder, each));
  }
  // Before anybody opens it: a damaged store is replaced then.
  if (auto checked = SQLiteStore::check(DCDatabase::storeOptions(*service)); !checked) {
    examination.storeError = checked.error();
    return examination;
  }
  auto database = DCDatabase::databaseForService(service);
  const auto known = database->documentIdentifiersForPathsBelow("");
  examination.knownItems = known.size();
  examination.pendingUploads = database->numberOfPendingUploads();
  examination.unsentFiles = DCUnsentFiles::unsentFilesOfService(service, *database);
  const auto uploads = database->uploadPaths();
  const std::unordered_set<std::string> queued(uploads.begin(), uploads.end());
  std::copy_if(examination.unsentFiles.begin(), examination.unsentFiles.end(),
               std::back_inserter(examination.filesWithoutUpload),
               [&](const DCUnsentFile& file) { return !queued.contains(file.relativePath); });
  std::unordered_set<std::string> folders;
  for (const auto& [path, identifier] : known) folders.insert(hexEncode(identifier));
  for (const auto& each : namesIn(DCFullPath::documentRootForService(service)->string())) {
    if (hexDecode(each) && !folders.contains(each)) ++examination.orphans;
  }
  return examination;
}

std::vector<std::string> DCCacheExamination::foldersOfOtherServices(const std::vector<std::string>& uniqueIdentifiers) {
  DUPathVerifyPathSetup();
  std::vector<std::string> others;
  for (const auto& root : {*DUPathRootDirectoryPath(), *DUPathMetadataDirectoryPath()}) {
    for (const auto& name : namesIn(root)) {
      bool isKnown = name == kStoresDirectoryName ||
                     std::find(uniqueIdentifiers.begin(), uniqueIdentifiers.end(), name) != uniqueIdentifiers.end();
      if (!isKnown) others.push_back(join(root, name));
    }
  }
  std::sort(others.begin(), others.end());
  return others;
}

}  // namespace florvane
