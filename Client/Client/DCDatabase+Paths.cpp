#include "Client/Client/DCDatabase+Fetching.h"
#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCLog.h"

#include <cstddef>
#include <memory>
#include <unordered_set>

#include <unistd.h>

namespace florvane {

namespace {

using PathPtr = std::shared_ptr<DCManagedPath>;

constexpr std::size_t kFewPaths = 16;

std::string folderPrefix(const std::string& directoryPath) {
  return directoryPath.empty() ? directoryPath : directoryPath + "/";
}

ManagedObjectFetch below(std::size_t entity, std::size_t attribute, const std::string& directoryPath,
                         bool onlyChildren) {
  ManagedObjectFetch fetch;
  fetch.entity = entity;
  fetch.below = {attribute, folderPrefix(directoryPath), onlyChildren};
  return fetch;
}

ManagedObjectFetch withValue(std::size_t entity, std::size_t attribute, const Value& value) {
  ManagedObjectFetch fetch;
  fetch.entity = entity;
  fetch.equals = {{attribute, value}};
  return fetch;
}

// The record of the path itself, then those below it.
template <typename T>
std::vector<std::shared_ptr<T>> recordsOfTree(ManagedObjectContext& context, std::size_t entity,
                                              const std::string& path) {
  std::vector<std::shared_ptr<T>> records;
  for (auto& fetch : {withValue(entity, T::Path, path), below(entity, T::Path, path, false)}) {
    for (auto& object : context.fetch(fetch)) records.push_back(std::static_pointer_cast<T>(object));
  }
  return records;
}

// What is kept under the path's own bytes, for want of an identifier, goes with it. The answers about bookkeeping that
// this changes.
std::vector<std::pair<Data, std::shared_ptr<DCManagedOtherMetadata>>> rekey(ManagedObjectContext& context,
                                                                            const std::string& from,
                                                                            const std::string& to) {
  std::vector<std::pair<Data, std::shared_ptr<DCManagedOtherMetadata>>> changed;
  const Data oldKey = Data::fromString(from), newKey = Data::fromString(to);
  auto stored = withValue(DCEntityIndexStoredLocalMetadata, DCManagedStoredLocalMetadata::DocumentIdentifier, oldKey);
  for (const auto& object : context.fetch(stored)) {
    std::static_pointer_cast<DCManagedStoredLocalMetadata>(object)->setDocumentIdentifier(newKey);
  }
  auto other = withValue(DCEntityIndexOtherMetadata, DCManagedOtherMetadata::DocumentIdentifier, oldKey);
  for (const auto& object : context.fetch(other)) {
    auto record = std::static_pointer_cast<DCManagedOtherMetadata>(object);
    record->setDocumentIdentifier(newKey);
    changed.emplace_back(oldKey, nullptr);
    changed.emplace_back(newKey, record);
  }
  return changed;
}

}  // namespace

Result<void> DCDatabase::setDocumentIdentifier(const Data& documentIdentifier, const std::string& path) {
  DCLogTrace("-[DCDatabase setDocumentIdentifier:forPath:]",
             {{"documentIdentifier", documentIdentifier}, {"path", path}});
  return change(Durability::Normal, [&](ManagedObjectContext& context) {
    auto record = first<DCManagedPath>(DCEntityIndexPath, {{DCManagedPath::Path, path}});
    if (!record) {
      record = std::static_pointer_cast<DCManagedPath>(context.insert(DCEntityIndexPath));
      record->setPath(path);
    }
    record->setDocumentIdentifier(documentIdentifier);
    rememberIdentifier(path, documentIdentifier);
  });
}

Result<void> DCDatabase::setDocumentIdentifiers(
    const std::vector<std::pair<std::string, Data>>& documentIdentifiersByPath, const std::string& directoryPath) {
  DCLogTrace("-[DCDatabase setDocumentIdentifiers:forPathsBelow:]",
             {{"count", documentIdentifiersByPath.size()}, {"directoryPath", directoryPath}});
  const std::size_t prefixSize = folderPrefix(directoryPath).size();
  bool isInserted = false;
  auto record = [&](ManagedObjectContext& context, bool insertsAtOnce) {
    const auto known = knownChildrenOf(directoryPath);
    DCKnownChildren::Walk walk(*known);
    std::vector<const std::pair<std::string, Data>*> newcomers;
    for (const auto& each : documentIdentifiersByPath) {
      const auto& [path, documentIdentifier] = each;
      const bool isKnown = walk.named(std::string_view(path).substr(prefixSize)) != nullptr;
      auto found = isKnown ? first<DCManagedPath>(DCEntityIndexPath, {{DCManagedPath::Path, path}}) : nullptr;
      if (!found) {
        newcomers.push_back(&each);
        continue;
      }
      found->setDocumentIdentifier(documentIdentifier);
      rememberIdentifier(path, documentIdentifier);
    }
    isInserted = insertsAtOnce && newcomers.size() > kFewPaths && recordNewcomers(context, directoryPath, newcomers);
    if (isInserted) return;
    for (const auto* newcomer : newcomers) {
      auto made = std::static_pointer_cast<DCManagedPath>(context.insert(DCEntityIndexPath));
      made->setPath(newcomer->first);
      made->setDocumentIdentifier(newcomer->second);
      rememberIdentifier(newcomer->first, newcomer->second);
    }
  };
  auto saved = change(Durability::Full, [&](ManagedObjectContext& context) { record(context, true); });
  if (saved || !isInserted) return saved;
  // What could not be saved stays in memory.
  forgetAnswers();
  return change(Durability::Full, [&](ManagedObjectContext& context) { record(context, false); });
}

// Many at once. What is known of them is asked for together, too.
bool DCDatabase::recordNewcomers(ManagedObjectContext& context, const std::string& directoryPath,
                                 const std::vector<const std::pair<std::string, Data>*>& newcomers) {
  static constexpr std::size_t attributes[] = {DCManagedPath::Path, DCManagedPath::DocumentIdentifier};
  const bool inserted = context.insertRecords(
      DCEntityIndexPath, attributes, newcomers.size(), [&](std::size_t record, std::size_t attribute) {
        const auto& [path, documentIdentifier] = *newcomers[record];
        return attribute == DCManagedPath::Path ? std::string_view(path) : documentIdentifier.view();
      });
  if (!inserted) return false;
  const auto withMetadata = prefetchOtherMetadataBelow(directoryPath);
  const std::size_t prefixSize = folderPrefix(directoryPath).size();
  auto children = knownChildrenOf(directoryPath)->children();
  children.reserve(children.size() + newcomers.size());
  for (const auto* newcomer : newcomers) {
    const auto& [path, documentIdentifier] = *newcomer;
    children.push_back({path.substr(prefixSize), documentIdentifier, withMetadata.contains(documentIdentifier)});
  }
  auto known = std::make_shared<const DCKnownChildren>(std::move(children));
  std::lock_guard lock(memory_->mutex);
  memory_->validate(context);
  memory_->keepChildren(directoryPath, std::move(known));
  return true;
}

std::optional<Data> DCDatabase::documentIdentifierForPath(const std::string& path) {
  DCLogTrace("-[DCDatabase documentIdentifierForPath:]", {{"path", path}});
  auto record = first<DCManagedPath>(DCEntityIndexPath, {{DCManagedPath::Path, path}});
  return record ? record->documentIdentifier() : std::nullopt;
}

std::unordered_map<std::string, Data> DCDatabase::documentIdentifiersForPathsBelow(const std::string& directoryPath) {
  DCLogTrace("-[DCDatabase documentIdentifiersForPathsBelow:]", {{"directoryPath", directoryPath}});
  static constexpr std::size_t attributes[] = {DCManagedPath::Path, DCManagedPath::DocumentIdentifier};
  std::unordered_map<std::string, Data> identifiers;
  managedObjectContext()->visit(below(DCEntityIndexPath, DCManagedPath::Path, directoryPath, false), attributes,
                                [&](std::span<const std::string_view> values) {
                                  const std::string_view path = values[0], identifier = values[1];
                                  if (path.empty() || identifier.empty()) return;
                                  identifiers.emplace(path, Data::fromString(identifier));
                                });
  return identifiers;
}

std::vector<std::string> DCDatabase::pathsForDocumentIdentifier(const Data& documentIdentifier) {
  DCLogTrace("-[DCDatabase pathsForDocumentIdentifier:]", {{"documentIdentifier", documentIdentifier}});
  std::vector<std::string> paths;
  auto found = managedObjectContext()->fetch(
      withValue(DCEntityIndexPath, DCManagedPath::DocumentIdentifier, documentIdentifier));
  for (const auto& object : found) {
    if (auto path = std::static_pointer_cast<DCManagedPath>(object)->path()) paths.push_back(std::move(*path));
  }
  return paths;
}

Result<void> DCDatabase::renamePath(const std::string& srcPath, const std::string& dstPath) {
  DCLogTrace("-[DCDatabase renamePath:toPath:]", {{"srcPath", srcPath}, {"dstPath", dstPath}});
  return change(Durability::Normal, [&](ManagedObjectContext& context) {
    auto record = first<DCManagedPath>(DCEntityIndexPath, {{DCManagedPath::Path, srcPath}});
    if (!record || srcPath == dstPath) return;
    for (const auto& replaced : context.fetch(withValue(DCEntityIndexPath, DCManagedPath::Path, dstPath))) {
      context.deleteObject(replaced);
    }
    record->setPath(dstPath);
    rememberIdentifier(srcPath, std::nullopt);
    rememberIdentifier(dstPath, record->documentIdentifier());
  });
}

Result<void> DCDatabase::renamePathsBelow(const std::string& srcPath, const std::string& dstPath) {
  DCLogTrace("-[DCDatabase renamePathsBelow:toPath:]", {{"srcPath", srcPath}, {"dstPath", dstPath}});
  if (srcPath == dstPath) return {};
  // Only uploads must be on stable storage at once.
  const bool movesUploads = knownUploadForPath(srcPath) || !knownUploadsBelow(srcPath, false).empty();
  auto saved = change(movesUploads ? Durability::Full : Durability::Normal, [&](ManagedObjectContext& context) {
    // All of the old places first: one tree may lie in the other.
    auto moved = recordsOfTree<DCManagedPath>(context, DCEntityIndexPath, srcPath);
    std::unordered_set<const ManagedObject*> isMoved;
    std::unordered_set<std::string> taken;
    std::vector<std::string> newPaths;
    for (const PathPtr& record : moved) {
      isMoved.insert(record.get());
      newPaths.push_back(dstPath + record->path().value_or(srcPath).substr(srcPath.size()));
      taken.insert(newPaths.back());
    }
    if (!moved.empty()) {
      for (const PathPtr& record : recordsOfTree<DCManagedPath>(context, DCEntityIndexPath, dstPath)) {
        auto path = record->path();
        if (path && taken.contains(*path) && !isMoved.contains(record.get())) context.deleteObject(record);
      }
    }
    for (const PathPtr& record : moved) rememberIdentifier(record->path().value_or(srcPath), std::nullopt);
    for (std::size_t i = 0; i < moved.size(); ++i) {
      moved[i]->setPath(newPaths[i]);
      rememberIdentifier(newPaths[i], moved[i]->documentIdentifier());
    }
    renameUploads(srcPath, dstPath, context);
  });
  // Those that another process added at the last moment.
  return saved && !movesUploads ? saveWithError() : saved;
}

void DCDatabase::renameUploads(const std::string& srcPath, const std::string& dstPath, ManagedObjectContext& context) {
  std::vector<std::pair<std::string, UploadPtr>> moved;
  for (const UploadPtr& upload : recordsOfTree<DCManagedUpload>(context, DCEntityIndexUpload, srcPath)) {
    const std::string oldPath = upload->path().value_or(srcPath);
    const std::string newPath = dstPath + oldPath.substr(srcPath.size());
    const auto generation = upload->generationIdentifier();
    auto oldCopy = DCManagedUpload::temporaryUploadFileURLForItemAtPath(oldPath, generation);
    auto newCopy = DCManagedUpload::temporaryUploadFileURLForItemAtPath(newPath, generation);
    // A transfer that is running knows the copy by its old name, which therefore stays beside the new one.
    if (oldCopy && newCopy) (void)link(oldCopy->path().c_str(), newCopy->path().c_str());
    upload->setPath(newPath);
    rememberUpload(oldPath, nullptr);
    moved.emplace_back(newPath, upload);
    for (const auto& [key, record] : rekey(context, oldPath, newPath)) rememberOtherMetadata(key, record);
  }
  for (const auto& [path, upload] : moved) rememberUpload(path, upload);
  if (!moved.empty()) forgetStoredLocalMetadata();
}

Result<void> DCDatabase::removePath(const std::string& path) {
  DCLogTrace("-[DCDatabase removePath:]", {{"path", path}});
  return change(Durability::Normal, [&](ManagedObjectContext& context) {
    if (auto record = first<DCManagedPath>(DCEntityIndexPath, {{DCManagedPath::Path, path}})) {
      context.deleteObject(record);
    }
    rememberIdentifier(path, std::nullopt);
  });
}

}  // namespace florvane
