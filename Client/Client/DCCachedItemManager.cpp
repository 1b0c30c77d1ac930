#include "Client/Client/DCCachedItemManager.h"

#include "Client/Client/DCCachedItemEnvironment.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCServiceRegistry.h"
#include "common/FVFGenerationIdentifierUtils.h"
#include "platform/Exceptions.h"
#include "platform/FileSystem.h"
#include "platform/Format.h"
#include "platform/ResourceValues.h"

#include <cerrno>
#include <cstdio>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCCachedItemManager";
constexpr int kCopyAttempts = 5;

DCServiceRegistry<DCCachedItemManager>& managers() {
  static auto& registry = *new DCServiceRegistry<DCCachedItemManager>;
  return registry;
}

DCCachedItemManager::Ptr managerOf(const DCRelativePath::Ptr& relativePath) {
  return DCCachedItemManager::cachedItemManagerForService(relativePath->service());
}

}  // namespace

// Managers.

DCCachedItemManager::Ptr DCCachedItemManager::cachedItemManagerForService(const std::shared_ptr<DCService>& service) {
  DCLogTrace("+[DCCachedItemManager cachedItemManagerForService:]", {{"service", service}});
  return managers().objectForKey(service->uniqueIdentifier(), [&] { return _initWithService(service); });
}

void DCCachedItemManager::removeCachedItemManagerForService(const std::shared_ptr<DCService>& service) {
  DCLogTrace("+[DCCachedItemManager removeCachedItemManagerForService:]", {{"service", service}});
  managers().removeObjectForKey(service->uniqueIdentifier());
}

DCCachedItemManager::Ptr DCCachedItemManager::_initWithService(const std::shared_ptr<DCService>& service) {
  DCLogTrace("-[DCCachedItemManager _initWithService:]", {{"service", service}});
  return managerWithService(service, DCDatabase::databaseForService(service));
}

DCCachedItemManager::Ptr DCCachedItemManager::managerWithService(const std::shared_ptr<DCService>& service,
                                                                 std::shared_ptr<DCDatabase> database) {
  auto manager = std::make_shared<DCCachedItemManager>(Private(), service, std::move(database));
  manager->environment_->manager = manager;
  manager->items_.emplace(
      "", std::make_shared<DCCachedDirectory>(DCRelativePath::rootForService(service), manager->environment_));
  return manager;
}

DCCachedItemManager::DCCachedItemManager(Private, std::shared_ptr<DCService> service,
                                         std::shared_ptr<DCDatabase> database)
    : environment_(std::make_shared<DCCachedItemEnvironment>()),
      operationQueue_(SerialQueue::create(service->uniqueIdentifier())) {
  environment_->documentRoot = DCFullPath::documentRootForService(service)->string();
  environment_->metadataRoot = DCFullPath::metadataRootForService(service)->string();
  environment_->service = std::move(service);
  environment_->database = std::move(database);
}

DCCachedItemManager::~DCCachedItemManager() = default;

std::unique_lock<std::recursive_mutex> DCCachedItemManager::lock() const {
  return std::unique_lock(environment_->mutex);
}

DCDatabase& DCCachedItemManager::database() const { return *environment_->database; }

const std::shared_ptr<DCService>& DCCachedItemManager::service() const { return environment_->service; }

std::string DCCachedItemManager::description() const { return baseDescription("DCCachedItemManager", this); }

// Look-ups.

DCCachedItem::Ptr DCCachedItemManager::itemAtRelativePath(const DCRelativePath::Ptr& relativePath) {
  return managerOf(relativePath)->item(relativePath);
}

DCCachedDirectory::Ptr DCCachedItemManager::directoryAtRelativePath(const DCRelativePath::Ptr& relativePath) {
  return managerOf(relativePath)->directory(relativePath);
}

DCCachedFile::Ptr DCCachedItemManager::fileAtRelativePath(const DCRelativePath::Ptr& relativePath) {
  return managerOf(relativePath)->file(relativePath);
}

std::optional<std::string> DCCachedItemManager::fileResourceTypeAtRelativePath(
    const DCRelativePath::Ptr& relativePath) {
  if (!relativePath) {
    DCLogNotice("Invalid request with nil path");
    return std::nullopt;
  }
  return managerOf(relativePath)->_fileResourceTypeAtRelativePath(relativePath);
}

