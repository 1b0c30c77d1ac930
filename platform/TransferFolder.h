#pragma once

#include "platform/FileSystem.h"

#include <memory>
#include <optional>
#include <string>

namespace florvane {

// The folder "Transfers" of a container, mode 0700, and the files in it: the agent's lock, its socket, its store, the
// bodies of answers, and a mark that stands as long as there may be tasks. Thread-safe.
class TransferFolder {
 public:
  // Makes the folder when it is missing; one that belongs to another user is an error.
  static Result<TransferFolder> open(const std::string& container);

  const std::string& container() const { return container_; }
  const std::string& path() const { return path_; }
  std::string storePath() const { return storePathIn(container_); }
  // Where a container has its store, also while there is none.
  static std::string storePathIn(const std::string& container);
  std::string storeLockPath() const { return path_ + "/store.lock"; }
  std::string agentLockPath() const { return path_ + "/agent.lock"; }
  // Held by a process while it starts an agent.
  std::string startLockPath() const { return path_ + "/start.lock"; }
  std::string answersPath() const { return path_ + "/Answers"; }

  // The mark. Who finds neither it nor an agent knows that there is no task.
  bool mayHaveTasks() const;
  Result<void> setMayHaveTasks(bool may) const;

  // A socket that listens for sessions; an old one is replaced. Only for who holds the agent's lock.
  Result<FileDescriptor> listen() const;
  void removeSocket() const;
  // The socket that a service manager already listens on in place of that one; absent where it gave this process none.
  // Only for a process's first thread: the environment forgets it.
  static std::optional<FileDescriptor> takeInheritedSocket();
  // A connection to the agent that listens there; ENOENT or ECONNREFUSED when none does.
  Result<FileDescriptor> connect() const;

 private:
  std::string container_, path_;
};

}  // namespace florvane
