#pragma once

#include "sasl/SRPContext.h"
#include "sasl/SRPServerSettings.h"

#include <cstdint>
#include <span>
#include <string>

namespace florvane {

// Begins the server's side of the mechanism "SRP". Returns 0, or SRPBadParameter without a record source or a secret
// for unknown users.
int srp_server_mech_new(SRPContextPtr& context, SRPServerSettings settings);

// Takes the client's message and gives the server's answer, valid until the next call. Returns SRPContinue after the
// first step; SRPDone, with the last answer as output, when the client has proved itself and the layer is in place; or
// a negative result without output, after which the context is of no use. A wrong password and an unknown user are
// SRPAuthenticationFailed, at the second step and after the same work.
int srp_server_mech_step(SRPContext* context, std::span<const std::uint8_t> input,
                         std::span<const std::uint8_t>* output);

// The user that the client says, or after SRPDone has proved, to be.
const std::string& srp_authentication_id(const SRPContext& context);

}  // namespace florvane
