#pragma once

#include "platform/Data.h"
#include "platform/Secret.h"
#include "sasl/SRPContext.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace florvane {

// Begins the client's side of the mechanism "SRP". Returns 0, or a negative result with the context holding the error
// detail: absent credentials are SRPBadParameter.
int srp_client_mech_new(SRPContextPtr& context, const std::optional<std::string>& authorizationID,
                        const std::optional<std::string>& authenticationID, const std::optional<Secret>& password);

// Takes the server's message (none at the first step) and gives the client's next one, valid until the next call.
// Returns SRPContinue; SRPDone without output when the server has proved itself and the layer is in place; or a
// negative result, after which the context is of no use. The second step computes for as long as the server's
// iterations ask.
int srp_client_mech_step(SRPContext* context, std::span<const std::uint8_t> input,
                         std::span<const std::uint8_t>* output);
// The same with byte strings of their own; the output is set to empty where there is none.
int srp_nsdata_client_step(SRPContext* context, const Data& input, Data* output);

}  // namespace florvane
