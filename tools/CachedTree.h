#pragma once

#include "tools/Output.h"

#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace florvane::tools {

// On whose behalf this program works with the cache.
inline constexpr char kPurposeIdentifier[] = "quorl.Florvane.tool";

// "NAME" or "NAME:PATH" as people type it. The path has no leading or trailing "/"; the root is "".
struct ItemReference {
  std::string account;
  std::string path;
  static ItemReference parse(const std::string& text);
  std::string text() const { return path.empty() ? account : account + ":" + path; }
};

std::vector<std::string> splitPath(const std::string& path);
// The path of the folder above; "" for what has none.
std::string parentOf(const std::string& path);

enum class Freshness {
  Preferred,  // the server's answer, else what the cache knows
  Required,
};

// One account's tree, for callers that wait: asks the server for what is wanted, the folders above it first, and takes
// the answer from the cache. When the server cannot be reached and freshness is only preferred, the answer is what the
// cache knew before. An answer of 401 is asked for once more, with a new sign-in. The time limit of the options counts
// from open() on. For one thread.
class CachedTree {
 public:
  // Fails with a sentence when there is no such account.
  static CommandResult<CachedTree> open(const std::string& accountName, const CommonOptions& options,
                                        Freshness freshness);

  struct Item {
    std::string name;
    Dictionary attributes;
    bool isRoot = false;

    bool isDirectory() const;
    std::optional<Data> documentIdentifier() const { return attributes.data(FVDocumentIdentifierKey); }
    std::optional<Data> versionIdentifier() const { return attributes.data(FVVersionIdentifierKey); }
  };
  // A directory's children; a file lists itself.
  struct Listing {
    Item item;
    std::vector<Item> children;
    DCDocumentManagerFreshnessState state = DCDocumentManagerFreshnessStateUnknown;
  };
  struct File {
    Item item;
    std::string localPath;  // the cache's own copy, not to be changed
  };

  CommandResult<Listing> item(const std::string& path);
  CommandResult<Listing> list(const std::string& path);
  CommandResult<File> file(const ItemReference& reference);
  // A folder to write into, its own listing known. The server is asked only for what the cache does not know, so that
  // what is replaced is what was last seen there.
  CommandResult<Item> folder(const std::string& path);
  // What stands in such a folder; absent where nothing does.
  std::optional<Item> known(const std::string& path);
  // Called from file() while its bytes come, several times a second. The total is 0 while it is not known.
  using Progress = std::function<void(std::int64_t received, std::int64_t total)>;
  void setProgress(Progress progress) { progress_ = std::move(progress); }
  // Called from file(), too, with the file that its bytes go to and the size that it should have in the end.
  using PartialFile = std::function<void(const std::string& path, std::int64_t size)>;
  void setPartialFile(PartialFile partialFile) { partialFile_ = std::move(partialFile); }
  // Asks the server for the root alone.
  CommandResult<void> reach();

  // Why the server could not be reached, when it could not.
  const std::optional<CommandFailure>& offline() const { return offline_; }
  // A note that the answer is not the server's own, when it is not.
  void tellWhetherCached(const Output& output) const;
  const std::shared_ptr<DCService>& service() const { return service_; }
  const DCDocumentManager::Ptr& manager() const { return manager_; }
  // "host:port", for sentences.
  std::string server() const;

 private:
  using OptionalError = std::optional<Error>;
  CachedTree(std::shared_ptr<DCService> service, Duration timeout, Freshness freshness);
  CommandResult<void> refresh(const std::string& path);
  CommandResult<void> refreshFoldersAbove(const std::string& path);
  CommandResult<Listing> describe(const std::string& path);
  CommandResult<Listing> contents(const Listing& directory, const std::string& path);
  CommandFailure noSuchItem(const std::string& path) const;
  CommandFailure failure(const Error& error, const std::string& path) const;
  template <typename T>
  std::optional<T> wait(std::future<T>& answer) const;
  void tellProgress() const;

  std::shared_ptr<DCService> service_;
  DCDocumentManager::Ptr manager_;
  Freshness freshness_;
  MonotonicTime deadline_;
  std::optional<CommandFailure> offline_;
  Progress progress_;
  PartialFile partialFile_;
  std::optional<std::pair<std::string, std::int64_t>> fetching_;  // path and size of the file whose bytes come
  std::map<std::string, Item> folders_;
};

}  // namespace florvane::tools
