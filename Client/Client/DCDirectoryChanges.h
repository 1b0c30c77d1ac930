#pragma once

#include "Client/Client/DCCachedItemManager.h"
#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCDirectoryContents.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace florvane {

// Makes the cache's items of one directory those of a listing: records new children, moves renamed ones, replaces those
// of another document, removes vanished ones. Children whose entry is the same as before and that are known cost a
// comparison; new ones one transaction together. Documents are told apart by identifier only, so that swaps and chains
// of renames come out right. Made for one use, on the service's queue.
class DCDirectoryChanges {
 public:
  struct Hooks {
    // Whether anybody would hear of a change of that path.
    std::function<bool(const std::string& path)> isInteresting;
    // The child's attributes changed; called after the change was made.
    std::function<void(const DCCachedItem::Ptr& child, const Dictionary& entry)> didUpdateAttributes;
  };

  // `previous` is the listing that this process has taken in before; null for none, when the records of the database
  // stand for it and entries count as unchanged. A listing that came from the server just now (`isFresh`) also brings
  // in documents from other directories, which an older one may still claim.
  DCDirectoryChanges(DCCachedItemManager::Ptr manager, std::shared_ptr<DCDatabase> database,
                     DCCachedDirectory::Ptr directory, DCDirectoryContents::Ptr current,
                     DCDirectoryContents::Ptr previous, bool isFresh, Hooks hooks);

  // With the entry of that child, when it is listed.
  void processFetchingForChild(const DCCachedFile::Ptr& child, std::optional<Dictionary>* remoteMetadata);

 private:
  struct Child {
    const Value* entry = nullptr;
    std::string_view name;
    Data documentIdentifier;
    bool isDirectory = false;
  };
  enum class Kind : std::uint8_t { Unchanged, Unverified, Changed, New, Other };

  std::optional<Child> childOfEntry(const Value& entry) const;
  Kind kindOfChild(const Child& child) const;
  bool isKnownElsewhere(const Data& documentIdentifier) const;
  const Value* previousEntry(const Data& documentIdentifier) const;
  std::string pathOf(std::string_view name) const;
  DCRelativePath::Ptr relativePathOf(const std::string& path) const;
  DCCachedItem::Ptr itemAt(const std::string& path, bool isDirectory) const;

  void settle(const Child& child);
  DCCachedItem::Ptr findByIdentity(const Child& child);
  DCCachedItem::Ptr replace(const DCCachedItem::Ptr& old, const Child& child, bool documentIdentifierAlreadyKnown);
  void compare(const DCCachedItem::Ptr& item, const Child& child, bool mayNotify);
  void markStaleIfServerWentBack(const DCCachedItem::Ptr& item, const Dictionary& entry);
  void removeVanished();
  void remove(const DCCachedItem::Ptr& item, const Data& documentIdentifier);

  const DCCachedItemManager::Ptr manager_;
  const std::shared_ptr<DCDatabase> database_;
  const DCCachedDirectory::Ptr directory_;
  const DCDirectoryContents::Ptr current_;
  const DCDirectoryContents::Ptr previous_;
  const bool isFresh_;
  const Hooks hooks_;
  const std::string directoryPath_;
  const std::string prefix_;
  const std::string metadataRoot_;
  // What the database has for the directory's children; kept in step while the changes are made.
  std::unordered_map<Data, std::vector<std::string>, DataHash> pathsByIdentifier_;
  std::unordered_map<std::string, Data> identifiersByPath_;
};

}  // namespace florvane
