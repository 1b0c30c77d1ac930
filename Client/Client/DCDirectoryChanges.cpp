#include "Client/Client/DCDirectoryChanges.h"

#include "Client/Client/DCLog.h"
#include "common/FVFMetadataUtils.h"
#include "common/PUAdditions.h"
#include "platform/ResourceValues.h"

#include <algorithm>

#include <sys/stat.h>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCDocumentManager";

bool isOfDocument(const Value& entry, const Data& documentIdentifier) {
  static const Key key(FVDocumentIdentifierKey);
  const Value* identifier = DCDirectoryContents::valueOfEntry(entry, key);
  return identifier && identifier->kind() == Value::Kind::Data && identifier->dataBytes() == documentIdentifier.view();
}

bool isDirectoryItem(const DCCachedItem::Ptr& item) { return dynamic_cast<DCCachedDirectory*>(item.get()) != nullptr; }

}  // namespace

DCDirectoryChanges::DCDirectoryChanges(DCCachedItemManager::Ptr manager, std::shared_ptr<DCDatabase> database,
                                       DCCachedDirectory::Ptr directory, DCDirectoryContents::Ptr current,
                                       DCDirectoryContents::Ptr previous, bool isFresh, Hooks hooks)
    : manager_(std::move(manager)),
      database_(std::move(database)),
      directory_(std::move(directory)),
      current_(std::move(current)),
      previous_(std::move(previous)),
      isFresh_(isFresh),
      hooks_(std::move(hooks)),
      directoryPath_(directory_->relativePath()->string()),
      prefix_(directoryPath_.empty() ? directoryPath_ : directoryPath_ + "/"),
      metadataRoot_(DCFullPath::metadataRootForService(directory_->service())->string()) {}

std::string DCDirectoryChanges::pathOf(std::string_view name) const { return std::string(prefix_).append(name); }

DCRelativePath::Ptr DCDirectoryChanges::relativePathOf(const std::string& path) const {
  return DCRelativePath::relativePathWithString(path, directory_->service());
}

// The item as that kind; null when an item of the other kind is there.
DCCachedItem::Ptr DCDirectoryChanges::itemAt(const std::string& path, bool isDirectory) const {
  auto known = manager_->knownItem(path);
  if (known) return isDirectoryItem(known) == isDirectory ? known : nullptr;
  return manager_->itemOfKind(relativePathOf(path), isDirectory);
}

const Value* DCDirectoryChanges::previousEntry(const Data& documentIdentifier) const {
  return previous_ ? previous_->entryWithDocumentIdentifier(documentIdentifier) : nullptr;
}

std::optional<DCDirectoryChanges::Child> DCDirectoryChanges::childOfEntry(const Value& entry) const {
  static const Key identifierKey(FVDocumentIdentifierKey);
  static const Key typeKey(ResourceFileResourceTypeKey);
  Child child;
  child.entry = &entry;
  child.name = DCDirectoryContents::nameOfEntry(entry);
  const Value* identifier = DCDirectoryContents::valueOfEntry(entry, identifierKey);
  auto documentIdentifier = identifier ? identifier->asData() : std::nullopt;
  if (!documentIdentifier) {
    DCLogInfo("%@: Skipping entry, metadata missing document identifier: %@", *manager_, entry);
    DCAssert(documentIdentifier, kSource);
    return std::nullopt;
  }
  if (child.name.empty()) {
    DCAssertionFailed(kSource, __LINE__, "childName");
    return std::nullopt;
  }
  child.documentIdentifier = *documentIdentifier;
  const Value* type = DCDirectoryContents::valueOfEntry(entry, typeKey);
  child.isDirectory = type && type->asString() == std::string_view(ResourceTypeDirectory);
  return child;
}

DCDirectoryChanges::Kind DCDirectoryChanges::kindOfChild(const Child& child) const {
  const std::string path = pathOf(child.name);
  auto recorded = identifiersByPath_.find(path);
  if (recorded != identifiersByPath_.end()) {
    if (!(recorded->second == child.documentIdentifier)) return Kind::Other;
    const Value* before = previousEntry(child.documentIdentifier);
    if (!before) return Kind::Unverified;
    return *before == *child.entry ? Kind::Unchanged : Kind::Changed;
  }
  const bool isElsewhere =
      pathsByIdentifier_.contains(child.documentIdentifier) || isKnownElsewhere(child.documentIdentifier);
  // A new file that waits to be sent, or an item that somebody holds already, takes the identifier by itself.
  const bool isHeld = database_->knownUploadForPath(path) || manager_->knownItem(path);
  return isElsewhere || isHeld ? Kind::Other : Kind::New;
}

