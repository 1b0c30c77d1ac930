#include "platform/ManagedObjectContext.h"

#include "platform/ManagedObjectContext+Rows.h"

#include <algorithm>
#include <unordered_set>

#include <sqlite3.h>

namespace florvane {

namespace {

constexpr std::size_t kFirstSweep = 1024;
constexpr char kCount[] = "count(*)";

const char* columnType(Value::Kind kind) {
  switch (kind) {
    case Value::Kind::String:
      return "TEXT";
    case Value::Kind::Data:
      return "BLOB";
    default:
      return "INTEGER";
  }
}

std::string quoted(const std::string& name) { return "\"" + name + "\""; }

// The folder of a path with its "/"; the store has an index over this very expression.
std::string folderExpression(const std::string& column) {
  return "rtrim(" + column + ", replace(" + column + ", '/', ''))";
}

// The condition, whose values are added to those that are bound.
std::string below(const ManagedEntity& entity, const ManagedObjectFetch::Below& below, std::vector<Value>& bound) {
  const std::string column = quoted(entity.attributes[below.attribute].name);
  bound.emplace_back(below.prefix);
  if (below.onlyChildren) return folderExpression(column) + " = ? AND " + column + " <> ''";
  std::string text = column + " > ?";
  if (below.prefix.empty()) return text;
  // '0' follows '/'.
  bound.emplace_back(below.prefix.substr(0, below.prefix.size() - 1) + "0");
  return text + " AND " + column + " < ?";
}

}  // namespace

std::shared_ptr<ManagedObjectContext> ManagedObjectContext::create(const ManagedObjectModel& model,
                                                                   const std::string& label) {
  return std::shared_ptr<ManagedObjectContext>(new ManagedObjectContext(model, label));
}

ManagedObjectContext::ManagedObjectContext(const ManagedObjectModel& model, const std::string& label)
    : model_(model),
      queue_(SerialQueue::create(label)),
      live_(model.entities.size()),
      sweepAt_(model.entities.size(), kFirstSweep),
      unsaved_(model.entities.size()) {
  for (const ManagedEntity& entity : model.entities) {
    std::string columns = "identifier";
    for (const ManagedAttribute& attribute : entity.attributes) columns += ", " + quoted(attribute.name);
    columns_.push_back(columns);
  }
}

ManagedObjectContext::~ManagedObjectContext() = default;

std::string ManagedObjectContext::schemaOfModel(const ManagedObjectModel& model) {
  std::string schema;
  for (const ManagedEntity& entity : model.entities) {
    schema += "CREATE TABLE " + quoted(entity.name) + "(identifier INTEGER PRIMARY KEY AUTOINCREMENT";
    for (const auto& attribute : entity.attributes) {
      schema += ", " + quoted(attribute.name) + " " + columnType(attribute.kind);
    }
    schema += ");\n";
    for (const auto& attribute : entity.attributes) {
      if (!attribute.indexed) continue;
      const std::string name = entity.name + "By" + attribute.name;
      schema += "CREATE INDEX " + quoted(name) + " ON " + quoted(entity.name) + "(" + quoted(attribute.name) + ");\n";
      if (attribute.name == "path") {
        schema += "CREATE INDEX " + quoted(name + "Folder") + " ON " + quoted(entity.name) + "(" +
                  folderExpression(quoted(attribute.name)) + ");\n";
      }
    }
    // Row numbers begin where the clock is, so that a store that takes another's place repeats none of that one's.
    schema += "INSERT INTO sqlite_sequence(name, seq) VALUES ('" + entity.name +
              "', CAST((julianday('now') - 2440587.5) * 86400000000 AS INTEGER));\n";
  }
  return schema;
}

Result<void> ManagedObjectContext::addPersistentStore(SQLiteStore::Options options) {
  return performAndWait([&]() -> Result<void> {
    options_ = std::move(options);
    reopen();
    return store_ ? Result<void>() : Result<void>(Failure(*storeError_));
  });
}

void ManagedObjectContext::removePersistentStore() {
  performAndWait([&] {
    options_.reset();
    store_.reset();
    storeError_.reset();
    hasStore_ = false;
    std::lock_guard lock(mutex_);
    for (auto& objects : unsaved_) {
      for (auto& [serial, object] : objects) object->state_ = State::Gone;
      objects.clear();
    }
    unsavedByValue_.clear();
    for (auto& objects : live_) {
      for (auto& [row, weak] : objects) {
        if (auto object = weak.lock()) object->state_ = State::Gone;
      }
      objects.clear();
    }
  });
}

Result<void> ManagedObjectContext::renewPersistentStore(const std::vector<std::size_t>& keptEntities) {
  return performAndWait([&]() -> Result<void> {
    if (!options_) return Failure(Error(SQLiteErrorDomain, SQLITE_MISUSE, "There is no store."));
    std::vector<std::string> tables;
    tables.reserve(keptEntities.size());
    for (std::size_t entity : keptEntities) tables.push_back(model_.entities[entity].name);
    if (auto renewed = SQLiteStore::renew(*options_, tables); !renewed) return renewed;
    reopen();
    return store_ ? Result<void>() : Result<void>(Failure(*storeError_));
  });
}

std::optional<Error> ManagedObjectContext::storeError() {
  if (hasStore_.load()) return std::nullopt;
  return performAndWait([&] { return storeError_; });
}

void ManagedObjectContext::reopen() {
  store_.reset();
  storeError_.reset();
  dataVersion_.reset();
  ++version_;
  auto opened = SQLiteStore::open(*options_);
  if (opened) {
    store_ = std::move(*opened);
  } else {
    storeError_ = opened.error();
  }
  hasStore_ = store_ != nullptr;
}

bool ManagedObjectContext::usableStore() {
  if (store_ && transactionDepth_ == 0 && store_->isReplaced()) reopen();
  return store_ != nullptr;
}

bool ManagedObjectContext::noteOtherProcesses() {
  auto version = store_->dataVersion();
  if (!version) return false;
  if (dataVersion_ && *version != *dataVersion_) ++version_;
  dataVersion_ = *version;
  return true;
}

bool ManagedObjectContext::noteChangesOfOthers() {
  return performAndWait([&] {
    if (transactionDepth_ > 0 || !usableStore()) return false;
    // A transaction is in the log before it is seen, by as long as a slow disk takes.
    const auto quiet = store_->tryKeepOthersFromWriting();
    return noteOtherProcesses() && quiet;
  });
}

Result<void> ManagedObjectContext::replaceDamagedStore(const Error& error) {
  auto replaced = SQLiteStore::replaceDamagedStore(*options_, error, *store_);
  if (!replaced) return replaced;
  reopen();
  if (!store_) return Failure(*storeError_);
  keepUnsavedOfLostRecords();
  return replaced;
}

// What is unsaved of a record that the damage has taken is saved as a record of its own.
void ManagedObjectContext::keepUnsavedOfLostRecords() {
  std::vector<ObjectPtr> changed;
  {
    std::lock_guard lock(mutex_);
    for (const auto& objects : unsaved_) {
      for (const auto& [serial, object] : objects) {
        if (object->state_ == State::Stored) changed.push_back(object);
      }
    }
  }
  for (const ObjectPtr& object : changed) {
    auto found = store_->perform([&] { return rowOf(object->entity_, object->row_).has_value(); });
    if (!found || *found) continue;
    std::lock_guard lock(mutex_);
    live_[object->entity_].erase(object->row_);
    object->state_ = State::Inserted;
    object->readAt_ = UINT64_MAX;
    for (std::size_t i = 0; i < object->values_.size(); ++i) {
      if (!object->values_[i].isNull()) object->changed_ |= 1U << i;
    }
  }
}

bool ManagedObjectContext::query(const ManagedObjectFetch& fetch, const std::string& columns, bool limited,
                                 const std::function<void()>& begin,
                                 const std::function<void(SQLite::Statement&)>& visitor) {
  const ManagedEntity& entity = model_.entities[fetch.entity];
  std::string text = "SELECT " + columns + " FROM " + quoted(entity.name) + " WHERE 1";
  std::vector<Value> bound;
  for (const auto& [attribute, value] : fetch.equals) {
    text += " AND " + quoted(entity.attributes[attribute].name) + " = ?";
    bound.push_back(value);
  }
  if (fetch.below) text += " AND " + below(entity, *fetch.below, bound);
  if (fetch.joined) {
    const ManagedEntity& other = model_.entities[fetch.joined->entity];
    const std::string name = quoted(entity.name), otherName = quoted(other.name);
    // The other entity's records lead, each to one look into this one's index: no set of all of them is built first.
    text += " AND identifier IN (SELECT " + name + ".identifier FROM " + otherName + " CROSS JOIN " + name + " WHERE " +
            name + "." + quoted(entity.attributes[fetch.joined->attribute].name) + " = " + otherName + "." +
            quoted(other.attributes[fetch.joined->entityAttribute].name) + " AND " +
            below(other, fetch.joined->below, bound) + ")";
  }
  if (fetch.newestFirstBy && columns != kCount) {
    text += " ORDER BY " + quoted(entity.attributes[*fetch.newestFirstBy].name) + " DESC";
  }
  if (limited && fetch.limit) text += " LIMIT " + std::to_string(fetch.limit);

  for (bool again : {true, false}) {
    begin();
    if (!usableStore()) return false;
    if (transactionDepth_ == 0) noteOtherProcesses();
    auto done = store_->perform([&] {
      SQLite::Statement& query = store_->statement(text);
      for (std::size_t i = 0; i < bound.size(); ++i) bindValue(query, static_cast<int>(i) + 1, bound[i]);
      while (query.executeStep()) visitor(query);
      query.reset();
    });
    if (done) return true;
    // Inside a transaction its end sets the store aside.
    if (transactionDepth_ > 0) transactionError_ = done.error();
    if (!again || transactionDepth_ > 0 || !SQLiteStore::isDamage(done.error())) return false;
    if (!replaceDamagedStore(done.error())) return false;
  }
  return false;
}

std::vector<ManagedObjectContext::Row> ManagedObjectContext::rows(const ManagedObjectFetch& fetch,
                                                                  const std::string& columns, bool limited) {
  const auto& attributes = model_.entities[fetch.entity].attributes;
  std::vector<Row> result;
  auto take = [&](SQLite::Statement& query) {
    Row& row = result.emplace_back();
    row.number = query.getColumn(0).getInt64();
    if (columns == kCount) return;
    row.values.reserve(attributes.size());
    for (std::size_t i = 0; i < attributes.size(); ++i) {
      row.values.push_back(columnValue(query, static_cast<int>(i) + 1, attributes[i].kind));
    }
  };
  if (!query(fetch, columns, limited, [&] { result.clear(); }, take)) return {};
  return result;
}

std::vector<ManagedObjectContext::ObjectPtr> ManagedObjectContext::fetch(const ManagedObjectFetch& fetch) {
  return performAndWait([&] {
    bool unsaved = false;
    {
      std::lock_guard lock(mutex_);
      unsaved = !unsaved_[fetch.entity].empty();
    }
    auto stored = rows(fetch, columns_[fetch.entity], !unsaved);
    std::vector<ObjectPtr> found;
    std::lock_guard lock(mutex_);
    for (Row& row : stored) {
      ObjectPtr object = objectOfRowLocked(fetch.entity, row);
      if (matchesLocked(*object, fetch)) found.push_back(std::move(object));
    }
    std::unordered_set<const ManagedObject*> known;
    for (ObjectPtr& object : unsavedLocked(fetch)) {
      if (known.empty()) {
        for (const ObjectPtr& other : found) known.insert(other.get());
      }
      if (known.insert(object.get()).second) found.push_back(std::move(object));
    }
    if (fetch.newestFirstBy) {
      std::sort(found.begin(), found.end(), [&](const ObjectPtr& a, const ObjectPtr& b) {
        auto left = a->values_[*fetch.newestFirstBy].asDate(), right = b->values_[*fetch.newestFirstBy].asDate();
        return left != right ? left > right : a->serial_ > b->serial_;
      });
    }
    if (fetch.limit && found.size() > fetch.limit) found.resize(fetch.limit);
    return found;
  });
}

ManagedObjectContext::ObjectPtr ManagedObjectContext::fetchFirst(ManagedObjectFetch fetch) {
  fetch.limit = 1;
  auto found = this->fetch(fetch);
  return found.empty() ? nullptr : std::move(found.front());
}

std::size_t ManagedObjectContext::count(const ManagedObjectFetch& fetch) {
  return performAndWait([&]() -> std::size_t {
    {
      std::unique_lock lock(mutex_);
      if (!unsaved_[fetch.entity].empty()) {
        lock.unlock();
        return this->fetch(fetch).size();
      }
    }
    auto counted = rows(fetch, kCount, false);
    return counted.empty() ? 0 : static_cast<std::size_t>(counted.front().number);
  });
}

void ManagedObjectContext::visit(const ManagedObjectFetch& fetch, std::span<const std::size_t> attributes,
                                 const std::function<void(std::span<const std::string_view>)>& visitor) {
  performAndWait([&] {
    const ManagedEntity& entity = model_.entities[fetch.entity];
    std::string columns = "identifier";
    for (std::size_t attribute : attributes) columns += ", " + quoted(entity.attributes[attribute].name);
    // One after the other; of each the sizes, whose sum leads to the next.
    std::string bytes;
    std::vector<std::size_t> sizes;
    std::vector<std::int64_t> rows;
    auto begin = [&] {
      bytes.clear();
      sizes.clear();
      rows.clear();
    };
    const bool found = query(fetch, columns, false, begin, [&](SQLite::Statement& row) {
      rows.push_back(row.getColumn(0).getInt64());
      for (std::size_t i = 0; i < attributes.size(); ++i) {
        const SQLite::Column column = row.getColumn(static_cast<int>(i) + 1);
        const auto* content = static_cast<const char*>(column.getBlob());
        sizes.push_back(content ? static_cast<std::size_t>(column.getBytes()) : 0);
        if (content) bytes.append(content, sizes.back());
      }
    });
    if (!found) begin();

    std::unordered_set<std::int64_t> unsavedRows;
    std::vector<std::vector<Value>> unsaved;
    {
      // An unsaved record is told as it is in memory, and once.
      std::lock_guard lock(mutex_);
      for (const auto& [serial, object] : unsaved_[fetch.entity]) unsavedRows.insert(object->row_);
      for (const ObjectPtr& object : unsavedLocked(fetch)) unsaved.push_back(object->values_);
    }
    std::vector<std::string_view> values(attributes.size());
    std::size_t at = 0, place = 0;
    for (std::int64_t row : rows) {
      for (std::string_view& value : values) {
        value = std::string_view(bytes).substr(at, sizes[place]);
        at += sizes[place++];
      }
      if (unsavedRows.empty() || !unsavedRows.contains(row)) visitor(values);
    }
    for (const auto& record : unsaved) {
      for (std::size_t i = 0; i < attributes.size(); ++i) {
        const Value& value = record[attributes[i]];
        values[i] = value.asString().value_or(value.dataBytes());
      }
      visitor(values);
    }
  });
}

std::optional<ManagedObjectContext::Row> ManagedObjectContext::rowOf(std::size_t entity, std::int64_t number) {
  SQLite::Statement& query = store_->statement("SELECT " + columns_[entity] + " FROM " +
                                               quoted(model_.entities[entity].name) + " WHERE identifier = ?");
  query.bind(1, number);
  if (!query.executeStep()) return std::nullopt;
  Row row{number, {}};
  const auto& attributes = model_.entities[entity].attributes;
  for (std::size_t i = 0; i < attributes.size(); ++i) {
    row.values.push_back(columnValue(query, static_cast<int>(i) + 1, attributes[i].kind));
  }
  query.reset();
  return row;
}

void ManagedObjectContext::refreshIfStale(const ManagedObject& object) {
  if (object.readAt_.load() >= version_.load()) return;
  performAndWait([&] { refresh(const_cast<ManagedObject&>(object)); });
}

void ManagedObjectContext::refresh(ManagedObject& object) {
  const std::uint64_t version = version_.load();
  {
    std::lock_guard lock(mutex_);
    if (object.state_ == State::Inserted || object.state_ == State::Gone) {
      object.readAt_ = UINT64_MAX;  // no record to read; its save sets this right
      return;
    }
  }
  if (!store_) return;
  auto read = store_->perform([&] { return rowOf(object.entity_, object.row_); });
  if (!read) return;  // what is in memory is the best that can be had
  std::lock_guard lock(mutex_);
  if (*read) {
    mergeLocked(object, **read);
    object.readAt_ = version;
  } else {
    forgetLocked(object);
    live_[object.entity_].erase(object.row_);
    object.state_ = State::Gone;
    object.readAt_ = UINT64_MAX;
  }
}

ManagedObjectContext::ObjectPtr ManagedObjectContext::objectOfRowLocked(std::size_t entity, Row& row) {
  auto& live = live_[entity];
  if (auto place = live.find(row.number); place != live.end()) {
    if (ObjectPtr object = place->second.lock()) {
      mergeLocked(*object, row);
      return object;
    }
  }
  ObjectPtr object = model_.entities[entity].make();
  object->context_ = shared_from_this();
  object->entity_ = entity;
  object->serial_ = nextSerial_++;
  object->row_ = row.number;
  object->state_ = State::Stored;
  object->values_ = std::move(row.values);
  object->readAt_ = version_.load();
  registerLocked(object);
  return object;
}

// What is unsaved stays; everything else is as in the store.
void ManagedObjectContext::mergeLocked(ManagedObject& object, Row& row) {
  const std::uint32_t kept = object.changed_ | object.saving_;
  const bool unsaved = unsaved_[object.entity_].contains(object.serial_);
  for (std::size_t i = 0; i < row.values.size(); ++i) {
    if (kept >> i & 1U) continue;
    if (unsaved) unindexLocked(object, i);
    object.values_[i] = std::move(row.values[i]);
    if (unsaved) indexLocked(object, i);
  }
  object.readAt_ = version_.load();
}

void ManagedObjectContext::registerLocked(const ObjectPtr& object) {
  auto& live = live_[object->entity_];
  live[object->row_] = object;
  // Objects that nobody holds leave an entry behind; looking for those costs little when the table has doubled.
  if (live.size() < sweepAt_[object->entity_]) return;
  std::erase_if(live, [](const auto& entry) { return entry.second.expired(); });
  sweepAt_[object->entity_] = std::max(kFirstSweep, live.size() * 2);
}

bool ManagedObjectContext::matchesLocked(const ManagedObject& object, const ManagedObjectFetch& fetch) const {
  if (object.state_ == State::Deleting || object.state_ == State::Gone) return false;
  for (const auto& [attribute, value] : fetch.equals) {
    if (!(object.values_[attribute] == value)) return false;
  }
  if (!fetch.below) return true;
  auto path = object.values_[fetch.below->attribute].asString();
  const std::string& prefix = fetch.below->prefix;
  return path && path->size() > prefix.size() && path->starts_with(prefix) &&
         (!fetch.below->onlyChildren || path->find('/', prefix.size()) == std::string_view::npos);
}

std::vector<ManagedObjectContext::ObjectPtr> ManagedObjectContext::unsavedLocked(
    const ManagedObjectFetch& fetch) const {
  std::vector<ObjectPtr> found;
  const auto& unsaved = unsaved_[fetch.entity];
  if (unsaved.empty()) return found;
  for (const auto& [attribute, value] : fetch.equals) {
    if (!model_.entities[fetch.entity].attributes[attribute].indexed) continue;
    auto [first, last] = unsavedByValue_.equal_range(indexKey(fetch.entity, attribute, value));
    for (; first != last; ++first) {
      if (matchesLocked(*first->second, fetch)) found.push_back(first->second->shared_from_this());
    }
    return found;
  }
  for (const auto& [serial, object] : unsaved) {
    if (matchesLocked(*object, fetch)) found.push_back(object);
  }
  return found;
}

}  // namespace florvane
