#include "tests/support/ChildProcess.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace florvane::test {

namespace {

std::array<int, 2> makePipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe2");
  return ends;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (auto& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace

ChildProcess::ChildProcess(std::vector<std::string> arguments, std::vector<std::string> environment,
                           const std::string& standardError)
    : program_(arguments[0]) {
  (void)std::signal(SIGPIPE, SIG_IGN);  // a child that was killed must not end the test
  const auto input = makePipe(), output = makePipe();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
  if (!standardError.empty()) {
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, standardError.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                     0600);
  }
  for (char** each = environ; *each; ++each) environment.emplace_back(*each);
  auto argv = pointers(arguments), envp = pointers(environment);
  const int failure = posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(input[0]);
  close(output[1]);
  input_ = input[1];
  output_ = output[0];
  if (failure != 0) throw std::system_error(failure, std::generic_category(), arguments[0]);
}

ChildProcess::~ChildProcess() {
  if (!status_) kill(SIGKILL);
  closeInput();
  close(output_);
}

bool ChildProcess::writeLine(const std::string& line) {
  const std::string text = line + "\n";
  for (std::size_t written = 0; written < text.size();) {
    const ssize_t count = write(input_, text.data() + written, text.size() - written);
    if (count < 0 && errno != EINTR) return false;
    if (count > 0) written += static_cast<std::size_t>(count);
  }
  return true;
}

std::optional<std::string> ChildProcess::readLine() {
  for (;;) {
    if (const auto end = buffer_.find('\n'); end != std::string::npos) {
      std::string line = buffer_.substr(0, end);
      buffer_.erase(0, end + 1);
      return line;
    }
    std::array<char, 65536> bytes;
    const ssize_t count = read(output_, bytes.data(), bytes.size());
    if (count == 0 || (count < 0 && errno != EINTR)) return std::nullopt;
    if (count > 0) buffer_.append(bytes.data(), static_cast<std::size_t>(count));
  }
}

std::string ChildProcess::ask(const std::string& line) {
  if (writeLine(line)) {
    if (auto answer = readLine()) return *answer;
  }
  const int status = wait();
  const std::string how =
      status > 128 ? "by signal " + std::to_string(status - 128) : "with status " + std::to_string(status);
  throw std::runtime_error(program_ + " ended " + how + " over " + line);
}

void ChildProcess::closeInput() {
  if (input_ >= 0) close(input_);
  input_ = -1;
}

void ChildProcess::kill(int signal) {
  if (!status_) ::kill(pid_, signal);
  wait();
}

int ChildProcess::wait() {
  if (!status_) {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) continue;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return *status_;
}

std::vector<pid_t> processesOf(const std::string& program, const std::string& argument) {
  std::vector<pid_t> found;
  for (const auto& each : std::filesystem::directory_iterator("/proc")) {
    const std::string name = each.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    // One that ends meanwhile fails to be read, which a stream iterator would throw.
    std::ifstream file(each.path() / "cmdline", std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    const std::string line = text.str();
    const bool isMatch = line.find(program) != std::string::npos && line.find(argument) != std::string::npos;
    if (isMatch) found.push_back(static_cast<pid_t>(std::stoi(name)));
  }
  return found;
}

}  // namespace florvane::test
