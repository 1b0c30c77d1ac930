#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCUnsentFiles.h"
#include "common/FVFGenerationIdentifierUtils.h"
#include "common/FVFMetadataUtils.h"
#include "platform/Exceptions.h"
#include "platform/FileSystem.h"
#include "platform/PropertyList.h"
#include "platform/ResourceValues.h"

#include <unordered_map>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCDocumentManager";
// Before everything that a server can name, and still a date that any file can hold.
constexpr Date kDistantPast = Date::fromMicroseconds(-62'135'769'600'000'000);
constexpr char kStagingFolder[] = "/upload+";

template <typename T>
void setIfPresent(Dictionary& record, const char* key, const std::optional<T>& value) {
  if (value) record.set(key, *value);
}

// Everything of one entity, cancelled uploads included.
template <typename T, typename Visit>
void forEachRecord(DCDatabase& database, std::size_t entity, const Visit& visit) {
  ManagedObjectFetch fetch;
  fetch.entity = entity;
  auto context = database.managedObjectContext();
  context->performAndWait([&] {
    for (const auto& object : context->fetch(fetch)) visit(static_cast<const T&>(*object));
  });
}

// Those of the store, and those that an interrupted rebuild had taken from it and not put back.
Array recordsOfUploads(DCDatabase& database, const Array& interrupted) {
  Array records;
  std::set<std::string> known;
  auto keyOf = [](const Dictionary& record) {
    return record.string("path").value_or(format("/%@ %@", record.string("sessionIdentifier").value_or(""),
                                                 record.integer("taskIdentifier").value_or(0)));
  };
  forEachRecord<DCManagedUpload>(database, DCEntityIndexUpload, [&](const DCManagedUpload& upload) {
    if (!upload.path() && !upload.taskIdentifier()) return;
    Dictionary record = upload.dictionaryRepresentation();
    known.insert(keyOf(record));
    records.append(record);
  });
  for (const Value& each : interrupted) {
    auto record = each.asDictionary();
    if (record && known.insert(keyOf(*record)).second) records.append(*record);
  }
  return records;
}

Result<void> storeUploads(DCDatabase& database, const Array& records) {
  auto context = database.managedObjectContext();
  return database.performBatch([&] {
    for (const Value& each : records) {
      auto record = each.asDictionary();
      if (!record) continue;
      auto upload = std::static_pointer_cast<DCManagedUpload>(context->insert(DCEntityIndexUpload));
      upload->setValuesFromDictionary(*record);
      upload->setCancelled(upload->cancelled());  // one without a word would be neither pending nor cancelled
    }
  });
}

// What an old store knew of the exchanges with the server; a store made from files alone can only go by dates.
using Exchanges = std::unordered_map<std::string, Dictionary>;

Exchanges exchangesOf(DCDatabase& database) {
  Exchanges exchanges;
  forEachRecord<DCManagedOtherMetadata>(
      database, DCEntityIndexOtherMetadata, [&](const DCManagedOtherMetadata& metadata) {
        auto key = metadata.documentIdentifier();
        if (!key) return;
        const Dictionary all = metadata.dictionaryRepresentation();
        Dictionary generations;
        for (const char* each : {DCFileLastUpdateGenerationIdentifierKey, DCFileLastUploadGenerationIdentifierKey,
                                 DCFileLastDownloadGenerationIdentifierKey}) {
          setIfPresent(generations, each, all.data(each));
        }
        if (!generations.empty()) exchanges.emplace(key->view(), generations);
      });
  return exchanges;
}

// Whether a file's contents have the date and the size that came with them.
bool isAsTheServerSaid(const DCCachedFile& file, const Dictionary& remoteMetadata) {
  auto local = file.localMetadata();
  auto date = local ? local->date(ResourceContentModificationDateKey) : std::nullopt;
  return date && date == remoteMetadata.date(ResourceContentModificationDateKey) &&
         local->integer(ResourceFileSizeKey) == remoteMetadata.integer(ResourceFileSizeKey);
}

std::string journalPath(const DCDatabase& database, const DCService& service) {
  std::string store = database.databaseURL().path();
  return store.substr(0, store.rfind('/')) + "/rebuild-" + service.uniqueIdentifier() + ".plist";
}

Array readJournal(const std::string& path) {
  auto bytes = readFile(path);
  auto list = bytes ? readPropertyList(*bytes) : Result<Value>(Failure(bytes.error()));
  return list ? list->asArray().value_or(Array()) : Array();
}

}  // namespace

