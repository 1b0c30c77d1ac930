#include "Client/Client/DCDownloadManager.h"

#include "Client/Client/DCError.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCServiceRegistry.h"
#include "platform/Format.h"

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCDownloadManager";
constexpr std::int64_t kUnauthorized = 401;

DCServiceRegistry<DCDownloadManager>& registry() {
  static auto* shared = new DCServiceRegistry<DCDownloadManager>;
  return *shared;
}

bool isAuthenticationError(const std::optional<Error>& error) {
  return error && error->is(URLErrorDomain, kUnauthorized);
}

template <typename Handlers>
std::string describe(const Handlers& handlers) {
  Array list;
  for (const auto& handler : handlers) list.append(baseDescription("Block", handler.get()));
  return DCStringFromCollection(list);
}

}  // namespace

DCDownloadManager::Ptr DCDownloadManager::downloadManagerForService(const std::shared_ptr<DCService>& service) {
  DCLogTrace("+[DCDownloadManager downloadManagerForService:]", {{"service", service}});
  return registry().objectForKey(service->uniqueIdentifier(),
                                 [&] { return std::make_shared<DCDownloadManager>(service); });
}

DCDownloadManager::DCDownloadManager(std::shared_ptr<DCService> service) : service_(std::move(service)) {
  DCLogTrace("-[DCDownloadManager _initWithService:]", {{"service", service_}});
}

DCServerRequest::Ptr DCDownloadManager::startDownloadingDirectory(
    const DCCachedDirectory::Ptr& directory, const DCRemoteDocumentManager::Ptr& usingRemoteFileManager,
    const DCActivityInfo::Ptr& activityInfo, DCRemoteCompletionHandler completionHandler) {
  DCLogTrace("-[DCDownloadManager startDownloadingDirectory:usingRemoteFileManager:activityInfo:completionHandler:]",
             {{"directory", directory}, {"activityInfo", activityInfo}});
  DCAssert(directory, kSource);
  return start({directory, true, usingRemoteFileManager, activityInfo, {}}, std::move(completionHandler));
}

DCServerRequest::Ptr DCDownloadManager::startDownloadingFile(const DCCachedFile::Ptr& file,
                                                             const DCRemoteDocumentManager::Ptr& usingRemoteFileManager,
                                                             const DCActivityInfo::Ptr& activityInfo,
                                                             DCRemoteCompletionHandler completionHandler) {
  DCLogTrace("-[DCDownloadManager startDownloadingFile:usingRemoteFileManager:activityInfo:completionHandler:]",
             {{"file", file}, {"activityInfo", activityInfo}});
  DCAssert(file, kSource);
  return start({file, false, usingRemoteFileManager, activityInfo, {}}, std::move(completionHandler));
}

DCServerRequest::Ptr DCDownloadManager::start(Download download, DCRemoteCompletionHandler completionHandler) {
  auto relativePath = download.item ? download.item->relativePath() : nullptr;
  if (!relativePath) {
    DCAssert(relativePath, kSource);
    if (completionHandler) completionHandler(nullptr, DCError::errorNoSuchItemWithUserInfo());
    return nullptr;
  }
  auto documentIdentifier = download.item->documentIdentifier();
  if (!documentIdentifier && !relativePath->isRoot()) {
    DCAssert(documentIdentifier, kSource);
    if (completionHandler) {
      completionHandler(nullptr,
                        DCError::errorNoSuchItemWithUserInfo(DCError::userInfoWithRelativePath(*relativePath)));
    }
    return nullptr;
  }
  download.key = {relativePath->string(), documentIdentifier.value_or(Data())};
  if (!_needsToStartDownloadingItemAtSubpath(download.key, std::move(completionHandler))) return nullptr;
  return request(download);
}

