#pragma once

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/Secret.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <string_view>

namespace florvane {

// Digests, message authentication, key derivation, the ChaCha20 and Poly1305 primitives and random bytes, by OpenSSL 3.
// Everything here is thread-safe; an object with state belongs to one thread at a time. A failure inside OpenSSL, which
// only running out of memory or a broken installation brings about, throws InternalInconsistencyException.

enum class DigestAlgorithm { SHA1, SHA224, SHA256, SHA384, SHA512 };

// A digest computed piece by piece.
class Digest {
 public:
  explicit Digest(DigestAlgorithm algorithm);
  ~Digest();
  Digest(Digest&&) noexcept;
  Digest& operator=(Digest&&) noexcept;
  Digest& update(std::span<const std::uint8_t> bytes);
  Digest& update(std::string_view text);
  // Either one, once; the object is spent afterwards.
  Data finish();
  Secret finishSecret();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

Data digest(DigestAlgorithm algorithm, std::span<const std::uint8_t> bytes);
std::size_t digestLength(DigestAlgorithm algorithm);
Data hmac(DigestAlgorithm algorithm, std::span<const std::uint8_t> key, std::span<const std::uint8_t> message);
// PBKDF2 with HMAC of the algorithm. No iterations or no output throw InvalidArgumentException.
Secret pbkdf2(DigestAlgorithm algorithm, const Secret& password, const Data& salt, std::uint64_t iterations,
              std::size_t outputLength);

// The original ChaCha20 with a 64-bit nonce and a 64-bit block counter that wraps: XORs the key stream of the blocks
// from `counter` on over the bytes, in place. A key of another length throws InvalidArgumentException.
void chacha20(std::span<const std::uint8_t> key32, std::uint64_t nonce, std::uint64_t counter,
              std::span<std::uint8_t> bytes);
// One-time authenticator of 16 bytes over the parts in their order. A key of another length throws
// InvalidArgumentException.
Data poly1305(std::span<const std::uint8_t> key32, std::initializer_list<std::span<const std::uint8_t>> parts);

// Cryptographically strong random bytes. The error is in POSIXErrorDomain (EIO) when the source fails.
Result<Data> randomBytes(std::size_t count);
// The same for what must stay secret.
Result<Secret> randomSecret(std::size_t count);
// In constant time for equal lengths.
bool constantTimeEqual(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b);

}  // namespace florvane