DCCachedThumbnail::Ptr DCCachedItemManager::thumbnailForUnderlyingItem(const DCCachedItem::Ptr& item) {
  return managerOf(item->relativePath())->_thumbnailForUnderlyingItem(item);
}

std::vector<DCCachedItem::Ptr> DCCachedItemManager::itemsWithDocumentIdentifier(
    const Data& documentIdentifier, const std::shared_ptr<DCService>& service) {
  return cachedItemManagerForService(service)->itemsWithIdentifier(documentIdentifier);
}

DCCachedItem::Ptr DCCachedItemManager::itemWithDocumentIdentifier(const Data& documentIdentifier,
                                                                  const DCCachedDirectory::Ptr& parent) {
  return managerOf(parent->relativePath())->itemWithIdentifier(documentIdentifier, parent);
}

DCCachedFile::Ptr DCCachedItemManager::fileForUploadTaskIdentifier(std::int64_t taskIdentifier,
                                                                   const std::string& sessionIdentifier,
                                                                   const std::shared_ptr<DCService>& service) {
  DCLogTrace("-[DCCachedItemManager fileForUploadTaskIdentifier:sessionIdentifier:]",
             {{"taskIdentifier", taskIdentifier}, {"sessionIdentifier", sessionIdentifier}});
  auto manager = cachedItemManagerForService(service);
  auto upload = manager->database().uploadForTaskIdentifier(taskIdentifier, sessionIdentifier);
  auto path = upload ? upload->path() : std::nullopt;
  return path ? manager->file(DCRelativePath::relativePathWithString(*path, service)) : nullptr;
}

DCCachedItem::Ptr DCCachedItemManager::item(const DCRelativePath::Ptr& relativePath) {
  DCLogTrace("-[DCCachedItemManager itemAtRelativePath:]", {{"relativePath", relativePath}});
  auto locked = lock();
  auto type = _fileResourceTypeAtRelativePath(relativePath);
  if (!type) {
    DCLogInfo("Unable to instantiate item with path %@", relativePath);
    return nullptr;
  }
  const auto itemClass = *type == ResourceTypeDirectory ? ItemClass::Directory : ItemClass::File;
  return _itemAtRelativePath(relativePath, itemClass, type);
}

DCCachedDirectory::Ptr DCCachedItemManager::directory(const DCRelativePath::Ptr& relativePath) {
  DCLogTrace("-[DCCachedItemManager directoryAtRelativePath:]", {{"relativePath", relativePath}});
  return std::static_pointer_cast<DCCachedDirectory>(
      _itemAtRelativePath(relativePath, ItemClass::Directory, ResourceTypeDirectory));
}

DCCachedFile::Ptr DCCachedItemManager::file(const DCRelativePath::Ptr& relativePath) {
  DCLogTrace("-[DCCachedItemManager fileAtRelativePath:]", {{"relativePath", relativePath}});
  return std::static_pointer_cast<DCCachedFile>(
      _itemAtRelativePath(relativePath, ItemClass::File, ResourceTypeRegular));
}

DCCachedItem::Ptr DCCachedItemManager::itemOfKind(const DCRelativePath::Ptr& relativePath, bool isDirectory) {
  return _itemAtRelativePath(relativePath, isDirectory ? ItemClass::Directory : ItemClass::File, std::nullopt);
}

DCCachedItem::Ptr DCCachedItemManager::knownItem(std::string_view path) const {
  auto locked = lock();
  auto found = items_.find(path);
  return found == items_.end() ? nullptr : found->second;
}

DCCachedDirectory::Ptr DCCachedItemManager::root() const {
  DCLogTrace("-[DCCachedItemManager root]");
  return std::static_pointer_cast<DCCachedDirectory>(knownItem(""));
}

DCCachedDirectory::Ptr DCCachedItemManager::parentOfItem(const DCCachedItem& item) const {
  DCLogTrace("-[DCCachedItemManager parentOfItem:]");
  // First: an item from before a rebuild has another lock, under which it asks for its parent itself.
  auto path = item.relativePath();
  auto locked = lock();
  const std::string& string = path->string();
  if (string.empty()) return nullptr;
  const std::size_t slash = string.rfind('/');
  if (auto known = knownItem(std::string_view(string).substr(0, slash == std::string::npos ? 0 : slash))) {
    if (auto directory = std::dynamic_pointer_cast<DCCachedDirectory>(known)) return directory;
  }
  return const_cast<DCCachedItemManager*>(this)->directory(path->relativePathByDeletingLastPathComponent());
}

