#pragma once

#include "Client/Client/DCCachedDirectory.h"
#include "Client/Client/DCCachedFile.h"
#include "Client/Client/DCRemoteDocumentManager.h"

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace florvane {

// At most one download of an item at a time, however many ask for it. Handlers get the same container and error in the
// order in which they were queued, on the service's queue, after the lock was given back. Thread-safe.
class DCDownloadManager : public std::enable_shared_from_this<DCDownloadManager> {
 public:
  using Ptr = std::shared_ptr<DCDownloadManager>;

  static Ptr downloadManagerForService(const std::shared_ptr<DCService>& service);
  explicit DCDownloadManager(std::shared_ptr<DCService> service);

  // The request that was started; null when one was running already or none could be started.
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
  mutable std::recursive_mutex mutex_;
};

}  // namespace florvane
