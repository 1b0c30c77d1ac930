#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace florvane::test {

// The independent implementation in srp_peer.py, as a process that answers one command at a time.
class SRPPeer {
 public:
  SRPPeer();
  ~SRPPeer();
  SRPPeer(const SRPPeer&) = delete;
  SRPPeer& operator=(const SRPPeer&) = delete;

  // Puts a value in place of the one that an honest peer would use.
  void set(const std::string& name, std::string_view bytes);
  // The answer's bytes; a refusal is given as "refused REASON".
  std::string ask(const std::string& command, std::string_view bytes = {});
  std::string ask(const std::string& command, std::span<const std::uint8_t> bytes);

 private:
  std::string exchange(const std::string& line);
  pid_t process_ = 0;
  int descriptor_ = -1;
};

}  // namespace florvane::test
