#include "sasl/SRPArithmetic.h"

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace florvane {

BigNumber SRPSuite::multiplier() const {
  Digest hash(digest);
  hash.update(group->N.bytes().span()).update(group->g.paddedBytes(group->length()).span());
  return BigNumber::fromBytes(hash.finish().span());
}

BigNumber SRPSuite::scrambler(const BigNumber& A, const BigNumber& B) const {
  Digest hash(digest);
  hash.update(A.paddedBytes(group->length()).span()).update(B.paddedBytes(group->length()).span());
  return BigNumber::fromBytes(hash.finish().span());
}

BigNumber SRPSuite::passwordKey(std::string_view user, const Secret& password, const Data& salt) const {
  Secret inner = Digest(digest).update(user).update(":").update(password.reveal()).finishSecret();
  return BigNumber::fromSecret(Digest(digest).update(salt.span()).update(inner.reveal()).finishSecret());
}

BigNumber SRPSuite::verifier(const BigNumber& x) const { return group->g.modExp(x, group->N); }

SRPClientExponent::SRPClientExponent(const SRPSuite& suite, const Secret& exponent)
    : suite_(suite), a_(BigNumber::fromSecret(exponent)), A_(suite.group->g.modExp(a_, suite.group->N)) {}

tl::expected<Secret, SRPFailure> SRPClientExponent::premasterSecret(const BigNumber& x, const BigNumber& B) const {
  const BigNumber& N = suite_.group->N;
  if (B >= N || B.isZero()) return tl::unexpected(SRPFailure::IllegalPublicValue);
  BigNumber u = suite_.scrambler(A_, B);
  if (u.isZero()) return tl::unexpected(SRPFailure::IllegalScrambler);
  BigNumber base = B.modMinus(suite_.multiplier().modTimes(suite_.verifier(x), N), N);
  return base.modExp(a_.plus(u.times(x)), N).paddedSecret(suite_.group->length());
}

SRPServerExponent::SRPServerExponent(const SRPSuite& suite, BigNumber verifier, const Secret& exponent)
    : suite_(suite), verifier_(std::move(verifier)), b_(BigNumber::fromSecret(exponent)) {
  const BigNumber& N = suite_.group->N;
  B_ = suite_.multiplier().modTimes(verifier_, N).plus(suite_.group->g.modExp(b_, N)).mod(N);
}

tl::expected<Secret, SRPFailure> SRPServerExponent::premasterSecret(const BigNumber& A) const {
  const BigNumber& N = suite_.group->N;
  if (A >= N || A.isZero()) return tl::unexpected(SRPFailure::IllegalPublicValue);
  BigNumber u = suite_.scrambler(A, B_);
  if (u.isZero()) return tl::unexpected(SRPFailure::IllegalScrambler);
  return A.modTimes(verifier_.modExp(u, N), N).modExp(b_, N).paddedSecret(suite_.group->length());
}

SRPEvidence::SRPEvidence(const SRPSuite& suite, std::string_view user, const Data& salt, const BigNumber& A,
                         const BigNumber& B, const Secret& premasterSecret)
    : sessionKey(Digest(suite.digest).update(premasterSecret.reveal()).finishSecret()) {
  const Data hashOfN = digest(suite.digest, suite.group->N.bytes().span());
  const Data hashOfG = digest(suite.digest, suite.group->g.bytes().span());
  std::vector<std::uint8_t> groupHash(hashOfN.begin(), hashOfN.end());
  for (std::size_t i = 0; i < groupHash.size(); ++i) groupHash[i] ^= hashOfG[i];
  const Data paddedA = A.paddedBytes(suite.group->length());
  M1 = Digest(suite.digest)
           .update(groupHash)
           .update(Digest(suite.digest).update(user).finish().span())
           .update(salt.span())
           .update(paddedA.span())
           .update(B.paddedBytes(suite.group->length()).span())
           .update(sessionKey.reveal())
           .finish();
  M2 = Digest(suite.digest).update(paddedA.span()).update(M1.span()).update(sessionKey.reveal()).finish();
}

}  // namespace florvane
