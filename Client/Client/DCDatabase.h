#pragma once

#include "Client/Client/DCKnownChildren.h"
#include "Client/Client/DCManagedObjectModel.h"
#include "Client/Client/DCManagedOtherMetadata.h"
#include "Client/Client/DCManagedPath.h"
#include "Client/Client/DCManagedStoredLocalMetadata.h"
#include "Client/Client/DCManagedUpload.h"
#include "Client/Client/DCService.h"
#include "platform/Clock.h"
#include "platform/ManagedObjectContext.h"
#include "platform/URL.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace florvane {

// Posted to all processes of the container, with no object, when an Upload record was added or removed.
inline constexpr char FlorvaneDidAddOrRemoveUploadsNotification[] = "FlorvaneDidAddOrRemoveUploadsNotification";

// What a service's cache remembers beside the files: which document is at a path, metadata and bookkeeping of items by
// their data keys, and the uploads that are due. One store a service ("db" in the metadata directory), used by several
// processes at once. Paths are relative path strings. Look-ups answer with nothing when the store cannot be read.
// Changes are saved on return, each in a transaction of its own; the error of one that could not be saved is logged and
// returned, and the change stays in memory for the next save. Everything runs on the context's queue with the caller
// waiting; any thread may call, but none while it holds a lock that the work of a performBatch takes.
class DCDatabase : public std::enable_shared_from_this<DCDatabase> {
 public:
  using UploadPtr = std::shared_ptr<DCManagedUpload>;

  // One a process; null for no service.
  static std::shared_ptr<DCDatabase> databaseForService(const std::shared_ptr<DCService>& service);
  // Opens the context. The clock outlives the database.
  explicit DCDatabase(std::shared_ptr<DCService> service, Clock& clock = Clock::system());
  ~DCDatabase();
  DCDatabase(const DCDatabase&) = delete;
  DCDatabase& operator=(const DCDatabase&) = delete;

  const URL& databaseURL() const { return databaseURL_; }
  // Opened anew when it was dropped. A store that cannot be added is logged; saves fail then.
  std::shared_ptr<ManagedObjectContext> managedObjectContext();

  Result<void> save();
  // The error is SQLite's (SQLiteErrorDomain) or of the files.
  Result<void> saveWithError(bool rollbackOnFailure = false);
  // The work, whose changes are saved together in one transaction at its end and are on stable storage on return. It
  // runs on the context's queue, so it must take no lock that the caller holds.
  Result<void> performBatch(const std::function<void()>& work, bool rollbackOnFailure = false);
  // The same for what another batch follows: on stable storage with that one; until then it survives the end of the
  // process.
  Result<void> performPreparingBatch(const std::function<void()>& work);
  // The work, here and now and with whatever locks it takes. What it saves of uploads on this thread is on stable
  // storage when this returns, not with each save: until then it survives the end of the process.
  Result<void> performGroup(const std::function<void()>& work);
  // Runs the work once what this thread has saved is on stable storage: now, or at the end of its group.
  void performWhenStable(std::function<void()> work);

  Result<void> setDocumentIdentifier(const Data& documentIdentifier, const std::string& path);
  // Those of a listing: every path is a child of the directory. One transaction for all; not within performBatch.
  Result<void> setDocumentIdentifiers(const std::vector<std::pair<std::string, Data>>& documentIdentifiersByPath,
                                      const std::string& directoryPath);
  std::optional<Data> documentIdentifierForPath(const std::string& path);
  // By path, of the whole tree below the directory; one query.
  std::unordered_map<std::string, Data> documentIdentifiersForPathsBelow(const std::string& directoryPath);
  std::vector<std::string> pathsForDocumentIdentifier(const Data& documentIdentifier);
  // A record that was at the new path goes; nothing happens when there is none at the old one.
  Result<void> renamePath(const std::string& srcPath, const std::string& dstPath);
  // The same for the path and everything below it, upload records and what is kept under a path for want of an
  // identifier included, in one transaction. Upload records that were below the new path stay.
  Result<void> renamePathsBelow(const std::string& srcPath, const std::string& dstPath);
  Result<void> removePath(const std::string& path);

  std::shared_ptr<DCManagedStoredLocalMetadata> storedLocalMetadataForDocumentIdentifier(
      const Data& documentIdentifier);
  // The record is made when it is missing.
  Result<void> saveStoredLocalMetadata(const Dictionary& metadata, const Data& documentIdentifier);
  Result<void> removeStoredLocalMetadataForDocumentIdentifier(const Data& documentIdentifier);
  std::shared_ptr<DCManagedOtherMetadata> otherMetadataForDocumentIdentifier(const Data& documentIdentifier,
                                                                             bool createIfNecessary = false);
  Result<void> saveOtherMetadata(const Dictionary& metadata, const Data& documentIdentifier);
  Result<void> removeOtherMetadataForDocumentIdentifier(const Data& documentIdentifier);

