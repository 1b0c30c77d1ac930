#include "server/StoreIndex.h"

#include "platform/Crypto.h"
#include "platform/Encoding.h"

#include <map>
#include <utility>

#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

namespace florvane {

namespace {

constexpr int kSchemaVersion = 1;
constexpr int kBusyMilliseconds = 10'000;
// A document that nobody has seen for so long is forgotten, with what was below it.
constexpr std::int64_t kForgetAfterMicroseconds = std::int64_t{90} * 24 * 3600 * 1'000'000;

constexpr char kSchema[] = R"(
CREATE TABLE facts(name TEXT PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID;
CREATE TABLE shares(number INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, document BLOB NOT NULL UNIQUE);
CREATE TABLE documents(
  document BLOB PRIMARY KEY, parent BLOB, name BLOB NOT NULL, share INTEGER NOT NULL,
  device INTEGER NOT NULL, inode INTEGER NOT NULL, birth INTEGER NOT NULL, directory INTEGER NOT NULL,
  added INTEGER NOT NULL, created INTEGER, missing INTEGER) WITHOUT ROWID;
CREATE UNIQUE INDEX documentsByPlace ON documents(parent, name) WHERE parent IS NOT NULL;
CREATE INDEX documentsByFile ON documents(inode, share);
CREATE INDEX documentsMissing ON documents(missing) WHERE missing IS NOT NULL;
PRAGMA user_version = 1;
)";

constexpr char kColumns[] =
    "SELECT document, parent, name, share, device, inode, birth, directory, added, created, missing FROM documents ";

void bind(SQLite::Statement& statement, int index, const DocumentIdentifier& identifier) {
  statement.bind(index, identifier.bytes.data(), static_cast<int>(identifier.bytes.size()));
}

void bindName(SQLite::Statement& statement, int index, const std::string& name) {
  statement.bind(index, name.data(), static_cast<int>(name.size()));
}

DocumentIdentifier identifierIn(const SQLite::Column& column) {
  return DocumentIdentifier::fromBytes(column.getBlob(), static_cast<std::size_t>(column.getBytes()))
      .value_or(DocumentIdentifier{});
}

DocumentRecord recordIn(SQLite::Statement& row) {
  DocumentRecord record;
  record.identifier = identifierIn(row.getColumn(0));
  record.parent = identifierIn(row.getColumn(1));
  record.name = row.getColumn(2).getString();
  record.share = row.getColumn(3).getInt64();
  record.identity.device = static_cast<std::uint64_t>(row.getColumn(4).getInt64());
  record.identity.inode = static_cast<std::uint64_t>(row.getColumn(5).getInt64());
  record.identity.birth = row.getColumn(6).getInt64();
  record.identity.directory = row.getColumn(7).getInt() != 0;
  record.added = row.getColumn(8).getInt64();
  if (!row.getColumn(9).isNull()) record.created = row.getColumn(9).getInt64();
  record.missing = !row.getColumn(10).isNull() || row.getColumn(1).isNull();
  return record;
}

// Runs the body and turns what SQLite throws into an answer.
template <typename Body>
auto guarded(Body&& body) -> StoreResult<decltype(body())> {
  try {
    if constexpr (std::is_void_v<decltype(body())>) {
      body();
      return {};
    } else {
      return body();
    }
  } catch (const SQLite::Exception& exception) {
    if (exception.getErrorCode() == SQLITE_FULL) {
      return tl::unexpected(StoreError{StoreStatus::NoSpace, "There is not enough space on the server."});
    }
    return tl::unexpected(
        StoreError{StoreStatus::Internal, std::string("The server's index cannot be used: ") + exception.what() + "."});
  }
}

}  // namespace

StoreResult<DocumentIdentifier> makeDocumentIdentifier() {
  auto bytes = randomBytes(16);
  auto identifier = bytes ? DocumentIdentifier::fromData(*bytes) : std::nullopt;
  if (!identifier) return tl::unexpected(StoreError{StoreStatus::Internal, "The server has no random numbers."});
  return identifier->document();
}

// A connection with its prepared statements, and the lock under which both are used.
struct StoreIndex::Connection {
  explicit Connection(const std::string& path)
      : database(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE, kBusyMilliseconds) {
    database.exec("PRAGMA journal_mode = WAL");
    database.exec("PRAGMA synchronous = FULL");
  }