std::optional<std::string> DCCachedItemManager::_fileResourceTypeAtRelativePath(
    const DCRelativePath::Ptr& relativePath) {
  DCLogTrace("-[DCCachedItemManager _fileResourceTypeAtRelativePath:]", {{"relativePath", relativePath}});
  if (!relativePath) {
    DCLogNotice("Invalid request with nil path");
    return std::nullopt;
  }
  auto locked = lock();
  if (auto known = knownItem(relativePath->string())) {
    const bool isDirectory = std::dynamic_pointer_cast<DCCachedDirectory>(known) != nullptr;
    return isDirectory ? ResourceTypeDirectory : ResourceTypeRegular;
  }
  auto parentPath = relativePath->relativePathByDeletingLastPathComponent();
  if (!parentPath) return ResourceTypeDirectory;
  // Without a message about a parent that is a file: nothing is below one.
  if (_fileResourceTypeAtRelativePath(parentPath) == ResourceTypeDirectory) {
    auto parent = directory(parentPath);
    auto entry = parent ? parent->_parentContentsMetadataForChildAtRelativePath(relativePath) : std::nullopt;
    auto type = entry ? entry->string(ResourceFileResourceTypeKey) : std::nullopt;
    const bool isLegalType = !type || *type == ResourceTypeDirectory || *type == ResourceTypeRegular;
    DCAssert(isLegalType, kSource);
    if (type && isLegalType) return type;
  }
  // What waits to be sent is a file, whoever has heard of it.
  if (database().knownUploadForPath(relativePath->string())) return ResourceTypeRegular;
  return std::nullopt;
}

DCCachedItem::Ptr DCCachedItemManager::_itemAtRelativePath(const DCRelativePath::Ptr& relativePath, ItemClass itemClass,
                                                           const std::optional<std::string>& itemType) {
  if (!relativePath) {
    DCAssertionFailed(kSource, __LINE__, "relativePath && relativePath.string");
    return nullptr;
  }
  auto locked = lock();
  const char* className = itemClass == ItemClass::Directory ? "DCCachedDirectory" : "DCCachedFile";
  if (auto known = knownItem(relativePath->string())) {
    const bool isDirectory = std::dynamic_pointer_cast<DCCachedDirectory>(known) != nullptr;
    if (isDirectory == (itemClass == ItemClass::Directory)) return known;
    DCLogNotice("Unexpected request for %@: %@", className, relativePath);
    return nullptr;
  }
  auto type = itemType ? _fileResourceTypeAtRelativePath(relativePath) : std::nullopt;
  const bool isMismatch = type && *type != *itemType;
  if (isMismatch) {
    DCLogDebug("%@: Not an %@: '%@'", description(), className, relativePath->string());
    DCAssertionFailed(kSource, __LINE__, "!isMismatch");
  }
  DCCachedItem::Ptr item;
  if (itemClass == ItemClass::Directory) {
    item = std::make_shared<DCCachedDirectory>(relativePath, environment_);
  } else {
    item = std::make_shared<DCCachedFile>(relativePath, environment_);
  }
  items_.emplace(relativePath->string(), item);
  return item;
}

DCCachedThumbnail::Ptr DCCachedItemManager::_thumbnailForUnderlyingItem(const DCCachedItem::Ptr& item) {
  DCLogTrace("-[DCCachedItemManager _thumbnailForUnderlyingItem:]");
  auto locked = lock();
  auto file = std::dynamic_pointer_cast<DCCachedFile>(item);
  if (!file || std::dynamic_pointer_cast<DCCachedThumbnail>(item)) return nullptr;
  auto identifier = file->documentIdentifier();
  if (!identifier) return nullptr;
  auto path = file->relativePath()->relativePathForAssetType(DCPathAssetTypeThumbnail, *identifier);
  auto thumbnail = std::dynamic_pointer_cast<DCCachedThumbnail>(knownItem(path->string()));
  if (!thumbnail) thumbnail = std::make_shared<DCCachedThumbnail>(file, path, environment_);
  // Without an identifier there is nothing that could be asked for.
  auto thumbnailIdentifier = thumbnail->documentIdentifier();
  if (!thumbnailIdentifier) return nullptr;
  items_.insert_or_assign(path->string(), thumbnail);
  if (item != thumbnail->underlyingItem()) DCAssertionFailed(kSource, __LINE__, "item == thumbnail.underlyingItem");
  auto fullPath = thumbnail->fullPathIfKnown(), filesFullPath = file->fullPathIfKnown();
  DCAssert(fullPath, kSource);
  const bool isShared = fullPath && filesFullPath && fullPath->string() == filesFullPath->string();
  DCAssert(!isShared, kSource);
  DCAssert(*thumbnailIdentifier != *identifier, kSource);
  return thumbnail;
}