bool DCDownloadManager::_needsToStartDownloadingItemAtSubpath(const Key& subpath,
                                                              DCRemoteCompletionHandler completionHandler) {
  std::lock_guard lock(mutex_);
  Handlers& handlers = downloads_[subpath];
  if (completionHandler) {
    handlers.push_back(std::make_shared<DCRemoteCompletionHandler>(std::move(completionHandler)));
  }
  const bool starts = handlers.size() == 1;
  DCLogInfo("Will%@ start downloading item at '%@' due to %u pending completion handler(s)", starts ? "" : " not",
            subpath.first, static_cast<unsigned>(handlers.size()));
  DCLogDebug("%s: Pending completion handlers for item '%@': %@",
             "-[DCDownloadManager _needsToStartDownloadingItemAtSubpath:completionHandler:]", subpath.first,
             describe(handlers));
  return starts;
}

DCServerRequest::Ptr DCDownloadManager::request(const Download& download) {
  const std::string& path = download.key.first;
  // What was kept of the server's words without the bytes that belong to them would be confirmed for ever.
  download.item->prepareForDownload();
  const auto versionIdentifier = download.item->versionIdentifier();
  const auto& documentIdentifier = download.key.second;
  if (download.isDirectory) {
    DCLogInfo("Starting download of directory at '%@'", path);
    DCLogDebug("%s: Attempting download of directory at '%@' with documentIdentifier = %@, versionIdentifier = %@",
               "-[DCDownloadManager startDownloadingDirectory:usingRemoteFileManager:activityInfo:completionHandler:]",
               path, documentIdentifier, versionIdentifier);
  } else {
    DCLogInfo("Starting download of file at '%@'", path);
    DCLogDebug("%s: Attempting download of file at '%@' with documentIdentifier = %@, versionIdentifier = %@",
               "-[DCDownloadManager startDownloadingFile:usingRemoteFileManager:activityInfo:completionHandler:]", path,
               documentIdentifier, versionIdentifier);
  }
  std::size_t number = 0;
  {
    std::lock_guard lock(mutex_);
    number = ++lastStartNumber_;
    startNumbers_[download.key] = number;
  }
  DCRemoteCompletionHandler ended = [self = shared_from_this(), download](const FVFResponseContainer::Ptr& container,
                                                                          const std::optional<Error>& error) {
    self->downloadDidEnd(download, container, error);
  };
  DCServerRequest::Ptr started;
  const auto& remote = download.remoteFileManager;
  if (!download.isDirectory) {
    started = remote->contentsOfFileWithDocumentIdentifier(documentIdentifier, versionIdentifier, download.activityInfo,
                                                           std::move(ended));
  } else if (path.empty()) {
    started = remote->contentsOfRootDirectoryUnlessVersionIdentifier(versionIdentifier, download.activityInfo,
                                                                     std::move(ended));
  } else {
    started = remote->contentsOfDirectoryWithDocumentIdentifier(documentIdentifier, versionIdentifier,
                                                                download.activityInfo, std::move(ended));
  }
  rememberTask(download.key, started, number);
  return started;
}

void DCDownloadManager::rememberTask(const Key& key, const DCServerRequest::Ptr& request, std::size_t number) {
  std::lock_guard lock(mutex_);
  auto current = startNumbers_.find(key);
  if (request && current != startNumbers_.end() && current->second == number) downloadTasks_[key] = request;
}

void DCDownloadManager::downloadDidEnd(const Download& download, const FVFResponseContainer::Ptr& container,
                                       const std::optional<Error>& error) {
  if (isAuthenticationError(error)) {
    bool mayRetry = false;
    {
      std::lock_guard lock(mutex_);
      mayRetry = std::exchange(shouldRetryIfAuthError_, false);
      if (mayRetry) {
        downloadTasks_.erase(download.key);
        startNumbers_.erase(download.key);
      }
    }
    if (mayRetry) {
      if (download.isDirectory) {
        DCLogInfo("Got an authentication error. Retrying download of directory at '%@'", download.key.first);
      } else {
        DCLogInfo("Got an authentication error. Retrying download of file at '%@'", download.key.first);
      }
      if (retry(download)) return;
      Dictionary userInfo = error->userInfo();
      userInfo.set(DCDownloadWasNotRetriedKey, true);
      _finishDownloadOfItemAtRelativePath(download.key, nullptr, Error(error->domain(), error->code(), userInfo));
      return;
    }
  }
  _finishDownloadOfItemAtRelativePath(download.key, container, error);
}

