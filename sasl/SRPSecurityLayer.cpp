#include "sasl/SRPSecurityLayer.h"

#include "platform/Crypto.h"
#include "sasl/SRPContext.h"
#include "sasl/SRPDiagnostics.h"

#include <algorithm>
#include <new>

#include <openssl/crypto.h>

namespace florvane {

namespace {

constexpr std::uint32_t keyLength = 32;
constexpr std::uint32_t prefixLength = 4;
constexpr std::uint32_t tagLength = 16;
// What an encoded packet may need beside its plaintext, with room to spare for the cipher.
constexpr std::size_t encodingOverhead = 84;

std::uint64_t readLittleEndian(std::span<const std::uint8_t> bytes) {
  std::uint64_t value = 0;
  for (std::size_t i = bytes.size(); i-- > 0;) value = value << 8 | bytes[i];
  return value;
}

SRPCipherState cipherState(const Secret& sessionKey, std::span<const std::uint8_t> iv) {
  SRPCipherState state;
  state.key = Secret(sessionKey.revealSpan().first(keyLength));
  state.counter = readLittleEndian(iv.first(8));
  state.nonce = readLittleEndian(iv.subspan(8));
  return state;
}

// The nonce of the state's next packet; wraps as its 64 bits do.
std::uint64_t nextNonce(const SRPCipherState& state) { return state.nonce + state.packets; }

// The tag of the next packet's ciphertext, under a key from the block before the text's.
Data tagOf(const SRPCipherState& state, std::span<const std::uint8_t> ciphertext) {
  std::array<std::uint8_t, keyLength> authenticatorKey{};
  chacha20(state.key.revealSpan(), nextNonce(state), state.counter, authenticatorKey);
  const std::array<std::uint8_t, 8> noAssociatedData{};
  std::array<std::uint8_t, 8> length;
  for (std::size_t i = 0; i < length.size(); ++i) {
    length[i] = static_cast<std::uint8_t>(std::uint64_t{ciphertext.size()} >> (8 * i));
  }
  Data tag = poly1305(authenticatorKey, {noAssociatedData, ciphertext, length});
  OPENSSL_cleanse(authenticatorKey.data(), authenticatorKey.size());
  return tag;
}

void applyKeyStream(const SRPCipherState& state, std::span<std::uint8_t> text) {
  chacha20(state.key.revealSpan(), nextNonce(state), state.counter + 1, text);
}

std::uint32_t less(std::uint32_t size, std::uint32_t part) { return size - std::min(size, part); }

bool hasLayer(const SRPContext* context) {
  return context && (context->layer.flags & SRPConfidentialityAndIntegrity) != 0;
}

int requireLayer(SRPContext& context) {
  return hasLayer(&context) ? SRPDone : fail(context, SRPBadParameter, "confidentiality integrity layer required");
}

int badParameter(SRPContext* context) {
  return context ? fail(*context, SRPBadParameter, "Bad parameter") : SRPBadParameter;
}

// Bytes that are cleansed on every way out.
struct Plaintext {
  Plaintext() = default;
  Plaintext(const Plaintext&) = delete;
  Plaintext& operator=(const Plaintext&) = delete;
  ~Plaintext() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
  std::vector<std::uint8_t> bytes;
};

}  // namespace

int LayerInit(SRPLayer& layer, const SRPContext& context, std::span<const std::uint8_t> peerIV,
              std::span<const std::uint8_t> ownIV) {
  const SRPOptions& options = context.options;
  const SRPOptionRow* cipher = firstOption(options.ciphers, SRPCipherOptions);
  if (!cipher) {
    printDiagnostic("Unable to find SRP confidentiality+integrity layer option\n");
    return SRPFailed;
  }
  if (cipher->algorithm != "ChaCha20-Poly1305") {
    printDiagnostic("Unsupported SRP confidentiality+integrity layer option, not ChaCha20-Poly1305\n");
    return SRPFailed;
  }
  if (!firstOption(options.kdfs, SRPKDFOptions)) {
    printDiagnostic("Unable to find SRP KDF layer option, kdf=SALTED-SHA512-PBKDF2 option required\n");
    return SRPFailed;
  }
  if (!context.evidence || context.evidence->sessionKey.size() < keyLength) {
    printDiagnostic("SRP session key missing or too short\n");
    return SRPFailed;
  }
  if (peerIV.size() != SRPIVLength || ownIV.size() != SRPIVLength) {
    printDiagnostic("SRP initialization vectors are not %zu bytes long\n", SRPIVLength);
    return SRPFailed;
  }
  if (std::ranges::equal(peerIV.subspan(8), ownIV.subspan(8))) {
    printDiagnostic("SRP initialization vectors share a nonce\n");
    return SRPFailed;
  }
  layer = {};
  layer.flags = SRPConfidentialityAndIntegrity | (options.replayDetection ? SRPReplayDetection : 0);
  layer.sending = cipherState(context.evidence->sessionKey, peerIV);
  layer.receiving = cipherState(context.evidence->sessionKey, ownIV);
  std::uint32_t bufferSize =
      options.maximumBufferSize != 0 ? options.maximumBufferSize : static_cast<std::uint32_t>(SRPMaximumBufferSize);
  layer.maximumPacketSize = less(bufferSize, tagLength);
  layer.maximumPlaintextSize = less(layer.maximumPacketSize, prefixLength);
  return SRPDone;
}

int srp_encode(SRPContext* context, std::span<const std::uint8_t> plaintext, std::span<const std::uint8_t>* output) {
  if (!context || !output || (!plaintext.empty() && !plaintext.data())) return badParameter(context);
  *output = {};
  if (int result = requireLayer(*context); result != SRPDone) return result;
  SRPLayer& layer = context->layer;
  // The receiver counts the tag towards the size of a packet, so that leaves less than the plaintext's own limit.
  std::size_t limit = std::min(layer.maximumPlaintextSize, less(layer.maximumPacketSize, tagLength));
  if (plaintext.size() > limit) {
    return fail(*context, SRPBadParameter, "plaintext too big for one packet (%zu > %zu)", plaintext.size(), limit);
  }
  if (int result = conditional_realloc(layer.output, plaintext.size() + encodingOverhead); result != SRPDone) {
    return fail(*context, result, "Out of memory");
  }
  std::span<std::uint8_t> packet(layer.output.data(), prefixLength + plaintext.size() + tagLength);
  std::span<std::uint8_t> text = packet.subspan(prefixLength, plaintext.size());
  std::ranges::copy(plaintext, text.begin());
  applyKeyStream(layer.sending, text);
  std::ranges::copy(tagOf(layer.sending, text), packet.last(tagLength).begin());
  std::uint64_t length = text.size() + tagLength;
  for (std::size_t i = 0; i < prefixLength; ++i) packet[i] = static_cast<std::uint8_t>(length >> (24 - 8 * i));
  ++layer.sending.packets;
  *output = packet;
  return SRPDone;
}

int srp_decode(SRPContext* context, std::span<const std::uint8_t> input, Secret* output) {
  if (!context || !output || (!input.empty() && !input.data())) return badParameter(context);
  *output = Secret();
  if (int result = requireLayer(*context); result != SRPDone) return result;
  SRPLayer& layer = context->layer;
  if (layer.failure == SRPDone) {
    Plaintext plaintext;
    try {
      // Room for all that may come out: growing would leave copies behind.
      plaintext.bytes.reserve(layer.assembly.size() + input.size());
      layer.failure = decode_pkts_input(*context, layer, input, srp_decode_packet, plaintext.bytes);
      if (layer.failure == SRPDone) *output = Secret(std::span<const std::uint8_t>(plaintext.bytes));
    } catch (const std::bad_alloc&) {
      layer.failure = fail(*context, SRPOutOfMemory, "Out of memory");
    }
  }
  return layer.failure;
}

bool srp_has_confidentiality(const SRPContext* context) { return hasLayer(context); }

bool srp_has_integrity(const SRPContext* context) { return hasLayer(context); }

int srp_decode_packet(SRPContext& context, std::span<const std::uint8_t> packet, std::vector<std::uint8_t>& plaintext) {
  if (int result = requireLayer(context); result != SRPDone) return result;
  SRPCipherState& receiving = context.layer.receiving;
  auto ciphertext = packet.first(packet.size() - std::min<std::size_t>(packet.size(), tagLength));
  if (packet.size() < tagLength || !constantTimeEqual(tagOf(receiving, ciphertext).span(), packet.last(tagLength))) {
    return fail(context, SRPIntegrityViolated, "ChaCha20-Poly1305 verification error");
  }
  std::size_t start = plaintext.size();
  if (int result = conditional_realloc(plaintext, start + ciphertext.size()); result != SRPDone) {
    return fail(context, result, "Out of memory");
  }
  std::span<std::uint8_t> text = std::span(plaintext).subspan(start);
  std::ranges::copy(ciphertext, text.begin());
  applyKeyStream(receiving, text);
  ++receiving.packets;
  return SRPDone;
}

int decode_pkts_input(SRPContext& context, SRPLayer& layer, std::span<const std::uint8_t> input,
                      SRPPacketHandler handler, std::vector<std::uint8_t>& plaintext) {
  while (true) {
    std::size_t count = std::min(layer.prefixBytesNeeded, input.size());
    std::copy_n(input.begin(), count, layer.prefix.end() - static_cast<std::ptrdiff_t>(layer.prefixBytesNeeded));
    layer.prefixBytesNeeded -= count;
    input = input.subspan(count);
    if (layer.prefixBytesNeeded > 0) return SRPDone;

    std::uint32_t length = 0;
    for (std::uint8_t byte : layer.prefix) length = length << 8 | byte;
    if (length == 0) return fail(context, SRPFailed, "encoded packet is empty");
    if (length > layer.maximumPacketSize) {
      printDiagnostic("encoded packet size too big (%d > %d)", length, layer.maximumPacketSize);
      return SRPFailed;
    }
    // Grows with what has arrived: a length alone must not cost its sender's claim in memory.
    count = std::min(length - layer.assembly.size(), input.size());
    layer.assembly.insert(layer.assembly.end(), input.begin(), input.begin() + static_cast<std::ptrdiff_t>(count));
    input = input.subspan(count);
    if (layer.assembly.size() < length) return SRPDone;

    int result = handler(context, layer.assembly, plaintext);
    layer.assembly.clear();
    layer.prefixBytesNeeded = layer.prefix.size();
    if (result != SRPDone) return result;
  }
}

}  // namespace florvane
