#include "Client/Client/DCAgentTasks.h"
#include "Client/Client/DCBackgroundSessionIdentifier.h"
#include "Client/Client/DCBackgroundSessionManager.h"
#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCPreferences.h"
#include "Client/Client/DCUnsentFiles.h"
#include "platform/ApplicationRegistry.h"
#include "platform/Container.h"
#include "platform/FileSystem.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace florvane {

namespace {

// The newest version whose data this one cannot use.
constexpr char kLastOutdatedDataVersion[] = "1.0";
constexpr char kDataVersionLockName[] = ".lock-data-version";
constexpr char kStoresDirectoryName[] = "db";
constexpr std::string_view kStoreExtension = ".sqlite";

// Number by number; a missing one counts as 0, and so does what is no number.
bool isNumericallyGreater(std::string_view version, std::string_view than) {
  auto next = [](std::string_view& rest) {
    std::size_t end = std::min(rest.find('.'), rest.size());
    std::uint64_t number = 0;
    for (char digit : rest.substr(0, end)) {
      if (digit < '0' || digit > '9') break;
      number = number * 10 + static_cast<std::uint64_t>(digit - '0');
    }
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return number;
  };
  while (!version.empty() || !than.empty()) {
    std::uint64_t a = next(version), b = next(than);
    if (a != b) return a > b;
  }
  return false;
}

std::vector<std::string> entriesOf(const std::string& folder) {
  std::vector<std::string> entries;
  std::error_code error;
  std::filesystem::directory_iterator each(folder, error), end;
  while (!error && each != end) {
    entries.push_back(each->path().string());
    each.increment(error);
  }
  return entries;
}

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// Keeps what was never sent of every service that has a folder or a store, with or without an account. Those for which
// that fails, and those whose store only a newer version can read.
std::set<std::string> servicesWithUnsentFilesLeft(const std::string& documentsDirectory,
                                                  const std::string& metadataDirectory) {
  std::set<std::string> identifiers, left;
  for (const auto& folder : entriesOf(documentsDirectory)) {
    if (!entriesOf(folder).empty()) identifiers.insert(nameOf(folder));
  }
  for (const auto& store : entriesOf(metadataDirectory + "/" + kStoresDirectoryName)) {
    const std::string name = nameOf(store);
    if (name.ends_with(kStoreExtension)) {
      identifiers.insert(name.substr(0, name.size() - kStoreExtension.size()));
    }
  }
  for (const auto& identifier : identifiers) {
    // Only its folders and its store are used, and those are named by the identifier.
    auto service = DCService::serviceWithHostName("localhost", identifier);
    DCDatabase database(service);
    if (database.newerVersionError()) {
      left.insert(identifier);
      continue;
    }
    const auto unsent = DCUnsentFiles::unsentFilesOfService(service, database);
    if (!DCUnsentFiles::recoverFiles(unsent, Date::now())) left.insert(identifier);
  }
  return left;
}

// The transfer agent works for processes that are gone, too; their sessions are named in the records of their uploads.
void cancelTasksOfAllProcesses(const DCService& service, DCDatabase& database) {
  std::set<std::string> sessions = {DCBackgroundSessionIdentifier(service, DCMainBundleIdentifier())};
  ManagedObjectFetch fetch;
  fetch.entity = DCEntityIndexUpload;
  auto context = database.managedObjectContext();
  context->performAndWait([&] {
    for (const auto& object : context->fetch(fetch)) {
      auto session = static_cast<const DCManagedUpload&>(*object).sessionIdentifier();
      if (session && !session->empty()) sessions.insert(*session);
    }
  });
  for (const auto& session : sessions) {
    auto cancelled = DCAgentTasks::cancelTasksInSession(session);
    if (!cancelled) DCLogError("Unable to cancel the transfers of '%@': %@", session, cancelled.error());
  }
}

}  // namespace

void DCDocumentManager::deleleAllDataIfNecessary() {
  DCLogTrace("+[DCDocumentManager deleleAllDataIfNecessary]");
  auto preferences = DCPreferences::preferences();
  const auto current = bundleVersionOfApplication(DCFlorvaneBundleIdentifier);
  auto stored = preferences->currentDataVersion();
  if (stored && *stored == current) return;
  auto container = Container::requireDirectory();
  // Another process may be starting for the first time, too; one of both wipes, before any of them uses the data.
  auto lock = container ? FileLock::acquire(*container + "/" + kDataVersionLockName, true)
                        : Result<FileLock>(Failure(container.error()));
  if (lock) stored = preferences->currentDataVersion();
  if (!lock || !stored) {
    // That the version cannot be read says nothing of the data.
    DCLogError("Unable to compare the version of the local data: %@", lock ? stored.error() : lock.error());
    return;
  }
  if (*stored == current) return;
  if (!*stored || !isNumericallyGreater(**stored, kLastOutdatedDataVersion)) _deleteAllContent();
  // That it cannot be written is logged there; the next start compares again.
  (void)preferences->setCurrentDataVersionNumber(current);
}

