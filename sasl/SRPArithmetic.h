#pragma once

#include "platform/BigNumber.h"
#include "platform/Crypto.h"
#include "platform/Data.h"
#include "platform/Secret.h"
#include "sasl/SRPGroup.h"

#include <string_view>

#include <tl/expected.hpp>

namespace florvane {

// The computations of SRP-6a over any digest H and group (N, g). PAD is to the length of N; other numbers stand by
// their shortest bytes. Thread-safe.
struct SRPSuite {
  DigestAlgorithm digest = DigestAlgorithm::SHA512;
  const SRPGroup* group = nullptr;

  // k = H(N | PAD(g))
  BigNumber multiplier() const;
  // u = H(PAD(A) | PAD(B))
  BigNumber scrambler(const BigNumber& A, const BigNumber& B) const;
  // x = H(salt | H(user | ":" | password))
  BigNumber passwordKey(std::string_view user, const Secret& password, const Data& salt) const;
  // v = g^x
  BigNumber verifier(const BigNumber& x) const;
};

// Why an exchange must end: a peer's public value congruent to 0, or u = 0, would let the peer choose the secret.
enum class SRPFailure : int { IllegalPublicValue = 1, IllegalScrambler = 2 };

// Bytes of a fresh exponent.
inline constexpr std::size_t SRPExponentLength = 32;

// The client's ephemeral pair.
class SRPClientExponent {
 public:
  SRPClientExponent(const SRPSuite& suite, const Secret& exponent);
  const BigNumber& publicValue() const { return A_; }
  // PAD(S), S = (B - k g^x)^(a + u x)
  tl::expected<Secret, SRPFailure> premasterSecret(const BigNumber& x, const BigNumber& B) const;

 private:
  SRPSuite suite_;
  BigNumber a_, A_;
};

// The server's ephemeral pair for one verifier.
class SRPServerExponent {
 public:
  SRPServerExponent(const SRPSuite& suite, BigNumber verifier, const Secret& exponent);
  // B = k v + g^b
  const BigNumber& publicValue() const { return B_; }
  // PAD(S), S = (A v^u)^b
  tl::expected<Secret, SRPFailure> premasterSecret(const BigNumber& A) const;

 private:
  SRPSuite suite_;
  BigNumber verifier_, b_, B_;
};

// What both sides derive from the same S: K = H(PAD(S)),
// M1 = H(H(N) xor H(g) | H(user) | salt | PAD(A) | PAD(B) | K), M2 = H(PAD(A) | M1 | K).
struct SRPEvidence {
  SRPEvidence(const SRPSuite& suite, std::string_view user, const Data& salt, const BigNumber& A, const BigNumber& B,
              const Secret& premasterSecret);
  Secret sessionKey;
  Data M1;
  Data M2;
};

}  // namespace florvane
