#include "Client/Client/DCDocumentManager.h"
namespace florvane {
DCUploadManager::Ptr DCUploadManager::uploadManagerForService(const std::shared_ptr<DCService>& s) {
  static auto m = std::make_shared<DCUploadManager>(s);
  return m;
}
DCUploadManager::DCUploadManager(std::shared_ptr<DCService>) {}
void DCUploadManager::uploadFile(const DCCachedFile::Ptr&, const DCRemoteDocumentManager::Ptr&, const DCActivityInfo::Ptr&, DCUploadCompletionHandler) {}
bool DCUploadManager::isUploadingFile(const DCCachedFile&) const { return false; }
std::shared_ptr<DCManagedUpload> DCUploadManager::uploadForItemAtPath(const std::string&) const { return nullptr; }
void DCUploadManager::cancelAllUploadTasks() {}
}
