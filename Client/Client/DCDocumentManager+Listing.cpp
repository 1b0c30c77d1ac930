#include "Client/Client/DCDocumentManager+Handlers.h"
#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/DCError.h"
#include "Client/Client/DCLog.h"
#include "common/FVFMetadataUtils.h"
#include "platform/ResourceValues.h"

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCDocumentManager";

// A name of a listing; the entry is null for what only this cache knows.
struct Line {
  std::string_view name;
  const Value* entry;
};

std::string childPath(const std::string& directory, std::string_view name) {
  std::string path = directory;
  if (!path.empty()) path += '/';
  return path.append(name);
}

// In plain order of their names.
std::vector<Line> linesOf(const DCDirectoryContents* contents,
                          const std::map<std::string, DCCachedFile::Ptr>& localItems) {
  std::vector<Line> lines;
  lines.reserve((contents ? contents->entries().size() : 0) + localItems.size());
  if (contents) {
    for (const Value& entry : contents->entries()) lines.push_back({DCDirectoryContents::nameOfEntry(entry), &entry});
  }
  for (const auto& [name, item] : localItems) {
    if (!contents || !contents->entryNamed(name)) lines.push_back({name, nullptr});
  }
  if (!localItems.empty() || (contents && !contents->isSortedByName())) {
    std::sort(lines.begin(), lines.end(), [](const Line& a, const Line& b) { return a.name < b.name; });
  }
  return lines;
}

void setIfOther(Dictionary& dictionary, const char* key, const Value& value) {
  const Value* present = dictionary.find(key);
  if (!present || !(*present == value)) dictionary.set(key, value);
}

}  // namespace

void DCDocumentManager::contentsOfDirectoryAtPath(const std::string& path,
                                                  ContentsOfDirectoryHandler completionHandler) {
  DCLogTrace("-[DCDocumentManager contentsOfDirectoryAtPath:completionHandler:]",
             {{"path", path}, {"userCompletionHandler", handlerText(completionHandler)}});
  _contentsOfDirectoryAtPath(path, true, std::move(completionHandler));
}

void DCDocumentManager::_synchronousNextContentsOfDirectory() {
  DCLogTrace("-[DCDocumentManager _synchronousNextContentsOfDirectory]");
  queue_->dispatchAsynchronousBlock([self = shared_from_this()] { self->synchronousContentsOfDirectory_ = true; });
}

void DCDocumentManager::_contentsOfDirectoryAtPath(const std::string& path, bool downloadIfNecessary,
                                                   ContentsOfDirectoryHandler completionHandler) {
  static constexpr char function[] =
      "-[DCDocumentManager _contentsOfDirectoryAtPath:downloadIfNecessary:completionHandler:]";
  auto handler = shareHandler(std::move(completionHandler));
  DCLogTrace(function, {{"path", path},
                        {"downloadIfNecessary", downloadIfNecessary ? "yes" : "no"},
                        {"userCompletionHandler", handlerText(*handler)}});
  _performWithKnownItemAtPath(
      function, path, ItemClass::Directory,
      [path, downloadIfNecessary, handler](const Ptr& self, const PreOperation& checks) {
        auto directory = std::static_pointer_cast<DCCachedDirectory>(checks.item);
        if (checks.error || !directory) {
          callUserHandler(*self, handler, function, __LINE__, DCDocumentManagerFreshnessStateUnknown,
                          std::optional<Array>(), checks.error);
          return;
        }
        Listing listing = self->_listingOfDirectory(directory);
        const bool isStale = listing.state != DCDocumentManagerFreshnessStateFresh;
        const bool downloads = isStale && downloadIfNecessary;
        // The wish belongs to this call, whatever becomes of it.
        const bool waits = downloads && std::exchange(self->synchronousContentsOfDirectory_, false);
        if (!waits) {
          callUserHandler(*self, handler, function, __LINE__, listing.state,
                          std::optional<Array>(std::move(listing.contents)), OptionalError());
        }
        if (!downloads) return;
        const bool calledCompletionHandler = !waits && handler;
        self->_downloadItem(directory,
                            [self, path, waits, calledCompletionHandler, handler](const OptionalError& error) {
                              if (!waits) return;
                              DCAssert(!calledCompletionHandler, kSource);
                              if (!error) {
                                self->contentsOfDirectoryAtPath(path, std::move(*handler));
                              } else {
                                callUserHandler(*self, handler, function, __LINE__,
                                                DCDocumentManagerFreshnessStateUnknown, std::optional<Array>(), error);
                              }
                            });
      });
}

