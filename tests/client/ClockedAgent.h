#pragma once

#include "platform/TransferAgent.h"
#include "tests/client/UploadClient.h"

#include <memory>
#include <stdexcept>

namespace florvane::test {

// The transfer agent of a client's container, inside this process, on the clock that the test moves. To be made before
// the client's first upload.
class ClockedAgent {
 public:
  explicit ClockedAgent(UploadClient& client) {
    auto started =
        TransferAgent::start({.container = client.container.path(), .clock = &client.clock, .onIdle = nullptr});
    if (!started) throw std::runtime_error(started.error().description());
    agent_ = *started;
  }
  ~ClockedAgent() { agent_->stop(); }
  ClockedAgent(const ClockedAgent&) = delete;
  ClockedAgent& operator=(const ClockedAgent&) = delete;

 private:
  std::shared_ptr<TransferAgent> agent_;
};

// Time goes on until nothing of the path waits to be sent; ctest's limit ends a wait in vain.
inline void untilSent(UploadClient& client, const std::string& path) {
  while (client.record(path)) {
    client.clock.advance(std::chrono::seconds(1));
    client.onQueue([] {});
    (void)client.refresh("");  // a turn of the network's
  }
}

}  // namespace florvane::test
