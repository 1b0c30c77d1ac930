#pragma once

#include "Client/Client/DCCachedFile.h"
#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCRemoteDocumentManager.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace florvane {

// What the end of an upload came to: the answer, or an error.
using DCUploadCompletionHandler = CompletionHandler<std::optional<Error>>;

// At most one upload of a file at a time; keeps the persistent record in step. What a finished upload means for the
// cache is the facade's. Handlers run on the service's queue, after the lock was given back. Thread-safe.
class DCUploadManager : public std::enable_shared_from_this<DCUploadManager> {
 public:
  using Ptr = std::shared_ptr<DCUploadManager>;

  static Ptr uploadManagerForService(const std::shared_ptr<DCService>& service);
  explicit DCUploadManager(std::shared_ptr<DCService> service);

  void uploadFile(const DCCachedFile::Ptr& file, const DCRemoteDocumentManager::Ptr& usingRemoteFileManager,
                  const DCActivityInfo::Ptr& activityInfo, DCUploadCompletionHandler completionHandler);
  // In this process, or by the agent for any process.
  bool isUploadingFile(const DCCachedFile& file) const;
  std::shared_ptr<DCManagedUpload> uploadForItemAtPath(const std::string& path) const;
  void cancelAllUploadTasks();

  // Held by the facade for the whole of a download decision.
  std::recursive_mutex& lock() const { return mutex_; }

 private:
  mutable std::recursive_mutex mutex_;
};

}  // namespace florvane
