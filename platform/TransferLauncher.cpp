#include "platform/TransferLauncher.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr char kProgramName[] = "florvane-transferd";
constexpr auto kStartLimit = std::chrono::seconds(10);

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (auto& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

bool isProgram(const std::string& path) {
  std::error_code failure;
  return std::filesystem::is_regular_file(path, failure) && access(path.c_str(), X_OK) == 0;
}

std::optional<std::string> inPath(const std::string& name) {
  if (name.find('/') != std::string::npos) return isProgram(name) ? std::optional(name) : std::nullopt;
  const char* path = std::getenv("PATH");
  std::string folders = path ? path : "";
  for (std::size_t begin = 0; begin <= folders.size();) {
    std::size_t end = std::min(folders.find(':', begin), folders.size());
    std::string candidate = folders.substr(begin, end - begin) + "/" + name;
    if (end > begin && isProgram(candidate)) return candidate;
    begin = end + 1;
  }
  return std::nullopt;
}

// In the child of a process with threads: nothing but system calls. Says the errno on `report` where it fails.
[[noreturn]] void becomeProgram(const char* program, char** arguments, char** environment, int output, int report) {
  setsid();
  pid_t second = fork();
  if (second != 0) _exit(second > 0 ? 0 : 1);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_DFL);
  int null = open("/dev/null", O_RDWR);
  if (null >= 0 && chdir("/") == 0 && dup2(null, 0) == 0 && dup2(output >= 0 ? output : null, 1) == 1 &&
      dup2(null, 2) == 2) {
    // Marked rather than closed, so that `report` still tells of a program that cannot be run.
    close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
    execve(program, arguments, environment);
  }
  int failure = errno;
  [[maybe_unused]] ssize_t written = write(report, &failure, sizeof failure);
  _exit(1);
}

}  // namespace

Result<FileDescriptor> startDetached(const std::vector<std::string>& command,
                                     const std::vector<std::pair<std::string, std::string>>& environment,
                                     bool wantsOutput) {
  auto program = command.empty() ? std::nullopt : inPath(command.front());
  if (!program) return Failure(Error::posix(ENOENT, command.empty() ? "" : command.front()));
  std::array<int, 2> report{}, output = {-1, -1};
  if (pipe2(report.data(), O_CLOEXEC) != 0) return Failure(Error::posix(errno, *program));
  FileDescriptor reportRead(report[0]), reportWrite(report[1]);
  if (wantsOutput && pipe2(output.data(), O_CLOEXEC) != 0) return Failure(Error::posix(errno, *program));
  FileDescriptor outputRead(output[0]), outputWrite(output[1]);

  std::vector<std::string> arguments = command, entries;
  for (char** entry = environ; *entry; ++entry) {
    std::string text = *entry;
    std::string name = text.substr(0, text.find('='));
    bool replaced = false;
    for (const auto& [added, value] : environment) replaced = replaced || added == name;
    if (!replaced) entries.push_back(std::move(text));
  }
  for (const auto& [name, value] : environment) {
    std::string text = name;
    entries.push_back(text.append("=").append(value));
  }
  auto argumentPointers = pointers(arguments), environmentPointers = pointers(entries);
  pid_t child = fork();
  if (child < 0) return Failure(Error::posix(errno, *program));
  if (child == 0) {
    becomeProgram(program->c_str(), argumentPointers.data(), environmentPointers.data(), outputWrite.get(),
                  reportWrite.get());
  }
  reportWrite.close();
  outputWrite.close();
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  int failure = 0;
  ssize_t count = 0;
  do count = read(reportRead.get(), &failure, sizeof failure);
  while (count < 0 && errno == EINTR);
  if (count == static_cast<ssize_t>(sizeof failure)) return Failure(Error::posix(failure, *program));
  return outputRead;
}

std::optional<std::string> findTransferAgentProgram(const std::string& named) {
  if (!named.empty()) return inPath(named);
  if (const char* chosen = std::getenv("FLORVANE_TRANSFERD"); chosen && *chosen) return inPath(chosen);
  std::error_code failure;
  auto folder = std::filesystem::read_symlink("/proc/self/exe", failure).parent_path();
  if (!failure) {
    for (const auto& place : {folder / kProgramName, folder.parent_path() / "libexec" / kProgramName}) {
      if (isProgram(place.string())) return place.string();
    }
  }
  return inPath(kProgramName);
}

Result<void> startTransferAgent(const std::string& program, const std::string& container) {
  auto output = startDetached({program, "--container", container}, {}, true);
  if (!output) return Failure(output.error());
  std::string said;
  auto deadline = std::chrono::steady_clock::now() + kStartLimit;
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd polled{output->get(), POLLIN, 0};
    int ready = left.count() > 0 ? poll(&polled, 1, static_cast<int>(left.count())) : 0;
    if (ready == 0) return Failure(Error::posix(ETIMEDOUT, program));
    std::array<char, 64> buffer;
    ssize_t count = ready > 0 ? read(output->get(), buffer.data(), buffer.size()) : -1;
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return Failure(Error::posix(ECHILD, program));
    said.append(buffer.data(), static_cast<std::size_t>(count));
    if (said.starts_with(kTransferAgentReady)) return {};
  }
}

}  // namespace florvane
