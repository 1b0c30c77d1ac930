#include "Client/Client/DCDocumentManager+Handlers.h"
#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCUnsentFiles.h"
#include "common/FVFGenerationIdentifierUtils.h"
#include "common/FVFMetadataUtils.h"
#include "platform/Encoding.h"
#include "platform/Exceptions.h"
#include "platform/FileSystem.h"
#include "platform/PropertyList.h"
#include "platform/ResourceValues.h"

#include <set>
#include <unordered_set>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCDocumentManager";
// Before everything that a server can name, and still a date that any file can hold.
constexpr Date kDistantPast = Date::fromMicroseconds(-62'135'769'600'000'000);
constexpr char kStagingFolder[] = "/upload+";

// Everything of one entity, cancelled uploads included.
template <typename T, typename Visit>
void forEachRecord(DCDatabase& database, std::size_t entity, const Visit& visit) {
  ManagedObjectFetch fetch;
  fetch.entity = entity;
  auto context = database.managedObjectContext();
  context->performAndWait([&] {
    for (const auto& object : context->fetch(fetch)) visit(static_cast<T&>(*object));
  });
}

std::string keyOfUpload(const Dictionary& record) {
  return record.string("path").value_or(
      format("/%@ %@", record.string("sessionIdentifier").value_or(""), record.integer("taskIdentifier").value_or(0)));
}

// Earlier versions carried the records in a journal; one that a kill left is put back, but for those that are in the
// store.
Result<void> storeUploads(DCDatabase& database, const Array& records) {
  if (records.empty()) return {};
  std::set<std::string> known;
  forEachRecord<DCManagedUpload>(database, DCEntityIndexUpload, [&](const DCManagedUpload& upload) {
    known.insert(keyOfUpload(upload.dictionaryRepresentation()));
  });
  auto context = database.managedObjectContext();
  return database.performBatch([&] {
    for (const Value& each : records) {
      auto record = each.asDictionary();
      if (!record || !known.insert(keyOfUpload(*record)).second) continue;
      auto upload = std::static_pointer_cast<DCManagedUpload>(context->insert(DCEntityIndexUpload));
      upload->setValuesFromDictionary(*record);
      upload->setCancelled(upload->cancelled());  // one without a word would be neither pending nor cancelled
    }
  });
}

// What was known of the exchanges with the server stays, since files alone tell it by their dates at best. When they
// were made is said anew by the files.
Result<void> forgetDatesOfExchanges(DCDatabase& database) {
  return database.performBatch([&] {
    forEachRecord<DCManagedOtherMetadata>(database, DCEntityIndexOtherMetadata, [](DCManagedOtherMetadata& metadata) {
      metadata.setLastDownloadedDate({});
      metadata.setLastRemoteMetadataUpdateDate({});
      metadata.setLastUploadDate({});
    });
  });
}

// Of items that are neither known nor on the disk: a document whose folder was not to be read is named again by its
// next listing, and must not look like somebody's own then.
Result<void> forgetOtherExchanges(DCDatabase& database, const std::string& documentRoot) {
  std::unordered_set<std::string> keys;
  if (auto root = database.documentIdentifierForPath("")) keys.emplace(root->view());
  for (const auto& [path, identifier] : database.documentIdentifiersForPathsBelow("")) keys.emplace(identifier.view());
  for (std::string& path : database.uploadPaths()) keys.insert(std::move(path));
  std::vector<Data> others;
  forEachRecord<DCManagedOtherMetadata>(
      database, DCEntityIndexOtherMetadata, [&](const DCManagedOtherMetadata& metadata) {
        auto key = metadata.documentIdentifier();
        if (key && !keys.contains(std::string(key->view())) && !fileExists(documentRoot + "/" + hexEncode(*key))) {
          others.push_back(*key);
        }
      });
  return database.performBatch([&] {
    for (const Data& key : others) (void)database.removeOtherMetadataForDocumentIdentifier(key);
  });
}

bool isExchangeKnown(DCDatabase& database, const Data& documentIdentifier) {
  auto known = database.otherMetadataForDocumentIdentifier(documentIdentifier);
  return known && (known->lastUpdateGenerationIdentifier() || known->lastUploadGenerationIdentifier() ||
                   known->lastDownloadedGenerationIdentifier());
}

// Whether a file's contents have the date and the size that came with them.
bool isAsTheServerSaid(const DCCachedFile& file, const Dictionary& remoteMetadata) {
  auto local = file.localMetadata();
  auto date = local ? local->date(ResourceContentModificationDateKey) : std::nullopt;
  return date && date == remoteMetadata.date(ResourceContentModificationDateKey) &&
         local->integer(ResourceFileSizeKey) == remoteMetadata.integer(ResourceFileSizeKey);
}

Array readJournal(const std::string& path) {
  auto bytes = readFile(path);
  auto list = bytes ? readPropertyList(*bytes) : Result<Value>(Failure(bytes.error()));
  return list ? list->asArray().value_or(Array()) : Array();
}

}  // namespace

void DCDocumentManager::rebuildDatabaseWithCompletionHandler(CompletionHandler<> completionHandler) {
  static constexpr char function[] = "-[DCDocumentManager rebuildDatabaseWithCompletionHandler:]";
  auto handler = shareHandler(std::move(completionHandler));
  DCLogTrace(function, {{"userCompletionHandler", handlerText(*handler)}});
  queue_->dispatchAsynchronousBlock([self = shared_from_this(), handler] {
    self->_rebuildDatabase(false);
    callUserHandler(*self, handler, function, __LINE__);
  });
}