// What was ever fetched of a document has a folder of its own, which a look at the disk tells without a query.
bool DCDirectoryChanges::isKnownElsewhere(const Data& documentIdentifier) const {
  struct stat status{};
  return stat((metadataRoot_ + "/" + pu_hex(documentIdentifier)).c_str(), &status) == 0;
}

void DCDirectoryChanges::processFetchingForChild(const DCCachedFile::Ptr& child,
                                                 std::optional<Dictionary>* remoteMetadata) {
  if (remoteMetadata) remoteMetadata->reset();
  manager_->prefetchChildrenOf(*directory_);
  pathsByIdentifier_ = manager_->childrenByDocumentIdentifier(*directory_);
  for (const auto& [identifier, paths] : pathsByIdentifier_) {
    for (const auto& path : paths) identifiersByPath_.emplace(path, identifier);
  }
  const auto wanted = child ? std::optional(child->relativePath()->string()) : std::nullopt;
  const auto wantedIdentifier = child ? child->documentIdentifier() : std::nullopt;

  std::vector<Child> others;
  std::vector<std::pair<std::string, Data>> newChildren;
  for (const Value& entry : current_->entries()) {
    auto listed = childOfEntry(entry);
    if (!listed) continue;
    switch (kindOfChild(*listed)) {
      case Kind::Unchanged:
        break;
      case Kind::New:
        newChildren.emplace_back(listed->name, listed->documentIdentifier);
        break;
      case Kind::Unverified:
      case Kind::Changed:
      case Kind::Other:
        others.push_back(*listed);
        break;
    }
    if (remoteMetadata && (pathOf(listed->name) == wanted || listed->documentIdentifier == wantedIdentifier)) {
      const auto* remoteMetadataPtr = remoteMetadata;
      DCAssert(!*remoteMetadataPtr, kSource);
      *remoteMetadata = entry.asDictionary();
    }
  }
  if (!newChildren.empty()) {
    // A failure is logged there; the next listing records them.
    (void)manager_->recordChildren(*directory_, newChildren);
    // The answers about all of them at once, for the listing that follows.
    manager_->prefetchChildrenOf(*directory_);
  }
  for (const Child& other : others) settle(other);
  removeVanished();
}

void DCDirectoryChanges::settle(const Child& child) {
  const std::string path = pathOf(child.name);
  const Data& documentIdentifier = child.documentIdentifier;
  auto recorded = identifiersByPath_.find(path);
  if (recorded != identifiersByPath_.end() && recorded->second == documentIdentifier) {
    const bool isKept = database_->knownOtherMetadataForDocumentIdentifier(documentIdentifier) != nullptr;
    const Value* before = previousEntry(documentIdentifier);
    const bool isChanged = before && DCDirectoryContents::nameOfEntry(*before) == child.name;
    const bool isWorthLooking = isKept || (isChanged && hooks_.isInteresting(path));
    if (!isWorthLooking && !manager_->knownItem(path)) return;
    if (auto item = itemAt(path, child.isDirectory)) {
      compare(item, child, isChanged);
      return;
    }
  }
  auto found = findByIdentity(child);
  const bool documentIdentifierAlreadyKnown = found != nullptr;
  if (found) {
    const Value* before = previousEntry(documentIdentifier);
    const auto version = child.entry->asDictionary()->data(FVVersionIdentifierKey);
    if (found->relativePath()->string() != path) {
      if (before && !found->documentIdentifier()) DCAssertionFailed(kSource, __LINE__, "child.documentIdentifier");
      identifiersByPath_.erase(found->relativePath()->string());
      manager_->moveItem(found, documentIdentifier, version, relativePathOf(path));
      identifiersByPath_.insert_or_assign(path, documentIdentifier);
    }
    compare(found, child, false);
    return;
  }
  auto item = itemAt(path, child.isDirectory);
  if (!item) {
    item = manager_->knownItem(path);
    if (!item) DCAssertionFailed(kSource, __LINE__, "child || [DCCachedItemManager itemAtRelativePath:childPath]");
  }
  const bool isOfThatKind = item && isDirectoryItem(item) == child.isDirectory;
  const bool wasLocal = isOfThatKind && !item->documentIdentifier() && database_->knownUploadForPath(path);
  if (!isOfThatKind || !item->updateDocumentIdentifier(documentIdentifier)) {
    item = replace(item, child, documentIdentifierAlreadyKnown);
    if (item && !previousEntry(documentIdentifier)) hooks_.didUpdateAttributes(item, *child.entry->asDictionary());
  } else if (wasLocal) {
    // A file of this client's own, which the server knows by now.
    hooks_.didUpdateAttributes(item, *child.entry->asDictionary());
  }
  identifiersByPath_.insert_or_assign(path, documentIdentifier);
}

