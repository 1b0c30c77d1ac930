#include "platform/TransferStore.h"

#include "platform/Format.h"
#include "platform/HTTPErrors.h"
#include "platform/PropertyList.h"
#include "platform/SQLiteStore.h"
#include "platform/SystemLog.h"
#include "platform/TransferProtocol.h"

#include <algorithm>
#include <charconv>
#include <filesystem>

#include <SQLiteCpp/SQLiteCpp.h>

namespace florvane {

namespace {

constexpr int kLogError = 3;

constexpr char kSchema[] = R"(
  CREATE TABLE sessions (identifier TEXT PRIMARY KEY, relaunch BLOB) WITHOUT ROWID;
  CREATE TABLE tasks (
    identifier INTEGER PRIMARY KEY AUTOINCREMENT,
    token BLOB NOT NULL UNIQUE,
    session TEXT NOT NULL,
    state INTEGER NOT NULL,
    host TEXT NOT NULL,
    port INTEGER NOT NULL,
    description BLOB NOT NULL,
    cookie BLOB,
    pin BLOB,
    deadline INTEGER,
    ended INTEGER,
    response BLOB,
    error BLOB,
    body BLOB,
    bodyInFile INTEGER);
  CREATE INDEX tasks_of_session ON tasks (session, identifier);
  CREATE INDEX ended_tasks ON tasks (session, ended) WHERE ended IS NOT NULL;
  CREATE INDEX waiting_tasks ON tasks (deadline) WHERE state = 1;
  CREATE INDEX unsent_tasks ON tasks (host, port) WHERE state < 2;
  CREATE INDEX sending_tasks ON tasks (identifier) WHERE state = 2;
)";
constexpr char kTaskColumns[] = "identifier, session, state, description, cookie, pin";

void put(SQLite::Statement& statement, int place, const std::optional<Data>& data) {
  if (data) {
    statement.bind(place, data->empty() ? static_cast<const void*>("") : data->bytes(), static_cast<int>(data->size()));
  } else {
    statement.bind(place);
  }
}

void put(SQLite::Statement& statement, int place, std::uint64_t number) {
  statement.bind(place, static_cast<std::int64_t>(number));
}

std::optional<Data> dataOf(const SQLite::Column& column) {
  if (column.isNull()) return std::nullopt;
  const void* bytes = column.getBlob();
  return Data(bytes, static_cast<std::size_t>(column.getBytes()));
}

// What the store writes it can read back: a list that no longer is one is damage.
Data encoded(const Dictionary& dictionary) {
  auto list = writePropertyList(dictionary, PropertyListFormat::Binary);
  if (!list) throw SQLite::Exception(list.error().localizedDescription());
  return *list;
}

std::optional<Dictionary> decoded(const std::optional<Data>& bytes) {
  if (!bytes) return std::nullopt;
  auto list = readPropertyList(*bytes);
  return list ? list->asDictionary() : std::nullopt;
}

std::optional<TransferTask> taskOf(SQLite::Statement& row) {
  auto description = decoded(dataOf(row.getColumn(3)));
  auto task = description ? decodeTransferTask(*description) : std::nullopt;
  if (!task) return std::nullopt;
  task->identifier = static_cast<std::uint64_t>(row.getColumn(0).getInt64());
  task->session = row.getColumn(1).getString();
  task->state = static_cast<TransferState>(row.getColumn(2).getInt64());
  if (auto cookie = dataOf(row.getColumn(4))) task->cookie = Secret(cookie->view());
  task->transfer.pinnedCertificate = dataOf(row.getColumn(5));
  return task;
}

SQLiteStore::Options optionsOf(const TransferFolder& folder) {
  SQLiteStore::Options options;
  options.path = folder.storePath();
  options.lockPath = folder.storeLockPath();
  options.migrations = {kSchema};
  options.rescuedTables = {"sessions", "tasks"};
  return options;
}

template <typename T, typename Read>
std::vector<T> collect(SQLite::Statement& query, Read&& read) {
  std::vector<T> rows;
  while (query.executeStep()) rows.push_back(read(query));
  query.reset();
  return rows;
}

std::uint64_t identifierOf(SQLite::Statement& row) { return static_cast<std::uint64_t>(row.getColumn(0).getInt64()); }

}  // namespace

