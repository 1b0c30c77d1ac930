#pragma once

#include "Client/Client/Florvane.h"

#include <cstdio>
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

// Where people are spoken to: the standard error that the program was started with.
std::FILE* console();
// The library writes requests to standard error as it sends files; from now on nobody sees them. Descriptor 2 stays.
void silenceLibrary();

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

// Data on standard output, everything else on standard error; with --json one object, or one a line. What is said may
// wait in a buffer until flush() or finish(). For the main thread.
class Output {
 public:
  explicit Output(const CommonOptions& options) : options_(options) {}
  const CommonOptions& options() const { return options_; }

  // A line for people, or an object for scripts.
  void line(const std::string& text) const;
  void object(const nlohmann::ordered_json& object) const;
  // A word beside the answer, on standard error; nothing with --quiet.
  void note(const std::string& text) const;
  // Says it and gives the status to exit with.
  ExitStatus fail(const CommandFailure& failure) const;
  // False when standard output takes no more, so that what streams can end.
  bool flush() const;
  // The status to exit with when everything is said: a failure if standard output did not take it all, which is told
  // unless its reader has simply gone.
  ExitStatus finish(ExitStatus status) const;

 private:
  CommonOptions options_;
  mutable int writeFailure_ = 0;  // the first errno of standard output
};

// Names and other text of a server, safe to print on a terminal: control characters, and those that turn the direction
// of writing, show as "\x1b" or "\u202e".
std::string printable(const std::string& text);
std::string humanSize(std::int64_t bytes);
// With a full stop where there is none, so that another sentence can follow.
std::string endedSentence(const std::string& text);

}  // namespace florvane::tools
