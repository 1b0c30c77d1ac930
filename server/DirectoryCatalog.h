#pragma once

#include "server/KnownDirectory.h"
#include "server/StoreIndex.h"

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace florvane {

// A document found on the disk.
struct LocatedDocument {
  const ServedShare* share = nullptr;
  DocumentRecord record;      // of a share's own folder: named as the share
  FileDescriptor descriptor;  // O_PATH
  FileStamp stamp;

  DirectoryEntry entry() const { return DirectoryEntry::from(record, stamp, share->configuration()); }
};

// Holds on to the changes of documents while it lives.
struct Attention {
  std::vector<std::shared_ptr<void>> hold;
  bool announced = true;  // else somebody has to look from time to time
  // Of each document that is a file, in their order: the directory where it was then.
  std::vector<std::optional<DocumentIdentifier>> directories;
};

// Finds documents by their identifiers and keeps the directories that are in use, always looking at the disk before it
// answers. Thread-safe: one lock a directory, so that none waits for another's disk. Locks are taken from a directory
// to the index, never between directories.
class DirectoryCatalog {
 public:
  using Changed = std::function<void(const std::vector<DocumentIdentifier>&)>;
  // `touched` hears of attended directories that should be refreshed, on any thread, and must return at once; `changed`
  // of documents whose version is another or that are gone, with no lock held.
  DirectoryCatalog(StoreIndex& index, std::vector<ServedShare> shares, KnownDirectory::Touched touched,
                   Changed changed);

  const std::vector<ServedShare>& shares() const { return shares_; }
  DirectoryWatcher& watcher() { return watcher_; }

  StoreResult<LocatedDocument> locate(const DocumentIdentifier& document);

  // Runs body(KnownDirectory&, const LocatedDocument&) with the directory's contents fresh and its lock held.
  template <typename Body>
  auto in(const DocumentIdentifier& directory, Body&& body)
      -> std::invoke_result_t<Body, KnownDirectory&, const LocatedDocument&> {
    auto located = locate(directory);
    if (!located) return tl::unexpected(located.error());
    return in(*located, std::forward<Body>(body));
  }
  template <typename Body>
  auto in(const LocatedDocument& located, Body&& body)
      -> std::invoke_result_t<Body, KnownDirectory&, const LocatedDocument&> {
    auto known = this->known(located);
    if (!known) return tl::unexpected(known.error());
    Changes changes(*this);
    const std::lock_guard lock((*known)->mutex);
    using Answer = std::invoke_result_t<Body, KnownDirectory&, const LocatedDocument&>;
    auto fresh = refresh(**known, located);
    Answer answer = fresh ? body(**known, located) : Answer(tl::unexpected(fresh.error()));
    changes.documents = std::exchange((*known)->contents.changed, {});
    return answer;
  }
  // Looks at the directory again while its lock is held, as after a change of one's own. Dates are what a client said
  // of the file with that identity.
  struct ClientDates {
    FileIdentity identity;
    std::optional<std::int64_t> created;
    std::optional<std::int64_t> added;
  };
  StoreResult<void> refresh(KnownDirectory& directory, const LocatedDocument& located,
                            const ClientDates* dates = nullptr);

  // Keeps the documents' changes coming to `changed` until the answer is let go of: a directory's own and its entries',
  // or those of the directory that a file is in. What is not there is passed over.
  Attention attend(const std::vector<DocumentIdentifier>& documents);
  // The current versions of files that are many in their directories, looking at each of these once. The directories
  // are as of attend(); a file that is not there any more is left out like one that has too few beside it.
  using Versions = std::unordered_map<DocumentIdentifier, VersionDigest, DocumentIdentifierHash>;
  Versions versionsOfNeighbours(const std::vector<DocumentIdentifier>& documents,
                                const std::vector<std::optional<DocumentIdentifier>>& directories);
  void refresh(const DocumentIdentifier& directory);
  // Attended directories whose changes nobody announces.
  std::vector<DocumentIdentifier> unannounced();

 private:
  // Tells what has changed once everything is unlocked.
  struct Changes {
    explicit Changes(DirectoryCatalog& owner) : catalog(owner) {}
    ~Changes() {
      if (!documents.empty()) catalog.changed_(documents);
    }
    Changes(const Changes&) = delete;
    Changes& operator=(const Changes&) = delete;
    DirectoryCatalog& catalog;
    std::vector<DocumentIdentifier> documents;
  };
  struct Found {
    std::string name;
    FileStamp stamp;
  };
  struct Place {
    const ServedShare* share = nullptr;
    DocumentRecord record;
    std::string path;
  };
  struct Merge;

  void attendDirectory(const DocumentIdentifier& directory, Attention& attention);
  StoreResult<Place> place(const DocumentIdentifier& document) const;
  StoreResult<std::shared_ptr<KnownDirectory>> known(const LocatedDocument& located);
  void evictBeyondBudget(std::vector<std::shared_ptr<KnownDirectory>>& evicted);
  StoreResult<void> load(KnownDirectory& directory);
  // What is at the names now, or at all names.
  StoreResult<std::vector<Found>> look(const KnownDirectory& directory, int descriptor,
                                       const std::optional<std::vector<std::string>>& names) const;
  static bool isAsKnown(const std::vector<DirectoryEntry>& entries, const std::vector<Found>& found,
                        const std::vector<std::string>& names);
  StoreResult<void> merge(KnownDirectory& directory, std::vector<Found> found,
                          const std::optional<std::vector<std::string>>& names, const ClientDates* dates);
  StoreResult<void> identify(const KnownDirectory& directory, Merge& merge) const;
  StoreResult<bool> takeRecord(const KnownDirectory& directory, Merge& merge, DirectoryEntry& newcomer) const;
  bool standsElsewhere(const DocumentRecord& record, const FileStamp& stamp) const;
  void watchChildren(KnownDirectory& directory, int descriptor);

  StoreIndex& index_;
  const std::vector<ServedShare> shares_;
  const KnownDirectory::Touched touched_;
  const Changed changed_;
  DirectoryWatcher watcher_;
  std::atomic<std::size_t> held_ = 0;  // what the known directories weigh

  struct Kept {
    std::shared_ptr<KnownDirectory> directory;
    std::list<DocumentIdentifier>::iterator use;
  };
  std::mutex mutex_;  // guards the rest; held for moments
  std::unordered_map<DocumentIdentifier, Kept, DocumentIdentifierHash> known_;
  std::list<DocumentIdentifier> uses_;  // the latest first
};

}  // namespace florvane
