#include "sasl/SRPClientMechanism.h"

#include "sasl/SRPBuffer.h"
#include "sasl/SRPVerifierRecord.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace florvane {

namespace {

constexpr int failedState = -1;
constexpr int finishedState = 4;

// The client's choice from the server's offer.
int chooseOptions(SRPContext& context) {
  SRPOptions offer;
  if (int result = ParseOptions(context, context.serverOptionString, SRPSide::Client, offer); result != SRPDone) {
    return fail(context, result, "Error parsing SRP server options\n");
  }
  auto firstBit = [](std::uint32_t bits, std::span<const SRPOptionRow> rows) {
    const SRPOptionRow* row = firstOption(bits, rows);
    return row ? row->bit : 0U;
  };
  SRPOptions& choice = context.options;
  choice.replayDetection = true;
  choice.ciphers = firstBit(offer.ciphers, SRPCipherOptions);
  choice.digests = firstBit(offer.digests, SRPDigestOptions);
  choice.kdfs = firstBit(offer.kdfs, SRPKDFOptions);
  choice.maximumBufferSize =
      offer.maximumBufferSize != 0 ? offer.maximumBufferSize : static_cast<std::uint32_t>(SRPMaximumBufferSize);
  if (choice.ciphers == 0 && (offer.mandatory & SRPConfidentialityAndIntegrity) != 0) {
    return fail(context, SRPAuthenticationFailed, "Mandatory SRP layer not supported");
  }
  if (int result = OptionsToString(choice, context.clientOptionString); result != SRPDone) {
    return fail(context, result, "Error converting client options to an option string\n");
  }
  if (int result = SetMDA(context, choice); result != SRPDone) return fail(context, result, "Error setting MDA");
  return SRPDone;
}

// The client's pair, and the evidence that it knows the password.
int computeEvidence(SRPContext& context) {
  const SRPSuite suite{*context.digest, context.group};
  auto exponent = randomSecret(SRPExponentLength);
  if (!exponent) {
    return fail(context, SRPFailed, "Unable to start the SRP client computation: %d", exponent.error().code());
  }
  context.clientExponent.emplace(suite, *exponent);
  // A server must not be able to keep its client busy for hours.
  if (context.iterations == 0 || context.iterations > SRPMaximumIterations) {
    return fail(context, SRPFailed, "Error hashing client password\n");
  }
  Secret passwordHash = srp_password_hash(*context.password, context.salt, context.iterations);
  context.password.reset();
  BigNumber x = suite.passwordKey("", passwordHash, context.salt);
  auto secret = context.clientExponent->premasterSecret(x, context.peerPublicValue);
  if (!secret) return fail(context, SRPFailed, "Error creating M1\n");
  context.evidence.emplace(suite, context.authenticationID, context.salt, context.clientExponent->publicValue(),
                           context.peerPublicValue, *secret);
  return SRPDone;
}

int firstStep(SRPContext& context, std::span<const std::uint8_t> input) {
  if (!input.empty()) return fail(context, SRPProtocolViolated, "Invalid input to first step of SRP");
  const std::string_view sessionID;
  const std::span<const std::uint8_t> channelBinding;
  if (int result = MakeBuffer(context.output, "%s%s%s%o",
                              {std::string_view(context.authenticationID), std::string_view(context.authorizationID),
                               sessionID, channelBinding});
      result != SRPDone) {
    return fail(context, result, "Error making output buffer\n");
  }
  context.state = 2;
  return SRPContinue;
}

int secondStep(SRPContext& context, std::span<const std::uint8_t> input) {
  std::uint8_t reuse = 0;
  Data N, g, B;
  if (int result = UnBuffer(input, "%c%m%m%o%m%q%s",
                            {&reuse, &N, &g, &context.salt, &B, &context.iterations, &context.serverOptionString});
      result != SRPDone) {
    return fail(context, result, "Error UnBuffering input in step 2");
  }
  context.group = g.size() == 1 ? SRPGroup::matching(N.span(), g.span()) : nullptr;
  if (!context.group) return fail(context, SRPFailed, "Values of 'N' and 'g' are not recommended\n");
  context.peerPublicValue = BigNumber::fromBytes(B.span());
  if (context.peerPublicValue.isZero() || context.peerPublicValue >= context.group->N) {
    return fail(context, SRPProtocolViolated, "Illegal value for 'B'");
  }
  if (int result = chooseOptions(context); result != SRPDone) return result;
  if (int result = computeEvidence(context); result != SRPDone) return result;
  auto iv = randomBytes(SRPIVLength);
  if (!iv) return fail(context, SRPPeerRefused, "Error reading random bytes for cIV: %d", iv.error().code());
  context.ownIV = std::move(*iv);
  if (int result = MakeBuffer(context.output, "%m%o%s%o",
                              {std::cref(context.clientExponent->publicValue()), context.evidence->M1.span(),
                               std::string_view(context.clientOptionString), context.ownIV.span()});
      result != SRPDone) {
    return fail(context, result, "Error making output buffer\n");
  }
  context.state = 3;
  return SRPContinue;
}

int thirdStep(SRPContext& context, std::span<const std::uint8_t> input) {
  std::span<const std::uint8_t> M2, peerIV;
  std::string sessionID;
  std::uint32_t lifetime = 0;
  if (int result = UnBuffer(input, "%-o%-o%s%u", {&M2, &peerIV, &sessionID, &lifetime}); result != SRPDone) {
    return fail(context, result, "Error UnBuffering input in step 3");
  }
  if (M2.size() != digestLength(*context.digest)) return fail(context, SRPPeerRefused, "SRP Server M2 length wrong");
  if (!constantTimeEqual(M2, context.evidence->M2.span())) {
    return fail(context, SRPPeerRefused, "SRP Server spoof detected. M2 incorrect");
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
    case 3:
      return thirdStep(context, input);
    default:
      return fail(context, SRPFailed, "Invalid SRP client step %d\n", context.state);
  }
}

}  // namespace

int srp_client_mech_new(SRPContextPtr& context, const std::optional<std::string>& authorizationID,
                        const std::optional<std::string>& authenticationID, const std::optional<Secret>& password) {
  context.reset(new SRPContext);
  if (!authorizationID || !authenticationID || !password) {
    context->state = failedState;
    return fail(*context, SRPBadParameter, "srp_client_mech_new called without required credentials");
  }
  context->authorizationID = *authorizationID;
  context->authenticationID = *authenticationID;
  context->password = password;
  context->state = 1;
  return SRPDone;
}

int srp_client_mech_step(SRPContext* context, std::span<const std::uint8_t> input,
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
  if (result < SRPDone) context->state = failedState;
  if (result == SRPContinue) *output = context->output;
  return result;
}

int srp_nsdata_client_step(SRPContext* context, const Data& input, Data* output) {
  if (context && !output) return fail(*context, SRPBadParameter, "Bad parameter");
  std::span<const std::uint8_t> bytes;
  int result = srp_client_mech_step(context, input.span(), &bytes);
  if (output) *output = Data(bytes);
  return result;
}

}  // namespace florvane