Result<void> TransferStore::check(const std::string& container) {
  if (!fileExists(TransferFolder::storePathIn(container))) return {};
  auto folder = TransferFolder::open(container);
  return folder ? SQLiteStore::check(optionsOf(*folder)) : Failure(folder.error());
}

Result<std::unique_ptr<TransferStore>> TransferStore::open(const TransferFolder& folder, Clock& clock) {
  SQLiteStore::Options options = optionsOf(folder);
  options.didReplaceDamagedStore = [](const SQLiteStore::Damage& damage) {
    SystemLog::shared().write({kLogError,
                               format("The store of transfers was damaged (%@). %lu rows were saved from it; it is "
                                      "kept as %@.",
                                      damage.error, damage.rescuedRows, damage.setAsidePath),
                               {}});
  };
  auto opened = SQLiteStore::open(options);
  if (!opened) return Failure(opened.error());
  std::unique_ptr<TransferStore> store(new TransferStore(folder, clock));
  store->store_ = std::move(*opened);
  auto read = store->store_->perform([&] {
    auto value = [&](const char* text) {
      SQLite::Statement& query = store->store_->statement(text);
      std::uint64_t found = query.executeStep() ? static_cast<std::uint64_t>(query.getColumn(0).getInt64()) : 0;
      query.reset();
      return found;
    };
    store->lastIdentifier_ = std::max(value("SELECT seq FROM sqlite_sequence WHERE name = 'tasks'"),
                                      value("SELECT coalesce(max(identifier), 0) FROM tasks"));
    store->lastEnd_ = value("SELECT coalesce(max(ended), 0) FROM tasks WHERE ended IS NOT NULL");
  });
  if (!read) return Failure(read.error());
  if (auto made = createDirectories(folder.answersPath(), 0700); !made) return Failure(made.error());
  store->removeStrayBodies();
  return store;
}

TransferStore::TransferStore(TransferFolder folder, Clock& clock) : folder_(std::move(folder)), clock_(clock) {}

TransferStore::~TransferStore() = default;

Result<void> TransferStore::transaction(Durability durability, const std::function<Result<void>()>& body) {
  std::lock_guard lock(mutex_);
  if (depth_ > 0) return body();
  auto begun = store_->begin(durability == Durability::Machine ? SQLiteStore::Durability::Full
                                                               : SQLiteStore::Durability::Normal);
  if (!begun) return begun;
  ++depth_;
  Result<void> done;
  try {
    done = body();
  } catch (...) {
    --depth_;
    store_->rollBack();
    throw;
  }
  --depth_;
  if (done) return store_->commit();
  store_->rollBack();
  return done;
}

Result<std::uint64_t> TransferStore::create(const TransferTask& task, const Data& token) {
  std::lock_guard lock(mutex_);
  return store_->perform([&]() -> std::uint64_t {
    SQLite::Statement& known = store_->statement("SELECT identifier FROM tasks WHERE token = ?");
    put(known, 1, std::optional(token));
    if (known.executeStep()) {
      std::uint64_t identifier = identifierOf(known);
      known.reset();
      return identifier;
    }
    known.reset();
    auto time = static_cast<std::uint64_t>(std::max<std::int64_t>(clock_.now().microsecondsSince1970(), 0));
    std::uint64_t identifier = std::max(lastIdentifier_ + 1, time);
    TransferTask described = task;
    described.transfer.pinnedCertificate.reset();  // in a column of its own, as it may change
    auto server = TransferServer::of(task.request.url);
    SQLite::Statement& insert = store_->statement(
        "INSERT INTO tasks (identifier, token, session, state, host, port, description, cookie, pin)"
        " VALUES (?, ?, ?, 0, ?, ?, ?, ?, ?)");
    put(insert, 1, identifier);
    put(insert, 2, std::optional(token));
    insert.bind(3, task.session);
    insert.bind(4, server.host);
    insert.bind(5, static_cast<int>(server.port));
    put(insert, 6, std::optional(encoded(encodeTransferTask(described, false))));
    put(insert, 7, task.cookie ? std::optional(task.cookie->revealData()) : std::nullopt);
    put(insert, 8, task.transfer.pinnedCertificate);
    insert.exec();
    lastIdentifier_ = identifier;
    return identifier;
  });
}

