#include "Client/Client/DCDirectoryChanges.h"

#include "Client/Client/DCLog.h"
#include "common/FVFMetadataUtils.h"
#include "common/PUAdditions.h"
#include "platform/ResourceValues.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include <sys/stat.h>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCDocumentManager";
// Beyond this many looks for folders all of them are read at once.
constexpr std::size_t kFewLooks = 1024;

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

DCDirectoryChanges::Records& DCDirectoryChanges::records() {
  if (records_) return *records_;
  records_.emplace();
  records_->identifiersByPath.reserve(recorded_->children().size());
  for (const auto& child : recorded_->children()) {
    std::string path = pathOf(child.name);
    records_->pathsByIdentifier[child.documentIdentifier].push_back(path);
    records_->identifiersByPath.emplace(std::move(path), child.documentIdentifier);
  }
  return *records_;
}

void DCDirectoryChanges::record(const std::string& path, const Data& documentIdentifier) {
  auto [place, isNew] = records().identifiersByPath.try_emplace(path, documentIdentifier);
  if (isNew || place->second == documentIdentifier) return;
  displaced_.emplace_back(path, std::exchange(place->second, documentIdentifier));
}

bool DCDirectoryChanges::isRecorded(const Child& child) const {
  if (!records_) {
    const auto* recorded = recorded_->named(child.name);
    return recorded && recorded->documentIdentifier == child.documentIdentifier;
  }
  auto recorded = records_->identifiersByPath.find(pathOf(child.name));
  return recorded != records_->identifiersByPath.end() && recorded->second == child.documentIdentifier;
}

bool DCDirectoryChanges::isHeld(const std::string& name) const {
  return std::binary_search(held_.begin(), held_.end(), name);
}

DCDirectoryChanges::Kind DCDirectoryChanges::kindOfChild(const Child& child, const DCKnownChildren::Child* recorded) {
  if (recorded) {
    if (!(recorded->documentIdentifier == child.documentIdentifier)) return Kind::Other;
    const Value* before = previousEntry(child.documentIdentifier);
    if (!before) return Kind::Unverified;
    return *before == *child.entry ? Kind::Unchanged : Kind::Changed;
  }
  // A new file that waits to be sent, or an item that somebody holds already, takes the identifier by itself.
  const std::string name(child.name);
  if (isHeld(name) || std::binary_search(uploads_.begin(), uploads_.end(), name)) return Kind::Other;
  const bool isRecorded =
      !recorded_->children().empty() && records().pathsByIdentifier.contains(child.documentIdentifier);
  return isRecorded || isKnownElsewhere(child.documentIdentifier) ? Kind::Other : Kind::New;
}

// What was ever fetched of a document has a folder of its own, which a look at the disk tells without a query.
bool DCDirectoryChanges::isKnownElsewhere(const Data& documentIdentifier) {
  const std::string folder = pu_hex(documentIdentifier);
  if (!fetched_ && looks_ < kFewLooks) {
    ++looks_;
    struct stat status{};
    return stat((metadataRoot_ + "/" + folder).c_str(), &status) == 0;
  }
  if (!fetched_) {
    fetched_.emplace();
    std::error_code error;
    std::filesystem::directory_iterator entries(metadataRoot_, error), end;
    for (; !error && entries != end; entries.increment(error)) fetched_->insert(entries->path().filename().string());
  }
  return fetched_->contains(folder);
}

