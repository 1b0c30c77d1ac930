#pragma once

#include "Client/Client/DCCachedItemManager.h"
#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCDirectoryContents.h"
#include "Client/Client/DCKnownChildren.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
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
    // Whether there may be more to do than to see that it is where the entry says.
    bool isWorthLooking = true;
  };
  enum class Kind : std::uint8_t { Unchanged, Unverified, Changed, New, Other };
  // What the database has for the directory's children, to be kept in step while changes are made.
  struct Records {
    std::unordered_map<Data, std::vector<std::string>, DataHash> pathsByIdentifier;
    std::unordered_map<std::string, Data> identifiersByPath;
  };

  std::optional<Child> childOfEntry(const Value& entry) const;
  Kind kindOfChild(const Child& child, const DCKnownChildren::Child* recorded);
  bool isKnownElsewhere(const Data& documentIdentifier);
  // At its place, as of now.
  bool isRecorded(const Child& child) const;
  bool isHeld(const std::string& name) const;
  Records& records();
  void record(const std::string& path, const Data& documentIdentifier);
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
  // As it was before the changes, and the same once something is different from it.
  DCKnownChildren::Ptr recorded_;
  std::optional<Records> records_;
  // Those whose places others have taken: parked, unless an entry of their own has moved them on.
  std::vector<std::pair<std::string, Data>> displaced_;
  // Names of children that have an upload record, and of those that somebody holds, in plain order.
  std::vector<std::string> uploads_, held_;
  // The documents that something was ever fetched of, once more than a few were looked for.
  std::size_t looks_ = 0;
  std::optional<std::unordered_set<std::string>> fetched_;
};

}  // namespace florvane
