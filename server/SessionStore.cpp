#include "server/SessionStore.h"

#include "platform/Crypto.h"

#include <chrono>
#include <mutex>

#include <SQLiteCpp/SQLiteCpp.h>
#include <fcntl.h>

namespace florvane {

namespace {

constexpr Duration kLifetime = std::chrono::hours(24 * 30);
constexpr Duration kRenewalStep = std::chrono::hours(24);  // a day's use costs one write, not one a request
constexpr int kSessionsPerUser = 256;
constexpr int kBusyTimeout = 5000;

Failure databaseFailure(const SQLite::Exception& exception) {
  return Failure(serverError(ServerErrorCode::Database, std::string("The session store failed: ") + exception.what()));
}

Data keyDigest(const Secret& key) {
  Digest sha(DigestAlgorithm::SHA256);
  return sha.update(key.reveal()).finish();
}

// A kept statement, ready for its next use however this one ends.
class Use {
 public:
  explicit Use(SQLite::Statement& statement) : statement_(statement) {}
  ~Use() {
    statement_.tryReset();
    statement_.clearBindings();
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  SQLite::Statement* operator->() { return &statement_; }

 private:
  SQLite::Statement& statement_;
};

void bind(Use& use, int index, const Data& data) { use->bind(index, data.bytes(), static_cast<int>(data.size())); }

}  // namespace

struct SessionStore::State {
  State(const std::string& path, Clock& clockToUse)
      : clock(clockToUse), database(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE, kBusyTimeout) {
    database.exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA secure_delete=ON");
    database.exec(
        "CREATE TABLE IF NOT EXISTS sessions (digest BLOB PRIMARY KEY, user TEXT NOT NULL, expires INTEGER NOT NULL) "
        "WITHOUT ROWID;"
        "CREATE INDEX IF NOT EXISTS sessionsOfUser ON sessions (user, expires);"
        "CREATE INDEX IF NOT EXISTS sessionsByExpiry ON sessions (expires)");
    find.emplace(database, "SELECT user, expires FROM sessions WHERE digest = ? AND expires > ?");
    renew.emplace(database, "UPDATE sessions SET expires = ? WHERE digest = ?");
  }

  Clock& clock;
  std::mutex mutex;  // guards all below
  SQLite::Database database;
  std::optional<SQLite::Statement> find, renew;
};

SessionStore::SessionStore(std::unique_ptr<State> state) : state_(std::move(state)) {}
SessionStore::~SessionStore() = default;

Result<std::unique_ptr<SessionStore>> SessionStore::open(const StateDirectory& directory, Clock& clock) {
  std::string path = directory.file("sessions.sqlite");
  // Made here, since SQLite gives its other files the mode of the first.
  FileDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!file.valid()) return Failure(Error::fileWrite(errno, path));
  try {
    return std::unique_ptr<SessionStore>(new SessionStore(std::make_unique<State>(path, clock)));
  } catch (const SQLite::Exception& exception) {
    return databaseFailure(exception);
  }
}

Result<Secret> SessionStore::create(const std::string& user) {
  auto bytes = randomBytes(kCookieKeyLength);
  if (!bytes) return Failure(bytes.error());
  Secret key(bytes->view());
  Data digest = keyDigest(key);
  std::int64_t now = state_->clock.now().microsecondsSince1970();
  std::lock_guard lock(state_->mutex);
  try {
    SQLite::Database& database = state_->database;
    SQLite::Transaction transaction(database, SQLite::TransactionBehavior::IMMEDIATE);
    SQLite::Statement expired(database, "DELETE FROM sessions WHERE expires <= ?");
    expired.bind(1, now);
    expired.exec();
    SQLite::Statement surplus(database,
                              "DELETE FROM sessions WHERE digest IN (SELECT digest FROM sessions WHERE user = ? "
                              "ORDER BY expires DESC LIMIT -1 OFFSET ?)");
    surplus.bind(1, user);
    surplus.bind(2, kSessionsPerUser - 1);
    surplus.exec();
    SQLite::Statement insert(database, "INSERT INTO sessions (digest, user, expires) VALUES (?, ?, ?)");
    insert.bind(1, digest.bytes(), static_cast<int>(digest.size()));
    insert.bind(2, user);
    insert.bind(3, now + kLifetime.count());
    insert.exec();
    transaction.commit();
  } catch (const SQLite::Exception& exception) {
    return databaseFailure(exception);
  }
  return key;
}

std::optional<std::string> SessionStore::user(const Secret& key) {
  if (key.size() != kCookieKeyLength) return std::nullopt;
  Data digest = keyDigest(key);
  std::int64_t now = state_->clock.now().microsecondsSince1970();
  std::lock_guard lock(state_->mutex);
  try {
    std::string user;
    std::int64_t expires = 0;
    {
      Use find(*state_->find);
      bind(find, 1, digest);
      find->bind(2, now);
      if (!find->executeStep()) return std::nullopt;
      user = find->getColumn(0).getString();
      expires = find->getColumn(1).getInt64();
    }
    if (expires < now + (kLifetime - kRenewalStep).count()) {
      Use renew(*state_->renew);
      renew->bind(1, now + kLifetime.count());
      bind(renew, 2, digest);
      renew->exec();
    }
    return user;
  } catch (const SQLite::Exception&) {
    return std::nullopt;
  }
}

Result<std::size_t> SessionStore::revoke(const std::string& user) {
  std::lock_guard lock(state_->mutex);
  try {
    SQLite::Statement remove(state_->database, "DELETE FROM sessions WHERE user = ?");
    remove.bind(1, user);
    return static_cast<std::size_t>(remove.exec());
  } catch (const SQLite::Exception& exception) {
    return databaseFailure(exception);
  }
}

Result<std::size_t> SessionStore::revokeAll() {
  std::lock_guard lock(state_->mutex);
  try {
    return static_cast<std::size_t>(state_->database.exec("DELETE FROM sessions"));
  } catch (const SQLite::Exception& exception) {
    return databaseFailure(exception);
  }
}

}  // namespace florvane
