#include "tests/support/ServerProgram.h"

#include "tests/support/TemporaryDirectory.h"

#include <csignal>
#include <filesystem>
#include <stdexcept>

#include <sys/resource.h>

namespace florvane::test {

namespace {

constexpr char kProgram[] = FLORVANE_BIN_DIR "/florvaned";

}  // namespace

ServerProgram::ServerProgram(const std::string& folder) : folder_(folder) {
  for (const std::string& share : {files(), inbox()}) std::filesystem::create_directory(share);
  writeText(folder_ + "/password", "Notes by the Translator: G\n");
  if (administer({"user", "add", "ada", "--password-file", folder_ + "/password"}) != 0) {
    throw std::runtime_error("no user");
  }
  start();
}

int ServerProgram::administer(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), kProgram);
  arguments.insert(arguments.end(), {"--state", folder_ + "/state"});
  return ChildProcess(arguments).wait();
}

void ServerProgram::start() {
  process_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{kProgram, "--state", folder_ + "/state", "--share", "Files=" + files(), "--share",
                               "Inbox=" + inbox() + ":dropbox", "--listen", "127.0.0.1:" + std::to_string(port_)});
  auto line = process_->readLine();
  if (!line) throw std::runtime_error("the server did not start");
  port_ = static_cast<std::uint16_t>(std::stoi(line->substr(line->rfind(':') + 1)));
}

void ServerProgram::killAndRestart() {
  process_->kill(SIGKILL);
  start();
}

void ServerProgram::endSessions() const {
  if (administer({"sessions", "revoke"}) != 0) throw std::runtime_error("the sessions were not ended");
}

void ServerProgram::setOutOfDescriptors(bool isOut) const {
  rlimit limit{};
  if (prlimit(process_->pid(), RLIMIT_NOFILE, nullptr, &limit) != 0) throw std::runtime_error("prlimit");
  limit.rlim_cur = isOut ? 1 : limit.rlim_max;
  if (prlimit(process_->pid(), RLIMIT_NOFILE, &limit, nullptr) != 0) throw std::runtime_error("prlimit");
}

}  // namespace florvane::test