void DCDocumentManager::rebuildDatabaseWithCompletionHandler(CompletionHandler<> completionHandler) {
  DCLogTrace("-[DCDocumentManager rebuildDatabaseWithCompletionHandler:]");
  queue_->dispatchAsynchronousBlock([self = shared_from_this(), handler = std::move(completionHandler)]() mutable {
    self->_rebuildDatabase();
    if (!handler) return;
    DCLogCallback(DCLogLevelDebug, "%@: Calling completion handler %@ at %s:%u", *self,
                  baseDescription("Block", &handler), "-[DCDocumentManager rebuildDatabaseWithCompletionHandler:]",
                  __LINE__);
    self->completionHandlerQueue()->async([settled = std::move(handler)]() mutable { settled(); });
  });
}

void DCDocumentManager::_finishInterruptedRebuild() {
  if (!fileExists(journalPath(*DCDatabase::databaseForService(service_), *service_))) return;
  DCLogNotice("%@: Going on with a rebuild that was cut short", *this);
  rebuildDatabaseWithCompletionHandler(nullptr);
}

void DCDocumentManager::_rebuildDatabase() {
  auto database = DCDatabase::databaseForService(service_);
  const std::string journal = journalPath(*database, *service_);
  // The records of uploads are on stable storage before the store that holds them goes.
  Array uploads = recordsOfUploads(*database, readJournal(journal));
  auto bytes = writePropertyList(uploads, PropertyListFormat::Binary);
  auto written = bytes ? writeFileAtomically(journal, *bytes, 0600, true) : Failure(bytes.error());
  if (!written) {
    DCLogError("Unable to rebuild the database: %@", written.error());
    return;
  }
  rebuildExchanges_ = exchangesOf(*database);
  // An item that remembers its identifier would not record it again.
  _forgetItems();
  database->reset();
  if (auto stored = storeUploads(*database, uploads); !stored) return;  // logged there; the journal keeps them
  auto root = cachedItemManager()->root();
  auto remoteMetadata = root->remoteMetadataFromDisk();
  if (remoteMetadata && remoteMetadata->data(FVDocumentIdentifierKey)) {
    _rebuildItemWithRelativePath(root->relativePath(), *remoteMetadata);
  }
  rebuildExchanges_.clear();
  _queueStagedFiles();
  (void)removeItem(journal);
  _adjustFetchingUpdatesIfNecessary();
}

void DCDocumentManager::_rebuildItemWithRelativePath(const DCRelativePath::Ptr& relativePath,
                                                     const Dictionary& parentDirectoryMetadata) {
  auto type = parentDirectoryMetadata.string(ResourceFileResourceTypeKey);
  if (relativePath->isRoot() && !type) type = ResourceTypeDirectory;
  bool isDirectory = type == ResourceTypeDirectory, isFile = type == ResourceTypeRegular;
  if (!isDirectory && !isFile) {
    DCAssertionFailed(kSource, __LINE__,
                      "[fileResourceType isEqualToString:ResourceTypeDirectory] || [fileResourceType "
                      "isEqualToString:ResourceTypeRegular]");
    return;
  }
  DCCachedItem::Ptr item;
  if (isDirectory) {
    item = DCCachedItemManager::directoryAtRelativePath(relativePath);
  } else {
    item = DCCachedItemManager::fileAtRelativePath(relativePath);
  }
  if (!item) return;
  if (!item->documentIdentifier())
    item->updateDocumentIdentifier(parentDirectoryMetadata.data(FVDocumentIdentifierKey));
  // Absent for what was never downloaded: its entry in the parent's listing is all that there is to know.
  auto remoteMetadata = item->remoteMetadataFromDisk();
  if (!remoteMetadata) return;
  if (auto file = std::dynamic_pointer_cast<DCCachedFile>(item)) {
    _rebuildFile(file, *remoteMetadata);
  } else if (auto directory = std::dynamic_pointer_cast<DCCachedDirectory>(item)) {
    _rebuildDirectory(directory, *remoteMetadata);
  }
}

