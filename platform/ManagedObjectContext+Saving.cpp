#include "platform/ManagedObjectContext+Rows.h"
#include "platform/ManagedObjectContext.h"

#include <cerrno>
#include <functional>
#include <utility>
#include <vector>

#include <sqlite3.h>

namespace florvane {

// The group that a thread is in.
struct ManagedObjectContext::Group {
  explicit Group(const ManagedObjectContext& owner) : context(&owner), outer(std::exchange(current, this)) {}
  ~Group() { current = outer; }
  Group(const Group&) = delete;
  Group& operator=(const Group&) = delete;

  const ManagedObjectContext* const context;
  Group* const outer;
  std::vector<std::function<void()>> whenStable;
  static thread_local Group* current;
};

thread_local ManagedObjectContext::Group* ManagedObjectContext::Group::current = nullptr;

// What one save writes of one object.
struct ManagedObjectContext::Change {
  ObjectPtr object;
  State state = State::Stored;
  std::uint32_t attributes = 0;
  std::vector<Value> values;
  std::int64_t row = 0;
  bool vanished = false;
};

void bindValue(SQLite::Statement& statement, int place, const Value& value) {
  switch (value.kind()) {
    case Value::Kind::Boolean:
      statement.bind(place, value.asBoolean().value_or(false) ? 1 : 0);
      break;
    case Value::Kind::Integer:
      statement.bind(place, value.asInteger().value_or(0));
      break;
    case Value::Kind::Date:
      statement.bind(place, value.asDate().value_or(Date()).microsecondsSince1970());
      break;
    case Value::Kind::String:
      statement.bind(place, std::string(value.asString().value_or("")));
      break;
    case Value::Kind::Data: {
      // An empty byte string is a value; a null pointer would say NULL.
      auto bytes = value.dataBytes();
      statement.bind(place, bytes.empty() ? "" : bytes.data(), static_cast<int>(bytes.size()));
      break;
    }
    default:
      statement.bind(place);
  }
}

Value columnValue(SQLite::Statement& row, int column, Value::Kind kind) {
  const SQLite::Column found = row.getColumn(column);
  if (found.isNull()) return {};
  switch (kind) {
    case Value::Kind::Boolean:
      return found.getInt64() != 0;
    case Value::Kind::Integer:
      return found.getInt64();
    case Value::Kind::Date:
      return Date::fromMicroseconds(found.getInt64());
    case Value::Kind::String:
      return found.getString();
    case Value::Kind::Data:
      return Data(found.getBlob(), static_cast<std::size_t>(found.getBytes()));
    default:
      return {};
  }
}

ManagedObjectContext::ObjectPtr ManagedObjectContext::insert(std::size_t entity) {
  return performAndWait([&] {
    ObjectPtr object = model_.entities[entity].make();
    std::lock_guard lock(mutex_);
    object->context_ = shared_from_this();
    object->entity_ = entity;
    object->serial_ = nextSerial_++;
    object->state_ = State::Inserted;
    object->values_.resize(model_.entities[entity].attributes.size());
    object->readAt_ = UINT64_MAX;
    rememberLocked(*object);
    return object;
  });
}

bool ManagedObjectContext::insertRecords(
    std::size_t entity, std::span<const std::size_t> attributes, std::size_t count,
    const std::function<std::string_view(std::size_t record, std::size_t attribute)>& bytes) {
  return performAndWait([&] {
    if (transactionDepth_ == 0 || transactionError_ || !store_) return false;
    const ManagedEntity& made = model_.entities[entity];
    std::string names, places;
    for (std::size_t attribute : attributes) {
      names += (names.empty() ? "\"" : ", \"") + made.attributes[attribute].name + "\"";
      places += places.empty() ? "?" : ", ?";
    }
    auto inserted = store_->perform([&] {
      // One record a statement: one of several is made so that it could be undone by itself, at a price far above its
      // own.
      SQLite::Statement& insert =
          store_->statement("INSERT INTO \"" + made.name + "\"(" + names + ") VALUES (" + places + ")");
      std::string text;
      for (std::size_t record = 0; record < count; ++record) {
        int place = 0;
        for (std::size_t attribute : attributes) {
          const std::string_view value = bytes(record, attribute);
          if (made.attributes[attribute].kind == Value::Kind::String) {
            text.assign(value);
            insert.bind(++place, text);
          } else {
            insert.bindNoCopy(++place, value.empty() ? "" : value.data(), static_cast<int>(value.size()));
          }
        }
        insert.exec();
        insert.reset();
      }
      insert.clearBindings();
    });
    if (!inserted) {
      transactionError_ = inserted.error();
      return false;
    }
    hasInsertedRecords_ = true;
    return true;
  });
}

void ManagedObjectContext::deleteObject(const ObjectPtr& object) {
  performAndWait([&] {
    std::lock_guard lock(mutex_);
    if (object->state_ == State::Inserted) {
      forgetLocked(*object);
      object->state_ = State::Gone;
    } else if (object->state_ == State::Stored) {
      object->state_ = State::Deleting;
      rememberLocked(*object);
    }
  });
}

void ManagedObjectContext::setValueLocked(ManagedObject& object, std::size_t attribute, Value value) {
  if (object.state_ == State::Deleting || object.state_ == State::Gone) return;
  if (object.values_[attribute] == value) return;
  rememberLocked(object);
  unindexLocked(object, attribute);
  object.values_[attribute] = std::move(value);
  object.changed_ |= 1U << attribute;
  indexLocked(object, attribute);
}

std::string ManagedObjectContext::indexKey(std::size_t entity, std::size_t attribute, const Value& value) const {
  std::string key{static_cast<char>(entity), static_cast<char>(attribute)};
  if (auto number = value.asInteger()) return key + std::to_string(*number);
  if (auto text = value.asString()) return key.append(*text);
  return key.append(value.dataBytes());
}

void ManagedObjectContext::indexLocked(ManagedObject& object, std::size_t attribute) {
  const Value& value = object.values_[attribute];
  if (!model_.entities[object.entity_].attributes[attribute].indexed || value.isNull()) return;
  unsavedByValue_.emplace(indexKey(object.entity_, attribute, value), &object);
}

void ManagedObjectContext::unindexLocked(ManagedObject& object, std::size_t attribute) {
  const Value& value = object.values_[attribute];
  if (!model_.entities[object.entity_].attributes[attribute].indexed || value.isNull()) return;
  auto [first, last] = unsavedByValue_.equal_range(indexKey(object.entity_, attribute, value));
  for (; first != last; ++first) {
    if (first->second != &object) continue;
    unsavedByValue_.erase(first);
    return;
  }
}

// Among the unsaved objects, which are kept alive until they are saved.
void ManagedObjectContext::rememberLocked(ManagedObject& object) {
  if (!unsaved_[object.entity_].emplace(object.serial_, object.shared_from_this()).second) return;
  for (std::size_t i = 0; i < object.values_.size(); ++i) indexLocked(object, i);
}

void ManagedObjectContext::forgetLocked(ManagedObject& object) {
  object.changed_ = 0;
  object.saving_ = 0;
  auto place = unsaved_[object.entity_].find(object.serial_);
  if (place == unsaved_[object.entity_].end()) return;
  for (std::size_t i = 0; i < object.values_.size(); ++i) unindexLocked(object, i);
  ObjectPtr kept = std::move(place->second);
  unsaved_[object.entity_].erase(place);
}

bool ManagedObjectContext::hasChanges() const {
  std::lock_guard lock(mutex_);
  for (const auto& objects : unsaved_) {
    if (!objects.empty()) return true;
  }
  return false;
}

bool ManagedObjectContext::mustLastLocked(const ManagedObject& object) const {
  const ManagedEntity& entity = model_.entities[object.entity_];
  if (!entity.durable || object.state_ != State::Stored) return entity.durable;
  for (std::size_t i = 0; i < entity.attributes.size(); ++i) {
    if ((object.changed_ >> i & 1U) && !entity.attributes[i].fleeting) return true;
  }
  return false;
}

bool ManagedObjectContext::hasDurableChanges() const {
  std::lock_guard lock(mutex_);
  for (std::size_t i = 0; i < unsaved_.size(); ++i) {
    if (!model_.entities[i].durable) continue;
    for (const auto& [serial, object] : unsaved_[i]) {
      if (mustLastLocked(*object)) return true;
    }
  }
  return false;
}

void ManagedObjectContext::rollback() {
  performAndWait([&] {
    std::lock_guard lock(mutex_);
    for (auto& objects : unsaved_) {
      while (!objects.empty()) {
        ObjectPtr object = objects.begin()->second;
        forgetLocked(*object);
        object->state_ = object->state_ == State::Inserted ? State::Gone : State::Stored;
        object->readAt_ = 0;  // the next look at it reads the record
      }
    }
  });
}

bool ManagedObjectContext::isInGroup() const { return Group::current && Group::current->context == this; }

Result<void> ManagedObjectContext::performGroup(const std::function<void()>& work) {
  std::vector<std::function<void()>> then;
  if (isInGroup()) {
    work();
    return {};
  }
  {
    Group group(*this);
    work();
    then = std::move(group.whenStable);
  }
  auto stable = performAndWait([&] { return makeStable(); });
  if (!stable) return stable;
  for (const auto& each : then) each();
  return {};
}

void ManagedObjectContext::performWhenStable(std::function<void()> work) {
  if (isInGroup()) {
    Group::current->whenStable.push_back(std::move(work));
  } else {
    work();
  }
}

Result<void> ManagedObjectContext::makeStable() {
  if (!isUnstable_ || !store_) return {};
  auto synced = store_->sync();
  isUnstable_ = !synced;
  return synced;
}

Result<void> ManagedObjectContext::save(bool rollbackOnFailure) {
  const bool isGrouped = isInGroup();
  return performAndWait([&]() -> Result<void> {
    if (transactionDepth_ > 0) return {};
    if (hasChanges()) return transact(Durability::Normal, isGrouped, [] {}, rollbackOnFailure);
    return isGrouped ? Result<void>() : makeStable();
  });
}

Result<void> ManagedObjectContext::performTransaction(Durability durability, const std::function<void()>& work,
                                                      bool rollbackOnFailure) {
  return transact(durability, isInGroup(), work, rollbackOnFailure);
}

Result<void> ManagedObjectContext::performPreparingTransaction(const std::function<void()>& work) {
  return transact(Durability::Full, true, work, false);
}

Result<void> ManagedObjectContext::transact(Durability durability, bool isGrouped, const std::function<void()>& work,
                                            bool rollbackOnFailure) {
  return performAndWait([&]() -> Result<void> {
    if (transactionDepth_ > 0) {
      work();
      return {};
    }
    if (hasDurableChanges()) durability = Durability::Full;
    transactionError_.reset();
    hasInsertedRecords_ = false;
    // What kept the store from being opened may have passed, but a newer one stays newer.
    if (storeError_ && !storeError_->is(SQLiteErrorDomain, SQLiteStoreNewerVersionError)) reopen();
    if (!usableStore()) {
      transactionError_ = storeError_ ? *storeError_ : Error(SQLiteErrorDomain, SQLITE_MISUSE, "There is no store.");
    } else {
      const Durability atCommit = isGrouped ? Durability::Normal : durability;
      auto begun = store_->begin(atCommit);
      if (!begun && begun.error().is(POSIXErrorDomain, ESTALE) && usableStore()) begun = store_->begin(atCommit);
      if (begun) {
        noteOtherProcesses();
      } else {
        transactionError_ = begun.error();
      }
    }
    const bool begun = !transactionError_;
    ++transactionDepth_;
    try {
      work();
    } catch (...) {
      --transactionDepth_;
      if (begun) store_->rollBack();
      rollback();
      throw;
    }
    --transactionDepth_;
    Result<void> saved;
    if (transactionError_) {
      if (begun) store_->rollBack();
      saved = Failure(*transactionError_);
    } else {
      saved = saveAtEnd(durability, isGrouped);
    }
    if (saved) return saved;
    if (store_ && SQLiteStore::isDamage(saved.error())) (void)replaceDamagedStore(saved.error());
    if (rollbackOnFailure) rollback();
    return saved;
  });
}

Result<void> ManagedObjectContext::saveAtEnd(Durability durability, bool isGrouped) {
  auto changes = takeChanges(durability);
  const bool lasts = durability == Durability::Full;
  if (changes.empty() && !hasInsertedRecords_) {
    store_->rollBack();
    return lasts && !isGrouped ? makeStable() : Result<void>();
  }
  auto saved = store_->perform([&] {
    for (Change& change : changes) write(change);
  });
  if (saved) {
    saved = store_->commit();
  } else {
    store_->rollBack();
  }
  if (saved) {
    if (lasts) isUnstable_ = isGrouped;
    didSave(changes);
  } else {
    didNotSave(changes);
  }
  return saved;
}

// Objects whose save must be durable wait for one that is; whoever changed them meanwhile has yet to ask for it.
std::vector<ManagedObjectContext::Change> ManagedObjectContext::takeChanges(Durability durability) {
  std::vector<Change> changes;
  std::lock_guard lock(mutex_);
  for (std::size_t i = 0; i < unsaved_.size(); ++i) {
    for (auto& [serial, object] : unsaved_[i]) {
      if (durability == Durability::Normal && mustLastLocked(*object)) continue;
      object->saving_ = std::exchange(object->changed_, 0);
      changes.push_back({object, object->state_, object->saving_, object->values_, object->row_});
    }
  }
  return changes;
}

void ManagedObjectContext::write(Change& change) {
  const ManagedEntity& entity = model_.entities[change.object->entity_];
  const std::string table = "\"" + entity.name + "\"";
  if (change.state == State::Deleting) {
    SQLite::Statement& remove = store_->statement("DELETE FROM " + table + " WHERE identifier = ?");
    remove.bind(1, change.row);
    remove.exec();
    return;
  }
  const bool inserts = change.state == State::Inserted;
  std::string names, places;
  std::vector<const Value*> written;
  for (std::size_t i = 0; i < change.values.size(); ++i) {
    if (!(change.attributes >> i & 1U)) continue;
    const std::string name = "\"" + entity.attributes[i].name + "\"";
    const char* comma = written.empty() ? "" : ", ";
    written.push_back(&change.values[i]);
    names += comma + (inserts ? name : name + " = ?" + std::to_string(written.size()));
    places += std::string(comma) + "?" + std::to_string(written.size());
  }
  if (written.empty() && !inserts) return;
  std::string text;
  if (!inserts) {
    text = "UPDATE " + table + " SET " + names + " WHERE identifier = ?" + std::to_string(written.size() + 1);
  } else if (written.empty()) {
    text = "INSERT INTO " + table + " DEFAULT VALUES";
  } else {
    text = "INSERT INTO " + table + "(" + names + ") VALUES (" + places + ")";
  }
  SQLite::Statement& statement = store_->statement(text);
  for (std::size_t i = 0; i < written.size(); ++i) bindValue(statement, static_cast<int>(i) + 1, *written[i]);
  if (!inserts) statement.bind(static_cast<int>(written.size()) + 1, change.row);
  const int touched = statement.exec();
  if (inserts) {
    change.row = store_->lastInsertedRow();
  } else {
    change.vanished = touched == 0;
  }
}

void ManagedObjectContext::didSave(const std::vector<Change>& changes) {
  std::lock_guard lock(mutex_);
  for (const Change& change : changes) {
    ManagedObject& object = *change.object;
    object.saving_ = 0;
    object.row_ = change.row;
    if (change.state == State::Deleting || change.vanished) {
      forgetLocked(object);
      live_[object.entity_].erase(object.row_);
      object.state_ = State::Gone;
      object.readAt_ = UINT64_MAX;
      continue;
    }
    if (change.state == State::Inserted) {
      registerLocked(change.object);
      object.readAt_ = version_.load();
    }
    object.state_ = State::Stored;
    // Another thread may have changed it again while it was written.
    if (object.changed_ == 0) forgetLocked(object);
  }
}

void ManagedObjectContext::didNotSave(const std::vector<Change>& changes) {
  std::lock_guard lock(mutex_);
  for (const Change& change : changes) {
    change.object->changed_ |= std::exchange(change.object->saving_, 0);
  }
}

}  // namespace florvane
