#include "sasl/SRPServerMechanism.h"

#include "sasl/SRPBuffer.h"
#include "sasl/SRPVerifierRecord.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace florvane {

namespace {

constexpr int failedState = -1;
constexpr int finishedState = 3;
constexpr std::string_view digestName = "sha512";
// More than the last message, a key and a certificate, ever needs.
constexpr std::uint32_t offeredBufferSize = 1 << 20;

int setGroup(SRPContext& context) {
  context.group = SRPGroup::named(context.settings.group);
  return context.group ? SRPDone : SRPFailed;
}

// The user's record, or one that looks like it. The made-up one is made either way, so that the time taken does not
// tell who has an account.
int loadRecord(SRPContext& context, SRPVerifierRecord& record) {
  Data bytes = srp_make_unknown_user_record(context.settings.unknownUserSecret, context.authenticationID,
                                            context.settings.unknownUserIterations, context.settings.group);
  auto found = context.settings.verifierRecord(context.authenticationID);
  if (!found) {
    return fail(context, SRPFailed, "Unable to read the verifier record: %@", found.error().localizedDescription());
  }
  context.userIsUnknown = !found->has_value();
  if (*found) bytes = **found;
  auto loaded = srp_load_verifier_record(bytes, *context.group);
  if (!loaded) return fail(context, SRPFailed, loaded.error());
  record = std::move(*loaded);
  return SRPDone;
}

int makeOptions(SRPContext& context) {
  SRPOptions offer;
  offer.digests = SRPDigestOptions.front().bit;
  offer.replayDetection = true;
  offer.ciphers = SRPCipherOptions.front().bit;
  offer.kdfs = SRPKDFOptions.front().bit;
  offer.maximumBufferSize = offeredBufferSize;
  offer.mandatory = SRPReplayDetection | SRPConfidentialityAndIntegrity;
  return OptionsToString(offer, context.serverOptionString);
}

int firstStep(SRPContext& context, std::span<const std::uint8_t> input) {
  std::string sessionID;
  Data channelBinding;
  if (int result = UnBuffer(input, "%s%s%s%o",
                            {&context.authenticationID, &context.authorizationID, &sessionID, &channelBinding});
      result != SRPDone) {
    return fail(context, result, "Error UnBuffering input in step 1");
  }
  if (context.authorizationID != context.authenticationID) {
    return fail(context, SRPAuthenticationFailed, "Authorization id differs from the authentication id");
  }
  context.digest = cc_get_digestbyname(digestName);
  if (!context.digest) return fail(context, SRPFailed, "Unable to set message digest algorithm: %s", digestName);
  if (int result = setGroup(context); result != SRPDone) {
    return fail(context, result, "Unable to set group parameters to %s: %d", context.settings.group, result);
  }
  SRPVerifierRecord record;
  if (int result = loadRecord(context, record); result != SRPDone) return result;
  context.salt = record.salt;
  context.iterations = record.iterations;
  auto exponent = randomSecret(SRPExponentLength);
  if (!exponent) {
    return fail(context, SRPFailed, "Unable to start the SRP server computation: %d", exponent.error().code());
  }
  context.serverExponent.emplace(SRPSuite{*context.digest, context.group}, std::move(record.verifier), *exponent);
  if (int result = makeOptions(context); result != SRPDone) {
    return fail(context, result, "Error creating server options");
  }
  constexpr std::uint8_t reuse = 0;
  if (int result = MakeBuffer(context.output, "%c%m%m%o%m%q%s",
                              {reuse, std::cref(context.group->N), std::cref(context.group->g), context.salt.span(),
                               std::cref(context.serverExponent->publicValue()), context.iterations,
                               std::string_view(context.serverOptionString)});
      result != SRPDone) {
    return fail(context, result, "Error creating SRP buffer from data in step 1");
  }
  context.state = 2;
  return SRPContinue;
}

int setOptions(SRPContext& context) {
  if (int result = ParseOptions(context, context.clientOptionString, SRPSide::Server, context.options);
      result != SRPDone) {
    return fail(context, result, "Error parsing user's options");
  }
  // A client may ask for smaller packets than were offered, not for larger ones.
  std::uint32_t& size = context.options.maximumBufferSize;
  size = size != 0 ? std::min(size, offeredBufferSize) : offeredBufferSize;
  if (int result = SetMDA(context, context.options); result != SRPDone) {
    return fail(context, result, "Error setting options");
  }
  return SRPDone;
}

int secondStep(SRPContext& context, std::span<const std::uint8_t> input) {
  Data A;
  std::span<const std::uint8_t> M1, peerIV;
  if (int result = UnBuffer(input, "%m%-o%s%-o", {&A, &M1, &context.clientOptionString, &peerIV}); result != SRPDone) {
    return fail(context, result, "Error UnBuffering input in step 2");
  }
  context.peerPublicValue = BigNumber::fromBytes(A.span());
  if (context.peerPublicValue.isZero() || context.peerPublicValue >= context.group->N) {
    return fail(context, SRPProtocolViolated, "Illegal value for 'A'");
  }
  if (int result = setOptions(context); result != SRPDone) return result;
  auto secret = context.serverExponent->premasterSecret(context.peerPublicValue);
  if (!secret) return fail(context, SRPFailed, "Unable to compute the SRP session: %d", secret.error());
  context.evidence.emplace(SRPSuite{*context.digest, context.group}, context.authenticationID, context.salt,
                           context.peerPublicValue, context.serverExponent->publicValue(), *secret);
  if (!constantTimeEqual(M1, context.evidence->M1.span()) || context.userIsUnknown) {
    return fail(context, SRPAuthenticationFailed,
                "client evidence does not match what we calculated. Probably a password error");
  }
  auto iv = randomBytes(SRPIVLength);
  if (!iv) return fail(context, SRPFailed, "Error reading random bytes for sIV: %d", iv.error().code());
  context.ownIV = std::move(*iv);
  const std::string_view sessionID;
  constexpr std::uint32_t lifetime = 0;
  if (int result = MakeBuffer(context.output, "%o%o%s%u",
                              {context.evidence->M2.span(), context.ownIV.span(), sessionID, lifetime});
      result != SRPDone) {
    return fail(context, result, "Error making output buffer in SRP step 3");
  }
  if (int result = LayerInit(context.layer, context, peerIV, context.ownIV.span()); result != SRPDone) {
    return fail(context, result, "Error initializing security layer");
  }
  context.evidence.reset();
  context.state = finishedState;
  return SRPDone;
}

int step(SRPContext& context, std::span<const std::uint8_t> input) {
  switch (context.state) {
    case 1:
      return firstStep(context, input);
    case 2:
      return secondStep(context, input);
    default:
      return fail(context, SRPFailed, "Invalid SRP server step %d", context.state);
  }
}

}  // namespace

int srp_server_mech_new(SRPContextPtr& context, SRPServerSettings settings) {
  context.reset(new SRPContext);
  if (!settings.verifierRecord || settings.unknownUserSecret.empty() ||
      settings.unknownUserIterations < SRPMinimumIterations || settings.unknownUserIterations > SRPMaximumIterations) {
    context->state = failedState;
    return fail(*context, SRPBadParameter, "Bad parameter");
  }
  context->settings = std::move(settings);
  context->state = 1;
  return SRPDone;
}

int srp_server_mech_step(SRPContext* context, std::span<const std::uint8_t> input,
                         std::span<const std::uint8_t>* output) {
  if (!context) return SRPBadParameter;
  if (!output || (!input.empty() && !input.data())) return fail(*context, SRPBadParameter, "Bad parameter");
  *output = {};
  int result = SRPDone;
  try {
    result = step(*context, input);
  } catch (const std::exception& exception) {
    result = fail(*context, SRPFailed, "%s", exception.what());
  }
  if (result < SRPDone) {
    context->state = failedState;
  } else {
    *output = context->output;
  }
  return result;
}

const std::string& srp_authentication_id(const SRPContext& context) { return context.authenticationID; }

}  // namespace florvane
