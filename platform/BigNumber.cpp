#include "platform/BigNumber.h"

#include "platform/Exceptions.h"

#include <array>
#include <climits>
#include <string>
#include <utility>
#include <vector>

#include <openssl/bn.h>
#include <openssl/crypto.h>

namespace florvane {

namespace {

template <typename T>
T require(T success) {
  if (!success) throw InternalInconsistencyException("OpenSSL failed: big number");
  return success;
}

// Room for intermediate results; its numbers are cleansed when it goes.
struct Scratch {
  Scratch() : context(require(BN_CTX_new())) {}
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch() { BN_CTX_free(context); }
  BN_CTX* context;
};

void requireModulus(const BigNumber& modulus) {
  if (modulus.isZero()) throw InvalidArgumentException("Illegal modulus");
}

}  // namespace

void BigNumber::Free::operator()(bignum_st* number) const noexcept { BN_clear_free(number); }

BigNumber::BigNumber() : number_(require(BN_new())) {}

BigNumber::BigNumber(const BigNumber& other) : number_(require(BN_dup(other.number_.get()))) {
  secretIf(other.isSecret());
}

BigNumber::BigNumber(BigNumber&& other) noexcept = default;

BigNumber& BigNumber::operator=(BigNumber other) noexcept {
  std::swap(number_, other.number_);
  return *this;
}

BigNumber::~BigNumber() = default;

BigNumber BigNumber::fromWord(std::uint64_t word) {
  std::array<std::uint8_t, 8> bytes;
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(word >> (56 - 8 * i));
  return fromBytes(bytes);
}

BigNumber BigNumber::fromBytes(std::span<const std::uint8_t> bytes) {
  if (bytes.size() > INT_MAX) throw InvalidArgumentException("Illegal length of a number");
  BigNumber result;
  require(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), result.number_.get()));
  return result;
}

BigNumber BigNumber::fromSecret(const Secret& bytes) {
  BigNumber result;
  result.secretIf(true);
  require(BN_bin2bn(bytes.revealSpan().data(), static_cast<int>(bytes.size()), result.number_.get()));
  return result;
}

BigNumber BigNumber::fromHex(std::string_view digits) {
  if (digits.empty() || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string_view::npos) {
    throw InvalidArgumentException("Illegal hexadecimal number");
  }
  BigNumber result;
  BIGNUM* number = result.number_.get();
  require(BN_hex2bn(&number, std::string(digits).c_str()));
  return result;
}

BigNumber BigNumber::modulusOfBits(unsigned bits) {
  BigNumber result;
  switch (bits) {
    case 4096:
      require(BN_get_rfc3526_prime_4096(result.number_.get()));
      break;
    case 8192:
      require(BN_get_rfc3526_prime_8192(result.number_.get()));
      break;
    default:
      throw InvalidArgumentException("Illegal length of a modulus");
  }
  return result;
}

bool BigNumber::isZero() const noexcept { return BN_is_zero(number_.get()) == 1; }

bool BigNumber::isSecret() const noexcept { return BN_get_flags(number_.get(), BN_FLG_CONSTTIME) != 0; }

std::size_t BigNumber::byteLength() const noexcept { return static_cast<std::size_t>(BN_num_bytes(number_.get())); }

Data BigNumber::bytes() const { return paddedBytes(byteLength()); }

Data BigNumber::paddedBytes(std::size_t length) const {
  Secret bytes = paddedSecret(length);
  return Data(bytes.revealSpan());
}

Secret BigNumber::paddedSecret(std::size_t length) const {
  if (byteLength() > length || length > INT_MAX) throw InvalidArgumentException("Illegal length of a number");
  std::vector<std::uint8_t> buffer(length);
  require(BN_bn2binpad(number_.get(), buffer.data(), static_cast<int>(length)) >= 0);
  Secret result{std::span<const std::uint8_t>(buffer)};
  OPENSSL_cleanse(buffer.data(), buffer.size());
  return result;
}

BigNumber BigNumber::plus(const BigNumber& other) const {
  BigNumber result;
  require(BN_add(result.number_.get(), number_.get(), other.number_.get()));
  return std::move(result.secretIf(isSecret() || other.isSecret()));
}

BigNumber BigNumber::times(const BigNumber& other) const {
  Scratch scratch;
  BigNumber result;
  require(BN_mul(result.number_.get(), number_.get(), other.number_.get(), scratch.context));
  return std::move(result.secretIf(isSecret() || other.isSecret()));
}

BigNumber BigNumber::mod(const BigNumber& modulus) const {
  requireModulus(modulus);
  Scratch scratch;
  BigNumber result;
  require(BN_nnmod(result.number_.get(), number_.get(), modulus.number_.get(), scratch.context));
  return std::move(result.secretIf(isSecret()));
}

BigNumber BigNumber::modMinus(const BigNumber& other, const BigNumber& modulus) const {
  requireModulus(modulus);
  Scratch scratch;
  BigNumber result;
  require(BN_mod_sub(result.number_.get(), number_.get(), other.number_.get(), modulus.number_.get(), scratch.context));
  return std::move(result.secretIf(isSecret() || other.isSecret()));
}

BigNumber BigNumber::modTimes(const BigNumber& other, const BigNumber& modulus) const {
  requireModulus(modulus);
  Scratch scratch;
  BigNumber result;
  require(BN_mod_mul(result.number_.get(), number_.get(), other.number_.get(), modulus.number_.get(), scratch.context));
  return std::move(result.secretIf(isSecret() || other.isSecret()));
}

BigNumber BigNumber::modExp(const BigNumber& exponent, const BigNumber& modulus) const {
  if (!BN_is_odd(modulus.number_.get())) throw InvalidArgumentException("Illegal modulus");
  Scratch scratch;
  BigNumber result;
  // Takes the constant-time way by itself when base or exponent is secret.
  require(
      BN_mod_exp(result.number_.get(), number_.get(), exponent.number_.get(), modulus.number_.get(), scratch.context));
  return std::move(result.secretIf(isSecret() || exponent.isSecret()));
}

std::strong_ordering operator<=>(const BigNumber& a, const BigNumber& b) noexcept {
  return BN_cmp(a.number_.get(), b.number_.get()) <=> 0;
}

BigNumber& BigNumber::secretIf(bool condition) noexcept {
  if (condition) BN_set_flags(number_.get(), BN_FLG_CONSTTIME);
  return *this;
}

}  // namespace florvane