// Where the document is in the cache, if it is anywhere, as an item of the entry's kind.
DCCachedItem::Ptr DCDirectoryChanges::findByIdentity(const Child& child) {
  // Of several names of one document each is itself.
  if (current_->entryWithDocumentIdentifier(child.documentIdentifier) != child.entry) return nullptr;
  std::vector<std::string> paths;
  if (auto found = pathsByIdentifier_.find(child.documentIdentifier); found != pathsByIdentifier_.end()) {
    paths = found->second;
  } else if (isFresh_) {
    paths = database_->pathsForDocumentIdentifier(child.documentIdentifier);
  } else {
    // An older listing does not take back what a newer one of another directory has.
    return nullptr;
  }
  for (const auto& path : paths) {
    // The place may have been given to somebody else by now; whoever was there is at the place that the database says.
    if (database_->knownDocumentIdentifierForPath(path) != child.documentIdentifier) continue;
    if (auto item = itemAt(path, child.isDirectory)) return item;
    // The same document as another kind of item cannot be moved, only replaced.
    if (auto other = manager_->knownItem(path)) remove(other, child.documentIdentifier);
  }
  // Parked, while this listing was taken in.
  for (const auto& path : database_->pathsForDocumentIdentifier(child.documentIdentifier)) {
    if (!DCCachedItemManager::isParkedPath(path)) continue;
    if (auto item = itemAt(path, child.isDirectory)) return item;
  }
  return nullptr;
}

DCCachedItem::Ptr DCDirectoryChanges::replace(const DCCachedItem::Ptr& old, const Child& child,
                                              bool documentIdentifierAlreadyKnown) {
  const Data& documentIdentifier = child.documentIdentifier;
  DCAssert(!documentIdentifierAlreadyKnown, kSource);
  const std::string path = pathOf(child.name);
  if (old) {
    const auto previousDocumentIdentifier = old->documentIdentifier();
    // Somebody only asked whether there is such an item, and there was none.
    const bool wasNeverStored = !previousDocumentIdentifier && !database_->knownUploadForPath(path);
    DCAssert(previousDocumentIdentifier || wasNeverStored, kSource);
    if (previousDocumentIdentifier && *previousDocumentIdentifier == documentIdentifier) {
      DCAssertionFailed(kSource, __LINE__, "![previousDocumentIdentifier isEqualToData:documentIdentifier]");
    }
    const Value* itsEntry =
        previousDocumentIdentifier ? current_->entryWithDocumentIdentifier(*previousDocumentIdentifier) : nullptr;
    if (itsEntry && DCDirectoryContents::nameOfEntry(*itsEntry) != child.name) {
      // It lives on under another name of this listing, where it goes at once; its own turn finds it there.
      auto itsChild = childOfEntry(*itsEntry);
      if (itsChild && itsChild->isDirectory == isDirectoryItem(old)) {
        identifiersByPath_.erase(path);
        manager_->moveItem(old, previousDocumentIdentifier, std::nullopt, relativePathOf(pathOf(itsChild->name)));
        identifiersByPath_.insert_or_assign(pathOf(itsChild->name), *previousDocumentIdentifier);
        pathsByIdentifier_[*previousDocumentIdentifier] = {pathOf(itsChild->name)};
      } else {
        remove(old, *previousDocumentIdentifier);
      }
    } else {
      remove(old, previousDocumentIdentifier.value_or(Data()));
    }
  }
  if (manager_->itemWithIdentifier(documentIdentifier, directory_)) {
    DCAssertionFailed(kSource, __LINE__,
                      "![DCCachedItemManager itemWithDocumentIdentifier:documentIdentifier parent:directory]");
  }
  auto item = itemAt(path, child.isDirectory);
  if (!item) {
    DCAssertionFailed(kSource, __LINE__, "child");
    return nullptr;
  }
  if (item->documentIdentifier() && item->documentIdentifier() != documentIdentifier) {
    DCAssertionFailed(kSource, __LINE__, "!child.documentIdentifier");
  }
  if (!item->updateDocumentIdentifier(documentIdentifier)) DCAssertionFailed(kSource, __LINE__, "0");
  if (!item->documentIdentifier()) DCAssertionFailed(kSource, __LINE__, "child.documentIdentifier");
  return item;
}

