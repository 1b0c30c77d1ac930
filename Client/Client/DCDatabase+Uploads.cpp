#include "Client/Client/DCBackgroundSessionIdentifier.h"
#include "Client/Client/DCDatabase+Fetching.h"
#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCLog.h"
#include "platform/NotificationCenter.h"

namespace florvane {

namespace {

ManagedObjectFetch uploads(bool areCancelled) {
  ManagedObjectFetch fetch;
  fetch.entity = DCEntityIndexUpload;
  fetch.equals = {{DCManagedUpload::Cancelled, areCancelled}};
  fetch.newestFirstBy = DCManagedUpload::CreationDate;
  return fetch;
}

}  // namespace

void DCDatabase::announceUploads() { NotificationCenter::shared().post(FlorvaneDidAddOrRemoveUploadsNotification); }

std::vector<DCDatabase::UploadPtr> DCDatabase::allUploads() {
  DCLogTrace("-[DCDatabase allUploads]");
  return fetchUploads(uploads(false));
}

std::vector<DCDatabase::UploadPtr> DCDatabase::cancelledUploads() {
  DCLogTrace("-[DCDatabase cancelledUploads]");
  return fetchUploads(uploads(true));
}

std::vector<DCDatabase::UploadPtr> DCDatabase::fetchUploads(const ManagedObjectFetch& fetch) {
  std::vector<UploadPtr> found;
  for (auto& object : managedObjectContext()->fetch(fetch)) {
    found.push_back(std::static_pointer_cast<DCManagedUpload>(object));
  }
  return found;
}

std::vector<std::string> DCDatabase::uploadPaths() {
  DCLogTrace("-[DCDatabase uploadPaths]");
  std::vector<std::string> paths;
  for (const UploadPtr& upload : allUploads()) {
    if (auto path = upload->path()) paths.push_back(std::move(*path));
  }
  return paths;
}

std::size_t DCDatabase::numberOfPendingUploads() {
  DCLogTrace("-[DCDatabase numberOfPendingUploads]");
  return managedObjectContext()->count(uploads(false));
}

DCDatabase::UploadPtr DCDatabase::uploadForPath(const std::string& path) {
  DCLogTrace("-[DCDatabase uploadForPath:]", {{"path", path}});
  return first<DCManagedUpload>(DCEntityIndexUpload, {{DCManagedUpload::Path, path}});
}

DCDatabase::UploadPtr DCDatabase::uploadForTaskIdentifier(std::int64_t taskIdentifier,
                                                          const std::string& sessionIdentifier) {
  DCLogTrace("-[DCDatabase uploadForTaskIdentifier:sessionIdentifier:]",
             {{"taskIdentifier", taskIdentifier}, {"sessionIdentifier", sessionIdentifier}});
  return first<DCManagedUpload>(DCEntityIndexUpload, {{DCManagedUpload::TaskIdentifier, taskIdentifier},
                                                      {DCManagedUpload::SessionIdentifier, sessionIdentifier}});
}

Result<void> DCDatabase::saveUploadFileURL(const URL& fileURL, const std::string& path) {
  DCLogTrace("-[DCDatabase saveUploadFileURL:forPath:]", {{"fileURL", fileURL}, {"path", path}});
  auto saved = change(Durability::Full, [&](ManagedObjectContext& context) {
    auto upload = uploadForPath(path);
    if (!upload) {
      upload = std::static_pointer_cast<DCManagedUpload>(context.insert(DCEntityIndexUpload));
      upload->setDate(clock_.now());
      upload->setCancelled(false);
    }
    upload->setPath(path);
    upload->setFileURL(fileURL.path());
    rememberUpload(path, upload);
  });
  announceUploads();
  return saved;
}

Result<void> DCDatabase::saveUploadFileURL(const URL& fileURL, const std::optional<Data>& generationIdentifier,
                                           std::int64_t taskIdentifier, const std::string& path) {
  DCLogTrace("-[DCDatabase saveUploadFileURL:generationIdentifier:taskIdentifier:forPath:]",
             {{"fileURL", fileURL},
              {"generationIdentifier", generationIdentifier},
              {"taskIdentifier", taskIdentifier},
              {"path", path}});
  return change(Durability::Full, [&](ManagedObjectContext&) {
    auto upload = uploadForPath(path);
    if (!upload) return;
    upload->setFileURL(fileURL.path());
    upload->setGenerationIdentifier(generationIdentifier);
    upload->setTaskIdentifier(taskIdentifier);
    upload->setSessionIdentifier(DCBackgroundSessionIdentifier(*service_, DCMainBundleIdentifier()));
  });
}

Result<void> DCDatabase::removeUploadForPath(const std::string& path) {
  DCLogTrace("-[DCDatabase removeUploadForPath:]", {{"path", path}});
  bool removed = false;
  auto saved = change(Durability::Full, [&](ManagedObjectContext& context) {
    auto upload = uploadForPath(path);
    if (!upload) return;
    removed = true;
    upload->removeTemporaryUploadFileIfNecessary();
    context.deleteObject(upload);
    rememberUpload(path, nullptr);
  });
  if (removed) {
    std::unique_lock lock(removedUploadsMutex_);
    removedUploads_.insert(path);
    lock.unlock();
    announceUploads();
  }
  return saved;
}

std::vector<std::string> DCDatabase::takePathsOfRemovedUploads() {
  std::unordered_set<std::string> removed;
  {
    std::lock_guard lock(removedUploadsMutex_);
    removed.swap(removedUploads_);
  }
  return {removed.begin(), removed.end()};
}

Result<void> DCDatabase::removeCancelledUpload(const UploadPtr& upload) {
  DCLogTrace("-[DCDatabase removeCancelledUpload:]");
  auto saved = change(Durability::Full, [&](ManagedObjectContext& context) { context.deleteObject(upload); });
  announceUploads();
  return saved;
}

}  // namespace florvane
