#include "platform/Encoding.h"
#include "platform/Exceptions.h"
#include "sasl/SRPArithmetic.h"
#include "tests/sasl/SRPPeer.h"
#include "tests/support/Process.h"

#include <gtest/gtest.h>

namespace florvane {
namespace {

Data fromHex(std::string_view text) { return *hexDecode(text); }
std::string hexOf(const BigNumber& number) { return hexEncode(number.bytes()); }

// RFC 5054, appendix B.
constexpr char vectorV[] =
    "7e273de8696ffc4f4e337d05b4b375beb0dde1569e8fa00a9886d8129bada1f1822223ca1a605b530e379ba4729fdc59f105b4787e5186f5"
    "c671085a1447b52a48cf1970b4fb6f8400bbf4cebfbb168152e08ab5ea53d15c1aff87b2b9da6e04e058ad51cc72bfc9033b564e26480d78"
    "e955a5e29e7ab245db2be315e2099afb";
constexpr char vectorA[] =
    "61d5e490f6f1b79547b0704c436f523dd0e560f0c64115bb72557ec44352e8903211c04692272d8b2d1a5358a2cf1b6e0bfcf99f921530ec"
    "8e39356179eae45e42ba92aeaced825171e1e8b9af6d9c03e1327f44be087ef06530e69f66615261eef54073ca11cf5858f0edfdfe15efea"
    "b349ef5d76988a3672fac47b0769447b";
constexpr char vectorB[] =
    "bd0c61512c692c0cb6d041fa01bb152d4916a1e77af46ae105393011baf38964dc46a0670dd125b95a981652236f99d9b681cbf87837ec99"
    "6c6da04453728610d0c6ddb58b318885d7d82c7f8deb75ce7bd4fbaa37089e6f9c6059f388838e7a00030b331eb76840910440b1b27aaeae"
    "eb4012b7d7665238a8e3fb004b117b58";
constexpr char vectorS[] =
    "b0dc82babcf30674ae450c0287745e7990a3381f63b387aaf271a10d233861e359b48220f7c4693c9ae12b0a6f67809f0876e2d013800d6c"
    "41bb59b6d5979b5c00a172b4a2a5903a0bdcaf8a709585eb2afafa8f3499b200210dcc1f10eb33943cd67fc88a2f39a4be5bec4ec0a3212d"
    "c346d7e474b29ede8a469ffeca686e5a";

class PublishedVectors : public testing::Test {
 protected:
  const SRPSuite suite{DigestAlgorithm::SHA1, SRPGroup::named("rfc5054_1024")};
  const BigNumber x = suite.passwordKey("alice", Secret("password123"), fromHex("beb25379d1a8581eb5a727673a2441ee"));
  const SRPClientExponent client{
      suite, Secret(fromHex("60975527035cf2ad1989806f0407210bc81edc04e2762a56afd529ddda2d4393").view())};
  const SRPServerExponent server{
      suite, suite.verifier(x),
      Secret(fromHex("e487cb59d31ac550471e81f00f6928e01dda08e974a004f49e61f5d105284d20").view())};
};

TEST_F(PublishedVectors, EveryIntermediateValue) {
  EXPECT_EQ(hexOf(suite.multiplier()), "7556aa045aef2cdd07abaf0f665c3e818913186f");
  EXPECT_EQ(hexOf(x), "94b7555aabe9127cc58ccf4993db6cf84d16c124");
  EXPECT_EQ(hexOf(suite.verifier(x)), vectorV);
  EXPECT_EQ(hexOf(client.publicValue()), vectorA);
  EXPECT_EQ(hexOf(server.publicValue()), vectorB);
  EXPECT_EQ(hexOf(suite.scrambler(client.publicValue(), server.publicValue())),
            "ce38b9593487da98554ed47d70a7ae5f462ef019");
  EXPECT_EQ(hexEncode(client.premasterSecret(x, server.publicValue())->revealData()), vectorS);
  EXPECT_EQ(hexEncode(server.premasterSecret(client.publicValue())->revealData()), vectorS);
}

TEST_F(PublishedVectors, ValuesThatLetThePeerChooseTheSecretAreRefused) {
  const BigNumber& N = suite.group->N;
  for (const BigNumber& value : {BigNumber(), N, N.plus(N), N.plus(BigNumber::fromWord(1))}) {
    EXPECT_EQ(client.premasterSecret(x, value).error(), SRPFailure::IllegalPublicValue);
    EXPECT_EQ(server.premasterSecret(value).error(), SRPFailure::IllegalPublicValue);
  }
}

TEST_F(PublishedVectors, EvidenceDependsOnEverythingThatWasAgreed) {
  const Data salt = Data::fromString("salt");
  const BigNumber A = client.publicValue(), B = server.publicValue();
  const SRPEvidence base(suite, "alice", salt, A, B, Secret("S"));
  for (const SRPEvidence& other :
       {SRPEvidence(suite, "alicf", salt, A, B, Secret("S")),
        SRPEvidence(suite, "alice", Data::fromString("sale"), A, B, Secret("S")),
        SRPEvidence(suite, "alice", salt, B, B, Secret("S")), SRPEvidence(suite, "alice", salt, A, A, Secret("S")),
        SRPEvidence(suite, "alice", salt, A, B, Secret("T"))}) {
    EXPECT_NE(other.M1, base.M1);
    EXPECT_NE(other.M2, base.M2);
  }
}

TEST(SRPGroup, NumbersAreThoseOfTheirDerivation) {
  test::SRPPeer peer;
  for (unsigned bits : {4096U, 8192U}) {
    const SRPGroup* group = SRPGroup::named("rfc5054_" + std::to_string(bits));
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(peer.ask("prime", std::to_string(bits)), group->N.bytes().view());
  }
  for (const char* name : {"rfc5054_1024", "rfc5054_2048"}) {
    const BigNumber& N = SRPGroup::named(name)->N;
    const std::string script = "import sys\nprint((int(sys.argv[1], 16) - 1) // 2)";
    std::string half = test::runPython(script, {hexOf(N)}).standardOutput;
    half.pop_back();
    EXPECT_TRUE(test::runProcess({"openssl", "prime", "-hex", hexOf(N)}).standardOutput.ends_with("is prime\n"));
    EXPECT_TRUE(test::runProcess({"openssl", "prime", half}).standardOutput.ends_with("is prime\n"));
  }
}

TEST(SRPGroup, MatchesByteForByte) {
  const SRPGroup* group = SRPGroup::named("rfc5054_2048");
  Data N = group->N.bytes(), g = group->g.bytes(), zero = fromHex("00");
  EXPECT_EQ(SRPGroup::matching(N.span(), g.span()), group);
  EXPECT_EQ(SRPGroup::matching(N.span(), fromHex("05").span()), nullptr);
  EXPECT_EQ(SRPGroup::matching(N.span(), fromHex("0002").span()), nullptr);
  EXPECT_EQ(SRPGroup::matching(N.span().first(255), g.span()), nullptr);
  std::string longer = std::string(1, '\0') + std::string(N.view());
  EXPECT_EQ(SRPGroup::matching(Data::fromString(longer).span(), g.span()), nullptr);
  EXPECT_EQ(SRPGroup::named("rfc5054_3072"), nullptr);
}

}  // namespace
}  // namespace florvane
