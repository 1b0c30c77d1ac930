#pragma once

#include "platform/Clock.h"
#include "platform/TransferFolder.h"
#include "platform/TransferTask.h"

#include <functional>
#include <mutex>

namespace florvane {

class SQLiteStore;

// The agent's tasks, their outcomes and its sessions, in a SQLite file of the container (0600). Statements cost the
// same however many tasks there are. Thread-safe: one mutex, held through a transaction.
class TransferStore {
 public:
  struct Position {
    std::uint64_t identifier = 0;
    std::string session;
    TransferServer server;
  };
  enum class Durability { Process, Machine };  // what a change survives the end of

  // A store that a newer version wrote is an error (SQLiteStore.h), and left as it is.
  static Result<std::unique_ptr<TransferStore>> open(const TransferFolder& folder, Clock& clock);
  // Reads the container's store through without opening it; fine when there is none.
  static Result<void> check(const std::string& container);
  ~TransferStore();

  // Changes made in the body are stored together when it has returned without error, or not at all. Nests.
  Result<void> transaction(Durability durability, const std::function<Result<void>()>& body);

  // A new task, suspended, and its identifier; of two with the same token the first. The time in microseconds since
  // 1970 where no identifier as high was given yet, so that none is given again even when the store was lost.
  Result<std::uint64_t> create(const TransferTask& task, const Data& token);
  // Absent inside when there is no such task.
  Result<std::optional<TransferTask>> task(std::uint64_t identifier);
  Result<std::optional<TransferState>> state(std::uint64_t identifier);
  // Up to that many tasks of the session in the order of their identifiers, those above `after`.
  Result<std::vector<TransferTask>> tasks(const std::string& session, std::uint64_t after, std::size_t limit);
  // A suspended task waits from now on, at most until that date. False when it was not suspended.
  Result<bool> setWaiting(std::uint64_t identifier, Date until);
  // False when the task was not waiting.
  Result<bool> setSending(std::uint64_t identifier);
  // Back to waiting: nothing of the task has left.
  Result<void> setUnsent(std::uint64_t identifier);

  // Ends the task, unless it has ended; false then.
  Result<bool> end(std::uint64_t identifier, const TransferOutcome& outcome);
  // Ends all that were sending when an agent before this one died.
  Result<void> endInterrupted();
  Result<std::optional<TransferOutcome>> outcome(std::uint64_t identifier);
  // Of the session's ended tasks, in the order in which they ended.
  Result<std::vector<std::uint64_t>> ended(const std::string& session);
  // The sessions that have such.
  Result<std::vector<std::string>> sessionsWithEnded();
  // Forgets an ended task; false when it is not there or has not ended.
  Result<bool> remove(std::uint64_t identifier);

  // Waiting tasks in the order of their identifiers.
  Result<std::vector<Position>> waiting();
  Result<std::vector<std::uint64_t>> identifiers(const std::string& session);
  // Waiting tasks whose date has passed.
  Result<std::vector<std::uint64_t>> expired(Date now);
  Result<bool> isEmpty();
  // Whether the store's file or its folder is gone.
  bool isLost() const;

  // In the tasks of that server and those sessions which have not ended. A null cookie removes it and leaves the
  // pin.
  Result<void> replaceCookie(const TransferServer& server, const std::string& sessionPrefix,
                             const std::optional<Secret>& cookie, const std::optional<Data>& pin);
  Result<void> setRelaunchCommand(const std::string& session, const std::vector<std::string>& command);
  Result<std::vector<std::string>> relaunchCommand(const std::string& session);

  // Where the body of a task's answer is kept when it is long.
  std::string bodyPath(std::uint64_t identifier) const;

 private:
  TransferStore(TransferFolder folder, Clock& clock);
  // Files of answers that no task owns any more.
  void removeStrayBodies();
  std::uint64_t nextEnd();

  const TransferFolder folder_;
  Clock& clock_;
  mutable std::recursive_mutex mutex_;  // guards the rest
  std::unique_ptr<SQLiteStore> store_;
  int depth_ = 0;
  std::uint64_t lastIdentifier_ = 0;
  std::uint64_t lastEnd_ = 0;
};

}  // namespace florvane
