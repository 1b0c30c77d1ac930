#pragma once

#include "tools/CachedTree.h"
#include "tools/Output.h"
#include "tools/ProgressBar.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace florvane::tools {

// A file that is still to reach the server.
struct PendingUpload {
  enum class State : std::uint8_t { Sending, Waiting, Failed, Conflict };

  std::string path;
  State state = State::Waiting;
  std::int64_t bytesSent = 0, size = 0;
  std::optional<std::string> reason;  // why it waits or failed
  bool hasTask = false;               // the transfer agent has it, and goes on with it when nobody is there
  std::optional<DCUploadTask> task;
  std::optional<std::string> localFile, serversFile;  // the two sides of a conflict

  // As the record says, which knows how far a transfer is only while a process of the session hears of it.
  static PendingUpload of(const DCManagedUpload& upload);
  void setProgress(std::int64_t sent, std::int64_t expected);
  bool isUnderWay() const { return state == State::Sending || state == State::Waiting; }
  std::int64_t percentSent() const;
};

// {"account", "path", "state", "sent", "size", "percent"}, where there is one "reason", and of a conflict "localFile"
// and "serversFile".
nlohmann::ordered_json uploadObject(const PendingUpload& upload, const std::string& account);
// "office:Files/report.pdf  42% of 1.2 MiB  sending", columns apart by tabs.
std::string uploadLine(const PendingUpload& upload, const std::string& account);

// The pending uploads of one account: what is known of them, and who goes on with them. For one thread.
class PendingUploads {
 public:
  explicit PendingUploads(CachedTree tree, std::string account);

  const std::string& account() const { return account_; }
  CachedTree& tree() { return tree_; }
  std::vector<PendingUpload> all() const;
  // With the progress that the transfer agent knows, which is asked without being attached to.
  std::vector<PendingUpload> allWithProgress() const;
  // Why a file that is not pending any more did not reach the server; absent when it did.
  std::optional<CommandFailure> failureOfEnded(const std::string& path) const;

  // Makes this process the one that hears of the account's transfers, and this program the one that the transfer agent
  // starts when they end and nobody hears of it. Before the first write.
  void attach();
  // Starts what is due.
  void restart();
  // Tries again what was given up; a conflict is left for somebody to decide.
  void retry();
  // Before the end of the process: what the transfer agent does not have yet is gone on with by a process of its own.
  // False, and said why, when nobody goes on with what is left.
  bool leave(const Output& output) const;
  // What the transfer agent was told is known to it.
  void settle() const;
  std::string sessionIdentifier() const;

 private:
  struct Retries;

  CachedTree tree_;
  std::string account_;
  std::shared_ptr<Retries> retries_;  // shared with handlers
};

// Waits for uploads to change: for a change, or for a moment.
class UploadChanges {
 public:
  UploadChanges();
  ~UploadChanges();
  UploadChanges(const UploadChanges&) = delete;
  UploadChanges& operator=(const UploadChanges&) = delete;

  void notify();
  void wait(Duration atMost);

 private:
  struct State;
  std::shared_ptr<State> state_;
  std::vector<std::unique_ptr<NotificationCenter::Observation>> observations_;
};

// Waits until none of those uploads is under way; false when the time was over before. Reads them in turns with `look`,
// which also gets to say what has ended.
// Where nothing moves, `restart` is called from time to time: what is under way may have lost its transfer.
bool waitForUploads(const Output& output, const std::function<std::vector<PendingUpload>()>& look,
                    const std::function<void()>& restart);

// The failure to tell for an upload that will not go on by itself.
CommandFailure failureOfUpload(const PendingUpload& upload, PendingUploads& uploads);
// The one for uploads that were waited for and go on.
CommandFailure notSentInTime(std::size_t count, const PendingUploads& uploads);

}  // namespace florvane::tools
