#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace florvane {

struct SRPContext;

inline constexpr std::uint64_t SRPMaximumBufferSize = 2147483643;
// Bits of SRPOptions::mandatory and of SRPLayer::flags.
inline constexpr unsigned SRPReplayDetection = 1U << 0;
inline constexpr unsigned SRPConfidentialityAndIntegrity = 1U << 1;

// What one side offers or chooses. 0 as maximum buffer size stands for "not said".
struct SRPOptions {
  std::uint32_t digests = 0;
  bool replayDetection = false;
  std::uint32_t ciphers = 0;
  unsigned mandatory = 0;
  std::uint32_t kdfs = 0;
  std::uint32_t maximumBufferSize = 0;

  friend bool operator==(const SRPOptions&, const SRPOptions&) = default;
};

// One thing that can be negotiated: its name on the wire, its bit, and the platform's name for it.
struct SRPOptionRow {
  std::string_view name;
  std::uint32_t bit;
  std::string_view algorithm;
};

extern const std::span<const SRPOptionRow> SRPDigestOptions;
extern const std::span<const SRPOptionRow> SRPCipherOptions;
extern const std::span<const SRPOptionRow> SRPKDFOptions;

// The bit of a name regardless of case; 0 when unknown.
std::uint32_t FindBit(std::string_view name, std::span<const SRPOptionRow> rows);
// The first row whose bit is set; null when none is.
const SRPOptionRow* firstOption(std::uint32_t bits, std::span<const SRPOptionRow> rows);

enum class SRPSide { Client, Server };

// Reads an option string: at the client the server's offer, whose names accumulate and may be unknown; at the server
// the client's choice, which names one of each at most. Returns 0, or SRPProtocolViolated with the error detail set.
int ParseOptions(SRPContext& context, std::string_view text, SRPSide side, SRPOptions& options);
// Writes only what is set. Returns 0, or SRPOutOfMemory.
int OptionsToString(const SRPOptions& options, std::string& text) noexcept;

}  // namespace florvane
