#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace florvane::test {

// A program that a test talks to line by line, and may kill. Killed and reaped when it goes.
class ChildProcess {
 public:
  // Found by $PATH; additional environment entries are "NAME=value". Standard error is the test's, or goes to the end
  // of a file.
  explicit ChildProcess(std::vector<std::string> arguments, std::vector<std::string> environment = {},
                        const std::string& standardError = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  // False when the child no longer reads.
  bool writeLine(const std::string& line);
  // Absent at the end of its output.
  std::optional<std::string> readLine();
  // The line that answers a line. Where none comes the exception says how the child has ended.
  std::string ask(const std::string& line);
  // Ends its standard input.
  void closeInput();
  // Then waits for its end.
  void kill(int signal);
  // The exit status, or 128 and the signal.
  int wait();

 private:
  std::string program_;
  pid_t pid_ = -1;
  int input_ = -1, output_ = -1;
  std::string buffer_;
  std::optional<int> status_;
};

// The running processes whose command line holds both texts.
std::vector<pid_t> processesOf(const std::string& program, const std::string& argument);

}  // namespace florvane::test
