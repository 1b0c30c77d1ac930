#include "Client/Client/DCDatabase+Fetching.h"
#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCLog.h"

#include <ctime>

#include <sys/stat.h>

namespace florvane {

namespace {

// Beyond this many answers of a kind all are forgotten, so that memory stays bounded.
constexpr std::size_t kMostAnswers = 400'000;
constexpr char kLogSuffix[] = "-wal";
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
// Longer than a tick of any file system's clock.
constexpr std::int64_t kTick = 20'000'000;

std::int64_t nanoseconds(const timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * kNanosecondsPerSecond + time.tv_nsec;
}

std::string folderPrefix(const std::string& directoryPath) {
  return directoryPath.empty() ? directoryPath : directoryPath + "/";
}

// Inode, size and dates of the store and of its log.
std::array<std::int64_t, 8> stampOfStore(const std::string& path) {
  std::array<std::int64_t, 8> stamp{};
  std::size_t place = 0;
  for (const std::string& file : {path, path + kLogSuffix}) {
    struct stat status{};
    if (stat(file.c_str(), &status) != 0) status = {};
    stamp[place++] = static_cast<std::int64_t>(status.st_ino);
    stamp[place++] = status.st_size;
    stamp[place++] = nanoseconds(status.st_mtim);
    stamp[place++] = nanoseconds(status.st_ctim);
  }
  return stamp;
}

// A change in the tick that is running could leave the same dates.
bool willShowChanges(const std::array<std::int64_t, 8>& stamp, std::int64_t lookedAt) {
  for (std::size_t date : {2, 3, 6, 7}) {
    if (stamp[date] + kTick > lookedAt) return false;
  }
  return true;
}

}  // namespace

void DCDatabase::Memory::clear() {
  identifiers.clear();
  otherMetadata.clear();
  storedLocalMetadata.reset();
  uploads.reset();
  prefetched.clear();
  lastChildren.reset();
}

void DCDatabase::Memory::validate(const ManagedObjectContext& current) {
  const std::uint64_t currentVersion = current.storeVersion();
  const bool isFull = identifiers.size() > kMostAnswers || otherMetadata.size() > kMostAnswers;
  if (context == &current && version == currentVersion && !isFull) return;
  clear();
  ++changes;
  context = &current;
  version = currentVersion;
}

void DCDatabase::forgetAnswers() {
  std::lock_guard lock(memory_->mutex);
  memory_->clear();
  memory_->context = nullptr;
  ++memory_->changes;
}

void DCDatabase::rememberIdentifier(const std::string& path, const std::optional<Data>& documentIdentifier) {
  std::lock_guard lock(memory_->mutex);
  memory_->identifiers.insert_or_assign(path, documentIdentifier);
  memory_->lastChildren.reset();
}

void DCDatabase::rememberOtherMetadata(const Data& documentIdentifier,
                                       const std::shared_ptr<DCManagedOtherMetadata>& metadata) {
  std::lock_guard lock(memory_->mutex);
  memory_->otherMetadata.insert_or_assign(documentIdentifier, metadata);
}

void DCDatabase::rememberUpload(const std::string& path, const UploadPtr& upload) {
  std::lock_guard lock(memory_->mutex);
  if (!memory_->uploads) return;
  if (upload) {
    memory_->uploads->insert_or_assign(path, upload);
  } else {
    memory_->uploads->erase(path);
  }
}

void DCDatabase::forgetStoredLocalMetadata() {
  std::lock_guard lock(memory_->mutex);
  memory_->storedLocalMetadata.reset();
}

std::optional<Data> DCDatabase::knownDocumentIdentifierForPath(const std::string& path) {
  using Answer = std::optional<Data>;
  auto answer = known<Answer>([&](Memory& memory) -> std::optional<Answer> {
    auto found = memory.identifiers.find(path);
    if (found == memory.identifiers.end()) return std::nullopt;
    return std::optional<Answer>(std::in_place, found->second);
  });
  if (answer) return *answer;
  auto context = managedObjectContext();
  return context->performAndWait([&] {
    auto found = documentIdentifierForPath(path);
    std::lock_guard lock(memory_->mutex);
    memory_->validate(*context);
    memory_->identifiers.insert_or_assign(path, found);
    return found;
  });
}

std::shared_ptr<DCManagedOtherMetadata> DCDatabase::knownOtherMetadataForDocumentIdentifier(
    const Data& documentIdentifier) {
  using Answer = std::shared_ptr<DCManagedOtherMetadata>;
  auto answer = known<Answer>([&](Memory& memory) -> std::optional<Answer> {
    auto found = memory.otherMetadata.find(documentIdentifier);
    return found == memory.otherMetadata.end() ? std::nullopt : std::optional(found->second);
  });
  if (answer && (!*answer || !(*answer)->isDeleted())) return *answer;
  auto context = managedObjectContext();
  return context->performAndWait([&] {
    auto found = otherMetadataForDocumentIdentifier(documentIdentifier);
    std::lock_guard lock(memory_->mutex);
    memory_->validate(*context);
    memory_->otherMetadata.insert_or_assign(documentIdentifier, found);
    return found;
  });
}

std::shared_ptr<DCManagedStoredLocalMetadata> DCDatabase::knownStoredLocalMetadataForDocumentIdentifier(
    const Data& documentIdentifier) {
  using Answer = std::shared_ptr<DCManagedStoredLocalMetadata>;
  const std::function<std::optional<Answer>(Memory&)> look = [&](Memory& memory) -> std::optional<Answer> {
    if (!memory.storedLocalMetadata) return std::nullopt;
    auto found = memory.storedLocalMetadata->find(documentIdentifier);
    return found == memory.storedLocalMetadata->end() ? nullptr : found->second;
  };
  auto answer = known(look);
  if (!answer) {
    // Few items have any, so that all of it is known at the price of one.
    auto context = managedObjectContext();
    context->performAndWait([&] {
      ManagedObjectFetch fetch;
      fetch.entity = DCEntityIndexStoredLocalMetadata;
      auto all = context->fetch(fetch);
      std::unordered_map<Data, Answer, DataHash> byIdentifier;
      for (const auto& object : all) {
        auto record = std::static_pointer_cast<DCManagedStoredLocalMetadata>(object);
        if (auto identifier = record->documentIdentifier()) byIdentifier.emplace(*identifier, record);
      }
      std::lock_guard lock(memory_->mutex);
      memory_->validate(*context);
      memory_->storedLocalMetadata = std::move(byIdentifier);
      answer = look(*memory_);
    });
  }
  return *answer && !(*answer)->isDeleted() ? *answer : nullptr;
}

DCDatabase::UploadPtr DCDatabase::knownUploadForPath(const std::string& path) {
  const std::function<std::optional<UploadPtr>(Memory&)> look = [&](Memory& memory) -> std::optional<UploadPtr> {
    if (!memory.uploads) return std::nullopt;
    auto found = memory.uploads->find(path);
    return found == memory.uploads->end() ? nullptr : found->second;
  };
  auto answer = known(look);
  if (!answer) {
    (void)knownUploadsBelow("", false);
    answer = known(look);
  }
  // What was cancelled or deleted through the record itself is not told to the memory.
  if (!answer || !*answer || (*answer)->isDeleted() || (*answer)->cancelled()) return nullptr;
  return *answer;
}

std::vector<std::pair<std::string, DCDatabase::UploadPtr>> DCDatabase::knownUploadsBelow(
    const std::string& directoryPath, bool onlyChildren) {
  using Answer = std::vector<std::pair<std::string, UploadPtr>>;
  const std::string prefix = folderPrefix(directoryPath);
  const std::function<std::optional<Answer>(Memory&)> look = [&](Memory& memory) -> std::optional<Answer> {
    if (!memory.uploads) return std::nullopt;
    Answer below;
    auto place = memory.uploads->lower_bound(prefix);
    while (place != memory.uploads->end() && place->first.starts_with(prefix)) {
      const std::size_t slash = place->first.find('/', prefix.size());
      if (slash == std::string::npos || !onlyChildren) {
        if (place->first.size() > prefix.size()) below.emplace_back(*place);
        ++place;
      } else {
        // Past everything in that subfolder: '0' follows '/'.
        place = memory.uploads->lower_bound(place->first.substr(0, slash) + "0");
      }
    }
    return below;
  };
  auto answer = known(look);
  if (!answer) {
    auto context = managedObjectContext();
    context->performAndWait([&] {
      std::map<std::string, UploadPtr, std::less<>> uploads;
      for (const UploadPtr& upload : allUploads()) {
        if (auto path = upload->path()) uploads.emplace(std::move(*path), upload);
      }
      std::lock_guard lock(memory_->mutex);
      memory_->validate(*context);
      memory_->uploads = std::move(uploads);
      answer = look(*memory_);
    });
  }
  std::erase_if(*answer, [](const auto& entry) { return entry.second->isDeleted() || entry.second->cancelled(); });
  return std::move(*answer);
}

bool DCDatabase::hasPrefetchedChildrenOf(const std::string& directoryPath) {
  return known<bool>([&](Memory& memory) { return std::optional(memory.prefetched.contains(directoryPath)); }).value();
}

void DCDatabase::beginPrefetchingChildrenOf(const std::string& directoryPath) {
  if (hasPrefetchedChildrenOf(directoryPath)) return;
  managedObjectContext()->perform(
      [self = shared_from_this(), directoryPath] { self->prefetchChildrenOf(directoryPath); });
}

void DCDatabase::prefetchChildrenOf(const std::string& directoryPath) {
  DCLogTrace("-[DCDatabase prefetchChildrenOf:]", {{"directoryPath", directoryPath}});
  if (hasPrefetchedChildrenOf(directoryPath)) return;
  auto context = managedObjectContext();
  context->performAndWait([&] {
    // Begun ahead, and come to its end by now.
    if (hasPrefetchedChildrenOf(directoryPath)) return;
    auto identifiers = documentIdentifiers(directoryPath, true);
    ManagedObjectFetch fetch;
    fetch.entity = DCEntityIndexOtherMetadata;
    fetch.joined = {DCManagedOtherMetadata::DocumentIdentifier,
                    DCEntityIndexPath,
                    DCManagedPath::DocumentIdentifier,
                    {DCManagedPath::Path, folderPrefix(directoryPath), true}};
    std::unordered_map<Data, std::shared_ptr<DCManagedOtherMetadata>, DataHash> found;
    for (const auto& object : context->fetch(fetch)) {
      auto record = std::static_pointer_cast<DCManagedOtherMetadata>(object);
      if (auto identifier = record->documentIdentifier()) found.emplace(*identifier, record);
    }
    std::lock_guard lock(memory_->mutex);
    memory_->validate(*context);
    for (const auto& [path, identifier] : identifiers) {
      auto record = found.find(identifier);
      memory_->otherMetadata.insert_or_assign(identifier, record == found.end() ? nullptr : record->second);
      memory_->identifiers.insert_or_assign(path, identifier);
    }
    memory_->prefetched.insert(directoryPath);
    memory_->lastDirectory = directoryPath;
    memory_->lastChildren = std::move(identifiers);
  });
}

void DCDatabase::refresh() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const auto stamp = stampOfStore(databaseURL_.path());
  {
    std::lock_guard lock(memory_->mutex);
    if (memory_->isSettled && memory_->storeStamp == stamp) return;
  }
  managedObjectContext()->noteChangesOfOthers();
  std::lock_guard lock(memory_->mutex);
  memory_->storeStamp = stamp;
  memory_->isSettled = willShowChanges(stamp, nanoseconds(now));
}

std::uint64_t DCDatabase::changeCount() {
  auto context = managedObjectContext();
  std::lock_guard lock(memory_->mutex);
  memory_->validate(*context);
  return memory_->changes.load();
}

}  // namespace florvane
