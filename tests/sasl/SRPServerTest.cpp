#include "platform/Encoding.h"
#include "platform/Exceptions.h"
#include "platform/PropertyList.h"
#include "sasl/SRPClientMechanism.h"
#include "sasl/SRPServerMechanism.h"
#include "sasl/SRPVerifierRecord.h"
#include "tests/sasl/SRPPeer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace florvane {
namespace {

using test::SRPPeer;
using testing::HasSubstr;
using testing::Not;

constexpr char user[] = "ada";
constexpr char password[] = "correct horse";

struct Step {
  int result = 0;
  std::string output;
};

// The server against the independent client, which may be told to misbehave. The group is the small one: what differs
// between groups is covered by the client's exchanges.
class SRPServer : public testing::Test {
 protected:
  SRPServer() {
    settings.verifierRecord = [](std::string_view name) -> Result<std::optional<Data>> {
      if (name == "broken") return Failure(Error::posix(EIO));
      return name == user ? std::optional(record()) : std::nullopt;
    };
    settings.unknownUserSecret = Secret("a secret of the deployment");
    settings.group = "rfc5054_1024";
    peer.set("user", user);
    peer.set("password", password);
  }

  void start() { ASSERT_EQ(srp_server_mech_new(context, settings), SRPDone); }

  Step step(std::string_view input) {
    std::span<const std::uint8_t> output;
    testing::internal::CaptureStderr();
    int result = srp_server_mech_step(context.get(), Data::fromString(input).span(), &output);
    diagnostics = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(result >= 0 || output.empty());
    return {result, std::string(output.begin(), output.end())};
  }

  // Both steps, with the last one's result.
  Step exchange() {
    start();
    Step answer = step(peer.ask("client1"));
    EXPECT_EQ(answer.result, SRPContinue) << srp_errdetail(context.get());
    return step(peer.ask("client2", answer.output));
  }

  std::string detail() const { return srp_errdetail(context.get()); }

  static const Data& record() {
    static const Data made = *srp_make_verifier_record(Secret(password), SRPMinimumIterations, "rfc5054_1024");
    return made;
  }

