#pragma once

#include "platform/ManagedObject.h"
#include "platform/SQLiteStore.h"
#include "platform/SerialQueue.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace florvane {

// Which objects of an entity to fetch; all conditions hold at once.
struct ManagedObjectFetch {
  std::size_t entity = 0;
  std::vector<std::pair<std::size_t, Value>> equals;
  // The attribute is a path that begins with the prefix ("" or one that ends in "/") and goes on behind it; with
  // onlyChildren by one component.
  struct Below {
    std::size_t attribute = 0;
    std::string prefix;
    bool onlyChildren = false;
  };
  std::optional<Below> below;
  // The attribute is that of some record of another entity which lies below a folder as above. Unsaved objects are all
  // found, whatever they hold.
  struct Joined {
    std::size_t attribute = 0;
    std::size_t entity = 0;
    std::size_t entityAttribute = 0;
    Below below;
  };
  std::optional<Joined> joined;
  std::optional<std::size_t> newestFirstBy;
  std::size_t limit = 0;  // 0: all
};

// Objects in memory over a store that other processes use as well. One object a record while anybody holds it. Unsaved
// changes are visible to fetches; a save writes the changed attributes of each object and no others, so values in
// memory win attribute by attribute, and what another process deleted stays deleted. Everything runs on the context's
// own queue with the caller waiting, or in place when the caller is on it: the work given to it must take no lock that
// a caller may hold. Without a store everything works but saving. Thread-safe.
class ManagedObjectContext : public std::enable_shared_from_this<ManagedObjectContext> {
 public:
  using ObjectPtr = std::shared_ptr<ManagedObject>;
  using Durability = SQLiteStore::Durability;

  // The model lives as long as the process.
  static std::shared_ptr<ManagedObjectContext> create(const ManagedObjectModel& model, const std::string& label);
  // The statements that make the model's tables and indexes, for the first migration.
  static std::string schemaOfModel(const ManagedObjectModel& model);
  ~ManagedObjectContext();

  Result<void> addPersistentStore(SQLiteStore::Options options);
  // Closes the store and drops what is not saved; every object counts as deleted from then on.
  void removePersistentStore();
  // Puts a new store in the place of this one, with the records of those entities and no others. Their objects, and
  // what is unsaved, stay. On failure nothing has changed.
  Result<void> renewPersistentStore(const std::vector<std::size_t>& keptEntities);
  // Why there is no store; absent while there is one.
  std::optional<Error> storeError();

  // Runs the work on the queue, and nobody waits for it.
  void perform(WorkItem work) { queue_->async(std::move(work)); }
  // Runs the work on the queue and returns when it has ended, passing on what it returns or throws.
  template <typename Work>
  std::invoke_result_t<Work> performAndWait(Work&& work) {
    using Answer = std::invoke_result_t<Work>;
    if (queue_->isCurrent()) return work();
    if constexpr (std::is_void_v<Answer>) {
      queue_->sync([&] { work(); });
    } else {
      std::optional<Answer> answer;
      queue_->sync([&] { answer.emplace(work()); });
      return std::move(*answer);
    }
  }
  // The work and one save of everything that is unsaved after it, as one transaction in which no other process writes;
  // saves inside succeed and wait for that one. The error is that of the save; the work runs in any case. What it
  // throws is passed on, after a rollback.
  Result<void> performTransaction(Durability durability, const std::function<void()>& work,
                                  bool rollbackOnFailure = false);
  // The same for what another durable save follows: on stable storage with that one.
  Result<void> performPreparingTransaction(const std::function<void()>& work);
  // Inside performTransaction it is the transaction's end that saves.
  Result<void> save(bool rollbackOnFailure = false);
  // Runs the work, in which any locks may be taken. What it saves of durable objects on this thread, in however many
  // transactions, is on stable storage when this returns, with one wait for the disk; until then it survives the end of
  // the process. A group inside a group is part of that.
  Result<void> performGroup(const std::function<void()>& work);
  // Runs the work once everything that this thread has saved is on stable storage: now, or at the end of its group; not
  // at all when the group cannot be put there.
  void performWhenStable(std::function<void()> work);
  // Back to what was saved last.
  void rollback();
  bool hasChanges() const;
  // Looks whether other processes have changed the store; a fetch does so, too. False when this may not have been all
  // that was written to its files before the look began: somebody is writing, or it could not be read.
  bool noteChangesOfOthers();
  // Rises when another process may have changed the store since the last look, and when the store is opened anew.
  std::uint64_t storeVersion() const { return version_.load(); }

