#pragma once

#include "Client/Client/Florvane.h"

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace florvane::tools {

// What a command's exit status says.
enum class ExitStatus : int {
  Done = 0,
  Failed = 1,
  Usage = 2,
  NoSuchItem = 3,
  SigningInFailed = 4,
  Offline = 5,
  Conflict = 6,
};

// Options that stand before every command.
struct CommonOptions {
  bool json = false;
  bool quiet = false;
  std::optional<Duration> timeout;
};

// A failure as a person or a script is told of it: the error, one sentence that says what to do, and the exit status.
struct CommandFailure {
  ExitStatus status = ExitStatus::Failed;
  std::string sentence;
  std::optional<Error> error;
};

template <typename T>
using CommandResult = tl::expected<T, CommandFailure>;

// The sentence and the exit status for an error met while doing something with a server ("host:port").
CommandFailure failureForError(const Error& error, const std::string& server, const std::string& what);

// Data on standard output, everything else on standard error; with --json one object, or one a line.
class Output {
 public:
  explicit Output(const CommonOptions& options) : options_(options) {}
  const CommonOptions& options() const { return options_; }

  // The line for people, or the object for scripts, at once.
  void line(const std::string& text) const;
  void object(const nlohmann::ordered_json& object) const;
  // For people only; nothing with --quiet or --json.
  void note(const std::string& text) const;
  // Says it and gives the status to exit with.
  ExitStatus fail(const CommandFailure& failure) const;

 private:
  CommonOptions options_;
};

// Names and other text of a server, safe to print on a terminal: control characters show as "\x1b".
std::string printable(const std::string& text);
std::string humanSize(std::int64_t bytes);

}  // namespace florvane::tools
