#include "platform/BigNumber.h"
#include "platform/Crypto.h"
#include "platform/Encoding.h"
#include "platform/Exceptions.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryDirectory.h"

#include <array>
#include <random>

#include <gtest/gtest.h>
#include <sodium.h>

namespace florvane {
namespace {

using test::runProcess;
using test::runPython;

Data fromHex(std::string_view text) { return *hexDecode(text); }
std::vector<std::uint8_t> bytesOf(const Data& data) { return {data.begin(), data.end()}; }
std::vector<std::uint8_t> someBytes(std::size_t count, unsigned seed = 1) {
  std::minstd_rand random(seed);
  std::vector<std::uint8_t> bytes(count);
  for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random() >> 8);
  return bytes;
}

// Bytes 0 to 7 of the IV are the counter, 8 to 15 the nonce, each little-endian.
std::string ivText(std::uint64_t counter, std::uint64_t nonce) {
  std::array<std::uint64_t, 2> words = {counter, nonce};
  return hexEncode(Data(words.data(), sizeof words));
}

TEST(Crypto, DigestsAndAuthenticatorsAgreeWithAnotherImplementation) {
  const std::string script = R"(
import hashlib, hmac
message, key = bytes(range(256)) * 3, b"key" * 50
for name in ("sha1", "sha224", "sha256", "sha384", "sha512"):
    print(name, hashlib.new(name, message).hexdigest(), hashlib.new(name).hexdigest(),
          hmac.new(key, message, name).hexdigest(), hmac.new(b"", b"", name).hexdigest())
)";
  std::string message, key, ours;
  for (int i = 0; i < 768; ++i) message += static_cast<char>(i);
  for (int i = 0; i < 50; ++i) key += "key";
  const std::array names = {"sha1", "sha224", "sha256", "sha384", "sha512"};
  for (std::size_t i = 0; i < names.size(); ++i) {
    auto algorithm = static_cast<DigestAlgorithm>(i);
    Data inPieces = Digest(algorithm).update(message.substr(0, 100)).update("").update(message.substr(100)).finish();
    EXPECT_EQ(digestLength(algorithm), inPieces.size());
    Data mac = hmac(algorithm, Data::fromString(key).span(), Data::fromString(message).span());
    ours += std::string(names[i]) + " " + hexEncode(inPieces) + " " + hexEncode(digest(algorithm, {})) + " " +
            hexEncode(mac) + " " + hexEncode(hmac(algorithm, {}, {})) + "\n";
  }
  EXPECT_EQ(runPython(script).standardOutput, ours);
}

TEST(Crypto, PBKDF2AgreesWithTheOpenSSLTool) {
  for (const char* salt : {"", "01", "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff"}) {
    std::vector<std::string> command = {"openssl", "kdf",
                                        "-keylen", "128",
                                        "-kdfopt", "digest:SHA512",
                                        "-kdfopt", "hexpass:70c3a4c39f00776f7264",
                                        "-kdfopt", std::string("hexsalt:") + salt,
                                        "-kdfopt", "iter:1001",
                                        "-kdfopt", "pkcs5:1",
                                        "-binary", "PBKDF2"};
    Secret derived =
        pbkdf2(DigestAlgorithm::SHA512, Secret(fromHex("70c3a4c39f00776f7264").view()), fromHex(salt), 1001, 128);
    EXPECT_EQ(hexEncode(derived.revealData()), hexEncode(Data::fromString(runProcess(command).standardOutput)));
  }
  EXPECT_THROW(pbkdf2(DigestAlgorithm::SHA512, Secret("x"), Data(), 0, 1), InvalidArgumentException);
}

// RFC 8439, 2.3.2: its 96-bit nonce's first word is the upper half of the 64-bit counter.
TEST(Crypto, ChaCha20KnownBlock) {
  std::vector<std::uint8_t> key(32), block(64);
  for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<std::uint8_t>(i);
  chacha20(key, 0x4a000000, 0x0900000000000001, block);
  EXPECT_EQ(hexEncode(Data(std::span<const std::uint8_t>(block))),
            "10f1e7e4d13b5915500fdd1fa32071c4c7d1f4c733c068030422aa9ac3d46c4e"
            "d2826446079faa0914c2d705d98b02a2b5129cd1de164eb9cbd083e8a2503c4e");
  EXPECT_THROW(chacha20(std::span(key).first(31), 0, 0, block), InvalidArgumentException);
}

TEST(Crypto, ChaCha20CounterCarriesAndWraps) {
  const auto key = someBytes(32);
  for (std::uint64_t counter : {0x0ULL, 0x5ULL, 0xfffffffeULL, 0xffffffffULL, 0x1fffffff0ULL, 0x7fffffffffffffffULL,
                                0xfffffffffffffffdULL, 0xffffffffffffffffULL}) {
    for (std::size_t length : {1UL, 64UL, 65UL, 255UL, 256UL, 2049UL, 5000UL}) {
      auto text = someBytes(length, 2), judged = text;
      // One block at a time, so that the judge's counter needs neither carry nor wrap.
      for (std::size_t start = 0; start < length; start += 64) {
        std::array<std::uint8_t, 8> nonce = {8, 7, 6, 5, 4, 3, 2, 1};
        crypto_stream_chacha20_xor_ic(judged.data() + start, judged.data() + start, std::min(length - start, 64UL),
                                      nonce.data(), counter + start / 64, key.data());
      }
      chacha20(key, 0x0102030405060708, counter, text);
      EXPECT_EQ(text, judged) << counter << " " << length;
    }
  }
}