  SRPPeer peer;
  SRPServerSettings settings;
  SRPContextPtr context;
  std::string diagnostics;
};

TEST_F(SRPServer, SignsInAndSealsTheLastMessage) {
  Step last = exchange();
  ASSERT_EQ(last.result, SRPDone) << detail();
  EXPECT_EQ(srp_authentication_id(*context), user);
  EXPECT_EQ(peer.ask("client3", last.output), "");
  std::string message = std::string(32, 'k') + std::string(1500, 'c');
  std::span<const std::uint8_t> packet;
  ASSERT_EQ(srp_encode(context.get(), Data::fromString(message).span(), &packet), SRPDone);
  EXPECT_EQ(peer.ask("open", packet), message);
  EXPECT_EQ(step("").result, SRPFailed);
  EXPECT_EQ(detail(), "Invalid SRP server step 3");
}

TEST_F(SRPServer, OurClientAndOurServerAtFullStrength) {
  settings.group = SRPServerGroup;
  auto full = srp_make_verifier_record(Secret(password));
  settings.verifierRecord = [&](std::string_view) -> Result<std::optional<Data>> { return std::optional(*full); };
  start();
  SRPContextPtr client;
  ASSERT_EQ(srp_client_mech_new(client, user, user, Secret(password)), SRPDone);
  Data message;
  ASSERT_EQ(srp_nsdata_client_step(client.get(), Data(), &message), SRPContinue);
  ASSERT_EQ(srp_nsdata_client_step(client.get(), Data::fromString(step(message.view()).output), &message), SRPContinue);
  ASSERT_EQ(srp_nsdata_client_step(client.get(), Data::fromString(step(message.view()).output), &message), SRPDone);
  std::span<const std::uint8_t> packet;
  ASSERT_EQ(srp_encode(context.get(), Data::fromString("key and certificate").span(), &packet), SRPDone);
  Secret plaintext;
  ASSERT_EQ(srp_decode(client.get(), packet, &plaintext), SRPDone);
  EXPECT_EQ(plaintext.reveal(), "key and certificate");
}

TEST_F(SRPServer, WrongPasswordAndUnknownUserLookAlike) {
  peer.set("password", "wrong");
  EXPECT_EQ(exchange().result, SRPAuthenticationFailed);
  const std::string wrongPassword = detail();
  EXPECT_EQ(wrongPassword, "client evidence does not match what we calculated. Probably a password error");
  peer.set("user", "nobody");
  EXPECT_EQ(exchange().result, SRPAuthenticationFailed);
  EXPECT_EQ(detail(), wrongPassword);
}

TEST_F(SRPServer, UnknownUsersKeepTheirSalt) {
  auto saltOf = [&](const char* name) {
    peer.set("user", name);
    start();
    EXPECT_EQ(step(peer.ask("client1")).result, SRPContinue);
    EXPECT_EQ(context->iterations, SRPMinimumIterations);
    EXPECT_EQ(context->salt.size(), SRPSaltLength);
    return context->salt;
  };
  const Data salt = saltOf("nobody");
  EXPECT_EQ(saltOf("nobody"), salt);
  EXPECT_NE(saltOf("somebody"), salt);
  settings.unknownUserSecret = Secret("of another deployment");
  EXPECT_NE(saltOf("nobody"), salt);
  const SRPGroup& group = *SRPGroup::named("rfc5054_1024");
  auto madeUp = srp_load_verifier_record(
      srp_make_unknown_user_record(Secret("s"), "nobody", SRPMinimumIterations, group.name), group);
  ASSERT_TRUE(madeUp);
  EXPECT_GT(madeUp->verifier.byteLength(), 100U);
}

TEST_F(SRPServer, IllegalPublicValuesAreRefused) {
  const BigNumber& N = SRPGroup::named("rfc5054_1024")->N;
  for (const BigNumber& A : {BigNumber(), N, N.plus(N), N.plus(BigNumber::fromWord(1))}) {
    peer.set("A", A.bytes().view());
    EXPECT_EQ(exchange().result, SRPProtocolViolated);
    EXPECT_EQ(detail(), "Illegal value for 'A'");
  }
}

TEST_F(SRPServer, ChoicesOfTheClient) {
  struct Row {
    const char* options;
    const char* detail;
    const char* diagnostics;
  };
  for (const Row& row :
       {Row{"mda=SHA-512,mda=SHA-256", "Error parsing user's options", "SRP MDA SHA-256 not supported\n"},
        Row{"maxbuffersize=2147483644", "Error parsing user's options",
            "SRP Maxbuffersize 2147483644 too big (> 2147483643)\n"},
        Row{"confidentiality+integrity=ChaCha20-Poly1305", "Error setting options",
            "Unable to find SRP MDA option now\n"},
        Row{"mda=SHA-512,kdf=SALTED-SHA512-PBKDF2", "Error initializing security layer",
            "Unable to find SRP confidentiality+integrity layer option\n"}}) {
    peer.set("options", row.options);
    EXPECT_LT(exchange().result, 0);
    EXPECT_EQ(detail(), row.detail);
    EXPECT_EQ(diagnostics, row.diagnostics);
  }
  // A client without a limit of its own gets packets of the size that was offered.
  peer.set("options", "mda=SHA-512,confidentiality+integrity=ChaCha20-Poly1305,kdf=SALTED-SHA512-PBKDF2");
  ASSERT_EQ(exchange().result, SRPDone);
  EXPECT_EQ(context->layer.maximumPacketSize, (1U << 20) - 16);
}

TEST_F(SRPServer, EvidenceAndIVsMustBeWhole) {
  for (const char* M1 : {"", "short"}) {
    peer.set("M1", M1);
    EXPECT_EQ(exchange().result, SRPAuthenticationFailed);
  }
}

TEST_F(SRPServer, IVsOfAnotherLengthAreRefused) {
  for (const char* iv : {"", "fifteen bytes..", "seventeen bytes.."}) {
    peer.set("iv", iv);
    EXPECT_EQ(exchange().result, SRPFailed);
    EXPECT_EQ(detail(), "Error initializing security layer");
  }
}

TEST_F(SRPServer, MangledMessagesAndForeignIdentities) {
  start();
  EXPECT_EQ(step("").result, SRPProtocolViolated);
  EXPECT_EQ(detail(), "Error UnBuffering input in step 1");
  EXPECT_EQ(step(peer.ask("client1")).result, SRPFailed);
  EXPECT_EQ(detail(), "Invalid SRP server step -1");
  start();
  step(peer.ask("client1"));
  EXPECT_EQ(step(peer.ask("client1")).result, SRPProtocolViolated);
  EXPECT_EQ(detail(), "Error UnBuffering input in step 2");
  peer.set("authorization", "root");
  start();
  EXPECT_EQ(step(peer.ask("client1")).result, SRPAuthenticationFailed);
}

TEST_F(SRPServer, SettingsAndRecordsThatCannotBeUsed) {
  peer.set("user", "broken");
  start();
  EXPECT_EQ(step(peer.ask("client1")).result, SRPFailed);
  EXPECT_THAT(detail(), HasSubstr("Unable to read the verifier record"));
  settings.group = "rfc5054_3072";
  start();
  EXPECT_EQ(step(peer.ask("client1")).result, SRPFailed);
  EXPECT_EQ(detail(), "Unable to set group parameters to rfc5054_3072: -1");
  settings.unknownUserSecret = Secret();
  EXPECT_EQ(srp_server_mech_new(context, settings), SRPBadParameter);
  EXPECT_EQ(srp_server_mech_new(context, {}), SRPBadParameter);
  EXPECT_EQ(detail(), "Bad parameter");
}

TEST(SRPVerifierRecord, HoldsNoPasswordAndAFreshSalt) {
  auto record = srp_make_verifier_record(Secret(password)), again = srp_make_verifier_record(Secret(password));
  ASSERT_TRUE(record && again);
  EXPECT_NE(*record, *again);
  EXPECT_THAT(std::string(record->view()), Not(HasSubstr(password)));
  auto dictionary = readPropertyList(*record)->asDictionary();
  EXPECT_EQ(dictionary->size(), 3U);
  EXPECT_EQ(dictionary->integer("iterations"), 100'000);
  EXPECT_EQ(dictionary->data("salt")->size(), 32U);
  EXPECT_EQ(dictionary->data("verifier")->size(), 512U);
  EXPECT_THROW((void)srp_make_verifier_record(Secret(password), 99'999), InvalidArgumentException);
  EXPECT_THROW((void)srp_make_verifier_record(Secret(password), 10'000'001), InvalidArgumentException);
  EXPECT_THROW((void)srp_make_verifier_record(Secret(password), 100'000, "rfc5054_1536"), InvalidArgumentException);
}

TEST(SRPVerifierRecord, EveryFaultHasItsSentence) {
  const SRPGroup& group = *SRPGroup::named("rfc5054_1024");
  const Dictionary good = {{"iterations", 100'000},
                           {"salt", Data::fromString(std::string(32, 's'))},
                           {"verifier", Data::fromString(std::string(128, 'v'))}};
  auto fault = [&](const Value& root) {
    auto loaded = srp_load_verifier_record(*writePropertyList(root, PropertyListFormat::Binary), group);
    return std::string(loaded ? "none" : loaded.error());
  };
  auto with = [&](const char* key, const Value& value) {
    Dictionary changed = good;
    changed.set(key, value);
    return changed;
  };
  auto without = [&](const char* key) {
    Dictionary changed = good;
    changed.remove(key);
    return changed;
  };
  EXPECT_EQ(fault(good), "none");
  EXPECT_EQ(srp_load_verifier_record(Data::fromString("<plist"), group).error(),
            "Unable to deserialize plist from secret");
  EXPECT_EQ(fault(Array{1}), "Not a dictionary deserializing plist");
  EXPECT_EQ(fault(without("salt")), "Unable to get salt");
  EXPECT_EQ(fault(with("salt", "text")), "Unable to get salt");
  EXPECT_EQ(fault(with("salt", Data::fromString("short"))), "Unable to get salt");
  EXPECT_EQ(fault(without("verifier")), "Unable to get verifier");
  EXPECT_EQ(fault(with("verifier", Data::fromString(std::string(127, 'v')))), "Unable to get verifier");
  EXPECT_EQ(fault(with("verifier", Data::fromString(std::string(128, '\0')))), "Unable to get verifier");
  EXPECT_EQ(fault(with("verifier", group.N.bytes())), "Unable to get verifier");
  EXPECT_EQ(fault(without("iterations")), "Unable to get iterations");
  for (const Value& iterations : {Value("100000"), Value(-1), Value(99'999), Value(10'000'001), Value(1e6)}) {
    EXPECT_EQ(fault(with("iterations", iterations)), "Unable to convert iterations");
  }
}

}  // namespace
}  // namespace florvane
