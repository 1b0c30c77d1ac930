#pragma once

#include "platform/Error.h"
#include "platform/FileSystem.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include <sys/types.h>

struct sqlite3;

namespace SQLite {
class Database;
class Statement;
}  // namespace SQLite

namespace florvane {

// Codes are SQLite's extended result codes, and the one below, which is none of them.
inline constexpr char SQLiteErrorDomain[] = "SQLiteErrorDomain";
inline constexpr std::int64_t SQLiteStoreNewerVersionError = -100;

// One connection to a store that several processes share: write-ahead log, kept statements, migrations, and a
// coordination lock on a file of its own. Who writes shares that lock; who opens, repairs, deletes or checkpoints the
// store excludes everybody else by it, so that no two connections ever meet while the log is reset. Used by one thread
// at a time.
class SQLiteStore {
 public:
  // Whether a committed transaction survives only the end of the process, or that of the machine as well.
  enum class Durability { Normal, Full };

  struct Damage {
    std::string setAsidePath;
    std::size_t rescuedRows = 0;
    Error error;
  };

  struct Options {
    std::string path;
    // Kept when the store is deleted, and therefore not named like it.
    std::string lockPath;
    // The statements at place n bring a store of version n to n + 1; a store that is not there has version 0.
    std::vector<std::string> migrations;
    // Tables whose rows are saved from a damaged store as far as they can be read, with their row numbers.
    std::vector<std::string> rescuedTables;
    // Hears, while the store is locked, that it was damaged, set aside and replaced.
    std::function<void(const Damage&)> didReplaceDamagedStore;
  };

  // Opens or makes the store and brings it to the present version, in one transaction a version. A store of a newer
  // version is an error (SQLiteStoreNewerVersionError) and left as it is. A damaged store is set aside beside it, its
  // name with ".damaged-" and the date added, and a new one is opened; a kill in between is made good by the next
  // opening.
  static Result<std::unique_ptr<SQLiteStore>> open(const Options& options);
  // Sets the store aside as above, unless another process has put another in its place already.
  static Result<void> replaceDamagedStore(const Options& options, const Error& error, const SQLiteStore& damaged);
  // Puts a new store in the place of the present one, with the rows of the named tables and their row numbers, and
  // nothing else. Who has the old one open finds that with the next transaction; a kill leaves one of both, whole. On
  // failure the old one stays; one of a newer version always does.
  static Result<void> renew(const Options& options, const std::vector<std::string>& keptTables);
  static bool isDamage(const Error& error);
  // Reads the store through without changing it; the error says what is wrong with it, or that it is a newer one. Fine
  // when there is none.
  static Result<void> check(const Options& options);

  ~SQLiteStore();
  SQLiteStore(const SQLiteStore&) = delete;
  SQLiteStore& operator=(const SQLiteStore&) = delete;

  // Runs what uses statements and turns what SQLite throws into an error.
  template <typename Body>
  Result<std::invoke_result_t<Body>> perform(Body&& body) {
    Result<std::invoke_result_t<Body>> result;
    if (auto error = guarded([&] {
          if constexpr (std::is_void_v<std::invoke_result_t<Body>>) {
            body();
          } else {
            result = body();
          }
        })) {
      return Failure(*error);
    }
    return result;
  }

  // A reset statement of that text, prepared once; only inside perform().
  SQLite::Statement& statement(const std::string& text);
  std::int64_t lastInsertedRow() const;

  // A transaction in which no other process writes, from its first read on. An error (ESTALE) when another file has
  // taken the store's place since it was opened.
  Result<void> begin(Durability durability);
  // Ends the transaction also when it fails. Checkpoints when the log has become long.
  Result<void> commit();
  void rollBack();

  // Puts on stable storage what was committed without being there.
  Result<void> sync();

  // While it is kept, nobody is writing: neither is a transaction in progress, nor is one in the log that others do not
  // see yet. Absent when somebody is; nobody is waited for.
  std::optional<FileLock> tryKeepOthersFromWriting() const;
  // Differs from the last answer once another connection has changed the store.
  Result<std::int64_t> dataVersion();
  // Whether the file at the path is another than the one that was opened, or none, or about to be another.
  bool isReplaced() const;

 private:
  explicit SQLiteStore(Options options);
  static std::optional<Error> guarded(const std::function<void()>& body);
  static Result<std::unique_ptr<SQLiteStore>> openLocked(const Options& options);
  static Result<void> replaceLocked(const Options& options, const Error& error);
  static Result<std::size_t> prepareSuccessorLocked(const Options& options, const std::vector<std::string>& tables);
  static Result<void> putSuccessorInPlaceLocked(const Options& options);
  void connect();
  void migrate();
  void checkpointIfLong();
  static int didWriteLog(void* store, sqlite3* connection, const char* schema, int pages);

  const Options options_;
  std::unique_ptr<SQLite::Database> database_;
  std::unordered_map<std::string, std::unique_ptr<SQLite::Statement>> statements_;
  std::optional<FileLock> writing_;
  Durability durability_ = Durability::Normal;
  int logPages_ = 0;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace florvane