std::vector<DCCachedItem::Ptr> DCCachedItemManager::itemsWithIdentifier(const Data& documentIdentifier) {
  DCLogTrace("-[DCCachedItemManager itemsWithDocumentIdentifier:forService:]",
             {{"documentIdentifier", documentIdentifier}});
  auto locked = lock();
  std::vector<DCCachedItem::Ptr> items;
  for (const std::string& path : database().pathsForDocumentIdentifier(documentIdentifier)) {
    if (auto found = item(DCRelativePath::relativePathWithString(path, service()))) items.push_back(std::move(found));
  }
  return items;
}

DCCachedItem::Ptr DCCachedItemManager::itemWithIdentifier(const Data& documentIdentifier,
                                                          const DCCachedDirectory::Ptr& parent) {
  DCLogTrace("-[DCCachedItemManager itemWithDocumentIdentifier:parent:]",
             {{"documentIdentifier", documentIdentifier}, {"parent", parent->relativePath()}});
  auto locked = lock();
  const std::string directory = parent->relativePath()->string();
  const std::string prefix = directory.empty() ? directory : directory + "/";
  auto made = [&](const std::string& path) -> DCCachedItem::Ptr {
    if (auto known = knownItem(path)) return known;
    auto relativePath = DCRelativePath::relativePathWithString(path, service());
    // A path of yesterday's listing is of no kind any more, but somebody's all the same: its entry's kind is asked for
    // by identifier.
    if (auto type = _fileResourceTypeAtRelativePath(relativePath)) return item(relativePath);
    auto contents = parent->directoryContents();
    const Value* entry = contents ? contents->entryWithDocumentIdentifier(documentIdentifier) : nullptr;
    auto fields = entry ? entry->asDictionary() : std::nullopt;
    auto type = fields ? fields->string(ResourceFileResourceTypeKey) : std::nullopt;
    const std::string listing = DCFullPath::metadataFullPathWithDocumentIdentifier(
                                    documentIdentifier, relativePath->lastPathComponent(), service())
                                    ->string();
    const bool isDirectory = type ? *type == ResourceTypeDirectory : fileExists(listing);
    return itemOfKind(relativePath, isDirectory);
  };
  // Where the listing has it, mostly.
  if (auto contents = parent->directoryContents()) {
    const Value* entry = contents->entryWithDocumentIdentifier(documentIdentifier);
    auto fields = entry ? entry->asDictionary() : std::nullopt;
    auto name = fields ? fields->string(ResourceNameKey) : std::nullopt;
    if (name && database().knownDocumentIdentifierForPath(prefix + *name) == documentIdentifier) {
      return made(prefix + *name);
    }
  }
  for (const std::string& path : database().pathsForDocumentIdentifier(documentIdentifier)) {
    const bool isChild =
        path.size() > prefix.size() && path.starts_with(prefix) && path.find('/', prefix.size()) == std::string::npos;
    if (isChild) return made(path);
  }
  return nullptr;
}

// In bulk.

DCKnownChildren::Ptr DCCachedItemManager::knownChildrenOf(const DCCachedDirectory& directory) {
  DCLogTrace("-[DCCachedItemManager knownChildrenOf:]", {{"directory", directory.relativePath()}});
  database().refresh();
  return database().knownChildrenOf(directory.relativePath()->string());
}

