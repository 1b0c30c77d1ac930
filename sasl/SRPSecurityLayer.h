#pragma once

#include "platform/Data.h"
#include "platform/Secret.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace florvane {

struct SRPContext;

// One direction of the layer. Packet n is sealed under nonce + n with blocks from the starting counter on; both wrap.
struct SRPCipherState {
  Secret key;
  std::uint64_t counter = 0;
  std::uint64_t nonce = 0;
  std::uint64_t packets = 0;  // sealed or opened so far
};

// State of the ChaCha20-Poly1305 layer, which is a framing over a byte stream:
// length of the rest (4 bytes, big-endian), ciphertext, tag (16 bytes).
struct SRPLayer {
  unsigned flags = 0;
  SRPCipherState sending;
  SRPCipherState receiving;
  std::uint32_t maximumPacketSize = 0;
  std::uint32_t maximumPlaintextSize = 0;
  std::vector<std::uint8_t> output;

  std::array<std::uint8_t, 4> prefix{};
  std::size_t prefixBytesNeeded = 4;
  std::vector<std::uint8_t> assembly;
  int failure = 0;  // result of the packet that broke the layer
};

// Keys both directions with the context's session key: sends under the peer's IV, receives under its own. Fails with -1
// (said on standard error) without a negotiated cipher and kdf, with an IV that is not 16 bytes long, or when both
// IVs share the nonce half, since both directions share the key.
int LayerInit(SRPLayer& layer, const SRPContext& context, std::span<const std::uint8_t> peerIV,
              std::span<const std::uint8_t> ownIV);

// Seals one packet; `output` is valid until the next call. SRPBadParameter (-7) without a layer, for null, and for a
// plaintext longer than the peer takes.
int srp_encode(SRPContext* context, std::span<const std::uint8_t> plaintext, std::span<const std::uint8_t>* output);
// Takes input in pieces of any size and gives the plaintext of all packets that it completes. After a packet that is
// refused (-9 for a wrong tag, -1 for a wrong length) there is no output, then or later.
int srp_decode(SRPContext* context, std::span<const std::uint8_t> input, Secret* output);

bool srp_has_confidentiality(const SRPContext* context);
bool srp_has_integrity(const SRPContext* context);

// Opens one packet (ciphertext and tag) and appends its plaintext.
int srp_decode_packet(SRPContext& context, std::span<const std::uint8_t> packet, std::vector<std::uint8_t>& plaintext);
using SRPPacketHandler = decltype(&srp_decode_packet);
// Cuts a byte stream into packets and hands each to the handler.
int decode_pkts_input(SRPContext& context, SRPLayer& layer, std::span<const std::uint8_t> input,
                      SRPPacketHandler handler, std::vector<std::uint8_t>& plaintext);

}  // namespace florvane
