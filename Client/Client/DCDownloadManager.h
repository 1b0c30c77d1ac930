#pragma once

#include "Client/Client/DCCachedDirectory.h"
#include "Client/Client/DCCachedFile.h"
#include "Client/Client/DCRemoteDocumentManager.h"

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace florvane {

// In the user info of a 401 that several handlers shared and that was therefore not tried again: true.
inline constexpr char DCDownloadWasNotRetriedKey[] = "DCDownloadWasNotRetriedKey";

// At most one download of an item at a time, however many ask for it: of the document that the item is at that moment,
// so that an item which has become another document is asked for by itself. Handlers get the same container and error
// in the order in which they were queued, on the service's queue, after the lock was given back. Thread-safe.
class DCDownloadManager : public std::enable_shared_from_this<DCDownloadManager> {
 public:
  using Ptr = std::shared_ptr<DCDownloadManager>;

  static Ptr downloadManagerForService(const std::shared_ptr<DCService>& service);
  explicit DCDownloadManager(std::shared_ptr<DCService> service);

  // The request that was started; null when one was running already or none could be started. The root is asked for as
  // the list of share points. An item without a document identifier ends as "No such item." (11).
  DCServerRequest::Ptr startDownloadingDirectory(const DCCachedDirectory::Ptr& directory,
                                                 const DCRemoteDocumentManager::Ptr& usingRemoteFileManager,
                                                 const DCActivityInfo::Ptr& activityInfo,
                                                 DCRemoteCompletionHandler completionHandler);
  DCServerRequest::Ptr startDownloadingFile(const DCCachedFile::Ptr& file,
                                            const DCRemoteDocumentManager::Ptr& usingRemoteFileManager,
                                            const DCActivityInfo::Ptr& activityInfo,
                                            DCRemoteCompletionHandler completionHandler);
  bool isDownloadingDirectory(const DCCachedDirectory& directory) const;
  bool isDownloadingFile(const DCCachedFile& file) const;
  // The request in flight for a relative path, or null.
  DCServerRequest::Ptr downloadTaskForItemAtPath(const std::string& path) const;
  // The handlers hear of it as errors (URLErrorCancelled).
  void cancelAllDownloadTasks();

  // Held by the facade for the whole of an upload decision; where both managers' locks are needed, the upload manager's
  // comes first.
  std::recursive_mutex& lock() const { return mutex_; }

 private:
  using Handlers = std::vector<std::shared_ptr<DCRemoteCompletionHandler>>;
  // Relative path and document identifier; that of a root that was never listed is empty.
  using Key = std::pair<std::string, Data>;
  // What is needed to ask again.
  struct Download {
    DCCachedItem::Ptr item;
    bool isDirectory = false;
    DCRemoteDocumentManager::Ptr remoteFileManager;
    DCActivityInfo::Ptr activityInfo;
    Key key;
  };

  DCServerRequest::Ptr start(Download download, DCRemoteCompletionHandler completionHandler);
  DCServerRequest::Ptr request(const Download& download);
  bool _needsToStartDownloadingItemAtSubpath(const Key& subpath, DCRemoteCompletionHandler completionHandler);
  void downloadDidEnd(const Download& download, const FVFResponseContainer::Ptr& container,
                      const std::optional<Error>& error);
  bool retry(const Download& download);
  void _finishDownloadOfItemAtRelativePath(const Key& relativePath, const FVFResponseContainer::Ptr& responseContainer,
                                           const std::optional<Error>& error);
  Handlers _handlersToCallForItemAtSubpath(const Key& subpath);
  bool isDownloading(const std::string& path) const;
  void rememberTask(const Key& key, const DCServerRequest::Ptr& request, std::size_t number);

  const std::shared_ptr<DCService> service_;
  mutable std::recursive_mutex mutex_;  // guards the rest
  std::map<Key, Handlers> downloads_;
  std::map<Key, DCServerRequest::Ptr> downloadTasks_;
  // Requests by the order of their start, so that one which has ended before its start returned leaves no task.
  std::map<Key, std::size_t> startNumbers_;
  std::size_t lastStartNumber_ = 0;
  bool shouldRetryIfAuthError_ = true;
};

}  // namespace florvane
