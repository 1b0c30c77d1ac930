#pragma once

#include "platform/Data.h"
#include "platform/Secret.h"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

struct bignum_st;

namespace florvane {

// A natural number of any length, by OpenSSL. A secret one, and all that is computed from it, takes the constant-time
// way through modExp; every number's memory is cleansed when it goes. One that was moved from may only be assigned to
// or destroyed. Values may be read by many threads. A failure inside OpenSSL (out of memory) throws
// InternalInconsistencyException.
class BigNumber {
 public:
  // Zero.
  BigNumber();
  BigNumber(const BigNumber& other);
  BigNumber(BigNumber&& other) noexcept;
  BigNumber& operator=(BigNumber other) noexcept;
  ~BigNumber();

  static BigNumber fromWord(std::uint64_t word);
  // From big-endian bytes; leading zeros and none at all are fine.
  static BigNumber fromBytes(std::span<const std::uint8_t> bytes);
  static BigNumber fromSecret(const Secret& bytes);
  // Anything but hexadecimal digits throws InvalidArgumentException.
  static BigNumber fromHex(std::string_view digits);
  // The primes of RFC 3526 with 4096 or 8192 bits; any other length throws InvalidArgumentException.
  static BigNumber modulusOfBits(unsigned bits);

  bool isZero() const noexcept;
  bool isSecret() const noexcept;
  // Length of the shortest big-endian form; 0 for zero.
  std::size_t byteLength() const noexcept;
  // The shortest big-endian form.
  Data bytes() const;
  // With leading zeros up to the length; a longer number throws InvalidArgumentException.
  Data paddedBytes(std::size_t length) const;
  Secret paddedSecret(std::size_t length) const;

  BigNumber plus(const BigNumber& other) const;
  BigNumber times(const BigNumber& other) const;
  // All of these throw InvalidArgumentException for a modulus of zero, modExp for an even one.
  BigNumber mod(const BigNumber& modulus) const;
  BigNumber modMinus(const BigNumber& other, const BigNumber& modulus) const;
  BigNumber modTimes(const BigNumber& other, const BigNumber& modulus) const;
  BigNumber modExp(const BigNumber& exponent, const BigNumber& modulus) const;

  friend bool operator==(const BigNumber& a, const BigNumber& b) noexcept { return (a <=> b) == 0; }
  friend std::strong_ordering operator<=>(const BigNumber& a, const BigNumber& b) noexcept;

 private:
  struct Free {
    void operator()(bignum_st* number) const noexcept;
  };
  BigNumber& secretIf(bool condition) noexcept;
  std::unique_ptr<bignum_st, Free> number_;
};

}  // namespace florvane
