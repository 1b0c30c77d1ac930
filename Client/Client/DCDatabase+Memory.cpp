#include "Client/Client/DCDatabase+Fetching.h"
#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCLog.h"

#include <ctime>

#include <sys/stat.h>

namespace florvane {

namespace {

// Beyond this many answers of a kind all are forgotten, so that memory stays bounded.
constexpr std::size_t kMostAnswers = 400'000;
constexpr std::size_t kFewMisses = 16;
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

// Of the directory, and of the child in it.
std::pair<std::string_view, std::string_view> splitPath(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return {std::string_view(), path};
  return {path.substr(0, slash), path.substr(slash + 1)};
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
  directories.clear();
  answers_ = 0;
  unnamed_.clear();
  missed_ = 0;
  otherMetadata.clear();
  storedLocalMetadata.reset();
  uploads.reset();
}

void DCDatabase::Memory::validate(const ManagedObjectContext& current) {
  const std::uint64_t currentVersion = current.storeVersion();
  const bool isFull = otherMetadata.size() > kMostAnswers;
  if (context == &current && version == currentVersion && !isFull) return;
  clear();
  context = &current;
  version = currentVersion;
}

std::optional<DCDatabase::Memory::Identifier> DCDatabase::Memory::identifierForPath(std::string_view path) const {
  const auto [directoryPath, name] = splitPath(path);
  auto directory = directories.find(directoryPath);
  if (directory == directories.end()) return std::nullopt;
  const auto& [children, changesSeen, identifiers] = directory->second;
  if (auto later = identifiers.find(name); later != identifiers.end()) return later->second;
  const auto* child = children ? children->named(name) : nullptr;
  return child ? std::optional<Identifier>(child->documentIdentifier) : std::nullopt;
}

void DCDatabase::Memory::keepIdentifier(std::string_view path, const Identifier& identifier) {
  if (answers_ > kMostAnswers) {
    directories.clear();
    answers_ = 0;
  }
  const auto [directoryPath, name] = splitPath(path);
  auto directory = directories.find(directoryPath);
  if (directory == directories.end()) directory = directories.emplace(directoryPath, Directory()).first;
  if (directory->second.identifiers.insert_or_assign(std::string(name), identifier).second) ++answers_;
}

void DCDatabase::Memory::keepChildren(const std::string& directoryPath, DCKnownChildren::Ptr children) {
  if (answers_ + children->children().size() > kMostAnswers) {
    directories.clear();
    unnamed_.clear();
    answers_ = 0;
  }
  unnamed_.push_back(children);
  answers_ += children->children().size();
  directories.insert_or_assign(directoryPath, Directory{std::move(children), metadataChanges_, {}});
}

DCKnownChildren::Ptr DCDatabase::Memory::childrenOf(const std::string& directoryPath) {
  auto found = directories.find(directoryPath);
  if (found == directories.end() || !found->second.children) return nullptr;
  auto& [known, changesSeen, later] = found->second;
  if (later.empty() && changesSeen == metadataChanges_) return known;

  std::vector<DCKnownChildren::Child> children;
  children.reserve(known->children().size() + later.size());
  for (const auto& child : known->children()) {
    if (later.contains(child.name)) continue;
    auto& kept = children.emplace_back(child);
    if (kept.mayHaveOtherMetadata) continue;
    auto metadata = otherMetadata.find(kept.documentIdentifier);
    kept.mayHaveOtherMetadata = metadata != otherMetadata.end() && metadata->second;
  }
  for (const auto& [name, identifier] : later) {
    if (identifier) children.push_back({name, *identifier, true});
  }
  known = std::make_shared<const DCKnownChildren>(std::move(children));
  changesSeen = metadataChanges_;
  later.clear();
  return known;
}

std::optional<DCDatabase::Memory::OtherMetadata> DCDatabase::Memory::otherMetadataForIdentifier(
    const Data& documentIdentifier) {
  auto found = otherMetadata.find(documentIdentifier);
  if (found == otherMetadata.end() && !unnamed_.empty() && ++missed_ > kFewMisses) {
    // Whoever asks for more than a few will ask for many.
    for (const auto& children : unnamed_) {
      for (const auto& child : children->children()) {
        if (!child.mayHaveOtherMetadata) otherMetadata.try_emplace(child.documentIdentifier, nullptr);
      }
    }
    unnamed_.clear();
    missed_ = 0;
    found = otherMetadata.find(documentIdentifier);
  }
  return found == otherMetadata.end() ? std::nullopt : std::optional(found->second);
}

void DCDatabase::Memory::keepOtherMetadata(const Data& documentIdentifier, const OtherMetadata& metadata) {
  otherMetadata.insert_or_assign(documentIdentifier, metadata);
  ++metadataChanges_;
}

void DCDatabase::forgetAnswers() {
  std::lock_guard lock(memory_->mutex);
  memory_->clear();
  memory_->context = nullptr;
}

void DCDatabase::rememberIdentifier(const std::string& path, const std::optional<Data>& documentIdentifier) {
  std::lock_guard lock(memory_->mutex);
  memory_->keepIdentifier(path, documentIdentifier);
}

void DCDatabase::rememberOtherMetadata(const Data& documentIdentifier,
                                       const std::shared_ptr<DCManagedOtherMetadata>& metadata) {
  std::lock_guard lock(memory_->mutex);
  memory_->keepOtherMetadata(documentIdentifier, metadata);
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
  auto answer = known<Answer>([&](Memory& memory) { return memory.identifierForPath(path); });
  if (answer) return *answer;
  auto context = managedObjectContext();
  return context->performAndWait([&] {
    auto found = documentIdentifierForPath(path);
    std::lock_guard lock(memory_->mutex);
    memory_->validate(*context);
    memory_->keepIdentifier(path, found);
    return found;
  });
}

std::shared_ptr<DCManagedOtherMetadata> DCDatabase::knownOtherMetadataForDocumentIdentifier(
    const Data& documentIdentifier) {
  using Answer = std::shared_ptr<DCManagedOtherMetadata>;
  auto answer = known<Answer>([&](Memory& memory) { return memory.otherMetadataForIdentifier(documentIdentifier); });
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
  return known<bool>([&](Memory& memory) {
           auto found = memory.directories.find(directoryPath);
           return std::optional(found != memory.directories.end() && found->second.children);
         })
      .value();
}

void DCDatabase::beginPrefetchingChildrenOf(const std::string& directoryPath) {
  if (hasPrefetchedChildrenOf(directoryPath)) return;
  managedObjectContext()->perform(
      [self = shared_from_this(), directoryPath] { self->prefetchChildrenOf(directoryPath); });
}

// The identifiers of the children that have some; their records become known.
std::unordered_set<Data, DataHash> DCDatabase::prefetchOtherMetadataBelow(const std::string& directoryPath) {
  auto context = managedObjectContext();
  ManagedObjectFetch fetch;
  fetch.entity = DCEntityIndexOtherMetadata;
  fetch.joined = {DCManagedOtherMetadata::DocumentIdentifier,
                  DCEntityIndexPath,
                  DCManagedPath::DocumentIdentifier,
                  {DCManagedPath::Path, folderPrefix(directoryPath), true}};
  const auto found = context->fetch(fetch);
  std::unordered_set<Data, DataHash> identifiers;
  identifiers.reserve(found.size());
  std::vector<std::pair<Data, std::shared_ptr<DCManagedOtherMetadata>>> records;
  records.reserve(found.size());
  for (const auto& object : found) {
    auto record = std::static_pointer_cast<DCManagedOtherMetadata>(object);
    auto identifier = record->documentIdentifier();
    if (identifier && identifiers.insert(*identifier).second) records.emplace_back(*identifier, record);
  }
  std::lock_guard lock(memory_->mutex);
  memory_->validate(*context);
  for (const auto& [identifier, record] : records) memory_->otherMetadata.insert_or_assign(identifier, record);
  return identifiers;
}

void DCDatabase::prefetchChildrenOf(const std::string& directoryPath) {
  DCLogTrace("-[DCDatabase prefetchChildrenOf:]", {{"directoryPath", directoryPath}});
  if (hasPrefetchedChildrenOf(directoryPath)) return;
  auto context = managedObjectContext();
  context->performAndWait([&] {
    // Begun ahead, and come to its end by now.
    if (hasPrefetchedChildrenOf(directoryPath)) return;
    const std::string prefix = folderPrefix(directoryPath);
    ManagedObjectFetch fetch;
    fetch.entity = DCEntityIndexPath;
    fetch.below = {DCManagedPath::Path, prefix, true};
    std::vector<DCKnownChildren::Child> children;
    static constexpr std::size_t attributes[] = {DCManagedPath::Path, DCManagedPath::DocumentIdentifier};
    context->visit(fetch, attributes, [&](std::span<const std::string_view> values) {
      const std::string_view path = values[0], identifier = values[1];
      if (path.empty() || identifier.empty()) return;
      children.push_back({std::string(path.substr(prefix.size())), Data::fromString(identifier)});
    });
    const auto withMetadata = prefetchOtherMetadataBelow(directoryPath);
    if (!withMetadata.empty()) {
      for (auto& child : children) child.mayHaveOtherMetadata = withMetadata.contains(child.documentIdentifier);
    }
    auto known = std::make_shared<const DCKnownChildren>(std::move(children));
    std::lock_guard lock(memory_->mutex);
    memory_->validate(*context);
    memory_->keepChildren(directoryPath, std::move(known));
  });
}

DCKnownChildren::Ptr DCDatabase::knownChildrenOf(const std::string& directoryPath) {
  using Answer = DCKnownChildren::Ptr;
  auto look = [&](Memory& memory) -> std::optional<Answer> {
    auto children = memory.childrenOf(directoryPath);
    return children ? std::optional(std::move(children)) : std::nullopt;
  };
  auto answer = known<Answer>(look);
  if (!answer) {
    managedObjectContext()->performAndWait([&] {
      prefetchChildrenOf(directoryPath);
      answer = known<Answer>(look);
    });
  }
  return answer ? *answer : std::make_shared<const DCKnownChildren>(std::vector<DCKnownChildren::Child>());
}

void DCDatabase::refresh() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const auto stamp = stampOfStore(databaseURL_.path());
  {
    std::lock_guard lock(memory_->mutex);
    if (memory_->isSettled && memory_->storeStamp == stamp) return;
  }
  const bool hasSeenAll = managedObjectContext()->noteChangesOfOthers();
  std::lock_guard lock(memory_->mutex);
  memory_->storeStamp = stamp;
  memory_->isSettled = hasSeenAll && willShowChanges(stamp, nanoseconds(now));
}

std::uint64_t DCDatabase::changesOfOthers() {
  refresh();
  return managedObjectContext()->storeVersion();
}

}  // namespace florvane
