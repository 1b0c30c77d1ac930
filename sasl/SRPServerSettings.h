#pragma once

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/Secret.h"
#include "sasl/SRPVerifierRecord.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace florvane {

// What the caller supplies to the server's side of an exchange.
struct SRPServerSettings {
  // The verifier record of a user, or nothing when there is no such user. Called in the thread of the first step.
  std::function<Result<std::optional<Data>>(std::string_view authenticationID)> verifierRecord;
  // Unknown users are answered as known ones are, with a salt and a verifier made from this and the name: so keep it
  // for the life of the deployment.
  Secret unknownUserSecret;
  // As most known users' records have.
  std::uint64_t unknownUserIterations = SRPMinimumIterations;
  // The group that the records were made for.
  std::string group = std::string(SRPServerGroup);
};

}  // namespace florvane
