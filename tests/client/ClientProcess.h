#pragma once

#include "tests/support/ChildProcess.h"

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace florvane::test {

// A process of client_peer in a container, its clock that many seconds ahead. It has its manager when this returns.
inline std::unique_ptr<ChildProcess> startClient(const std::string& container, std::uint16_t port, int ahead,
                                                 std::vector<std::string> environment = {}) {
  environment.push_back("FLORVANE_CONTAINER=" + container);
  auto client = std::make_unique<ChildProcess>(
      std::vector<std::string>{FLORVANE_BIN_DIR "/client_peer", std::to_string(port), std::to_string(ahead)},
      std::move(environment));
  if (!client->readLine()) throw std::runtime_error("the client did not start");
  return client;
}

inline nlohmann::json ask(ChildProcess& client, const nlohmann::json& request) {
  return nlohmann::json::parse(client.ask(request.dump()));
}

}  // namespace florvane::test
