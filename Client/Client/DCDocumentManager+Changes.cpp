#include "Client/Client/DCDirectoryChanges.h"
#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/DCLog.h"

namespace florvane {

namespace {

constexpr char kFunction[] =
    "-[DCDocumentManager "
    "_processDirectoryChangesWithDirectory:currentContents:previousContents:fetchingForChild:remoteMetadata:]";

}  // namespace

void DCDocumentManager::_processDirectoryChangesWithDirectory(const DCCachedDirectory::Ptr& directory,
                                                              const DCDirectoryContents::Ptr& currentContents,
                                                              const DCDirectoryContents::Ptr& previousContents,
                                                              const DCCachedFile::Ptr& fetchingForChild,
                                                              std::optional<Dictionary>* remoteMetadata) {
  DCLogTrace(kFunction, {{"directory", directory}, {"fetchingForChild", fetchingForChild}});
  _takeInListing(directory, currentContents, previousContents, true, fetchingForChild, remoteMetadata);
}

void DCDocumentManager::_takeInListing(const DCCachedDirectory::Ptr& directory, const DCDirectoryContents::Ptr& current,
                                       const DCDirectoryContents::Ptr& previous, bool isFresh,
                                       const DCCachedFile::Ptr& fetchingForChild,
                                       std::optional<Dictionary>* remoteMetadata) {
  const Data key = directory->documentIdentifier().value_or(Data());
  // Before the changes: moving and removing items looks at directories, too.
  processedListings_.keep(key, current);
  DCDirectoryChanges::Hooks hooks;
  hooks.isInteresting = [this](const std::string& path) { return _needsToCallDelegateForPath(path); };
  hooks.didUpdateAttributes = [this](const DCCachedItem::Ptr& child, const Dictionary& entry) {
    const std::string path = child->relativePath()->string();
    const Dictionary attributes =
        _needsToCallDelegateForPath(path) ? _synthesizedMetadataForItem(*child, entry) : Dictionary();
    _dispatchMaybeCallSelector("documentManager:didUpdateAttributesOfItemAtPath:attributes:", path, kFunction, __LINE__,
                               [self = shared_from_this(), path, attributes](DCDocumentManagerDelegate& delegate) {
                                 delegate.didUpdateAttributesOfItemAtPath(*self, path, attributes);
                               });
  };
  DCDirectoryChanges changes(cachedItemManager(), database(), directory, current, previous, isFresh, std::move(hooks));
  changes.processFetchingForChild(fetchingForChild, remoteMetadata);
  cachedItemManager()->forgetVanishedChildren(*directory);
}

}  // namespace florvane