std::vector<std::string> DCCachedItemManager::namesOfKnownItemsIn(const DCCachedDirectory& directory) const {
  auto locked = lock();
  const std::string prefix = directory.isRoot() ? "" : directory.relativePath()->string() + "/";
  std::vector<std::string> names;
  for (auto place = items_.lower_bound(prefix); place != items_.end() && place->first.starts_with(prefix);) {
    std::string name = place->first.substr(prefix.size());
    if (const auto slash = name.find('/'); slash != std::string::npos) {
      // Past everything in that subfolder: '0' follows '/'.
      place = items_.lower_bound(prefix + name.substr(0, slash) + "0");
      continue;
    }
    if (!name.empty()) names.push_back(std::move(name));
    ++place;
  }
  return names;
}

Result<void> DCCachedItemManager::recordChildren(
    const DCCachedDirectory& directory, const std::vector<std::pair<std::string, Data>>& documentIdentifiersByName) {
  DCLogTrace("-[DCCachedItemManager recordChildren:ofDirectory:]", {{"directory", directory.relativePath()}});
  const std::string path = directory.relativePath()->string();
  const std::string prefix = path.empty() ? path : path + "/";
  std::vector<std::pair<std::string, Data>> byPath;
  byPath.reserve(documentIdentifiersByName.size());
  for (const auto& [name, identifier] : documentIdentifiersByName) byPath.emplace_back(prefix + name, identifier);
  return database().setDocumentIdentifiers(byPath, path);
}

void DCCachedItemManager::forgetItem(const DCCachedItem::Ptr& item) {
  DCLogTrace("-[DCCachedItemManager forgetItem:]");
  auto locked = lock();
  item->setHasBeenRemoved(true);
  auto found = items_.find(item->relativePath()->string());
  if (found != items_.end() && found->second == item) items_.erase(found);
}

void DCCachedItemManager::forgetVanishedChildren(const DCCachedDirectory& directory) {
  auto locked = lock();
  const auto contents = directory.directoryContents();
  const std::string prefix = directory.isRoot() ? "" : directory.relativePath()->string() + "/";
  for (const std::string& name : namesOfKnownItemsIn(directory)) {
    if (contents && contents->entryNamed(name)) continue;
    const auto item = knownItem(prefix + name);
    if (!item->documentIdentifier() && !database().knownUploadForPath(prefix + name)) forgetItem(item);
  }
}

void DCCachedItemManager::evictItem(const DCCachedItem::Ptr& /*item*/) {
  DCLogTrace("-[DCCachedItemManager evictItem:]");
  DCAssertionFailed(kSource, __LINE__, "0");
}

bool DCCachedItemManager::updateItem(const DCCachedItem::Ptr& item, const FVFResponseContainer& responseContainer,
                                     const std::optional<Date>& downloadDate) {
  DCLogTrace("-[DCCachedItemManager updateItemFromResponseContainer:]", {{"item", item->description()}});
  auto prepared = item->_prepareForResponse(responseContainer);
  auto path = prepared ? item->contentsPath() : std::nullopt;
  if (!path) return false;
  prepared->downloadDate = downloadDate;
  bool stored = false;
  auto coordinated = coordinateWritingItemAtURL(
      URL::fileURL(*path), FileCoordinatorWritingOptions::ForReplacing,
      [&](const URL&) { stored = item->_storeResponse(responseContainer, std::move(*prepared)); });
  if (!coordinated) DCLogWarning("Unable to update file '%@': %@", *path, coordinated.error());
  return stored;
}

// Coordination.

void DCCachedItemManager::setPurposeIdentifier(const std::string& purposeIdentifier) {
  DCLogTrace("-[DCCachedItemManager setPurposeIdentifier:]", {{"purposeIdentifier", purposeIdentifier}});
  {
    auto locked = lock();
    if (purposeIdentifier_ == purposeIdentifier) return;
    if (purposeIdentifier_) {
      throw InvalidArgumentException(format("Illegal to change purpose identifier: %@", purposeIdentifier));
    }
    purposeIdentifier_ = purposeIdentifier;
  }
  FilePresenters::shared().addFilePresenter(shared_from_this(), purposeIdentifier);
}

FileCoordinator DCCachedItemManager::coordinator() const {
  auto locked = lock();
  if (!purposeIdentifier_) throw InvalidArgumentException("Invalid nil purpose identifier");
  return FileCoordinator(*purposeIdentifier_);
}