  // A reset statement of that text, prepared once. Texts are literals.
  SQLite::Statement& statement(const char* text) {
    auto& prepared = statements[text];
    if (!prepared) prepared = std::make_unique<SQLite::Statement>(database, text);
    prepared->reset();
    prepared->clearBindings();
    return *prepared;
  }

  std::mutex mutex;  // guards the rest
  SQLite::Database database;
  std::map<std::string_view, std::unique_ptr<SQLite::Statement>> statements;
};

StoreIndex::StoreIndex(std::unique_ptr<Connection> writer, std::unique_ptr<Connection> reader, Clock& clock)
    : writer_(std::move(writer)), reader_(std::move(reader)), clock_(clock) {}

StoreIndex::~StoreIndex() = default;

StoreResult<std::unique_ptr<StoreIndex>> StoreIndex::open(const std::string& path, Clock& clock) {
  const auto root = makeDocumentIdentifier();
  const auto owner = makeDocumentIdentifier();
  if (!root || !owner) return tl::unexpected(root ? owner.error() : root.error());
  return guarded([&] {
    auto writer = std::make_unique<Connection>(path);
    SQLite::Database& database = writer->database;
    const int version = database.execAndGet("PRAGMA user_version").getInt();
    if (version > kSchemaVersion) throw SQLite::Exception("it was written by a newer version");
    SQLite::Transaction transaction(database);
    if (version == 0) {
      database.exec(kSchema);
      SQLite::Statement insert(database, "INSERT INTO facts(name, value) VALUES (?, ?)");
      for (const auto& [name, identifier] : {std::pair("root", *root), std::pair("owner", *owner)}) {
        insert.bind(1, name);
        bind(insert, 2, identifier);
        insert.exec();
        insert.reset();
      }
    }
    SQLite::Statement forget(database, "DELETE FROM documents WHERE missing < ?");
    forget.bind(1, clock.now().microsecondsSince1970() - kForgetAfterMicroseconds);
    if (forget.exec() > 0) {
      // One level a turn; what is below a forgotten folder cannot be found through it any more.
      SQLite::Statement orphans(database,
                                "DELETE FROM documents WHERE parent NOT IN (SELECT document FROM documents) "
                                "AND parent NOT IN (SELECT document FROM shares)");
      while (orphans.exec() > 0) orphans.reset();
    }
    transaction.commit();

    std::unique_ptr<StoreIndex> index(new StoreIndex(std::move(writer), std::make_unique<Connection>(path), clock));
    SQLite::Statement facts(database, "SELECT value FROM facts WHERE name = ?");
    facts.bind(1, "root");
    if (facts.executeStep()) index->root_ = identifierIn(facts.getColumn(0));
    facts.reset();
    facts.bind(1, "owner");
    if (facts.executeStep()) index->owner_ = hexEncode(identifierIn(facts.getColumn(0)).data());
    return index;
  });
}

StoreResult<StoreIndex::Share> StoreIndex::share(const std::string& name) {
  const auto fresh = makeDocumentIdentifier();
  if (!fresh) return tl::unexpected(fresh.error());
  const std::lock_guard lock(writer_->mutex);
  return guarded([&] {
    auto& insert = writer_->statement("INSERT OR IGNORE INTO shares(name, document) VALUES (?, ?)");
    insert.bind(1, name);
    bind(insert, 2, *fresh);
    insert.exec();
    auto& select = writer_->statement("SELECT number, document FROM shares WHERE name = ?");
    select.bind(1, name);
    select.executeStep();
    const Share share{select.getColumn(0).getInt64(), identifierIn(select.getColumn(1))};
    select.reset();
    return share;
  });
}

StoreResult<std::optional<DocumentRecord>> StoreIndex::find(const DocumentIdentifier& identifier) const {
  static const std::string text = std::string(kColumns) + "WHERE document = ?";
  const std::lock_guard lock(reader_->mutex);
  return guarded([&] {
    auto& select = reader_->statement(text.c_str());
    bind(select, 1, identifier);
    std::optional<DocumentRecord> record;
    if (select.executeStep()) record = recordIn(select);
    select.reset();
    return record;
  });
}

StoreResult<std::vector<std::optional<DocumentIdentifier>>> StoreIndex::directoriesOfFiles(
    const std::vector<DocumentIdentifier>& documents) const {
  static const std::string text = std::string(kColumns) + "WHERE document = ?";
  const std::lock_guard lock(reader_->mutex);
  return guarded([&] {
    std::vector<std::optional<DocumentIdentifier>> directories;
    directories.reserve(documents.size());
    // One transaction: locking the file for each would cost more than reading.
    SQLite::Transaction transaction(reader_->database);
    auto& select = reader_->statement(text.c_str());
    for (const DocumentIdentifier& document : documents) {
      auto& directory = directories.emplace_back();
      bind(select, 1, document);
      if (select.executeStep()) {
        const DocumentRecord record = recordIn(select);
        if (!record.identity.directory) directory = record.parent;
      }
      select.reset();
    }
    transaction.commit();
    return directories;
  });
}

StoreResult<std::optional<DocumentRecord>> StoreIndex::at(const DocumentIdentifier& parent,
                                                          const std::string& name) const {
  static const std::string text = std::string(kColumns) + "WHERE parent = ? AND name = ?";
  const std::lock_guard lock(reader_->mutex);
  return guarded([&] {
    auto& select = reader_->statement(text.c_str());
    bind(select, 1, parent);
    bindName(select, 2, name);
    std::optional<DocumentRecord> record;
    if (select.executeStep()) record = recordIn(select);
    select.reset();
    return record;
  });
}

StoreResult<std::vector<DocumentRecord>> StoreIndex::childrenOf(const DocumentIdentifier& parent) const {
  static const std::string text = std::string(kColumns) + "WHERE parent = ?";
  const std::lock_guard lock(reader_->mutex);
  return guarded([&] {
    auto& select = reader_->statement(text.c_str());
    bind(select, 1, parent);
    std::vector<DocumentRecord> records;
    while (select.executeStep()) records.push_back(recordIn(select));
    select.reset();
    return records;
  });
}

StoreResult<std::optional<DocumentRecord>> StoreIndex::withIdentity(std::int64_t share,
                                                                    const FileIdentity& identity) const {
  static const std::string text =
      std::string(kColumns) +
      "WHERE inode = ? AND share = ? AND device = ? AND birth = ? AND directory = ? ORDER BY missing LIMIT 1";
  const std::lock_guard lock(reader_->mutex);
  return guarded([&] {
    auto& select = reader_->statement(text.c_str());
    select.bind(1, static_cast<std::int64_t>(identity.inode));
    select.bind(2, share);
    select.bind(3, static_cast<std::int64_t>(identity.device));
    select.bind(4, identity.birth);
    select.bind(5, identity.directory ? 1 : 0);
    std::optional<DocumentRecord> record;
    if (select.executeStep()) record = recordIn(select);
    select.reset();
    return record;
  });
}

StoreResult<void> StoreIndex::update(const std::vector<DocumentRecord>& records, const DocumentIdentifier& parent,
                                     const std::vector<DocumentIdentifier>& missing) {
  const std::int64_t now = clock_.now().microsecondsSince1970();
  const std::lock_guard lock(writer_->mutex);
  return guarded([&] {
    SQLite::Transaction transaction(writer_->database);
    // Names may have been swapped, so every place is cleared before it is filled.
    auto& vacate = writer_->statement(
        "UPDATE documents SET parent = NULL, missing = ? WHERE parent = ? AND name = ? AND document <> ?");
    for (const DocumentRecord& record : records) {
      vacate.bind(1, now);
      bind(vacate, 2, record.parent);
      bindName(vacate, 3, record.name);
      bind(vacate, 4, record.identifier);
      vacate.exec();
      vacate.reset();
    }
    auto& write = writer_->statement(
        "INSERT OR REPLACE INTO documents(document, parent, name, share, device, inode, birth, directory, added, "
        "created) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    for (const DocumentRecord& record : records) {
      bind(write, 1, record.identifier);
      bind(write, 2, record.parent);
      bindName(write, 3, record.name);
      write.bind(4, record.share);
      write.bind(5, static_cast<std::int64_t>(record.identity.device));
      write.bind(6, static_cast<std::int64_t>(record.identity.inode));
      write.bind(7, record.identity.birth);
      write.bind(8, record.identity.directory ? 1 : 0);
      write.bind(9, record.added);
      if (record.created) {
        write.bind(10, *record.created);
      } else {
        write.bind(10);
      }
      write.exec();
      write.reset();
    }
    auto& lose = writer_->statement("UPDATE documents SET missing = ? WHERE document = ? AND parent = ?");
    for (const DocumentIdentifier& identifier : missing) {
      lose.bind(1, now);
      bind(lose, 2, identifier);
      bind(lose, 3, parent);
      lose.exec();
      lose.reset();
    }
    transaction.commit();
  });
}

}  // namespace florvane
