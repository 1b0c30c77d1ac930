#include "tests/support/Process.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <string_view>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace florvane::test {

namespace {

struct Pipe {
  Pipe() {
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe2");
  }
  std::array<int, 2> ends{};
};

std::string readToEnd(int descriptor) {
  std::string text;
  std::array<char, 65536> buffer;
  for (ssize_t count; (count = read(descriptor, buffer.data(), buffer.size())) != 0;) {
    if (count > 0) text.append(buffer.data(), static_cast<std::size_t>(count));
    if (count < 0 && errno != EINTR) break;
  }
  close(descriptor);
  return text;
}

void writeAndClose(int descriptor, std::string_view text) {
  while (!text.empty()) {
    ssize_t count = write(descriptor, text.data(), text.size());
    if (count < 0 && errno != EINTR) break;
    if (count > 0) text.remove_prefix(static_cast<std::size_t>(count));
  }
  close(descriptor);
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (auto& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace

ProcessResult runProcess(const std::vector<std::string>& arguments, const std::string& standardInput,
                         const std::vector<std::string>& environment) {
  signal(SIGPIPE, SIG_IGN);  // a child that does not read its input must not end the test
  Pipe input, output, error;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input.ends[0], 0);
  posix_spawn_file_actions_adddup2(&actions, output.ends[1], 1);
  posix_spawn_file_actions_adddup2(&actions, error.ends[1], 2);

  std::vector<std::string> argumentTexts = arguments, environmentTexts = environment;
  for (char** entry = environ; *entry; ++entry) environmentTexts.emplace_back(*entry);
  pid_t child = 0;
  int failure = posix_spawnp(&child, argumentTexts[0].c_str(), &actions, nullptr, pointers(argumentTexts).data(),
                             pointers(environmentTexts).data());
  posix_spawn_file_actions_destroy(&actions);
  close(input.ends[0]);
  close(output.ends[1]);
  close(error.ends[1]);

  ProcessResult result;
  if (failure != 0) {
    for (int descriptor : {input.ends[1], output.ends[0], error.ends[0]}) close(descriptor);
    throw std::system_error(failure, std::generic_category(), argumentTexts[0]);
  }
  std::thread writer(writeAndClose, input.ends[1], std::string_view(standardInput));
  std::thread errorReader([&] { result.standardError = readToEnd(error.ends[0]); });
  result.standardOutput = readToEnd(output.ends[0]);
  writer.join();
  errorReader.join();
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

ProcessResult runPython(const std::string& script, const std::vector<std::string>& arguments,
                        const std::string& standardInput) {
  std::vector<std::string> command = {"python3", "-c", script};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return runProcess(command, standardInput);
}

}  // namespace florvane::test
