#include "platform/Encoding.h"
#include "sasl/SRPContext.h"
#include "sasl/SRPSecurityLayer.h"
#include "tests/sasl/SRPPeer.h"

#include <gtest/gtest.h>

namespace florvane {
namespace {

using Bytes = std::vector<std::uint8_t>;

Data fromHex(std::string_view text) { return *hexDecode(text); }
Bytes bytesOf(std::string_view text) { return {text.begin(), text.end()}; }

constexpr char clientIV[] =
    "0000000000000000"
    "1011121314151617";
constexpr char serverIV[] =
    "0000000000000000"
    "2021222324252627";

// Both ends of one layer.
class SRPSecurityLayer : public testing::Test {
 protected:
  SRPSecurityLayer() { start(fromHex(clientIV), fromHex(serverIV)); }

  void start(const Data& ofClient, const Data& ofServer, std::uint32_t maximumBufferSize = 0) {
    EXPECT_EQ(prepare(client, ofServer, ofClient, maximumBufferSize), SRPDone);
    EXPECT_EQ(prepare(server, ofClient, ofServer, maximumBufferSize), SRPDone);
  }

  static int prepare(SRPContext& context, const Data& peerIV, const Data& ownIV, std::uint32_t maximumBufferSize = 0) {
    const SRPSuite suite{DigestAlgorithm::SHA512, SRPGroup::named("rfc5054_1024")};
    const BigNumber one = BigNumber::fromWord(1);
    context.evidence.emplace(suite, "user", Data(), one, one, Secret("premaster"));
    context.options = {1, true, 1, 0, 1, maximumBufferSize};
    return LayerInit(context.layer, context, peerIV.span(), ownIV.span());
  }

  Bytes seal(std::string_view text) {
    std::span<const std::uint8_t> packet;
    EXPECT_EQ(srp_encode(&server, bytesOf(text), &packet), SRPDone);
    return {packet.begin(), packet.end()};
  }

  std::pair<int, std::string> open(std::span<const std::uint8_t> input) {
    Secret plaintext;
    int result = srp_decode(&client, input, &plaintext);
    return {result, std::string(plaintext.reveal())};
  }

  static std::pair<int, std::string> opened(int result, std::string text) { return {result, std::move(text)}; }