TEST(Crypto, ChaCha20AgreesWithTheOpenSSLTool) {
  const auto key = someBytes(32, 3);
  for (std::uint64_t counter : {0x0ULL, 0x2aULL, 0xfffffffffULL}) {
    auto text = someBytes(1000, 4);
    std::string input(text.begin(), text.end());
    auto result = runProcess({"openssl", "enc", "-chacha20", "-K", hexEncode(Data(std::span(key))), "-iv",
                              ivText(counter, 0xf0e0d0c0b0a09080)},
                             input);
    chacha20(key, 0xf0e0d0c0b0a09080, counter, text);
    EXPECT_EQ(result.standardOutput, std::string(text.begin(), text.end()));
  }
}

TEST(Crypto, Poly1305) {
  // RFC 8439, 2.5.2, and A.3 #7, where the accumulator must be reduced once more at the end.
  Data key = fromHex("85d6be7857556d337f4452fe42d506a80103808afb0db2fd4abff6af4149f51b");
  Data message = Data::fromString("Cryptographic Forum Research Group");
  EXPECT_EQ(hexEncode(poly1305(key.span(), {message.span()})), "a8061dc1305136c6c22b8baf0c0127a9");
  EXPECT_EQ(hexEncode(poly1305(key.span(), {message.span().first(5), {}, message.span().subspan(5)})),
            "a8061dc1305136c6c22b8baf0c0127a9");
  std::vector<std::uint8_t> one(32);
  one[0] = 1;
  Data edge = fromHex(
      "ffffffffffffffffffffffffffffffff"
      "f0ffffffffffffffffffffffffffffff"
      "11000000000000000000000000000000");
  EXPECT_EQ(hexEncode(poly1305(one, {edge.span()})), "05000000000000000000000000000000");
  for (unsigned length = 0; length < 200; ++length) {
    auto text = someBytes(length, length), randomKey = someBytes(32, length + 1000);
    std::array<std::uint8_t, 16> judged;
    crypto_onetimeauth(judged.data(), text.data(), text.size(), randomKey.data());
    EXPECT_EQ(bytesOf(poly1305(randomKey, {text})), std::vector<std::uint8_t>(judged.begin(), judged.end()));
  }
}

TEST(Crypto, RandomBytesDiffer) {
  EXPECT_EQ(randomBytes(0)->size(), 0U);
  EXPECT_NE(*randomBytes(32), *randomBytes(32));
  EXPECT_EQ(randomSecret(32)->size(), 32U);
}

TEST(Crypto, ComparisonWantsEqualLengths) {
  Data a = fromHex("0102"), b = fromHex("010203");
  EXPECT_FALSE(constantTimeEqual(a.span(), b.span()));
  EXPECT_TRUE(constantTimeEqual(a.span(), b.span().first(2)));
  EXPECT_FALSE(constantTimeEqual(a.span(), b.span().last(2)));
  EXPECT_TRUE(constantTimeEqual({}, {}));
}

TEST(BigNumber, BytesArePaddedAndNeverCut) {
  BigNumber number = BigNumber::fromBytes(fromHex("0000a0b0").span());
  EXPECT_EQ(hexEncode(number.bytes()), "a0b0");
  EXPECT_EQ(hexEncode(number.paddedBytes(5)), "000000a0b0");
  EXPECT_THROW((void)number.paddedBytes(1), InvalidArgumentException);
  EXPECT_TRUE(BigNumber().bytes().empty());
  EXPECT_EQ(hexEncode(BigNumber::fromWord(0x1234567890abcdef).bytes()), "1234567890abcdef");
  EXPECT_LT(BigNumber::fromHex("ff"), BigNumber::fromHex("100"));
  for (const char* text : {"", "12x", "-5", "0x1"}) EXPECT_THROW(BigNumber::fromHex(text), InvalidArgumentException);
}

TEST(BigNumber, ArithmeticAgreesWithPython) {
  auto hexOf = [](unsigned length, unsigned seed) {
    auto bytes = someBytes(length, seed);
    bytes.back() |= 1;
    return hexEncode(Data(std::span<const std::uint8_t>(bytes)));
  };
  const std::string a = hexOf(40, 5), b = hexOf(64, 6), m = hexOf(48, 7);
  const std::string script = R"(
import sys
a, b, m = (int(text, 16) for text in sys.argv[1:])
for value in (a + b, a * b, b % m, (a - b) % m, a * b % m, pow(a, b, m), 0): print("%x" % value)
)";
  BigNumber A = BigNumber::fromSecret(Secret(fromHex(a).view())), B = BigNumber::fromHex(b), M = BigNumber::fromHex(m);
  std::string ours;
  for (const BigNumber& value :
       {A.plus(B), A.times(B), B.mod(M), A.modMinus(B, M), A.modTimes(B, M), A.modExp(B, M), A.modMinus(A, M)}) {
    std::string digits = hexEncode(value.bytes());
    ours += (digits.empty() ? "0" : digits.substr(digits.starts_with('0') ? 1 : 0)) + "\n";
  }
  EXPECT_EQ(runPython(script, {a, b, m}).standardOutput, ours);
  EXPECT_TRUE(B.modExp(A, M).plus(B).isSecret());
  EXPECT_FALSE(B.plus(M).isSecret());
  EXPECT_THROW((void)A.mod(BigNumber()), InvalidArgumentException);
  EXPECT_THROW((void)A.modExp(B, BigNumber::fromWord(10)), InvalidArgumentException);
}

}  // namespace
}  // namespace florvane