  // Uploads that are not cancelled, the newest first.
  std::vector<UploadPtr> allUploads();
  // Those whose tasks have still to end.
  std::vector<UploadPtr> cancelledUploads();
  std::vector<std::string> uploadPaths();
  std::size_t numberOfPendingUploads();
  UploadPtr uploadForPath(const std::string& path);
  // Also one that is cancelled.
  UploadPtr uploadForTaskIdentifier(std::int64_t taskIdentifier, const std::string& sessionIdentifier);
  // Makes the record when there is none, and announces.
  Result<void> saveUploadFileURL(const URL& fileURL, const std::string& path);
  // With the identifier of this application's background session. Nothing happens when there is no record.
  Result<void> saveUploadFileURL(const URL& fileURL, const std::optional<Data>& generationIdentifier,
                                 std::int64_t taskIdentifier, const std::string& path);
  // With its temporary file; announces. Nothing happens when there is no record.
  Result<void> removeUploadForPath(const std::string& path);
  // Announces.
  Result<void> removeCancelledUpload(const UploadPtr& upload);
  // The paths whose records this process has removed since the last call.
  std::vector<std::string> takePathsOfRemovedUploads();

  // The same look-ups answered from memory, without a turn of the queue, where the answer is known and no other process
  // has changed the store as far as refresh() or another look-up has heard. Exact as to this process's own changes.
  std::optional<Data> knownDocumentIdentifierForPath(const std::string& path);
  std::shared_ptr<DCManagedOtherMetadata> knownOtherMetadataForDocumentIdentifier(const Data& documentIdentifier);
  std::shared_ptr<DCManagedStoredLocalMetadata> knownStoredLocalMetadataForDocumentIdentifier(
      const Data& documentIdentifier);
  // The upload of a path that is due; null for one that is cancelled.
  UploadPtr knownUploadForPath(const std::string& path);
  // By path: those of the folder's own children, or of the whole tree below it.
  std::vector<std::pair<std::string, UploadPtr>> knownUploadsBelow(const std::string& directoryPath, bool onlyChildren);
  // All children of a directory; never null. Makes the answers about them known, with two queries.
  DCKnownChildren::Ptr knownChildrenOf(const std::string& directoryPath);
  void prefetchChildrenOf(const std::string& directoryPath);
  // The same on the context's queue while the caller goes on.
  void beginPrefetchingChildrenOf(const std::string& directoryPath);
  // Whether other processes have changed the store: once at the beginning of an operation. Two looks at files while
  // nothing happens.
  void refresh();
  // Rises when another process may have changed the store.
  std::uint64_t changesOfOthers();

  // An empty store in place of this one.
  void reset();
  // A store in place of this one, at once for all processes, that holds the uploads, cancelled ones included, and what
  // is known of exchanges with the server, and nothing else. On failure (also of a newer version) nothing has changed.
  Result<void> resetKeepingExchanges();
  // Why there is no store, when there is none.
  std::optional<Error> storeError();
  // The error of a store that a newer version of this software wrote; nothing of it is known then, and nothing may be
  // changed. Absent otherwise.
  std::optional<Error> newerVersionError();
  // A file that is there from the beginning of a rebuild to its end, also when that was cut short.
  static std::string rebuildMarkOfService(const DCService& service);
  // What its store is opened with; its path, lock and version.
  static SQLiteStore::Options storeOptions(const DCService& service);
  // Drops the context and removes every file of the "db" directory whose name begins with the service's identifier;
  // the next use opens an empty store. Failures are ignored.
  void deleteDatabase();

 private:
  using Durability = ManagedObjectContext::Durability;

  std::shared_ptr<ManagedObjectContext> _setupManagedObjectContext();
  Result<void> persistentStoreCoordinator(ManagedObjectContext& context);
  // The work may run twice, when the first time shows that the store is damaged.
  Result<void> change(Durability durability, const std::function<void(ManagedObjectContext&)>& work);
  void performRolledBackWork(const std::function<void()>& work);
  struct Memory;
  void forgetAnswers();
  void rememberIdentifier(const std::string& path, const std::optional<Data>& documentIdentifier);
  void rememberOtherMetadata(const Data& documentIdentifier, const std::shared_ptr<DCManagedOtherMetadata>& metadata);
  void rememberUpload(const std::string& path, const UploadPtr& upload);
  void forgetStoredLocalMetadata();
  bool hasPrefetchedChildrenOf(const std::string& directoryPath);
  template <typename Answer>
  std::optional<Answer> known(const std::function<std::optional<Answer>(Memory& memory)>& look);
  template <typename T>
  std::shared_ptr<T> first(std::size_t entity, std::vector<std::pair<std::size_t, Value>> equals);
  template <typename T>
  Result<void> removeMetadata(std::size_t entity, const Data& documentIdentifier);
  template <typename T>
  std::shared_ptr<T> metadataMade(std::size_t entity, const Data& documentIdentifier, ManagedObjectContext& context);
  bool recordNewcomers(ManagedObjectContext& context, const std::string& directoryPath,
                       const std::vector<const std::pair<std::string, Data>*>& newcomers);
  std::unordered_set<Data, DataHash> prefetchOtherMetadataBelow(const std::string& directoryPath);
  void renameUploads(const std::string& srcPath, const std::string& dstPath, ManagedObjectContext& context);
  std::vector<UploadPtr> fetchUploads(const ManagedObjectFetch& fetch);
  void announceUploads();
  std::string directory() const;

  const std::shared_ptr<DCService> service_;
  Clock& clock_;
  const URL databaseURL_;
  std::mutex removedUploadsMutex_;  // guards removedUploads_
  std::unordered_set<std::string> removedUploads_;
  std::mutex mutex_;  // guards context_; never held while work runs in it
  std::shared_ptr<ManagedObjectContext> context_;
  const std::unique_ptr<Memory> memory_;
};

}  // namespace florvane