void DCDirectoryChanges::processFetchingForChild(const DCCachedFile::Ptr& child,
                                                 std::optional<Dictionary>* remoteMetadata) {
  if (remoteMetadata) remoteMetadata->reset();
  recorded_ = manager_->knownChildrenOf(*directory_);
  held_ = manager_->namesOfKnownItemsIn(*directory_);
  for (const auto& [path, upload] : database_->knownUploadsBelow(directoryPath_, true)) {
    uploads_.push_back(path.substr(prefix_.size()));
  }
  const auto wanted = child ? std::optional(child->relativePath()->string()) : std::nullopt;
  const auto wantedIdentifier = child ? child->documentIdentifier() : std::nullopt;

  std::vector<Child> others;
  std::vector<std::pair<std::string, Data>> newChildren;
  DCKnownChildren::Walk walk(*recorded_);
  std::size_t inPlace = 0;
  bool isOther = false;
  for (const Value& entry : current_->entries()) {
    auto listed = childOfEntry(entry);
    if (!listed) continue;
    const auto* recorded = walk.named(listed->name);
    const Kind kind = kindOfChild(*listed, recorded);
    switch (kind) {
      case Kind::Unchanged:
        ++inPlace;
        break;
      case Kind::New:
        newChildren.emplace_back(listed->name, listed->documentIdentifier);
        break;
      case Kind::Unverified:
        listed->isWorthLooking = recorded->mayHaveOtherMetadata || isHeld(recorded->name);
        [[fallthrough]];
      case Kind::Changed:
        ++inPlace;
        others.push_back(*listed);
        break;
      case Kind::Other:
        isOther = true;
        others.push_back(*listed);
        break;
    }
    if (remoteMetadata && child && (pathOf(listed->name) == wanted || listed->documentIdentifier == wantedIdentifier)) {
      const auto* remoteMetadataPtr = remoteMetadata;
      DCAssert(!*remoteMetadataPtr, kSource);
      *remoteMetadata = entry.asDictionary();
    }
  }
  // A failure is logged there; the next listing records them.
  if (!newChildren.empty()) (void)manager_->recordChildren(*directory_, newChildren);
  const bool isAnyVanished = inPlace < recorded_->children().size();
  for (const Child& other : others) {
    // While every child is in its place nobody can have come between one and its record.
    if (other.isWorthLooking || isOther || isAnyVanished) settle(other);
  }
  if (isAnyVanished || records_) removeVanished();
}

void DCDirectoryChanges::settle(const Child& child) {
  const std::string path = pathOf(child.name);
  const Data& documentIdentifier = child.documentIdentifier;
  if (isRecorded(child)) {
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
      records().identifiersByPath.erase(found->relativePath()->string());
      manager_->moveItem(found, documentIdentifier, version, relativePathOf(path));
      record(path, documentIdentifier);
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
  record(path, documentIdentifier);
}

// Where the document is in the cache, if it is anywhere, as an item of the entry's kind.
DCCachedItem::Ptr DCDirectoryChanges::findByIdentity(const Child& child) {
  // Of several names of one document each is itself.
  if (current_->entryWithDocumentIdentifier(child.documentIdentifier) != child.entry) return nullptr;
  std::vector<std::string> paths;
  const auto& pathsByIdentifier = records().pathsByIdentifier;
  if (auto found = pathsByIdentifier.find(child.documentIdentifier); found != pathsByIdentifier.end()) {
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
        records().identifiersByPath.erase(path);
        manager_->moveItem(old, previousDocumentIdentifier, std::nullopt, relativePathOf(pathOf(itsChild->name)));
        record(pathOf(itsChild->name), *previousDocumentIdentifier);
        records().pathsByIdentifier[*previousDocumentIdentifier] = {pathOf(itsChild->name)};
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
  std::vector<std::pair<std::string, Data>> vanished = displaced_;
  DCDirectoryContents::Walk walk(*current_);
  auto look = [&](const std::string& path, std::string_view name, const Data& documentIdentifier) {
    const Value* entry = DCCachedItemManager::isParkedPath(path) ? nullptr : walk.entryNamed(name);
    if (!entry || !isOfDocument(*entry, documentIdentifier)) vanished.emplace_back(path, documentIdentifier);
  };
  if (records_) {
    for (const auto& [path, documentIdentifier] : records_->identifiersByPath) {
      look(path, std::string_view(path).substr(prefix_.size()), documentIdentifier);
    }
  } else {
    for (const auto& child : recorded_->children()) look(pathOf(child.name), child.name, child.documentIdentifier);
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
  if (auto recorded = records().identifiersByPath.find(path);
      recorded != records().identifiersByPath.end() && recorded->second == documentIdentifier) {
    records().identifiersByPath.erase(recorded);
  }
  manager_->removeItem(item);
}

}  // namespace florvane