void DCDocumentManager::_deleteAllContent() {
  DCLogTrace("+[DCDocumentManager _deleteAllContent]");
  DUPathVerifyPathSetup();
  const std::string documents = *DUPathRootDirectoryPath(), metadata = *DUPathMetadataDirectoryPath();
  const auto left = servicesWithUnsentFilesLeft(documents, metadata);
  const FileCoordinator fileCoordinator(DCFlorvaneBundleIdentifier);
  for (const auto& folder : {documents, metadata}) {
    for (const auto& entry : entriesOf(folder)) {
      // The stores tell which of the bytes that could not be saved belong where.
      bool isNeeded = left.contains(nameOf(entry)) || (!left.empty() && nameOf(entry) == kStoresDirectoryName);
      if (!isNeeded) (void)_synchronouslyRemoveItemAtURL(URL::fileURL(entry), fileCoordinator);
    }
  }
  (void)DCPreferences::preferences()->clearAllAuthCookiesAndTrustedCertData();
}

bool DCDocumentManager::_synchronouslyRemoveItemAtURL(const URL& url, const FileCoordinator& withFileCoordinator) {
  DCLogTrace("+[DCDocumentManager _synchronouslyRemoveItemAtURL:withFileCoordinator:]", {{"url", url}});
  if (!fileExists(url.path())) return false;
  Result<void> removed;
  auto coordinated = withFileCoordinator.coordinateWritingItemAtURL(
      url, FileCoordinatorWritingOptions::ForDeleting,
      [&removed](const URL& item) { removed = removeTree(item.path()); });
  const auto& failed = coordinated ? removed : coordinated;
  if (!failed) DCLogWarning("Unable to remove '%@': %@", url.path(), failed.error());
  return failed.has_value();
}

void DCDocumentManager::deleteAllLocalData() {
  DCLogTrace("-[DCDocumentManager deleteAllLocalData]");
  auto work = [this] {
    auto database = DCDatabase::databaseForService(service_);
    if (auto newer = database->newerVersionError()) {
      DCLogError("Nothing of %@ is deleted: %@", *service_, *newer);
      return;
    }
    // Asked before the records of cancelled uploads say nothing any more; moved when nobody reads them any more.
    auto unsent = DCUnsentFiles::unsentFilesOfService(service_, *database);
    DCUploadManager::uploadManagerForService(service_)->cancelAllUploadTasks();
    // Nothing that an agent still has may be sent with the login of an account that is going.
    if (auto removed = DCBackgroundSessionManager::removeCookiesOfService(service_); !removed) {
      DCLogError("Unable to take the login from the transfers of '%@': %@", *service_, removed.error());
    }
    cancelTasksOfAllProcesses(*service_, *database);
    DCDownloadManager::downloadManagerForService(service_)->cancelAllDownloadTasks();
    DCLogDebug("Canceled all upload and download tasks for service: %@", *service_);
    auto recover = [&] {
      auto recovered = DCUnsentFiles::recoverFiles(unsent, service_->clock().now());
      for (std::size_t i = 0; recovered && i < unsent.size(); ++i) {
        _didRecoverFileAtPath(unsent[i].relativePath, URL::fileURL((*recovered)[i]));
      }
      return recovered.has_value();
    };
    if (!recover()) return;
    const FileCoordinator fileCoordinator(purposeIdentifier().value_or(DCFlorvaneBundleIdentifier));
    URL documentRoot = DCFullPath::documentRootForService(service_)->url();
    bool isRecovered = false, isRemoved = false;
    // What others have written meanwhile; nobody writes there now.
    (void)fileCoordinator.coordinateWritingItemAtURL(
        documentRoot, FileCoordinatorWritingOptions::ForDeleting, [&](const URL&) {
          unsent = DCUnsentFiles::unsentFilesOfService(service_, *database);
          isRecovered = recover();
          if (isRecovered) isRemoved = _synchronouslyRemoveItemAtURL(documentRoot, fileCoordinator);
        });
    if (!isRecovered) return;
    if (isRemoved) {
      DCLogDebug("Deleted document root at %@", documentRoot);
    }
    URL metadataRoot = DCFullPath::metadataRootForService(service_)->url();
    if (_synchronouslyRemoveItemAtURL(metadataRoot, fileCoordinator)) {
      DCLogDebug("Deleted metadata root at %@", metadataRoot);
    }
    database->deleteDatabase();
    DCLogDebug("Deleted database");
    // Logged when it fails.
    (void)DCPreferences::preferences()->clearAuthCookieAndTrustedCertDataForService(service_);
    DCLogDebug("Deleted auth cookie and trusted cert data");
    _forgetItems();
    _adjustFetchingUpdatesIfNecessary();
  };
  // A request that finds the database beyond use asks for this on the queue itself.
  if (queue_->queue()->isCurrent()) {
    work();
  } else {
    queue_->dispatchSynchronousBlock(work);
  }
}

// What the items keep in memory was read from what is gone. Registrations look for theirs again.
void DCDocumentManager::_forgetItems() {
  updates_.clear();
  processedListings_.clear();
  DCCachedItemManager::removeCachedItemManagerForService(service_);
  (void)cachedItemManager();
  std::lock_guard lock(mutex_);
  for (const auto& [path, state] : delegateStates_) state->item()->setHasBeenRemoved(true);
}

}  // namespace florvane
