#pragma once

#include "tools/Output.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace florvane::tools {

// "NAME" or "NAME:PATH" as people type it. The path has no leading or trailing "/"; the root is "".
struct ItemReference {
  std::string account;
  std::string path;
  static ItemReference parse(const std::string& text);
  std::string text() const { return path.empty() ? account : account + ":" + path; }
};

// One account's tree as the server has it now, for callers that wait. An answer of 401 is asked for once more, with a
// new sign-in. The time limit of the options counts from open() on, for answers to arrive; what arrived in time is
// received to its end.
class RemoteTree {
 public:
  // Fails with a sentence when there is no such account.
  static CommandResult<RemoteTree> open(const std::string& accountName, const CommonOptions& options);

  struct Item {
    std::string name;
    Dictionary metadata;
    DCActivityInfo::Ptr activityInfo;  // with the item's share point
    bool isRoot = false;

    bool isDirectory() const;
    std::optional<Data> documentIdentifier() const { return metadata.data(FVDocumentIdentifierKey); }
    std::optional<Data> versionIdentifier() const { return metadata.data(FVVersionIdentifierKey); }
  };
  struct Listing {
    Item directory;
    std::vector<Item> children;
  };

  CommandResult<Item> item(const std::string& path);
  CommandResult<Listing> list(const std::string& path);
  // Hands the file's contents to `receive` while they lie in a file that goes away afterwards.
  CommandResult<void> read(const Item& file, const std::string& what,
                           const std::function<Result<void>(const std::string& path)>& receive);

  const std::shared_ptr<DCService>& service() const { return service_; }
  const DCRemoteDocumentManager::Ptr& manager() const { return manager_; }
  // "host:port", for sentences.
  std::string server() const;

 private:
  using Start = std::function<void(DCRemoteCompletionHandler)>;
  using Receive = std::function<Result<void>(const FVFResponseContainer& container)>;

  RemoteTree(std::shared_ptr<DCService> service, Duration timeout);
  CommandResult<void> perform(const std::string& what, const Start& start, const Receive& receive) const;
  CommandResult<Listing> listDirectory(const Item& directory, const std::string& what) const;
  Item rootItem() const;

  std::shared_ptr<DCService> service_;
  DCRemoteDocumentManager::Ptr manager_;
  DCActivityInfo::Ptr rootActivityInfo_;
  MonotonicTime deadline_;
};

}  // namespace florvane::tools
