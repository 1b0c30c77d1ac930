#pragma once

#include "platform/BigNumber.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace florvane {

// A safe prime and a generator. Only groups from RFC 5054 that both ends know are used: a peer that could choose its
// own could choose one in which logarithms are easy.
struct SRPGroup {
  std::string_view name;
  BigNumber N;
  BigNumber g;

  std::size_t length() const { return N.byteLength(); }
  // By name ("rfc5054_1024", "rfc5054_2048", "rfc5054_4096", "rfc5054_8192") or by the bytes of both numbers as they
  // were sent; null when there is none. The groups live as long as the process. Thread-safe.
  static const SRPGroup* named(std::string_view name);
  static const SRPGroup* matching(std::span<const std::uint8_t> N, std::span<const std::uint8_t> g);
};

}  // namespace florvane
