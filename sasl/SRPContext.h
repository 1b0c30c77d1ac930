#pragma once

#include "platform/BigNumber.h"
#include "platform/Crypto.h"
#include "platform/Data.h"
#include "platform/Format.h"
#include "platform/Secret.h"
#include "sasl/SRPArithmetic.h"
#include "sasl/SRPOptions.h"
#include "sasl/SRPSecurityLayer.h"
#include "sasl/SRPServerSettings.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace florvane {

// Results of the mechanism and its layer; every negative value is an error.
inline constexpr int SRPContinue = 1;
inline constexpr int SRPDone = 0;
inline constexpr int SRPFailed = -1;
inline constexpr int SRPOutOfMemory = -2;
inline constexpr int SRPProtocolViolated = -5;
inline constexpr int SRPBadParameter = -7;
inline constexpr int SRPIntegrityViolated = -9;
inline constexpr int SRPPeerRefused = -10;
inline constexpr int SRPAuthenticationFailed = -13;

inline constexpr std::size_t SRPIVLength = 16;

// One exchange, client's or server's side, and the security layer that it ends in. Made by srp_client_mech_new() or
// srp_server_mech_new(); belongs to one thread at a time.
struct SRPContext {
  int state = 0;  // the next step; negative once a step has failed
  std::string authenticationID;
  std::string authorizationID;
  std::optional<Secret> password;  // the client's, until the second step has used it
  SRPServerSettings settings;      // the server's

  const SRPGroup* group = nullptr;
  std::optional<DigestAlgorithm> digest;
  Data salt;
  std::uint64_t iterations = 0;
  BigNumber peerPublicValue;  // B at the client, A at the server
  std::string serverOptionString;
  std::string clientOptionString;
  SRPOptions options;  // chosen by the client

  std::optional<SRPClientExponent> clientExponent;
  std::optional<SRPServerExponent> serverExponent;
  std::optional<SRPEvidence> evidence;
  bool userIsUnknown = false;
  Data ownIV;

  SRPLayer layer;
  std::vector<std::uint8_t> output;
  std::string errorDetail;
};

// Frees the context and cleanses what was secret in it; null is fine.
void srp_common_mech_dispose(SRPContext* context) noexcept;

struct SRPContextDeleter {
  void operator()(SRPContext* context) const noexcept { srp_common_mech_dispose(context); }
};
using SRPContextPtr = std::unique_ptr<SRPContext, SRPContextDeleter>;

// Why the last call failed, never with a secret in it; empty when none did, "Bad parameter" for null.
std::string srp_errdetail(const SRPContext* context);

// Formats the text into the context's error detail.
template <typename... Args>
void SETERROR(SRPContext& context, std::string_view text, const Args&... arguments) {
  context.errorDetail = format(text, arguments...);
}

// The same as the way out of a failed call.
template <typename... Args>
int fail(SRPContext& context, int result, std::string_view text, const Args&... arguments) {
  SETERROR(context, text, arguments...);
  return result;
}

// Selects the first of the options' digests. When none is known, that is said on standard error and SRPFailed returned.
int SetMDA(SRPContext& context, const SRPOptions& options);
// By platform name ("sha512", "sha384", "sha256", "sha224"); nothing for another.
std::optional<DigestAlgorithm> cc_get_digestbyname(std::string_view name);

// Makes the buffer at least that long and leaves a longer one alone. SRPOutOfMemory when there is no room.
int conditional_realloc(std::vector<std::uint8_t>& buffer, std::size_t size) noexcept;

}  // namespace florvane