  ObjectPtr insert(std::size_t entity);
  void deleteObject(const ObjectPtr& object);
  // A fetch that fails finds nothing in the store.
  std::vector<ObjectPtr> fetch(const ManagedObjectFetch& fetch);
  ObjectPtr fetchFirst(ManagedObjectFetch fetch);
  std::size_t count(const ManagedObjectFetch& fetch);
  // The same as fetch, order and limit aside, without an object a record: the visitor gets the bytes of those
  // attributes, which are strings or data; empty for no value.
  void visit(const ManagedObjectFetch& fetch, std::span<const std::size_t> attributes,
             const std::function<void(std::span<const std::string_view>)>& visitor);
  // Within performTransaction: new records, without an object each, whose attributes are strings or data of those
  // bytes. False when they cannot be inserted, and then the transaction fails; what is lost with it is not kept in
  // memory.
  bool insertRecords(std::size_t entity, std::span<const std::size_t> attributes, std::size_t count,
                     const std::function<std::string_view(std::size_t record, std::size_t attribute)>& bytes);

 private:
  friend class ManagedObject;
  using State = ManagedObject::State;
  struct Change;
  struct Row;
  struct Group;

  ManagedObjectContext(const ManagedObjectModel& model, const std::string& label);

  void refreshIfStale(const ManagedObject& object);
  void refresh(ManagedObject& object);
  void setValueLocked(ManagedObject& object, std::size_t attribute, Value value);
  // On the queue.
  bool usableStore();
  void reopen();
  bool noteOtherProcesses();
  Result<void> replaceDamagedStore(const Error& error);
  void keepUnsavedOfLostRecords();
  std::optional<Row> rowOf(std::size_t entity, std::int64_t number);
  std::vector<Row> rows(const ManagedObjectFetch& fetch, const std::string& columns, bool limited);
  // False after a failure. Begins anew, and says so, when another store takes a damaged one's place.
  bool query(const ManagedObjectFetch& fetch, const std::string& columns, bool limited,
             const std::function<void()>& begin, const std::function<void(SQLite::Statement&)>& visitor);
  Result<void> transact(Durability durability, bool isGrouped, const std::function<void()>& work,
                        bool rollbackOnFailure);
  Result<void> saveAtEnd(Durability durability, bool isGrouped);
  Result<void> makeStable();
  bool isInGroup() const;
  std::vector<Change> takeChanges(Durability durability);
  void write(Change& change);
  void didSave(const std::vector<Change>& changes);
  void didNotSave(const std::vector<Change>& changes);
  // Whether something of the object must be on stable storage once it is saved.
  bool mustLastLocked(const ManagedObject& object) const;
  bool hasDurableChanges() const;
  // Under the lock.
  ObjectPtr objectOfRowLocked(std::size_t entity, Row& row);
  void mergeLocked(ManagedObject& object, Row& row);
  bool matchesLocked(const ManagedObject& object, const ManagedObjectFetch& fetch) const;
  std::vector<ObjectPtr> unsavedLocked(const ManagedObjectFetch& fetch) const;
  void rememberLocked(ManagedObject& object);
  void forgetLocked(ManagedObject& object);
  void indexLocked(ManagedObject& object, std::size_t attribute);
  void unindexLocked(ManagedObject& object, std::size_t attribute);
  void registerLocked(const ObjectPtr& object);
  std::string indexKey(std::size_t entity, std::size_t attribute, const Value& value) const;

  const ManagedObjectModel& model_;
  const std::shared_ptr<SerialQueue> queue_;
  // Rises whenever another process may have changed the store; objects read before are stale.
  std::atomic<std::uint64_t> version_{1};
  std::atomic<bool> hasStore_{false};

  // On the queue only.
  std::optional<SQLiteStore::Options> options_;
  std::unique_ptr<SQLiteStore> store_;
  std::optional<Error> storeError_;
  std::optional<std::int64_t> dataVersion_;
  int transactionDepth_ = 0;
  // Something was saved that is still to be put on stable storage.
  bool isUnstable_ = false;
  // What went wrong in the transaction in progress; its end fails with it.
  std::optional<Error> transactionError_;
  bool hasInsertedRecords_ = false;   // in the transaction in progress
  std::vector<std::string> columns_;  // an entity's row number and attributes, for SELECT

  mutable std::mutex mutex_;  // guards the fields of all objects and what follows
  std::uint64_t nextSerial_ = 1;
  std::vector<std::unordered_map<std::int64_t, std::weak_ptr<ManagedObject>>> live_;
  std::vector<std::size_t> sweepAt_;
  // The unsaved objects of each entity in the order of their making, and where each indexed value of them stands.
  std::vector<std::map<std::uint64_t, ObjectPtr>> unsaved_;
  std::unordered_multimap<std::string, ManagedObject*> unsavedByValue_;
};

}  // namespace florvane