// False when the handlers are several, since then nothing is in flight for them.
bool DCDownloadManager::retry(const Download& download) {
  if (!_needsToStartDownloadingItemAtSubpath(download.key, nullptr)) return false;
  request(download);
  return true;
}

void DCDownloadManager::_finishDownloadOfItemAtRelativePath(const Key& relativePath,
                                                            const FVFResponseContainer::Ptr& responseContainer,
                                                            const std::optional<Error>& error) {
  static constexpr char function[] =
      "-[DCDownloadManager _finishDownloadOfItemAtRelativePath:responseContainer:error:]";
  const std::string& path = relativePath.first;
  Handlers handlers;
  {
    std::lock_guard lock(mutex_);
    shouldRetryIfAuthError_ = true;
    downloadTasks_.erase(relativePath);
    startNumbers_.erase(relativePath);
    handlers = _handlersToCallForItemAtSubpath(relativePath);
  }
  if (responseContainer) {
    DCLogInfo("Done downloading '%@'", path);
    DCLogDebug("%s: Downloaded '%@' metadata = %@", function, path, responseContainer->metadata());
    DCLogDebug("%s: Downloaded '%@' temporary url = %@", function, path, responseContainer->url());
  } else if (!error) {
    DCLogInfo("Skipped download, '%@' was up-to-date", path);
  }
  DCLogDebug("%s: Calling completion handlers for '%@': %@", function, path, describe(handlers));
  for (const auto& handler : handlers) (*handler)(responseContainer, error);
}

DCDownloadManager::Handlers DCDownloadManager::_handlersToCallForItemAtSubpath(const Key& subpath) {
  std::lock_guard lock(mutex_);
  auto found = downloads_.find(subpath);
  if (found == downloads_.end()) return {};
  Handlers handlers = std::move(found->second);
  downloads_.erase(found);
  return handlers;
}

bool DCDownloadManager::isDownloading(const std::string& path) const {
  std::lock_guard lock(mutex_);
  for (auto found = downloads_.lower_bound({path, Data()}); found != downloads_.end() && found->first.first == path;
       ++found) {
    if (!found->second.empty()) return true;
  }
  return false;
}

bool DCDownloadManager::isDownloadingDirectory(const DCCachedDirectory& directory) const {
  DCLogTrace("-[DCDownloadManager isDownloadingDirectory:]", {{"directory", directory}});
  return isDownloading(directory.relativePath()->string());
}

bool DCDownloadManager::isDownloadingFile(const DCCachedFile& file) const {
  DCLogTrace("-[DCDownloadManager isDownloadingFile:]", {{"file", file}});
  return isDownloading(file.relativePath()->string());
}

DCServerRequest::Ptr DCDownloadManager::downloadTaskForItemAtPath(const std::string& path) const {
  DCLogTrace("-[DCDownloadManager downloadTaskForItemAtPath:]", {{"path", path}});
  std::lock_guard lock(mutex_);
  auto found = downloadTasks_.lower_bound({path, Data()});
  return found != downloadTasks_.end() && found->first.first == path ? found->second : nullptr;
}

void DCDownloadManager::cancelAllDownloadTasks() {
  DCLogTrace("-[DCDownloadManager cancelAllDownloadTasks]");
  std::map<Key, DCServerRequest::Ptr> tasks;
  {
    std::lock_guard lock(mutex_);
    tasks = std::exchange(downloadTasks_, {});
  }
  for (const auto& [key, task] : tasks) task->cancel();
}

}  // namespace florvane
