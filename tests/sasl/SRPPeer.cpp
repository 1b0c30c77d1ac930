#include "tests/sasl/SRPPeer.h"

#include "platform/Encoding.h"

#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace florvane::test {

SRPPeer::SRPPeer() {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], 0);
  posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
  std::string program = "python3", script = FLORVANE_SOURCE_DIR "/tests/sasl/srp_peer.py";
  std::array<char*, 3> arguments = {program.data(), script.data(), nullptr};
  int failure = posix_spawnp(&process_, program.c_str(), &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  descriptor_ = ends[0];
  if (failure != 0) {
    close(descriptor_);
    throw std::system_error(failure, std::generic_category(), "python3");
  }
}

SRPPeer::~SRPPeer() {
  close(descriptor_);
  while (waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

void SRPPeer::set(const std::string& name, std::string_view bytes) {
  exchange("set " + name + " " + (bytes.empty() ? "-" : hexEncode(Data::fromString(bytes))));
}

std::string SRPPeer::ask(const std::string& command, std::string_view bytes) {
  std::string answer = exchange(command + " " + (bytes.empty() ? "-" : hexEncode(Data::fromString(bytes))));
  if (answer == "-" || answer.starts_with("refused")) return answer == "-" ? "" : answer;
  auto decoded = hexDecode(answer);
  if (!decoded) throw std::runtime_error("srp_peer.py said: " + answer);
  return std::string(decoded->view());
}

std::string SRPPeer::ask(const std::string& command, std::span<const std::uint8_t> bytes) {
  return ask(command, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

std::string SRPPeer::exchange(const std::string& line) {
  std::string rest = line + "\n";
  while (!rest.empty()) {
    ssize_t count = send(descriptor_, rest.data(), rest.size(), MSG_NOSIGNAL);
    if (count < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category(), "srp_peer.py");
    if (count > 0) rest.erase(0, static_cast<std::size_t>(count));
  }
  std::string answer;
  std::array<char, 4096> buffer;
  while (!answer.ends_with('\n')) {
    ssize_t count = read(descriptor_, buffer.data(), buffer.size());
    if (count == 0 || (count < 0 && errno != EINTR)) throw std::runtime_error("srp_peer.py ended");
    if (count > 0) answer.append(buffer.data(), static_cast<std::size_t>(count));
  }
  answer.pop_back();
  return answer;
}

}  // namespace florvane::test