// Names in plain order, each a child that the server lists, a file that waits to be sent, or both.
DCDocumentManager::Listing DCDocumentManager::_listingOfDirectory(const DCCachedDirectory::Ptr& directory) {
  queue_->checkIsCurrent(kSource, __LINE__);
  Listing listing;
  auto database = this->database();
  const std::string path = directory->relativePath()->string();
  const bool isListed = !directory->needsInitialDownload();
  // Read from the store while this thread reads the listing.
  if (isListed) database->beginPrefetchingChildrenOf(path);
  _processListingOfOthers(directory);
  // First what waits to be sent: it has its entry before another process takes its record away.
  auto localItems =
      directory->isDropBox() ? std::map<std::string, DCCachedFile::Ptr>() : _localItemsInDirectory(*directory);
  auto contents = isListed ? directory->directoryContents() : nullptr;

  const std::vector<Line> lines = linesOf(contents.get(), localItems);
  std::size_t local = 0, remote = 0;
  // A listing of which there is nothing else to say is handed out as it is.
  bool isAsListed = contents && contents->isSortedByName();
  auto append = [&](std::size_t place, const Value& item) {
    if (isAsListed && lines[place].entry && &item == lines[place].entry) return;
    if (std::exchange(isAsListed, false)) {
      listing.contents.reserve(lines.size());
      for (std::size_t i = 0; i < place; ++i) listing.contents.append(*lines[i].entry);
    }
    listing.contents.append(item);
  };
  const auto recorded = contents ? database->knownChildrenOf(path)
                                 : std::make_shared<const DCKnownChildren>(std::vector<DCKnownChildren::Child>());
  DCKnownChildren::Walk walk(*recorded);
  for (std::size_t place = 0; place < lines.size(); ++place) {
    const auto [name, entry] = lines[place];
    auto found = localItems.empty() ? localItems.end() : localItems.find(std::string(name));
    DCCachedItem::Ptr item = found == localItems.end() ? nullptr : found->second;
    if (entry) ++remote;
    if (!item && entry) {
      static const Key identifierKey(FVDocumentIdentifierKey);
      const Value* identifier = DCDirectoryContents::valueOfEntry(*entry, identifierKey);
      const auto* child = walk.named(name);
      const bool isKnown = child && identifier && identifier->kind() == Value::Kind::Data &&
                           identifier->dataBytes() == child->documentIdentifier.view();
      if (isKnown) ++local;
      // Of what was never fetched there is nothing to say beyond its entry, and no item to make for it.
      if (isKnown && (!child->mayHaveOtherMetadata ||
                      !database->knownOtherMetadataForDocumentIdentifier(child->documentIdentifier))) {
        append(place, *entry);
        continue;
      }
      item = _itemOfEntry(*entry, childPath(path, name));
      if (!item) {
        DCAssert(item, kSource);
        append(place, *entry);
        continue;
      }
    } else {
      ++local;
      if (!entry && !database->knownUploadForPath(childPath(path, name))) {
        // Sent by another process since, which has listed it, or taken away with its document.
        const bool isListedByNow = item->parentContentsMetadata().has_value();
        if (isListedByNow || !_localItemsInDirectory(*directory).contains(item->relativePath()->lastPathComponent())) {
          return _listingOfDirectory(directory);
        }
        DCAssertionFailed(kSource, __LINE__, "uploadPath");
      }
    }
    auto fields = entry ? entry->asDictionary() : std::nullopt;
    append(place, _synthesizedMetadataForItem(*item, fields));
    if (!entry && item->relativeAge() == DCCachedItemOrderLocalIsOlder) {
      DCAssertionFailed(kSource, __LINE__, "item.relativeAge != DCCachedItemOrderLocalIsOlder");
    }
  }
  if (isAsListed) listing.contents = contents->entries();
  const bool isConsistent = lines.size() == local && lines.size() == remote;
  if (!contents) {
    // Never listed, or the listing cannot be read any more.
    listing.state = DCDocumentManagerFreshnessStateUnknown;
  } else if (isConsistent && (directory->isUpToDate() || _isWatchedAndUpToDateItem(*directory))) {
    listing.state = DCDocumentManagerFreshnessStateFresh;
  } else {
    listing.state = DCDocumentManagerFreshnessStateStale;
  }
  return listing;
}

// The child of a listing's entry; null, and reported, for an entry of another type.
DCCachedItem::Ptr DCDocumentManager::_itemOfEntry(const Value& entry, const std::string& path) {
  static const Key typeKey(ResourceFileResourceTypeKey);
  const Value* type = DCDirectoryContents::valueOfEntry(entry, typeKey);
  auto text = type ? type->asString() : std::nullopt;
  auto relativePath = DCRelativePath::relativePathWithString(path, service_);
  if (text == ResourceTypeDirectory) return DCCachedItemManager::directoryAtRelativePath(relativePath);
  if (text == ResourceTypeRegular) return DCCachedItemManager::fileAtRelativePath(relativePath);
  DCAssertionFailed(kSource, __LINE__,
                    "[type isEqualToString:ResourceTypeDirectory] || [type isEqualToString:ResourceTypeRegular]");
  return nullptr;
}

std::map<std::string, DCCachedFile::Ptr> DCDocumentManager::_localItemsInDirectory(const DCCachedDirectory& directory) {
  std::map<std::string, DCCachedFile::Ptr> items;
  for (auto& item : directory.localItems()) {
    std::string name = item->relativePath()->lastPathComponent();
    items.emplace(std::move(name), std::move(item));
  }
  return items;
}