// An entry of a child that is where the entry says.
void DCDirectoryChanges::compare(const DCCachedItem::Ptr& item, const Child& child, bool mayNotify) {
  auto entry = child.entry->asDictionary();
  if (!entry) return;
  // Whoever brought an older listing may have fetched the child as well, which told nobody here.
  const bool isTold =
      isFresh_ ? item->remoteMetadata() == entry : item->toldVersionIdentifier() == entry->data(FVVersionIdentifierKey);
  if (mayNotify && !isTold) hooks_.didUpdateAttributes(item, *entry);
  markStaleIfServerWentBack(item, *entry);
}

// A copy that is newer than the server's entry and yet nobody's unsent work, or one of another version of the same
// date, would pass for current for ever.
void DCDirectoryChanges::markStaleIfServerWentBack(const DCCachedItem::Ptr& item, const Dictionary& entry) {
  if (item->isUnsent()) return;
  auto local = item->localContentModificationDate();
  auto listed = entry.date(ResourceContentModificationDateKey);
  if (!local || !listed || *local < *listed) return;
  auto version = item->lastRemoteMetadataVersionIdentifier();
  if (*local == *listed && version && version == entry.data(FVVersionIdentifierKey)) return;
  item->markContentsStale();
  // What was said of the newer contents is not what people shall see now.
  auto remoteMetadata = item->remoteMetadata();
  auto answered = remoteMetadata ? remoteMetadata->date(ResourceContentModificationDateKey) : std::nullopt;
  if (answered && *answered > *listed) item->clearRemoteMetadata();
}

void DCDirectoryChanges::removeVanished() {
  std::vector<std::pair<std::string, Data>> vanished;
  for (const auto& [path, documentIdentifier] : identifiersByPath_) {
    const std::string_view name = std::string_view(path).substr(prefix_.size());
    const Value* entry = DCCachedItemManager::isParkedPath(path) ? nullptr : current_->entryNamed(name);
    if (!entry || !isOfDocument(*entry, documentIdentifier)) vanished.emplace_back(path, documentIdentifier);
  }
  for (const auto& [path, documentIdentifier] : vanished) {
    // Moved on, meanwhile, or somebody else's place by now.
    std::string place = path;
    if (database_->knownDocumentIdentifierForPath(path) != documentIdentifier) {
      if (current_->entryWithDocumentIdentifier(documentIdentifier)) continue;
      place.clear();
      for (const auto& other : database_->pathsForDocumentIdentifier(documentIdentifier)) {
        if (DCCachedItemManager::isParkedPath(other)) place = other;
      }
      if (place.empty()) continue;
    }
    auto item = manager_->knownItem(place);
    const Value* before = previousEntry(documentIdentifier);
    if (!item && before) {
      auto child = childOfEntry(*before);
      if (child) item = itemAt(place, child->isDirectory);
    }
    if (!item) item = manager_->itemWithIdentifier(documentIdentifier, directory_);
    if (item) manager_->removeItem(item);
  }
}

void DCDirectoryChanges::remove(const DCCachedItem::Ptr& item, const Data& documentIdentifier) {
  const std::string path = item->relativePath()->string();
  if (auto recorded = identifiersByPath_.find(path);
      recorded != identifiersByPath_.end() && recorded->second == documentIdentifier) {
    identifiersByPath_.erase(recorded);
  }
  manager_->removeItem(item);
}

}  // namespace florvane