Result<std::optional<TransferTask>> TransferStore::task(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  return store_->perform([&] {
    SQLite::Statement& query =
        store_->statement(std::string("SELECT ") + kTaskColumns + " FROM tasks WHERE identifier = ?");
    put(query, 1, identifier);
    auto found = query.executeStep() ? taskOf(query) : std::nullopt;
    query.reset();
    return found;
  });
}

Result<std::optional<TransferState>> TransferStore::state(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  return store_->perform([&]() -> std::optional<TransferState> {
    SQLite::Statement& query = store_->statement("SELECT state FROM tasks WHERE identifier = ?");
    put(query, 1, identifier);
    std::optional<TransferState> state;
    if (query.executeStep()) state = static_cast<TransferState>(query.getColumn(0).getInt64());
    query.reset();
    return state;
  });
}

Result<std::vector<TransferTask>> TransferStore::tasks(const std::string& session, std::uint64_t after,
                                                       std::size_t limit) {
  std::lock_guard lock(mutex_);
  return store_->perform([&] {
    SQLite::Statement& query =
        store_->statement(std::string("SELECT ") + kTaskColumns +
                          " FROM tasks WHERE session = ? AND identifier > ? ORDER BY identifier LIMIT ?");
    query.bind(1, session);
    put(query, 2, after);
    put(query, 3, std::uint64_t{limit});
    std::vector<TransferTask> tasks;
    while (query.executeStep()) {
      if (auto task = taskOf(query)) tasks.push_back(std::move(*task));
    }
    query.reset();
    return tasks;
  });
}

Result<bool> TransferStore::setWaiting(std::uint64_t identifier, Date until) {
  std::lock_guard lock(mutex_);
  return store_->perform([&] {
    SQLite::Statement& update =
        store_->statement("UPDATE tasks SET state = 1, deadline = ? WHERE identifier = ? AND state = 0");
    update.bind(1, until.microsecondsSince1970());
    put(update, 2, identifier);
    return update.exec() > 0;
  });
}

Result<bool> TransferStore::setSending(std::uint64_t identifier) {
  bool changed = false;
  auto stored = transaction(Durability::Machine, [&]() -> Result<void> {
    return store_->perform([&] {
      SQLite::Statement& update = store_->statement("UPDATE tasks SET state = 2 WHERE identifier = ? AND state = 1");
      put(update, 1, identifier);
      changed = update.exec() > 0;
    });
  });
  if (!stored) return Failure(stored.error());
  return changed;
}

Result<void> TransferStore::setUnsent(std::uint64_t identifier) {
  return transaction(Durability::Process, [&]() -> Result<void> {
    return store_->perform([&] {
      SQLite::Statement& update = store_->statement("UPDATE tasks SET state = 1 WHERE identifier = ? AND state = 2");
      put(update, 1, identifier);
      update.exec();
    });
  });
}

// In the order in which tasks end.
std::uint64_t TransferStore::nextEnd() { return ++lastEnd_; }

Result<bool> TransferStore::end(std::uint64_t identifier, const TransferOutcome& outcome) {
  std::lock_guard lock(mutex_);
  return store_->perform([&] {
    SQLite::Statement& update = store_->statement(
        "UPDATE tasks SET state = 3, ended = ?, response = ?, error = ?, body = ?, bodyInFile = ?, cookie = NULL,"
        " deadline = NULL WHERE identifier = ? AND state <> 3");
    put(update, 1, nextEnd());
    put(update, 2, outcome.response ? std::optional(encoded(encodeTransferResponse(*outcome.response))) : std::nullopt);
    put(update, 3, outcome.error ? std::optional(encoded(encodeTransferError(*outcome.error))) : std::nullopt);
    put(update, 4, std::optional(outcome.body));
    update.bind(5, outcome.bodyFile ? 1 : 0);
    put(update, 6, identifier);
    return update.exec() > 0;
  });
}

