#include "Client/Client/DCCachedItemEnvironment.h"
#include "Client/Client/DCCachedItemManager.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCUnsentFiles.h"
#include "common/FVFGenerationIdentifierUtils.h"
#include "platform/FileSystem.h"

#include <utility>

namespace florvane {

void DCCachedItemManager::setRecoveryHandler(RecoveryHandler handler) {
  auto locked = lock();
  recoveryHandler_ = std::move(handler);
}

bool DCCachedItemManager::holdsUnsentBytes(const std::string& contentsPath, const Data& documentIdentifier) {
  auto generation = FVFGenerationIdentifierUtils::versionIdentifierForFileWithURL(URL::fileURL(contentsPath));
  if (!generation || !*generation) return fileExists(contentsPath);
  auto managed = database().knownOtherMetadataForDocumentIdentifier(documentIdentifier);
  return !managed || (managed->lastUpdateGenerationIdentifier() != *generation &&
                      managed->lastDownloadedGenerationIdentifier() != *generation &&
                      managed->lastUploadGenerationIdentifier() != *generation);
}

Result<void> DCCachedItemManager::recover(const std::string& contentsPath, const std::string& relativePath) {
  auto recovered = DCUnsentFiles::recoverFile({relativePath, contentsPath}, service()->clock().now());
  if (!recovered) {
    DCLogError("Unable to keep '%@', which was never sent: %@", contentsPath, recovered.error());
    return Failure(recovered.error());
  }
  auto locked = lock();
  if (recoveryHandler_) {
    operationQueue_->async(
        [handler = recoveryHandler_, relativePath, url = URL::fileURL(*recovered)] { handler(relativePath, url); });
  }
  return {};
}

void DCCachedItemManager::recoverFileIfUnsent(const std::string& contentsPath, const Data& documentIdentifier,
                                              const DCRelativePath::Ptr& relativePath) {
  // Logged when it fails.
  if (holdsUnsentBytes(contentsPath, documentIdentifier)) (void)recover(contentsPath, relativePath->string());
}

}  // namespace florvane
