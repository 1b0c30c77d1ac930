#include "sasl/SRPClientMechanism.h"
#include "sasl/SRPServerMechanism.h"
#include "sasl/SRPVerifierRecord.h"

#include <cstdlib>
#include <iostream>

#include <benchmark/benchmark.h>

// What signing in costs the client's processor: the key derivation, which the server's iterations set, and the exchange
// beside it, which should stay below 60 ms.

namespace florvane {
namespace {

constexpr char user[] = "user";
const Secret& password() {
  static const Secret secret("correct horse battery staple");
  return secret;
}

void require(bool condition, const SRPContextPtr& context) {
  if (condition) return;
  std::cerr << srp_errdetail(context.get()) << '\n';
  std::exit(1);
}

void PasswordHash(benchmark::State& state) {
  const Data salt = *randomBytes(SRPSaltLength);
  for (auto _ : state) {
    benchmark::DoNotOptimize(srp_password_hash(password(), salt, static_cast<std::uint64_t>(state.range(0))));
  }
}
BENCHMARK(PasswordHash)->Arg(1)->Arg(100'000)->Unit(benchmark::kMillisecond);

// One whole exchange, of which only the client's steps (or only the server's) are timed.
void exchange(benchmark::State& state, bool timesClient) {
  auto record = srp_make_verifier_record(password());
  SRPServerSettings settings;
  settings.verifierRecord = [&](std::string_view) -> Result<std::optional<Data>> { return std::optional(*record); };
  settings.unknownUserSecret = Secret("secret");
  for (auto _ : state) {
    state.PauseTiming();
    SRPContextPtr client, server;
    require(srp_client_mech_new(client, user, user, password()) == SRPDone, client);
    require(srp_server_mech_new(server, settings) == SRPDone, server);
    auto clientStep = [&](std::span<const std::uint8_t> input, int expected) {
      std::span<const std::uint8_t> output;
      if (timesClient) state.ResumeTiming();
      int result = srp_client_mech_step(client.get(), input, &output);
      if (timesClient) state.PauseTiming();
      require(result == expected, client);
      return output;
    };
    auto serverStep = [&](std::span<const std::uint8_t> input, int expected) {
      std::span<const std::uint8_t> output;
      if (!timesClient) state.ResumeTiming();
      int result = srp_server_mech_step(server.get(), input, &output);
      if (!timesClient) state.PauseTiming();
      require(result == expected, server);
      return output;
    };
    auto challenge = serverStep(clientStep({}, SRPContinue), SRPContinue);
    auto proof = serverStep(clientStep(challenge, SRPContinue), SRPDone);
    clientStep(proof, SRPDone);
    state.ResumeTiming();
  }
}

void ClientExchangeWith100000Iterations(benchmark::State& state) { exchange(state, true); }
BENCHMARK(ClientExchangeWith100000Iterations)->Unit(benchmark::kMillisecond);

void ServerExchange(benchmark::State& state) { exchange(state, false); }
BENCHMARK(ServerExchange)->Unit(benchmark::kMillisecond);

// The arithmetic alone: the client's pair, x, S and the evidence.
void ClientArithmetic(benchmark::State& state) {
  const SRPSuite suite{DigestAlgorithm::SHA512, SRPGroup::named(SRPServerGroup)};
  const Data salt = *randomBytes(SRPSaltLength);
  const Secret passwordHash(std::string(128, 'p'));
  const SRPServerExponent server(suite, suite.verifier(suite.passwordKey("", passwordHash, salt)),
                                 *randomSecret(SRPExponentLength));
  for (auto _ : state) {
    const SRPClientExponent client(suite, *randomSecret(SRPExponentLength));
    auto secret = client.premasterSecret(suite.passwordKey("", passwordHash, salt), server.publicValue());
    benchmark::DoNotOptimize(SRPEvidence(suite, user, salt, client.publicValue(), server.publicValue(), *secret));
  }
}
BENCHMARK(ClientArithmetic)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace florvane

BENCHMARK_MAIN();