Result<void> DCCachedItemManager::coordinateReadingItemAtURL(const URL& url, FileCoordinatorReadingOptions options,
                                                             const Accessor& byAccessor) {
  DCLogTrace("-[DCCachedItemManager coordinateReadingItemAtURL:options:error:byAccessor:]", {{"url", url}});
  return coordinator().coordinateReadingItemAtURL(url, options, byAccessor);
}

Result<void> DCCachedItemManager::coordinateWritingItemAtURL(const URL& url, FileCoordinatorWritingOptions options,
                                                             const Accessor& byAccessor) {
  DCLogTrace("-[DCCachedItemManager coordinateWritingItemAtURL:options:error:byAccessor:]", {{"url", url}});
  return coordinator().coordinateWritingItemAtURL(url, options, byAccessor);
}

Result<void> DCCachedItemManager::coordinateReadingForUploadingItem(const DCCachedItem::Ptr& item,
                                                                    const UploadAccessor& byAccessor) {
  DCLogTrace("-[DCCachedItemManager coordinateReadingForUploadingItem:error:byAccessor:]",
             {{"item", item->description()}});
  auto fullPath = item->fullPathIfKnown();
  const std::string relativePath = item->relativePath()->string();
  if (!fullPath) return Failure(Error::fileRead(ENOENT, relativePath));
  const URL url = fullPath->url();
  using Utils = FVFGenerationIdentifierUtils;
  for (int attempt = 0; attempt < kCopyAttempts; ++attempt) {
    // Of the original, before the copy: what is written meanwhile shows afterwards.
    auto generation = Utils::versionIdentifierForFileWithURL(url);
    if (!generation) return Failure(generation.error());
    auto place = DCManagedUpload::temporaryUploadFileURLForItemAtPath(relativePath, *generation);
    if (!place) return Failure(Error::fileRead(EIO, fullPath->string()));
    bool isStable = false;
    Result<void> moved;
    auto coordinated =
        coordinateReadingItemAtURL(url, FileCoordinatorReadingOptions::ForUploading, [&](const URL& copy) {
          auto after = Utils::versionIdentifierForFileWithURL(url);
          isStable = after && *after == *generation;
          if (!isStable) return;
          // A task that is on stable storage must not find half a file after a loss of power. One that finds none is
          // given another, so that the name need not last.
          moved = syncContents(copy.path());
          if (!moved) return;
          // Over a copy of the same generation that is there already, which a transfer may be about to open.
          if (rename(copy.path().c_str(), place->path().c_str()) != 0) {
            moved = Failure(Error::fileWrite(errno, place->path()));
            DCAssertionFailed(kSource, __LINE__, "!fileManagerError");
            return;
          }
          byAccessor(*place, **generation);
        });
    if (!coordinated) return coordinated;
    if (!moved) return moved;
    if (isStable) return {};
  }
  return Failure(Error::fileRead(EBUSY, fullPath->string()));
}

Result<void> DCCachedItemManager::coordinateEndOfUpload(const DCCachedItem::Ptr& item,
                                                        const std::optional<Data>& documentIdentifier,
                                                        const std::function<void()>& work) {
  DCLogTrace("-[DCCachedItemManager coordinateEndOfUpload:documentIdentifier:]", {{"item", item->description()}});
  const auto present = item->contentsPath();
  const auto identifier = documentIdentifier ? documentIdentifier : item->documentIdentifier();
  const auto target = identifier ? std::optional(item->contentsPathForDocumentIdentifier(*identifier)) : present;
  if (!target) {
    work();
    return {};
  }
  if (!present || *present == *target) {
    return coordinateWritingItemAtURL(URL::fileURL(*target), FileCoordinatorWritingOptions::None,
                                      [&](const URL&) { work(); });
  }
  return coordinator().coordinateWritingItemAtURL(URL::fileURL(*present), FileCoordinatorWritingOptions::None,
                                                  URL::fileURL(*target), FileCoordinatorWritingOptions::None,
                                                  [&](const URL&, const URL&) { work(); });
}

std::optional<URL> DCCachedItemManager::presentedItemURL() const { return URL::fileURL(environment_->documentRoot); }

std::shared_ptr<SerialQueue> DCCachedItemManager::presentedItemOperationQueue() const { return operationQueue_; }

}  // namespace florvane
