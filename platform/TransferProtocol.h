#pragma once

#include "platform/TransferTask.h"

#include <span>
#include <string>

namespace florvane {

// What agent and sessions say to each other over their socket: frames of a length (4 bytes, little-endian) and a binary
// property list, one dictionary each. docs/transfers.md lists them.

inline constexpr std::int64_t kTransferProtocolVersion = 1;
inline constexpr std::size_t kMostTransferFrameBytes = std::size_t{1024} * 1024;

// "type" of a frame.
namespace transfer_frame {
// From a session. All but Hello and Verdict are answered by a Reply of the same "number".
inline constexpr char Hello[] = "hello";
inline constexpr char Claim[] = "claim";
inline constexpr char Create[] = "create";
inline constexpr char Resume[] = "resume";
inline constexpr char Cancel[] = "cancel";
inline constexpr char CancelAll[] = "cancelAll";
inline constexpr char List[] = "list";
inline constexpr char Acknowledge[] = "acknowledge";
inline constexpr char Retry[] = "retry";
inline constexpr char Cookie[] = "cookie";
inline constexpr char Verdict[] = "verdict";
// From the agent.
inline constexpr char Reply[] = "reply";
inline constexpr char Progress[] = "progress";
inline constexpr char Outcome[] = "outcome";
inline constexpr char Challenge[] = "challenge";
inline constexpr char Finished[] = "finished";
}  // namespace transfer_frame

// The error is URLErrorDataLengthExceedsMaximum for a frame beyond the limit.
Result<Data> encodeTransferFrame(const Dictionary& frame);

// Cuts what arrives into frames.
class TransferFrameReader {
 public:
  void append(std::span<const std::uint8_t> bytes);
  // Absent inside when no whole frame has come yet; an error when what came is no frame, and nothing after it counts.
  Result<std::optional<Dictionary>> next();

 private:
  std::string bytes_;
  std::size_t begin_ = 0;
};

// Values as dictionaries. Names and paths travel as bytes, since they need not be UTF-8. Decoding gives nothing where
// anything is missing.
Dictionary encodeTransferRequest(const URLRequest& request);
std::optional<URLRequest> decodeTransferRequest(const Dictionary& dictionary);
Dictionary encodeTransferResponse(const HTTPURLResponse& response);
std::shared_ptr<const HTTPURLResponse> decodeTransferResponse(const Dictionary& dictionary);
// What a property list cannot hold is left out of the user info.
Dictionary encodeTransferError(const Error& error);
std::optional<Error> decodeTransferError(const Dictionary& dictionary);
// Without identifier, session and state; the cookie only when asked for.
Dictionary encodeTransferTask(const TransferTask& task, bool withCookie);
std::optional<TransferTask> decodeTransferTask(const Dictionary& dictionary);

}  // namespace florvane
