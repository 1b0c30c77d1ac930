#pragma once

#include "platform/Data.h"
#include "server/DirectoryEntry.h"
#include "server/DirectoryWatcher.h"
#include "server/DocumentIdentifier.h"
#include "server/ShareFolder.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace florvane {

// A share while it is served.
struct ServedShare {
  std::unique_ptr<ShareFolder> folder;
  std::int64_t number = 0;
  DocumentIdentifier identifier;
  FileIdentity hidden;  // the server's state folder, never listed should it stand in the share

  const ShareConfiguration& configuration() const { return folder->configuration(); }
};

// What is kept in memory of a directory: its entries as they were when it was last looked at, and what has been heard
// of changes since.
class KnownDirectory : public DirectoryChangeSink, public std::enable_shared_from_this<KnownDirectory> {
 public:
  using Touched = std::function<void(const DocumentIdentifier&)>;

  KnownDirectory(const DocumentIdentifier& identifier, const ServedShare& share, Touched touched)
      : identifier_(identifier), share_(share), touched_(std::move(touched)) {}

  const DocumentIdentifier& identifier() const { return identifier_; }
  const ServedShare& share() const { return share_; }

  // Guarded by mutex, which may be held while the disk is read.
  struct Contents {
    bool loaded = false;
    DirectoryEntry self;
    std::vector<DirectoryEntry> entries;  // sorted by name
    std::size_t unsteady = 0;             // entries that change without a word about it: folders, and linked files
    VersionDigest sum;                    // of the entries' versions
    VersionDigest version;                // of the listing
    Data body;                            // of the listing; empty until it is asked for
    std::unique_ptr<DirectoryWatcher::Watch> watch;
    std::unordered_map<DocumentIdentifier, std::unique_ptr<DirectoryWatcher::Watch>, DocumentIdentifierHash>
        childWatches;
    std::vector<DocumentIdentifier> changed;  // what the looks since the lock was taken have found
  };
  std::mutex mutex;
  Contents contents;

  // Changes heard of and not looked at yet.
  struct Pending {
    bool everything = true;
    std::set<std::string, std::less<>> names;
  };
  Pending takePending();
  void entryChanged(std::string_view name) override;
  void directoryChanged() override;
  void changesMissed() override;

  // While someone attends to the directory, each change is reported to `touched` as it is heard of, and the directory
  // stays in memory.
  std::shared_ptr<void> attend();
  bool isAttended() const { return attention_->load() > 0; }
  // Set by who refreshes: whether changes are heard of at all, and what the directory weighs in memory.
  std::atomic<bool> announced = true;
  std::atomic<std::size_t> weight = 0;

 private:
  void note(bool everything, std::string_view name);

  const DocumentIdentifier identifier_;
  const ServedShare& share_;
  const Touched touched_;
  const std::shared_ptr<std::atomic<int>> attention_ = std::make_shared<std::atomic<int>>(0);
  std::mutex pendingMutex_;  // guards pending_; nothing else is locked under it
  Pending pending_;
};

}  // namespace florvane
