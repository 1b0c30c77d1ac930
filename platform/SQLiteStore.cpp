#include "platform/SQLiteStore.h"

#include "platform/SoftAssertion.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <SQLiteCpp/SQLiteCpp.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr char kSource[] = "platform/SQLiteStore";
constexpr int kBusyMilliseconds = 10'000;
// Pages of the log at which it is checkpointed when nobody else is writing, and at which the others are waited for.
constexpr int kLongLog = 1000;
constexpr int kTooLongLog = 8000;
constexpr int kCacheKibibytes = 32 * 1024;
// A rescue that is complete and only has to be put in place, and one that is not.
constexpr char kRescuedSuffix[] = ".rescued";
constexpr char kRescuingSuffix[] = ".rescuing";

Error errorOf(const SQLite::Exception& exception) {
  int code = exception.getExtendedErrorCode() > 0 ? exception.getExtendedErrorCode() : exception.getErrorCode();
  return Error(SQLiteErrorDomain, code, exception.what());
}

constexpr char kLogSuffix[] = "-wal";

void removeLog(const std::string& path) {
  unlink((path + kLogSuffix).c_str());
  unlink((path + "-shm").c_str());
}

Error newerVersion(const std::string& path, int version) {
  return Error(SQLiteErrorDomain, SQLiteStoreNewerVersionError,
               "The store \"" + path + "\" has version " + std::to_string(version) +
                   " and was written by a newer version of this software.");
}

// A log that outlives its last connection is read again by the next one; checkpoints are made under the lock only.
void keepLogAtClose(SQLite::Database& database) {
  sqlite3_db_config(database.getHandle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
}

std::vector<std::string> columnsOf(SQLite::Database& database, const std::string& table) {
  std::vector<std::string> columns;
  SQLite::Statement query(database, "SELECT name FROM pragma_table_info(?)");
  query.bind(1, table);
  while (query.executeStep()) columns.push_back(query.getColumn(0).getString());
  return columns;
}

void bindColumn(SQLite::Statement& statement, int place, const SQLite::Column& column) {
  if (column.isInteger()) {
    statement.bind(place, column.getInt64());
  } else if (column.isText()) {
    statement.bind(place, column.getString());
  } else if (column.isBlob()) {
    // An empty byte string is a value; a null pointer would say NULL.
    statement.bind(place, column.getBytes() ? column.getBlob() : "", column.getBytes());
  } else {
    statement.bind(place);
  }
}

// Copies what can be read, from the first row on and then from the last row back, so that a bad page in between costs
// the rows on it and no others.
std::size_t copyReadableRows(SQLite::Database& damaged, SQLite::Database& fresh, const std::string& table) {
  std::string columns, places;
  int count = 0;
  const auto readable = columnsOf(damaged, table);
  for (const std::string& name : columnsOf(fresh, table)) {
    if (std::find(readable.begin(), readable.end(), name) == readable.end()) continue;
    columns.append(count ? ", \"" : "\"").append(name).append("\"");
    places.append(count ? ", ?" : "?");
    ++count;
  }
  if (count == 0) return 0;
  SQLite::Statement insert(fresh, "INSERT OR IGNORE INTO \"" + table + "\"(" + columns + ") VALUES (" + places + ")");
  const std::string select = "SELECT " + columns + " FROM \"" + table + "\" ORDER BY rowid ";
  std::size_t copied = 0;
  for (const char* direction : {"ASC", "DESC"}) {
    try {
      std::string text = select;
      text += direction;
      SQLite::Statement query(damaged, text);
      while (query.executeStep()) {
        for (int i = 0; i < count; ++i) {
          bindColumn(insert, i + 1, query.getColumn(i));
        }
        copied += static_cast<std::size_t>(insert.exec());
        insert.reset();
      }
      break;
    } catch (const SQLite::Exception& exception) {
      insert.tryReset();
      // Only the damage is expected here; a full disk is not.
      if (exception.getErrorCode() != SQLITE_CORRUPT && exception.getErrorCode() != SQLITE_NOTADB) throw;
    }
  }
  return copied;
}

std::size_t rescue(const std::string& path, SQLite::Database& fresh, const std::vector<std::string>& tables) {
  std::size_t rescued = 0;
  try {
    SQLite::Database damaged(path, SQLite::OPEN_READWRITE, kBusyMilliseconds);
    keepLogAtClose(damaged);
    for (const std::string& table : tables) rescued += copyReadableRows(damaged, fresh, table);
  } catch (const SQLite::Exception& exception) {
    if (exception.getErrorCode() != SQLITE_CORRUPT && exception.getErrorCode() != SQLITE_NOTADB &&
        exception.getErrorCode() != SQLITE_ERROR) {
      throw;
    }
  }
  return rescued;
}

// "2026-11-22T20-41-00.000000Z"
std::string dateForName() {
  std::string text = Date::now().description();
  for (char& character : text) {
    if (character == ':') character = '-';
  }
  return text;
}

void linkAside(const std::string& from, const std::string& to) {
  if (link(from.c_str(), to.c_str()) != 0 && errno != ENOENT && rename(from.c_str(), to.c_str()) != 0) {
    throw SQLite::Exception("the damaged store cannot be set aside", SQLITE_CANTOPEN);
  }
}

Result<void> putRescuedStoreInPlace(const std::string& path) {
  std::string rescued = path + kRescuedSuffix;
  if (!fileExists(rescued)) return {};
  // The old log first: a log is applied to whatever file it stands beside.
  removeLog(path);
  if (rename(rescued.c_str(), path.c_str()) != 0) return Failure(Error::fileWrite(errno, path));
  return syncDirectory(folderOf(path));
}

}  // namespace