// Earlier versions kept a journal of the upload records in it.
const std::string& DCDocumentManager::rebuildMark() {
  if (rebuildMark_.empty()) rebuildMark_ = DCDatabase::rebuildMarkOfService(*service_);
  return rebuildMark_;
}

void DCDocumentManager::_finishInterruptedRebuild() {
  if (!fileExists(rebuildMark())) return;
  queue_->dispatchAsynchronousBlock([self = shared_from_this()] { self->_finishRebuildOfOthers(); });
}

// Half a rebuilt database would tell half a truth.
void DCDocumentManager::_finishRebuildOfOthers() {
  if (rebuildError() || !fileExists(rebuildMark())) return;
  DCLogNotice("%@: Waiting for a rebuild, or going on with one that was cut short", *this);
  _rebuildDatabase(true);
}

std::optional<Error> DCDocumentManager::rebuildError() const {
  std::lock_guard lock(mutex_);
  return rebuildError_;
}

void DCDocumentManager::_rebuildDatabase(bool onlyIfUnfinished) {
  auto done = _rebuildDatabaseExclusively(onlyIfUnfinished);
  if (!done) DCLogError("Unable to rebuild the database: %@", done.error());
  std::lock_guard lock(mutex_);
  rebuildError_ = done ? std::nullopt : std::optional(done.error());
}

Result<void> DCDocumentManager::_rebuildDatabaseExclusively(bool onlyIfUnfinished) {
  auto database = this->database();
  if (auto newer = database->newerVersionError()) return Failure(*newer);
  // One at a time among all processes.
  auto lock = FileLock::acquire(rebuildMark() + ".lock", true);
  if (!lock) return Failure(lock.error());
  if (!fileExists(rebuildMark())) {
    if (onlyIfUnfinished) return {};
    auto mark = writePropertyList(Array(), PropertyListFormat::Binary);
    if (!mark) return Failure(mark.error());
    if (auto marked = writeFileAtomically(rebuildMark(), *mark, 0600, true); !marked) return marked;
  }
  // An item that remembers its identifier would not record it again.
  _forgetItems();
  {
    // No upload starts or ends while its record goes over into another store.
    std::lock_guard uploads(_uploadManager()->lock());
    if (auto reset = database->resetKeepingExchanges(); !reset) return reset;
  }
  if (auto stored = storeUploads(*database, readJournal(rebuildMark())); !stored) return stored;
  if (auto forgotten = forgetDatesOfExchanges(*database); !forgotten) return forgotten;
  auto root = cachedItemManager()->root();
  auto remoteMetadata = root->remoteMetadataFromDisk();
  if (remoteMetadata && remoteMetadata->data(FVDocumentIdentifierKey)) {
    _rebuildItemWithRelativePath(root->relativePath(), *remoteMetadata);
  }
  (void)forgetOtherExchanges(
      *database,
      DCFullPath::documentRootForService(service_)->string());  // logged there; what is too much does no harm
  _queueStagedFiles();
  (void)removeItem(rebuildMark());
  _adjustFetchingUpdatesIfNecessary();
  return {};
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
  if (auto directory = std::dynamic_pointer_cast<DCCachedDirectory>(item)) {
    _rebuildDirectory(directory, remoteMetadata);
  } else if (auto file = std::dynamic_pointer_cast<DCCachedFile>(item); file && remoteMetadata) {
    _rebuildFile(file, *remoteMetadata);
  }
}

void DCDocumentManager::_rebuildFile(const DCCachedFile::Ptr& file, const Dictionary& remoteMetadata) {
  file->restoreFileFromRemoteMetadata(remoteMetadata);
  file->setLastDownloadDate(kDistantPast);
  DCLogDebug("REBUILD remoteMetadata %@", remoteMetadata);
  auto identifier = file->documentIdentifier();
  if (!identifier || !file->existsOnDisk()) return;
  auto database = DCDatabase::databaseForService(service_);
  if (!isExchangeKnown(*database, *identifier) && isAsTheServerSaid(*file, remoteMetadata)) {
    auto path = file->fullPath();
    auto generation = path ? FVFGenerationIdentifierUtils::versionIdentifierForFileWithURL(path->url())
                           : Result<std::optional<Data>>(std::nullopt);
    if (generation && *generation) {
      (void)database->saveOtherMetadata(Dictionary{{DCFileLastUpdateGenerationIdentifierKey, **generation}},
                                        *identifier);
    }
  }
  auto thumbnail = DCCachedItemManager::thumbnailForUnderlyingItem(file);
  if (thumbnail && thumbnail->existsOnDisk()) thumbnail->updateDocumentIdentifier(thumbnail->documentIdentifier());
}

void DCDocumentManager::_rebuildDirectory(const DCCachedDirectory::Ptr& directory,
                                          const std::optional<Dictionary>& remoteMetadata) {
  auto listing = directory->directoryContents();
  auto path = directory->fullPath();
  if (!listing || !path) return;
  // A listing that is about to be asked for anew has none, and its items are there all the same.
  if (remoteMetadata) {
    Dictionary metadata = *remoteMetadata;
    // The parent's listing may know a newer name, and under that the items below are looked for.
    if (!directory->isRoot()) metadata.set(ResourceNameKey, directory->relativePath()->lastPathComponent());
    cachedItemManager()->updateItem(directory, *FVFResponseContainer::containerWithURL(
                                                   path->url(), FVFResponseContainerTransferTypeFull, metadata));
    directory->setLastDownloadDate(kDistantPast);
    DCLogDebug("REBUILD reponseContainer for %@", *directory);
  }

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
