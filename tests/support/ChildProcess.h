#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace florvane::test {

// A program that a test talks to line by line, and may kill. Killed and reaped when it goes.
class ChildProcess {
 public:
  // Found by $PATH; additional environment entries are "NAME=value". Standard error is the test's.
  explicit ChildProcess(std::vector<std::string> arguments, std::vector<std::string> environment = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  // False when the child no longer reads.
  bool writeLine(const std::string& line);
  // Absent at the end of its output.
  std::optional<std::string> readLine();
  // Ends its standard input.
  void closeInput();
  // Then waits for its end.
  void kill(int signal);
  // The exit status, or 128 and the signal.
  int wait();

 private:
  pid_t pid_ = -1;
  int input_ = -1, output_ = -1;
  std::string buffer_;
  std::optional<int> status_;
};

}  // namespace florvane::test
