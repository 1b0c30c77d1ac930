#pragma once

#include "platform/Error.h"
#include "platform/FileSystem.h"

#include <string>

namespace florvane {

// The folder in which a server keeps what must outlive it: certificate, key, users, sessions and identifier index.
// Programs that only administer it open it beside a running server. Thread-safe.
class StateDirectory {
 public:
  // Makes the folder when it is missing, with mode 0700, and takes that mode back when others were let in since.
  // Errors: QuilbarErrorDomain; ServerErrorDomain when the folder belongs to another user.
  static Result<StateDirectory> open(const std::string& path);

  const std::string& path() const { return path_; }
  std::string file(std::string_view name) const { return path_ + "/" + std::string(name); }
  // Held by the one server that runs on this folder, until the descriptor goes; ServerErrorDomain when another one has
  // it. Never blocks.
  Result<FileDescriptor> lockForServer() const;

 private:
  explicit StateDirectory(std::string path) : path_(std::move(path)) {}
  std::string path_;
};

// Why a server cannot start or an administrative request is refused, in a sentence for the person who asked.
inline constexpr char ServerErrorDomain[] = "ServerErrorDomain";
enum class ServerErrorCode {
  InvalidArgument = 1,
  InUse = 2,
  AlreadyExists = 3,
  NotFound = 4,
  Certificate = 5,
  Network = 6,
  Database = 7
};
Error serverError(ServerErrorCode code, const std::string& sentence);

}  // namespace florvane
