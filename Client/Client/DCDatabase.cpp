#include "Client/Client/DCDatabase.h"

#include "Client/Client/DCDatabase+Fetching.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCPath.h"
#include "Client/Client/DCServiceRegistry.h"
#include "platform/FileSystem.h"

#include <filesystem>
#include <system_error>

namespace florvane {

namespace {

constexpr char kDirectoryName[] = "db";
constexpr char kExtension[] = ".sqlite";
constexpr char kQueueLabelPrefix[] = "quorl.florvane.database.";

URL databaseURLOf(const DCService& service) {
  DUPathVerifyPathSetup();
  return URL::fileURL(*DUPathMetadataDirectoryPath() + "/" + kDirectoryName + "/" + service.uniqueIdentifier() +
                      kExtension);
}

void logFailure(const Result<void>& saved) {
  if (!saved) DCLogInfo("Could not save context: %@", saved.error().description());
}

}  // namespace

std::shared_ptr<DCDatabase> DCDatabase::databaseForService(const std::shared_ptr<DCService>& service) {
  if (!service) return nullptr;
  static auto& databases = *new DCServiceRegistry<DCDatabase>;
  return databases.objectForKey(service->uniqueIdentifier(),
                                [&] { return std::make_shared<DCDatabase>(service, service->clock()); });
}

DCDatabase::DCDatabase(std::shared_ptr<DCService> service, Clock& clock)
    : service_(std::move(service)),
      clock_(clock),
      databaseURL_(databaseURLOf(*service_)),
      memory_(std::make_unique<Memory>()) {
  DCLogTrace("-[DCDatabase initWithService:]", {{"service", *service_}});
  context_ = _setupManagedObjectContext();
}

DCDatabase::~DCDatabase() {
  if (context_) context_->removePersistentStore();
}

std::string DCDatabase::directory() const { return folderOf(databaseURL_.path()); }

// Nor is this one.
std::string DCDatabase::rebuildMarkOfService(const DCService& service) {
  return folderOf(databaseURLOf(service).path()) + "/rebuild-" + service.uniqueIdentifier() + ".plist";
}

SQLiteStore::Options DCDatabase::storeOptions(const DCService& service) {
  SQLiteStore::Options options;
  options.path = databaseURLOf(service).path();
  // Not named by the service's identifier: it must not go with the store.
  options.lockPath = folderOf(options.path) + "/.lock-" + service.uniqueIdentifier();
  options.migrations = DCManagedObjectMigrations();
  options.rescuedTables = {DCEntityUpload};
  return options;
}

std::shared_ptr<ManagedObjectContext> DCDatabase::managedObjectContext() {
  std::lock_guard lock(mutex_);
  if (!context_) context_ = _setupManagedObjectContext();
  return context_;
}

std::shared_ptr<ManagedObjectContext> DCDatabase::_setupManagedObjectContext() {
  auto context = ManagedObjectContext::create(DCManagedObjectModel(), kQueueLabelPrefix + service_->uniqueIdentifier());
  auto added = persistentStoreCoordinator(*context);
  if (!added) {
    DCLogError("Could not add persistent store for service: %@, with database URL: %@", *service_, databaseURL_);
    DCLogError("%@", added.error());
  }
  return context;
}

Result<void> DCDatabase::persistentStoreCoordinator(ManagedObjectContext& context) {
  // That it cannot be made shows when the store is opened.
  (void)createDirectories(directory());
  SQLiteStore::Options options = storeOptions(*service_);
  options.didReplaceDamagedStore = [](const SQLiteStore::Damage& damage) {
    DCLogError("The metadata database was damaged (%@) and set aside as %@; %lu upload records were rescued.",
               damage.error, damage.setAsidePath, static_cast<unsigned long>(damage.rescuedRows));
  };
  return context.addPersistentStore(std::move(options));
}

Result<void> DCDatabase::change(Durability durability, const std::function<void(ManagedObjectContext&)>& work) {
  auto context = managedObjectContext();
  auto perform = [&] { return context->performTransaction(durability, [&] { work(*context); }); };
  auto saved = perform();
  // Another store has taken the damaged one's place. What the work changed is still in memory; what it did not find
  // may be there now.
  if (!saved && SQLiteStore::isDamage(saved.error())) saved = perform();
  logFailure(saved);
  return saved;
}

Result<void> DCDatabase::save() {
  DCLogTrace("-[DCDatabase save]");
  return saveWithError();
}

Result<void> DCDatabase::saveWithError(bool rollbackOnFailure) {
  DCLogTrace("-[DCDatabase saveWithError:rollbackOnFailure:]", {{"rollbackOnFailure", rollbackOnFailure}});
  auto saved = managedObjectContext()->save(rollbackOnFailure);
  if (!saved && rollbackOnFailure) forgetAnswers();
  logFailure(saved);
  return saved;
}

Result<void> DCDatabase::performBatch(const std::function<void()>& work, bool rollbackOnFailure) {
  DCLogTrace("-[DCDatabase performBatch:rollbackOnFailure:]", {{"rollbackOnFailure", rollbackOnFailure}});
  auto saved = managedObjectContext()->performTransaction(
      Durability::Full, [&] { performRolledBackWork(work); }, rollbackOnFailure);
  if (!saved && rollbackOnFailure) forgetAnswers();
  logFailure(saved);
  return saved;
}

Result<void> DCDatabase::performPreparingBatch(const std::function<void()>& work) {
  DCLogTrace("-[DCDatabase performPreparingBatch:]");
  auto saved = managedObjectContext()->performPreparingTransaction([&] { performRolledBackWork(work); });
  logFailure(saved);
  return saved;
}

// What the work changed is rolled back when it throws.
void DCDatabase::performRolledBackWork(const std::function<void()>& work) {
  try {
    work();
  } catch (...) {
    forgetAnswers();
    throw;
  }
}

Result<void> DCDatabase::performGroup(const std::function<void()>& work) {
  auto saved = managedObjectContext()->performGroup(work);
  logFailure(saved);
  return saved;
}

void DCDatabase::performWhenStable(std::function<void()> work) {
  managedObjectContext()->performWhenStable(std::move(work));
}

std::shared_ptr<DCManagedStoredLocalMetadata> DCDatabase::storedLocalMetadataForDocumentIdentifier(
    const Data& documentIdentifier) {
  DCLogTrace("-[DCDatabase storedLocalMetadataForDocumentIdentifier:]", {{"documentIdentifier", documentIdentifier}});
  return first<DCManagedStoredLocalMetadata>(DCEntityIndexStoredLocalMetadata,
                                             {{DCManagedStoredLocalMetadata::DocumentIdentifier, documentIdentifier}});
}

Result<void> DCDatabase::saveStoredLocalMetadata(const Dictionary& metadata, const Data& documentIdentifier) {
  DCLogTrace("-[DCDatabase saveStoredLocalMetadata:forDocumentIdentifier:]",
             {{"metadata", metadata}, {"documentIdentifier", documentIdentifier}});
  return change(Durability::Normal, [&](ManagedObjectContext& context) {
    metadataMade<DCManagedStoredLocalMetadata>(DCEntityIndexStoredLocalMetadata, documentIdentifier, context)
        ->updateWithValuesFromDictionary(metadata);
  });
}

Result<void> DCDatabase::removeStoredLocalMetadataForDocumentIdentifier(const Data& documentIdentifier) {
  DCLogTrace("-[DCDatabase removeStoredLocalMetadataForDocumentIdentifier:]",
             {{"documentIdentifier", documentIdentifier}});
  return removeMetadata<DCManagedStoredLocalMetadata>(DCEntityIndexStoredLocalMetadata, documentIdentifier);
}

std::shared_ptr<DCManagedOtherMetadata> DCDatabase::otherMetadataForDocumentIdentifier(const Data& documentIdentifier,
                                                                                       bool createIfNecessary) {
  DCLogTrace("-[DCDatabase otherMetadataForDocumentIdentifier:createIfNecessary:]",
             {{"documentIdentifier", documentIdentifier}, {"createIfNecessary", createIfNecessary}});
  auto found = first<DCManagedOtherMetadata>(DCEntityIndexOtherMetadata,
                                             {{DCManagedOtherMetadata::DocumentIdentifier, documentIdentifier}});
  if (found || !createIfNecessary) return found;
  // Logged when it fails; the record is there unsaved.
  (void)change(Durability::Normal, [&](ManagedObjectContext& context) {
    found = metadataMade<DCManagedOtherMetadata>(DCEntityIndexOtherMetadata, documentIdentifier, context);
  });
  return found;
}

Result<void> DCDatabase::saveOtherMetadata(const Dictionary& metadata, const Data& documentIdentifier) {
  DCLogTrace("-[DCDatabase saveOtherMetadata:forDocumentIdentifier:]",
             {{"metadata", metadata}, {"documentIdentifier", documentIdentifier}});
  return change(Durability::Normal, [&](ManagedObjectContext& context) {
    metadataMade<DCManagedOtherMetadata>(DCEntityIndexOtherMetadata, documentIdentifier, context)
        ->updateWithValuesFromDictionary(metadata);
  });
}

Result<void> DCDatabase::removeOtherMetadataForDocumentIdentifier(const Data& documentIdentifier) {
  DCLogTrace("-[DCDatabase removeOtherMetadataForDocumentIdentifier:]", {{"documentIdentifier", documentIdentifier}});
  return removeMetadata<DCManagedOtherMetadata>(DCEntityIndexOtherMetadata, documentIdentifier);
}

void DCDatabase::reset() {
  DCLogTrace("-[DCDatabase reset]");
  deleteDatabase();
  managedObjectContext();
}

Result<void> DCDatabase::resetKeepingExchanges() {
  DCLogTrace("-[DCDatabase resetKeepingExchanges]");
  auto renewed = managedObjectContext()->renewPersistentStore({DCEntityIndexOtherMetadata, DCEntityIndexUpload});
  if (renewed) forgetAnswers();
  return renewed;
}

std::optional<Error> DCDatabase::storeError() { return managedObjectContext()->storeError(); }

std::optional<Error> DCDatabase::newerVersionError() {
  auto error = storeError();
  return error && error->is(SQLiteErrorDomain, SQLiteStoreNewerVersionError) ? error : std::nullopt;
}

void DCDatabase::deleteDatabase() {
  DCLogTrace("-[DCDatabase deleteDatabase]");
  std::shared_ptr<ManagedObjectContext> dropped;
  {
    std::lock_guard lock(mutex_);
    dropped = std::move(context_);
  }
  if (dropped) dropped->removePersistentStore();
  forgetAnswers();
  // Nobody is writing, and whoever has the store open sees that it is gone before writing again.
  auto lock = FileLock::acquire(storeOptions(*service_).lockPath, true);
  std::error_code error;
  std::filesystem::directory_iterator entries(directory(), error), end;
  while (!error && entries != end) {
    std::string name = entries->path().filename().string();
    // The store itself goes last, so that a kill in between leaves an older store rather than a log without one.
    if (name.starts_with(service_->uniqueIdentifier()) && entries->path() != databaseURL_.path()) {
      (void)removeItem(entries->path().string());
    }
    entries.increment(error);
  }
  (void)removeItem(databaseURL_.path());
}

}  // namespace florvane
