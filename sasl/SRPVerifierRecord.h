#pragma once

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/Secret.h"
#include "sasl/SRPArithmetic.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

#include <tl/expected.hpp>

namespace florvane {

inline constexpr std::string_view SRPServerGroup = "rfc5054_4096";
inline constexpr std::size_t SRPSaltLength = 32;
inline constexpr std::uint64_t SRPMinimumIterations = 100'000;     // of a record
inline constexpr std::uint64_t SRPMaximumIterations = 10'000'000;  // that a client computes

// What a server keeps instead of a password. A record is a secret: it lets its reader guess passwords at leisure.
struct SRPVerifierRecord {
  std::uint64_t iterations = 0;
  Data salt;
  BigNumber verifier;
};

// The 128 bytes that stand for the password in the computations.
Secret srp_password_hash(const Secret& password, const Data& salt, std::uint64_t iterations);

// A record for a password with a fresh salt: an XML property list with the keys "iterations", "salt" and "verifier".
// Iterations outside of what server and client accept, or an unknown group, throw InvalidArgumentException. Takes as
// long as the iterations do. The error is that of the random source.
Result<Data> srp_make_verifier_record(const Secret& password, std::uint64_t iterations = SRPMinimumIterations,
                                      std::string_view group = SRPServerGroup);
// A record that looks like any other, always the same for the same name, which no password opens.
Data srp_make_unknown_user_record(const Secret& secret, std::string_view authenticationID, std::uint64_t iterations,
                                  std::string_view group = SRPServerGroup);
// Reads a record in either form of property lists. The error is a fixed sentence about what is wrong with it.
tl::expected<SRPVerifierRecord, std::string_view> srp_load_verifier_record(const Data& record, const SRPGroup& group);

}  // namespace florvane
