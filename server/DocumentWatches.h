#pragma once

#include "platform/Clock.h"
#include "server/DirectoryCatalog.h"
#include "server/DocumentIdentifier.h"
#include "server/DocumentStore.h"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace florvane {

// The watches that are open. A change costs as much as the watches of that document; the disk is read on threads of
// its own. Thread-safe.
class DocumentWatches {
 public:
  // What watches ask of the store.
  class Source {
   public:
    virtual ~Source() = default;
    // One for each document, in the same order. The attention is what was answered for them, if they were attended to.
    virtual std::vector<StoreResult<Data>> currentVersions(const std::vector<DocumentVersion>& documents,
                                                           const Attention* attention) = 0;
    // Makes changes of the documents known through documentsChanged() until the answer is let go of.
    virtual Attention attend(const std::vector<DocumentIdentifier>& documents) = 0;
    // Looks at a directory again.
    virtual void refresh(const DocumentIdentifier& directory) = 0;
    // Directories that must be looked at from time to time, since nothing tells of their changes.
    virtual std::vector<DocumentIdentifier> unannounced() = 0;
  };

  DocumentWatches(Source& source, Clock& clock);
  ~DocumentWatches();
  DocumentWatches(const DocumentWatches&) = delete;
  DocumentWatches& operator=(const DocumentWatches&) = delete;

  // Ends the threads; the source is not asked any more, and watches that are still open are never answered.
  void stop();

  std::unique_ptr<DocumentWatch> add(std::vector<DocumentVersion> documents, DocumentStore::WatchHandler handler);
  // Any thread; returns at once.
  void documentsChanged(std::span<const DocumentIdentifier> documents);
  void directoryTouched(const DocumentIdentifier& directory);

 private:
  struct Watch;
  class Token;
  struct Task {
    std::optional<DocumentIdentifier> directory;  // to be refreshed, else
    std::shared_ptr<Watch> watch;                 // to be looked at
    bool force = false;                           // and answered even when nothing changed
  };

  void enqueue(Task task);
  void run();
  void check(const std::shared_ptr<Watch>& watch, bool force);
  void close(const std::shared_ptr<Watch>& watch);
  void lookAround();

  // What a timer that is firing holds on to, since the clock does not wait for it.
  struct Owner {
    std::mutex mutex;
    DocumentWatches* watches;  // null once stopped
  };
  Source& source_;
  Clock& clock_;
  std::mutex mutex_;  // guards the rest, except threads_
  std::condition_variable wake_;
  std::unordered_map<DocumentIdentifier, std::unordered_set<std::shared_ptr<Watch>>, DocumentIdentifierHash>
      byDocument_;
  std::deque<Task> tasks_;
  std::set<DocumentIdentifier> touched_;  // directories among the tasks
  std::size_t open_ = 0;
  bool ending_ = false;
  std::unique_ptr<Timer> timer_;
  const std::shared_ptr<Owner> owner_;
  std::vector<std::thread> threads_;
};

}  // namespace florvane
