#include "platform/Encoding.h"
#include "sasl/SRPClientMechanism.h"
#include "tests/sasl/SRPPeer.h"

#include <gtest/gtest.h>

namespace florvane {
namespace {

using test::SRPPeer;

constexpr char user[] = "j\xc3\xb6rg";
constexpr char password[] = "p\xc3\xa4ss:word";

SRPContextPtr newClient(const std::string& withPassword = password) {
  SRPContextPtr context;
  EXPECT_EQ(srp_client_mech_new(context, user, user, Secret(withPassword)), SRPDone);
  return context;
}

struct Step {
  int result = 0;
  std::string output;
};

Step clientStep(SRPContextPtr& context, std::string_view input) {
  Data output;
  int result = srp_nsdata_client_step(context.get(), Data::fromString(input), &output);
  return {result, std::string(output.view())};
}

// The client against the independent server, which may be told to misbehave.
class ClientExchange : public testing::Test {
 protected:
  ClientExchange() {
    peer.set("password", password);
    useGroup(SRPGroup::named("rfc5054_1024")->N.bytes().view(), "\x02");
  }

  void useGroup(std::string_view N, std::string_view g) {
    peer.set("N", N);
    peer.set("g", g);
  }

  // The first two steps; the error detail of the second, which must be refused.
  std::string refusal(int expected) {
    client = newClient();
    Step step = clientStep(client, {});
    EXPECT_EQ(step.result, SRPContinue);
    testing::internal::CaptureStderr();
    step = clientStep(client, peer.ask("server1", step.output));
    diagnostics = testing::internal::GetCapturedStderr();
    EXPECT_EQ(step.result, expected);
    EXPECT_EQ(step.output, "");
    std::string detail = srp_errdetail(client.get());
    EXPECT_EQ(clientStep(client, {}).result, SRPFailed);
    EXPECT_EQ(srp_errdetail(client.get()), "Invalid SRP client step -1\n");
    return detail;
  }

  // Runs all three steps and gives the last one's result.
  int finish() {
    client = newClient();
    Step step = clientStep(client, {});
    step = clientStep(client, peer.ask("server1", step.output));
    EXPECT_EQ(step.result, SRPContinue) << srp_errdetail(client.get());
    step = clientStep(client, peer.ask("server2", step.output));
    EXPECT_EQ(step.output, "");
    return step.result;
  }