SQLiteStore::SQLiteStore(Options options) : options_(std::move(options)) {}

SQLiteStore::~SQLiteStore() {
  statements_.clear();  // before their connection
}

std::optional<Error> SQLiteStore::guarded(const std::function<void()>& body) {
  try {
    body();
    return std::nullopt;
  } catch (const SQLite::Exception& exception) {
    return errorOf(exception);
  }
}

Result<void> SQLiteStore::check(const Options& options) {
  const std::string& path = options.path;
  struct stat status{};
  if (::stat(path.c_str(), &status) != 0 && errno == ENOENT) return {};
  auto lock = FileLock::acquire(options.lockPath, true);
  if (!lock) return Failure(lock.error());
  std::optional<FileLock> held = std::move(*lock);
  const bool hadLog = fileExists(path + kLogSuffix);
  int version = 0;
  std::string answer;
  auto error = guarded([&] {
    SQLite::Database database(path, SQLite::OPEN_READWRITE, kBusyMilliseconds);
    keepLogAtClose(database);
    version = database.execAndGet("PRAGMA user_version").getInt();
    if (version > static_cast<int>(options.migrations.size())) return;
    held.reset();  // reading it through may take long
    answer = database.execAndGet("PRAGMA quick_check(1)").getString();
  });
  if (error) return Failure(*error);
  if (version > static_cast<int>(options.migrations.size())) {
    if (!hadLog) removeLog(path);
    return Failure(newerVersion(path, version));
  }
  if (answer != "ok") return Failure(Error(SQLiteErrorDomain, SQLITE_CORRUPT, answer));
  return {};
}

bool SQLiteStore::isDamage(const Error& error) {
  return error.domain() == SQLiteErrorDomain &&
         ((error.code() & 0xff) == SQLITE_CORRUPT || (error.code() & 0xff) == SQLITE_NOTADB);
}

Result<std::unique_ptr<SQLiteStore>> SQLiteStore::open(const Options& options) {
  auto lock = FileLock::acquire(options.lockPath, true);
  if (!lock) return Failure(lock.error());
  auto store = openLocked(options);
  if (store || !isDamage(store.error())) return store;
  if (auto replaced = replaceLocked(options, store.error()); !replaced) return Failure(replaced.error());
  return openLocked(options);
}

Result<void> SQLiteStore::replaceDamagedStore(const Options& options, const Error& error, const SQLiteStore& damaged) {
  auto lock = FileLock::acquire(options.lockPath, true);
  if (!lock) return Failure(lock.error());
  if (damaged.isReplaced()) return {};
  return replaceLocked(options, error);
}

Result<std::unique_ptr<SQLiteStore>> SQLiteStore::openLocked(const Options& options) {
  if (auto placed = putRescuedStoreInPlace(options.path); !placed) return Failure(placed.error());
  std::unique_ptr<SQLiteStore> store(new SQLiteStore(options));
  const bool hadLog = fileExists(options.path + kLogSuffix);
  int versionFound = 0;
  auto error = guarded([&] {
    store->connect();
    versionFound = store->database_->execAndGet("PRAGMA user_version").getInt();
    if (versionFound <= static_cast<int>(options.migrations.size())) store->migrate();
  });
  if (error) return Failure(*error);
  if (versionFound > static_cast<int>(options.migrations.size())) {
    store.reset();
    // What looking at it has put beside it.
    if (!hadLog) removeLog(options.path);
    return Failure(newerVersion(options.path, versionFound));
  }
  return store;
}

