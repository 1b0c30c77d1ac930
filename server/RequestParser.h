#pragma once

#include "server/HTTPMessage.h"

#include <cstddef>
#include <memory>
#include <span>
#include <string>

namespace florvane {

// Takes one HTTP/1.1 request apart, bytes in, head and body pieces out. Heads hold at most 1 MiB and 64 KiB and 256
// fields, so that a metadata field of 1 MiB fits. Not thread-safe.
class RequestParser {
 public:
  enum class Outcome {
    NeedMore,   // nothing (further) can be made of these bytes: call again with them and those that follow
    Head,       // the head is complete
    Body,       // a piece of the body has come; there may be more
    Done,       // the request is complete
    Malformed,  // no HTTP, or a form of it that is not understood
    HeadTooLarge,
  };
  struct Step {
    Outcome outcome;
    std::size_t consumed = 0;  // bytes of the input that are used up
  };

  RequestParser();
  ~RequestParser();
  // One step. The body's bytes go to the end of `body`.
  Step step(std::span<const std::uint8_t> input, std::string& body);
  // Complete from Outcome::Head on.
  const HTTPRequestHead& head() const;
  bool isDone() const;

 private:
  struct Parser;
  std::unique_ptr<Parser> parser_;
};

inline constexpr std::size_t kMaximumRequestHeadSize = (1U << 20) + (64U << 10);

}  // namespace florvane
