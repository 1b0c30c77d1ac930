#pragma once

#include "tests/support/ChildProcess.h"

#include <cstdint>
#include <memory>
#include <string>

namespace florvane::test {

// The server as a program of its own, with the shares "Files" and "Inbox" (a drop box), and the user "ada" with the
// password of TestServer's. Not thread-safe.
class ServerProgram {
 public:
  // State and shares are put below that folder.
  explicit ServerProgram(const std::string& folder);

  std::uint16_t port() const { return port_; }
  std::string files() const { return folder_ + "/files"; }
  std::string inbox() const { return folder_ + "/inbox"; }
  // On the same port.
  void killAndRestart();
  // So that every cookie is refused.
  void endSessions() const;
  // Out of descriptors it answers what needs one with status 500; it has as many as it wants again afterwards.
  void setOutOfDescriptors(bool isOut) const;

 private:
  void start();
  int administer(std::vector<std::string> arguments) const;

  const std::string folder_;
  std::uint16_t port_ = 0;
  std::unique_ptr<ChildProcess> process_;
};

}  // namespace florvane::test