void SQLiteStore::connect() {
  // Made by us only when it is not there: closing a descriptor of a store that is open gives its locks away.
  int descriptor = ::open(options_.path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (descriptor >= 0) close(descriptor);
  database_ = std::make_unique<SQLite::Database>(options_.path, SQLite::OPEN_READWRITE, kBusyMilliseconds);
  keepLogAtClose(*database_);
  sqlite3_wal_autocheckpoint(database_->getHandle(), 0);
  // So that a huge transaction does not write the same pages again and again. Only what is used is allocated.
  database_->exec("PRAGMA cache_size = " + std::to_string(-kCacheKibibytes));
  sqlite3_wal_hook(database_->getHandle(), &SQLiteStore::didWriteLog, this);
  struct stat status{};
  if (stat(options_.path.c_str(), &status) == 0) {
    device_ = status.st_dev;
    inode_ = status.st_ino;
  }
}

void SQLiteStore::migrate() {
  SQLite::Database& database = *database_;
  database.exec("PRAGMA journal_mode = WAL");
  database.exec("PRAGMA synchronous = FULL");
  for (auto version = static_cast<std::size_t>(database.execAndGet("PRAGMA user_version").getInt());
       version < options_.migrations.size(); ++version) {
    SQLite::Transaction transaction(database, SQLite::TransactionBehavior::IMMEDIATE);
    database.exec(options_.migrations[version]);
    database.exec("PRAGMA user_version = " + std::to_string(version + 1));
    transaction.commit();
  }
  // Reads the whole schema, so that damage there shows now.
  database.execAndGet("SELECT count(*) FROM sqlite_schema");
  database.exec("PRAGMA synchronous = NORMAL");
}

// Complete, but on no stable storage yet; with the number of the rows that it has taken over.
Result<std::size_t> SQLiteStore::prepareSuccessorLocked(const Options& options,
                                                        const std::vector<std::string>& tables) {
  const std::string rescuing = options.path + kRescuingSuffix;
  std::size_t rows = 0;
  auto failure = guarded([&] {
    unlink(rescuing.c_str());
    removeLog(rescuing);
    unlink((rescuing + "-journal").c_str());
    Options fresh = options;
    fresh.path = rescuing;
    SQLiteStore store(fresh);
    store.connect();
    store.migrate();
    SQLite::Transaction transaction(*store.database_);
    rows = rescue(options.path, *store.database_, tables);
    transaction.commit();
    // Into the file itself, which travels without its log.
    store.database_->exec("PRAGMA wal_checkpoint(TRUNCATE)");
    store.database_->exec("PRAGMA journal_mode = DELETE");
  });
  if (failure) return Failure(*failure);
  return rows;
}

Result<void> SQLiteStore::putSuccessorInPlaceLocked(const Options& options) {
  const std::string rescuing = options.path + kRescuingSuffix, rescued = options.path + kRescuedSuffix;
  if (auto synced = syncFile(rescuing); !synced) return synced;
  if (rename(rescuing.c_str(), rescued.c_str()) != 0) return Failure(Error::fileWrite(errno, rescued));
  return putRescuedStoreInPlace(options.path);
}

Result<void> SQLiteStore::replaceLocked(const Options& options, const Error& error) {
  const std::string aside = options.path + ".damaged-" + dateForName();
  auto rows = prepareSuccessorLocked(options, options.rescuedTables);
  if (!rows) return Failure(rows.error());
  if (auto failure = guarded([&] {
        linkAside(options.path, aside);
        linkAside(options.path + kLogSuffix, aside + kLogSuffix);
      })) {
    return Failure(*failure);
  }
  if (auto placed = putSuccessorInPlaceLocked(options); !placed) return placed;
  if (options.didReplaceDamagedStore) options.didReplaceDamagedStore({aside, *rows, error});
  return {};
}

Result<void> SQLiteStore::renew(const Options& options, const std::vector<std::string>& keptTables) {
  auto lock = FileLock::acquire(options.lockPath, true);
  if (!lock) return Failure(lock.error());
  // Brought to the present version first, so that the rows fit.
  auto present = openLocked(options);
  if (!present && isDamage(present.error())) return replaceLocked(options, present.error());
  if (!present) return Failure(present.error());
  present->reset();
  auto rows = prepareSuccessorLocked(options, keptTables);
  return rows ? putSuccessorInPlaceLocked(options) : Failure(rows.error());
}

SQLite::Statement& SQLiteStore::statement(const std::string& text) {
  auto& prepared = statements_[text];
  if (!prepared) prepared = std::make_unique<SQLite::Statement>(*database_, text);
  // What the last use of it ended with has been told then.
  prepared->tryReset();
  prepared->clearBindings();
  return *prepared;
}

std::int64_t SQLiteStore::lastInsertedRow() const { return database_->getLastInsertRowid(); }

Result<void> SQLiteStore::begin(Durability durability) {
  auto lock = FileLock::acquire(options_.lockPath, false);
  if (!lock) return Failure(lock.error());
  if (isReplaced()) return Failure(Error::posix(ESTALE, options_.path));
  auto begun = perform([&] {
    if (durability != durability_) {
      database_->exec(durability == Durability::Full ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
      durability_ = durability;
    }
    statement("BEGIN IMMEDIATE").exec();
  });
  if (begun) writing_ = std::move(*lock);
  return begun;
}

Result<void> SQLiteStore::commit() {
  auto committed = perform([&] { statement("COMMIT").exec(); });
  if (!committed) {
    rollBack();
    return committed;
  }
  writing_.reset();
  checkpointIfLong();
  return committed;
}

void SQLiteStore::rollBack() {
  // Some failures have ended the transaction already; then there is nothing to undo.
  for (auto& [text, prepared] : statements_) prepared->tryReset();
  if (sqlite3_get_autocommit(database_->getHandle()) == 0) (void)perform([&] { statement("ROLLBACK").exec(); });
  writing_.reset();
}

// The log may be synced by anybody: its locks are on another file, and what has left it was synced by the checkpoint.
Result<void> SQLiteStore::sync() {
  const std::string path = options_.path + "-wal";
  if (!fileExists(path)) return {};
  auto log = openFile(path, O_RDWR);
  if (!log) return Failure(log.error());
  int result = 0;
  do result = fdatasync(log->get());
  while (result != 0 && errno == EINTR);
  if (result != 0) return Failure(Error::fileWrite(errno, path));
  return {};
}

int SQLiteStore::didWriteLog(void* store, sqlite3*, const char*, int pages) {
  static_cast<SQLiteStore*>(store)->logPages_ = pages;
  return SQLITE_OK;
}

void SQLiteStore::checkpointIfLong() {
  if (logPages_ < kLongLog) return;
  std::optional<FileLock> held;
  if (logPages_ < kTooLongLog) {
    auto lock = FileLock::tryAcquire(options_.lockPath, true);
    if (!lock || !*lock) return;
    held = std::move(**lock);
  } else {
    auto lock = FileLock::acquire(options_.lockPath, true);
    if (!lock) return;
    held = std::move(*lock);
  }
  if (isReplaced()) return;
  for (auto& [text, prepared] : statements_) prepared->tryReset();
  int result = sqlite3_wal_checkpoint_v2(database_->getHandle(), nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
  // Much was written: what it has left in memory goes.
  sqlite3_db_release_memory(database_->getHandle());
  // A reader, or a full disk, may keep part of the log from being copied; the next commit goes on.
  if (result == SQLITE_OK || result == SQLITE_BUSY || result == SQLITE_FULL) return;
  reportSoftAssertion(kSource, __LINE__, sqlite3_errstr(result));
}

std::optional<FileLock> SQLiteStore::tryKeepOthersFromWriting() const {
  auto lock = FileLock::tryAcquire(options_.lockPath, true);
  return lock ? std::move(*lock) : std::nullopt;
}

Result<std::int64_t> SQLiteStore::dataVersion() {
  return perform([&]() -> std::int64_t {
    SQLite::Statement& query = statement("PRAGMA data_version");
    query.executeStep();
    std::int64_t version = query.getColumn(0).getInt64();
    query.reset();
    return version;
  });
}

bool SQLiteStore::isReplaced() const {
  struct stat status{};
  return stat(options_.path.c_str(), &status) != 0 || status.st_dev != device_ || status.st_ino != inode_ ||
         fileExists(options_.path + kRescuedSuffix);
}

}  // namespace florvane