// What callers see of an item: what the server said last, in its listing of the parent or in an answer about the item
// itself, with the newest date known and the bookkeeping of this cache.
Dictionary DCDocumentManager::_synthesizedMetadataForItem(const DCCachedItem& item,
                                                          const std::optional<Dictionary>& parentContentsMetadata) {
  DCLogTrace("-[DCDocumentManager _synthesizedMetadataForItem:parentContentsMetadata:]",
             {{"item", item}, {"parentContentsMetadata", parentContentsMetadata}});
  auto remoteMetadata = item.remoteMetadata();
  std::optional<Date> modified = item.localContentModificationDate();
  auto takeLater = [&modified](const std::optional<Date>& date) {
    if (date && (!modified || *date > *modified)) modified = date;
  };
  if (remoteMetadata) {
    auto remoteModDate = remoteMetadata->date(ResourceContentModificationDateKey);
    DCAssert(remoteModDate, kSource);
    takeLater(remoteModDate);
  }
  if (parentContentsMetadata) {
    auto parentModDate = parentContentsMetadata->date(ResourceContentModificationDateKey);
    DCAssert(parentModDate, kSource);
    takeLater(parentModDate);
  }

  // Of two things that the server said the later one counts.
  bool isAnswerLater = !parentContentsMetadata;
  if (remoteMetadata && parentContentsMetadata) {
    auto answered = item.lastRemoteMetadataUpdate();
    auto parent = item.parent();
    auto listed = parent ? parent->lastDownloadDate() : std::nullopt;
    isAnswerLater = answered && (!listed || *answered > *listed);
  }
  Dictionary metadata;
  if (remoteMetadata && isAnswerLater) {
    metadata = *remoteMetadata;
  } else if (parentContentsMetadata) {
    metadata = *parentContentsMetadata;
  } else {
    metadata = item.localMetadata().value_or(Dictionary());
  }
  auto path = item.relativePath();
  if (!path->isRoot()) setIfOther(metadata, ResourceNameKey, path->lastPathComponent());
  const auto upload = database()->knownUploadForPath(path->string());
  if (upload) {
    // Of a file that waits to be sent people see their own.
    setIfOther(metadata, DCFileNeedsUploadKey, true);
    auto local = item.localMetadata();
    const Value* size = local ? local->find(ResourceFileSizeKey) : nullptr;
    if (size) setIfOther(metadata, ResourceFileSizeKey, *size);
  }
  if (modified) setIfOther(metadata, ResourceContentModificationDateKey, *modified);

  auto otherMetadata = item.otherMetadata();
  if (otherMetadata) {
    for (const auto& [key, value] : *otherMetadata) metadata.set(key, value);
  }
  if (!item.documentIdentifier() && !path->isRoot()) {
    metadata.set(ResourceNameKey, path->lastPathComponent());
    metadata.set(DCFileShouldUseLocalThumbnailKey, 1);
  }
  if (const auto* directory = dynamic_cast<const DCCachedDirectory*>(&item)) {
    _addItemsCountOfDirectory(*directory, metadata);
  }
  if (remoteMetadata || parentContentsMetadata || otherMetadata || path->isRoot() || upload) return metadata;
  // Another process may have made it known, or taken it away, since it was looked for.
  if (auto entry = item.parentContentsMetadata()) return _synthesizedMetadataForItem(item, entry);
  const bool isKnown = _performPreOperationChecksWithPath(path->string(), ItemClass::Any, true).item.get() == &item;
  if (isKnown && (item.remoteMetadata() || item.parentContentsMetadata() || item.otherMetadata())) {
    return _synthesizedMetadataForItem(item, item.parentContentsMetadata());
  }
  if (isKnown) {
    for (const char* condition : {"!remoteMetadata", "!parentContentsMetadata", "!item.otherMetadata"}) {
      DCAssertionFailed(kSource, __LINE__, condition);
    }
  }
  return metadata;
}

// The count is that of the listing; a directory that was never listed has none.
void DCDocumentManager::_addItemsCountOfDirectory(const DCCachedDirectory& directory, Dictionary& metadata) {
  std::int64_t newItems = 0;
  std::optional<Date> newest;
  for (const auto& item : directory.localItems()) {
    if (!item->documentIdentifier()) ++newItems;
    auto date = item->localContentModificationDate();
    if (date && (!newest || *date > *newest)) newest = date;
  }
  auto modified = metadata.date(ResourceContentModificationDateKey);
  if (newest && (!modified || *newest > *modified)) metadata.set(ResourceContentModificationDateKey, *newest);
  if (directory.isDropBox()) return;
  // The listing's file is not looked for where the server was never asked.
  auto contents = directory.hasBeenDownloaded() ? directory.directoryContents() : nullptr;
  if (contents) {
    metadata.set(DCFileDirectoryItemsCountKey, static_cast<std::int64_t>(contents->entries().size()) + newItems);
  } else if (auto count = metadata.integer(DCFileDirectoryItemsCountKey)) {
    metadata.set(DCFileDirectoryItemsCountKey, *count + newItems);
  }
}

}  // namespace florvane
