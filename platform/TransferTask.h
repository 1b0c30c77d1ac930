#pragma once

#include "platform/Date.h"
#include "platform/Secret.h"
#include "platform/URLSession.h"

namespace florvane {

// Numbers are stored.
enum class TransferState : std::int64_t {
  Suspended = 0,
  Waiting = 1,  // for its turn or for the network: no byte has left
  Sending = 2,  // bytes may have reached the server
  Ended = 3,    // its outcome is kept until it is acknowledged
};

// Host (lower case) and port.
struct TransferServer {
  std::string host;
  std::uint16_t port = 0;
  static TransferServer of(const URL& url);
  friend auto operator<=>(const TransferServer&, const TransferServer&) = default;
};

// One upload as the agent keeps it.
struct TransferTask {
  explicit TransferTask(URLRequest toSend) : request(std::move(toSend)) {}

  std::uint64_t identifier = 0;
  std::string session;
  TransferState state = TransferState::Suspended;
  // Without its Cookie field and without a body.
  URLRequest request;
  std::optional<Secret> cookie;
  std::string sourcePath;
  BackgroundTransfer transfer;
};

// How a task ended: with an answer, an error, or both.
struct TransferOutcome {
  std::shared_ptr<const HTTPURLResponse> response;
  std::optional<Error> error;
  Data body;                            // empty when the body is in a file
  std::optional<std::string> bodyFile;  // its path
};

}  // namespace florvane