Result<void> TransferStore::endInterrupted() {
  return transaction(Durability::Machine, [&]() -> Result<void> {
    auto sending = store_->perform([&] {
      return collect<std::uint64_t>(
          store_->statement("SELECT identifier FROM tasks WHERE state = 2 ORDER BY identifier"), identifierOf);
    });
    if (!sending) return Failure(sending.error());
    for (std::uint64_t identifier : *sending) {
      auto interrupted = task(identifier);
      if (!interrupted || !*interrupted) continue;
      TransferOutcome outcome;
      outcome.error = makeURLError(URLErrorNetworkConnectionLost, (*interrupted)->request.url,
                                   "The transfer was interrupted while it was sent.");
      if (auto ended = end(identifier, outcome); !ended) return Failure(ended.error());
    }
    return {};
  });
}

Result<std::optional<TransferOutcome>> TransferStore::outcome(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  return store_->perform([&]() -> std::optional<TransferOutcome> {
    SQLite::Statement& query =
        store_->statement("SELECT response, error, body, bodyInFile FROM tasks WHERE identifier = ? AND state = 3");
    put(query, 1, identifier);
    if (!query.executeStep()) return std::nullopt;
    TransferOutcome outcome;
    if (auto response = decoded(dataOf(query.getColumn(0)))) outcome.response = decodeTransferResponse(*response);
    if (auto error = decoded(dataOf(query.getColumn(1)))) outcome.error = decodeTransferError(*error);
    outcome.body = dataOf(query.getColumn(2)).value_or(Data());
    if (query.getColumn(3).getInt() != 0) outcome.bodyFile = bodyPath(identifier);
    query.reset();
    return outcome;
  });
}

Result<std::vector<std::uint64_t>> TransferStore::ended(const std::string& session) {
  std::lock_guard lock(mutex_);
  return store_->perform([&] {
    SQLite::Statement& query =
        store_->statement("SELECT identifier FROM tasks WHERE session = ? AND ended IS NOT NULL ORDER BY ended");
    query.bind(1, session);
    return collect<std::uint64_t>(query, identifierOf);
  });
}

Result<std::vector<std::string>> TransferStore::sessionsWithEnded() {
  std::lock_guard lock(mutex_);
  return store_->perform([&] {
    return collect<std::string>(store_->statement("SELECT DISTINCT session FROM tasks WHERE ended IS NOT NULL"),
                                [](SQLite::Statement& row) { return row.getColumn(0).getString(); });
  });
}

Result<bool> TransferStore::remove(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  auto removed = store_->perform([&] {
    SQLite::Statement& statement = store_->statement("DELETE FROM tasks WHERE identifier = ? AND state = 3");
    put(statement, 1, identifier);
    return statement.exec() > 0;
  });
  if (removed && *removed) (void)removeItem(bodyPath(identifier));
  return removed;
}

Result<std::vector<TransferStore::Position>> TransferStore::waiting() {
  std::lock_guard lock(mutex_);
  return store_->perform([&] {
    return collect<Position>(
        store_->statement("SELECT identifier, session, host, port FROM tasks WHERE state = 1 ORDER BY identifier"),
        [](SQLite::Statement& row) {
          return Position{identifierOf(row),
                          row.getColumn(1).getString(),
                          {row.getColumn(2).getString(), static_cast<std::uint16_t>(row.getColumn(3).getInt())}};
        });
  });
}

Result<std::vector<std::uint64_t>> TransferStore::identifiers(const std::string& session) {
  std::lock_guard lock(mutex_);
  return store_->perform([&] {
    SQLite::Statement& query =
        store_->statement("SELECT identifier FROM tasks WHERE session = ? AND state <> 3 ORDER BY identifier");
    query.bind(1, session);
    return collect<std::uint64_t>(query, identifierOf);
  });
}