  SRPContext client, server;
};

TEST_F(SRPSecurityLayer, AgreesWithLibsodiumAtAnyCounterAndNonce) {
  struct Row {
    const char* ofClient;
    const char* ofServer;
  };
  for (const Row& row : {Row{clientIV, serverIV},  // counter 0: libsodium's construction, whole
                         Row{"ffffffff00000000"
                             "0000000000000000",
                             "feffffffffffffff"
                             "0100000000000080"},
                         Row{"ffffffffffffffff"
                             "feffffffffffffff",
                             "f0ffffff05000000"
                             "ffffffffffffffff"}}) {
    start(fromHex(row.ofClient), fromHex(row.ofServer));
    test::SRPPeer peer;
    std::string key(client.evidence->sessionKey.reveal().substr(0, 32));
    peer.ask("layer", key + std::string(fromHex(row.ofServer).view()) + std::string(fromHex(row.ofClient).view()));
    for (std::size_t length : {0U, 1U, 63U, 64U, 65U, 1000U, 5000U}) {
      std::string text(length, static_cast<char>('a' + length % 26)), sealed = peer.ask("seal", text);
      // The peer seals as the client does, so the server opens; and the other way round.
      Secret plaintext;
      EXPECT_EQ(srp_decode(&server, bytesOf(sealed), &plaintext), SRPDone);
      EXPECT_EQ(plaintext.reveal(), text);
      EXPECT_EQ(peer.ask("open", seal(text)), text);
    }
  }
}

TEST_F(SRPSecurityLayer, AnySplitGivesTheSamePlaintext) {
  Bytes stream = seal("first"), second = seal("");
  stream.insert(stream.end(), second.begin(), second.end());
  second = seal("third");
  stream.insert(stream.end(), second.begin(), second.end());
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    start(fromHex(clientIV), fromHex(serverIV));
    auto front = open(std::span(stream).first(cut)), back = open(std::span(stream).subspan(cut));
    EXPECT_EQ(front.first, SRPDone);
    EXPECT_EQ(back, opened(SRPDone, std::string("firstthird").substr(front.second.size()))) << cut;
    EXPECT_EQ(front.second + back.second, "firstthird");
  }
  start(fromHex(clientIV), fromHex(serverIV));
  std::string text;
  for (const std::uint8_t& byte : stream) text += open({&byte, 1}).second;
  EXPECT_EQ(text, "firstthird");
}

TEST_F(SRPSecurityLayer, EveryFlippedBitIsNoticedAndEndsTheLayer) {
  const Bytes packet = seal("sealed text"), next = seal("next");
  for (std::size_t bit = 32; bit < packet.size() * 8; ++bit) {
    start(fromHex(clientIV), fromHex(serverIV));
    Bytes changed = packet;
    changed[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
    EXPECT_EQ(open(changed), opened(SRPIntegrityViolated, "")) << bit;
    EXPECT_EQ(srp_errdetail(&client), "ChaCha20-Poly1305 verification error");
    EXPECT_EQ(open(packet), opened(SRPIntegrityViolated, ""));
  }
}

TEST_F(SRPSecurityLayer, APacketThatIsNotTheNextOneIsRefused) {
  const Bytes first = seal("first"), second = seal("second");
  EXPECT_EQ(open(second), opened(SRPIntegrityViolated, ""));
  start(fromHex(clientIV), fromHex(serverIV));
  EXPECT_EQ(open(first), opened(SRPDone, "first"));
  EXPECT_EQ(open(first), opened(SRPIntegrityViolated, ""));
  // Nothing of the good one before it comes out of an input that holds a bad one.
  start(fromHex(clientIV), fromHex(serverIV));
  Bytes twice = first;
  twice.insert(twice.end(), first.begin(), first.end());
  EXPECT_EQ(open(twice), opened(SRPIntegrityViolated, ""));
  // A packet of the other direction is none of ours.
  start(fromHex(clientIV), fromHex(serverIV));
  Secret plaintext;
  EXPECT_EQ(srp_decode(&server, seal("mine"), &plaintext), SRPIntegrityViolated);
}

TEST_F(SRPSecurityLayer, LengthsThatNoPacketHas) {
  EXPECT_EQ(open(Bytes{0, 0, 0, 0}), opened(SRPFailed, ""));
  for (std::uint8_t length = 1; length < 16; ++length) {
    start(fromHex(clientIV), fromHex(serverIV));
    Bytes packet(4U + length);
    packet[3] = length;
    EXPECT_EQ(open(packet), opened(SRPIntegrityViolated, ""));
  }
  start(fromHex(clientIV), fromHex(serverIV), 1000);
  testing::internal::CaptureStderr();
  EXPECT_EQ(open(Bytes{0, 0, 0x03, 0xd9}), opened(SRPFailed, ""));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "encoded packet size too big (985 > 984)\n");
  start(fromHex(clientIV), fromHex(serverIV), 1000);
  EXPECT_EQ(open(Bytes{0, 0, 0x03, 0xd8}), opened(SRPDone, ""));
}

TEST_F(SRPSecurityLayer, AnAnnouncedLengthCostsNoMemory) {
  EXPECT_EQ(open(Bytes{0x7f, 0xff, 0xff, 0xe0, 1, 2, 3}), opened(SRPDone, ""));
  EXPECT_LT(client.layer.assembly.capacity(), 4096U);
}

TEST_F(SRPSecurityLayer, WhatIsSealedFitsThePeer) {
  start(fromHex(clientIV), fromHex(serverIV), 1000);
  EXPECT_EQ(open(seal(std::string(968, 'x'))), opened(SRPDone, std::string(968, 'x')));
  std::span<const std::uint8_t> packet;
  EXPECT_EQ(srp_encode(&server, Bytes(969), &packet), SRPBadParameter);
  for (std::uint32_t size : {1U, 15U, 16U, 19U, 31U}) {
    start(fromHex(clientIV), fromHex(serverIV), size);
    EXPECT_EQ(srp_encode(&server, Bytes(1), &packet), SRPBadParameter);
  }
}

TEST_F(SRPSecurityLayer, SetUpRefusesWhatIsNotSafe) {
  SRPContext context;
  auto complaint = [&](const std::string& peerIV, const std::string& ownIV) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(prepare(context, fromHex(peerIV), fromHex(ownIV)), SRPFailed);
    EXPECT_FALSE(srp_has_confidentiality(&context) || srp_has_integrity(&context));
    return testing::internal::GetCapturedStderr();
  };
  EXPECT_NE(complaint("ffffffffffffffff"
                      "1011121314151617",
                      clientIV),
            "");  // one nonce for both directions
  EXPECT_NE(complaint("", clientIV), "");
  EXPECT_NE(complaint(std::string(serverIV) + "00", clientIV), "");
  EXPECT_NE(complaint(serverIV, "00"), "");

  ASSERT_EQ(prepare(context, fromHex(serverIV), fromHex(clientIV)), SRPDone);
  EXPECT_TRUE(srp_has_confidentiality(&context) && srp_has_integrity(&context));
  auto without = [&](std::uint32_t SRPOptions::* choice) {
    SRPContext incomplete;
    incomplete.options = context.options;
    incomplete.options.*choice = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(LayerInit(incomplete.layer, incomplete, fromHex(serverIV).span(), fromHex(clientIV).span()), SRPFailed);
    return testing::internal::GetCapturedStderr();
  };
  EXPECT_EQ(without(&SRPOptions::ciphers), "Unable to find SRP confidentiality+integrity layer option\n");
  EXPECT_EQ(without(&SRPOptions::kdfs),
            "Unable to find SRP KDF layer option, kdf=SALTED-SHA512-PBKDF2 option required\n");
}

TEST_F(SRPSecurityLayer, NothingWorksWithoutALayerOrArguments) {
  SRPContext context;
  std::span<const std::uint8_t> packet;
  Secret plaintext;
  EXPECT_EQ(srp_encode(&context, {}, &packet), SRPBadParameter);
  EXPECT_EQ(srp_errdetail(&context), "confidentiality integrity layer required");
  context.errorDetail.clear();
  EXPECT_EQ(srp_decode(&context, {}, &plaintext), SRPBadParameter);
  EXPECT_EQ(srp_errdetail(&context), "confidentiality integrity layer required");
  EXPECT_EQ(srp_encode(&client, {}, nullptr), SRPBadParameter);
  EXPECT_EQ(srp_errdetail(&client), "Bad parameter");
  EXPECT_EQ(srp_decode(nullptr, {}, &plaintext), SRPBadParameter);
  EXPECT_EQ(srp_errdetail(nullptr), "Bad parameter");
}

}  // namespace
}  // namespace florvane