void DCDocumentManager::_rebuildFile(const DCCachedFile::Ptr& file, const Dictionary& remoteMetadata) {
  file->restoreFileFromRemoteMetadata(remoteMetadata);
  file->setLastDownloadDate(kDistantPast);
  DCLogDebug("REBUILD remoteMetadata %@", remoteMetadata);
  auto identifier = file->documentIdentifier();
  if (!identifier || !file->existsOnDisk()) return;
  auto database = DCDatabase::databaseForService(service_);
  auto known = rebuildExchanges_.find(std::string(identifier->view()));
  if (known != rebuildExchanges_.end()) {
    (void)database->saveOtherMetadata(known->second, *identifier);
  } else if (isAsTheServerSaid(*file, remoteMetadata)) {
    auto path = file->fullPath();
    auto generation = path ? FVFGenerationIdentifierUtils::versionIdentifierForFileWithURL(path->url())
                           : Result<std::optional<Data>>(std::nullopt);
    if (generation && *generation) {
      (void)database->saveOtherMetadata(Dictionary{{DCFileLastUpdateGenerationIdentifierKey, **generation}},
                                        *identifier);
    }
  }
}

void DCDocumentManager::_rebuildDirectory(const DCCachedDirectory::Ptr& directory, const Dictionary& remoteMetadata) {
  auto listing = directory->directoryContents();
  auto path = directory->fullPath();
  if (!listing || !path) return;
  Dictionary metadata = remoteMetadata;
  // The parent's listing may know a newer name, and under that the items below are looked for.
  if (!directory->isRoot()) metadata.set(ResourceNameKey, directory->relativePath()->lastPathComponent());
  cachedItemManager()->updateItem(
      directory, *FVFResponseContainer::containerWithURL(path->url(), FVFResponseContainerTransferTypeFull, metadata));
  directory->setLastDownloadDate(kDistantPast);
  DCLogDebug("REBUILD reponseContainer for %@", *directory);

  struct Child {
    DCRelativePath::Ptr path;
    Dictionary entry;
  };
  std::vector<Child> children;
  std::vector<std::pair<std::string, Data>> identifiers;
  for (const Value& each : listing->entries()) {
    auto entry = each.asDictionary();
    auto name = entry ? entry->string(ResourceNameKey) : std::nullopt;
    if (!name) continue;
    try {
      auto childPath = directory->relativePath()->relativePathByAppendingPathComponent(*name);
      if (auto identifier = entry->data(FVDocumentIdentifierKey)) {
        identifiers.emplace_back(childPath->string(), *identifier);
      }
      children.push_back({childPath, *entry});
    } catch (const InvalidArgumentException&) {
      DCAssertionFailed(kSource, __LINE__, "childName");
    }
  }
  // One transaction for all of a listing; each item then finds its identifier recorded.
  (void)DCDatabase::databaseForService(service_)->setDocumentIdentifiers(identifiers,
                                                                         directory->relativePath()->string());
  for (const auto& child : children) _rebuildItemWithRelativePath(child.path, child.entry);
}

// New files whose upload records were lost with their store would otherwise wait for ever.
void DCDocumentManager::_queueStagedFiles() {
  auto database = DCDatabase::databaseForService(service_);
  for (const auto& file : DCUnsentFiles::unsentFilesOfService(service_, *database)) {
    if (file.filePath.find(kStagingFolder) == std::string::npos || database->uploadForPath(file.relativePath)) continue;
    auto parent =
        DCRelativePath::relativePathWithString(file.relativePath, service_)->relativePathByDeletingLastPathComponent();
    if (!parent || DCCachedItemManager::fileResourceTypeAtRelativePath(parent) != ResourceTypeDirectory) continue;
    DCLogNotice("The staged file '%@' is to be uploaded", file.relativePath);
    (void)database->saveUploadFileURL(URL::fileURL(file.filePath), file.relativePath);
  }
}

}  // namespace florvane