Result<std::vector<std::uint64_t>> TransferStore::expired(Date now) {
  std::lock_guard lock(mutex_);
  return store_->perform([&] {
    SQLite::Statement& query =
        store_->statement("SELECT identifier FROM tasks WHERE state = 1 AND deadline <= ? ORDER BY deadline");
    query.bind(1, now.microsecondsSince1970());
    return collect<std::uint64_t>(query, identifierOf);
  });
}

Result<bool> TransferStore::isEmpty() {
  std::lock_guard lock(mutex_);
  return store_->perform([&] {
    SQLite::Statement& query = store_->statement("SELECT 1 FROM tasks LIMIT 1");
    bool found = query.executeStep();
    query.reset();
    return !found;
  });
}

Result<void> TransferStore::replaceCookie(const TransferServer& server, const std::string& sessionPrefix,
                                          const std::optional<Secret>& cookie, const std::optional<Data>& pin) {
  return transaction(Durability::Machine, [&]() -> Result<void> {
    return store_->perform([&] {
      const char* text = cookie ? "UPDATE tasks SET cookie = ?1, pin = ?2 WHERE host = ?3 AND port = ?4 AND state < 3"
                                  " AND substr(session, 1, length(?5)) = ?5"
                                : "UPDATE tasks SET cookie = ?1 WHERE host = ?3 AND port = ?4 AND state < 3"
                                  " AND substr(session, 1, length(?5)) = ?5";
      SQLite::Statement& update = store_->statement(text);
      put(update, 1, cookie ? std::optional(cookie->revealData()) : std::nullopt);
      if (cookie) put(update, 2, pin);
      update.bind(3, server.host);
      update.bind(4, static_cast<int>(server.port));
      update.bind(5, sessionPrefix);
      update.exec();
    });
  });
}

Result<void> TransferStore::setRelaunchCommand(const std::string& session, const std::vector<std::string>& command) {
  return transaction(Durability::Machine, [&]() -> Result<void> {
    return store_->perform([&] {
      Array words;
      for (const auto& word : command) words.append(Data::fromString(word));
      SQLite::Statement& insert =
          store_->statement("INSERT OR REPLACE INTO sessions (identifier, relaunch) VALUES (?, ?)");
      insert.bind(1, session);
      put(insert, 2, std::optional(encoded({{"command", words}})));
      insert.exec();
    });
  });
}

Result<std::vector<std::string>> TransferStore::relaunchCommand(const std::string& session) {
  std::lock_guard lock(mutex_);
  return store_->perform([&] {
    SQLite::Statement& query = store_->statement("SELECT relaunch FROM sessions WHERE identifier = ?");
    query.bind(1, session);
    auto dictionary = query.executeStep() ? decoded(dataOf(query.getColumn(0))) : std::nullopt;
    query.reset();
    std::vector<std::string> command;
    auto words = dictionary ? dictionary->array("command") : std::nullopt;
    if (!words) return command;
    command.reserve(words->size());
    for (const Value& word : *words) command.emplace_back(word.dataBytes());
    return command;
  });
}

std::string TransferStore::bodyPath(std::uint64_t identifier) const {
  return folder_.answersPath() + "/" + std::to_string(identifier);
}

void TransferStore::removeStrayBodies() {
  std::error_code failure;
  for (const auto& entry : std::filesystem::directory_iterator(folder_.answersPath(), failure)) {
    std::string name = entry.path().filename().string();
    std::uint64_t identifier = 0;
    auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), identifier);
    bool named = error == std::errc() && end == name.data() + name.size();
    auto found = named ? state(identifier) : Result<std::optional<TransferState>>(std::nullopt);
    if (found && *found != TransferState::Ended) (void)removeItem(entry.path().string());
  }
}

bool TransferStore::isLost() const {
  std::lock_guard lock(mutex_);
  return store_->isReplaced();
}

}  // namespace florvane