  SRPPeer peer;
  SRPContextPtr client;
  std::string diagnostics;
};

TEST_F(ClientExchange, SignsInAndReadsWhatTheServerSeals) {
  for (const char* name : {"rfc5054_1024", "rfc5054_2048", "rfc5054_4096"}) {
    const SRPGroup* group = SRPGroup::named(name);
    useGroup(group->N.bytes().view(), group->g.bytes().view());
    ASSERT_EQ(finish(), SRPDone) << srp_errdetail(client.get());
    EXPECT_EQ(peer.ask("chosen_options"),
              "mda=SHA-512,replay_detection,confidentiality+integrity=ChaCha20-Poly1305,kdf=SALTED-SHA512-PBKDF2,"
              "maxbuffersize=65536");
    std::string message(32, 'k');
    message += "certificate";
    Secret plaintext;
    EXPECT_EQ(srp_decode(client.get(), Data::fromString(peer.ask("seal", message)).span(), &plaintext), SRPDone);
    EXPECT_EQ(plaintext.reveal(), message);
    std::span<const std::uint8_t> packet;
    EXPECT_EQ(srp_encode(client.get(), Data::fromString("an answer").span(), &packet), SRPDone);
    EXPECT_EQ(peer.ask("open", packet), "an answer");
    EXPECT_EQ(clientStep(client, {}).result, SRPFailed);  // an exchange ends once
  }
}

TEST_F(ClientExchange, AWrongPasswordIsNoticedByTheServer) {
  client = newClient("another");
  Step step = clientStep(client, {});
  step = clientStep(client, peer.ask("server1", step.output));
  EXPECT_EQ(step.result, SRPContinue);
  EXPECT_EQ(peer.ask("server2", step.output), "refused M1");
}

TEST_F(ClientExchange, GroupsOutsideTheTableAreRefused) {
  constexpr char refused[] = "Values of 'N' and 'g' are not recommended\n";
  for (const char* bits : {"3072", "6144"}) {
    useGroup(peer.ask("prime", bits), "\x05");
    EXPECT_EQ(refusal(SRPFailed), refused);
  }
  useGroup(hexDecode("9def3cafb939277ab1f12a8617a47bbbdba51df499ac4c80beeea9614b19cc4d5f4f5f556e27cbde51c6a94be4607a29"
                     "1558903ba0d0f84380b655bb9a22e8dcdf028a7cec67f0d08134b1c8b97989149b609e0be3bab63d47548381dbc5b1fc"
                     "764e3f4b53dd9da1158bfd3e2b9c8cf56edf019539349627db2fd53d24b7c48665772e437d6c7f8ce442734af7ccb7ae"
                     "837c264ae3a9beb87f8a2fe9b8b5292e5a021fff5e91479e8ce7a28c2442c6f315180f93499a234dcf76e3fed135f9bb")
               ->view(),
           "\x02");
  EXPECT_EQ(refusal(SRPFailed), refused);
  const std::string N(SRPGroup::named("rfc5054_1024")->N.bytes().view());
  for (const auto& [modulus, generator] :
       {std::pair(N, std::string("\x05")), std::pair(N, std::string("\0\x02", 2)), std::pair(N, std::string("\2\0", 2)),
        std::pair(std::string(1, '\0') + N, std::string("\x02")),
        std::pair(std::string("\x17"), std::string("\x05"))}) {
    useGroup(modulus, generator);
    EXPECT_EQ(refusal(SRPFailed), refused);
  }
}

TEST_F(ClientExchange, IllegalPublicValuesAreRefused) {
  const BigNumber& N = SRPGroup::named("rfc5054_1024")->N;
  for (const BigNumber& B : {BigNumber(), N, N.plus(N), N.plus(BigNumber::fromWord(5))}) {
    peer.set("B", B.bytes().view());
    EXPECT_EQ(refusal(SRPProtocolViolated), "Illegal value for 'B'");
  }
  peer.set("B", std::string_view("\0\0", 2));
  EXPECT_EQ(refusal(SRPProtocolViolated), "Illegal value for 'B'");
}

TEST_F(ClientExchange, OffersThatCannotBeMet) {
  struct Row {
    const char* options;
    int result;
    const char* detail;
    const char* diagnostics;
  };
  for (const Row& row :
       {Row{"mda=SHA-512,maxbuffersize=2147483644", SRPProtocolViolated, "Error parsing SRP server options\n",
            "SRP Maxbuffersize 2147483644 too big (> 2147483643)\n"},
        Row{"mda=SHA-512,mandatory=frobnication", SRPProtocolViolated, "Error parsing SRP server options\n",
            "Mandatory SRP option frobnication not supported\n"},
        Row{"mda=SHA-512,confidentiality+integrity=AES,mandatory=confidentiality+integrity", SRPAuthenticationFailed,
            "Mandatory SRP layer not supported", ""},
        Row{"mda=SHA-256,confidentiality+integrity=ChaCha20-Poly1305", SRPFailed, "Error setting MDA",
            "Unable to find SRP MDA option now\n"}}) {
    peer.set("options", row.options);
    EXPECT_EQ(refusal(row.result), row.detail);
    EXPECT_EQ(diagnostics, row.diagnostics);
  }
  for (const char* options :
       {"mda=SHA-512,kdf=SALTED-SHA512-PBKDF2", "mda=SHA-512,confidentiality+integrity=ChaCha20-Poly1305"}) {
    peer.set("options", options);
    EXPECT_EQ(finish(), SRPFailed);
    EXPECT_EQ(srp_errdetail(client.get()), "Error initializing security layer");
  }
}

TEST_F(ClientExchange, IterationsMustBeSomeAndNotTooMany) {
  for (std::string_view iterations : {std::string_view("\0", 1), std::string_view("\x00\x98\x96\x81", 4),
                                      std::string_view("\xff\xff\xff\xff\xff\xff\xff\xff")}) {
    peer.set("iterations", iterations);
    EXPECT_EQ(refusal(SRPFailed), "Error hashing client password\n");
  }
}

TEST_F(ClientExchange, AServerThatDoesNotKnowTheVerifierIsASpoof) {
  struct Row {
    std::string M2;
    const char* detail;
  };
  for (const Row& row : {Row{"flip", "SRP Server spoof detected. M2 incorrect"},
                         Row{std::string(64, '\0'), "SRP Server spoof detected. M2 incorrect"},
                         Row{"short", "SRP Server M2 length wrong"}, Row{"", "SRP Server M2 length wrong"},
                         Row{std::string(65, 'x'), "SRP Server M2 length wrong"}}) {
    peer.set("M2", row.M2);
    EXPECT_EQ(finish(), SRPPeerRefused);
    EXPECT_EQ(srp_errdetail(client.get()), row.detail);
    EXPECT_FALSE(srp_has_integrity(client.get()));
  }
}

TEST_F(ClientExchange, IVsOfAnotherLengthOrWithOurNonceAreRefused) {
  for (const char* iv : {"", "fifteen bytes..", "seventeen bytes..", "clone"}) {
    peer.set("iv", iv);
    EXPECT_EQ(finish(), SRPFailed) << iv;
    EXPECT_EQ(srp_errdetail(client.get()), "Error initializing security layer");
  }
}

TEST_F(ClientExchange, MessagesOutOfOrderOrMangled) {
  client = newClient();
  EXPECT_EQ(clientStep(client, "early").result, SRPProtocolViolated);
  EXPECT_EQ(srp_errdetail(client.get()), "Invalid input to first step of SRP");

  client = newClient();
  std::string challenge = peer.ask("server1", clientStep(client, {}).output);
  const std::string lastMessage(
      "\0\0\0\x08"
      "\1M\1I\0\0\0\0",
      12);
  EXPECT_EQ(clientStep(client, lastMessage).result, SRPProtocolViolated);
  EXPECT_EQ(srp_errdetail(client.get()), "Error UnBuffering input in step 2");

  client = newClient();
  clientStep(client, {});
  EXPECT_EQ(clientStep(client, challenge).result, SRPContinue);
  EXPECT_EQ(clientStep(client, challenge).result, SRPProtocolViolated);
  EXPECT_EQ(srp_errdetail(client.get()), "Error UnBuffering input in step 3");
}

TEST(SRPClient, CredentialsAndArgumentsAreRequired) {
  SRPContextPtr context;
  EXPECT_LT(srp_client_mech_new(context, user, std::nullopt, Secret(password)), 0);
  EXPECT_EQ(srp_errdetail(context.get()), "srp_client_mech_new called without required credentials");
  EXPECT_LT(srp_client_mech_new(context, user, user, std::nullopt), 0);
  EXPECT_EQ(srp_client_mech_step(context.get(), {}, nullptr), SRPBadParameter);
  EXPECT_EQ(srp_errdetail(context.get()), "Bad parameter");
  EXPECT_EQ(srp_nsdata_client_step(nullptr, Data(), nullptr), SRPBadParameter);
  ASSERT_EQ(srp_client_mech_new(context, user, std::string(65536, 'x'), Secret(password)), SRPDone);
  EXPECT_LT(clientStep(context, {}).result, 0);
  EXPECT_EQ(srp_errdetail(context.get()), "Error making output buffer\n");
}

}  // namespace
}  // namespace florvane
