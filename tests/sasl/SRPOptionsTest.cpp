#include "sasl/SRPContext.h"
#include "sasl/SRPOptions.h"

#include <gtest/gtest.h>

namespace florvane {
namespace {

constexpr char everything[] =
    "mda=SHA-512,replay_detection,confidentiality+integrity=ChaCha20-Poly1305,kdf=SALTED-SHA512-PBKDF2,"
    "maxbuffersize=65536,mandatory=replay_detection,mandatory=confidentiality+integrity";

struct Parsed {
  int result = 0;
  SRPOptions options;
  std::string detail;
};

Parsed parse(std::string_view text, SRPSide side) {
  SRPContext context;
  Parsed parsed;
  testing::internal::CaptureStderr();
  parsed.result = ParseOptions(context, text, side, parsed.options);
  parsed.detail = context.errorDetail;
  std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(said, parsed.result == 0 ? "" : parsed.detail + "\n");
  return parsed;
}

std::string written(const SRPOptions& options) {
  std::string text = "left over";
  EXPECT_EQ(OptionsToString(options, text), SRPDone);
  return text;
}

TEST(SRPOptions, WhatIsWrittenIsReadBack) {
  const SRPOptions all{1, true, 1, SRPReplayDetection | SRPConfidentialityAndIntegrity, 1, 65536};
  EXPECT_EQ(written(all), everything);
  EXPECT_EQ(parse(everything, SRPSide::Client).options, all);
  EXPECT_EQ(written({}), "");
  EXPECT_EQ(parse("", SRPSide::Client).options, SRPOptions{});
}

TEST(SRPOptions, MaximumBufferSize) {
  struct Row {
    const char* text;
    std::int64_t size;  // negative when refused
    const char* echo;
  };
  for (const Row& row :
       {Row{"2147483643", 2147483643, ""}, Row{"2147483642", 2147483642, "maxbuffersize=2147483642"},
        Row{"1", 1, "maxbuffersize=1"}, Row{"0", 0, ""}, Row{"2147483644", -1, ""},
        Row{"99999999999999999999999", -1, ""}, Row{"12x", -1, ""}, Row{"-1", -1, ""}, Row{"", -1, ""}}) {
    for (SRPSide side : {SRPSide::Client, SRPSide::Server}) {
      Parsed parsed = parse(std::string("maxbuffersize=") + row.text, side);
      EXPECT_EQ(parsed.result, row.size < 0 ? SRPProtocolViolated : SRPDone) << row.text;
      if (row.size < 0) continue;
      EXPECT_EQ(parsed.options.maximumBufferSize, row.size);
      EXPECT_EQ(written(parsed.options), row.echo);
    }
  }
  EXPECT_EQ(parse("maxbuffersize=2147483644", SRPSide::Client).detail,
            "SRP Maxbuffersize 2147483644 too big (> 2147483643)");
}

TEST(SRPOptions, TheClientTakesWhatItKnowsFromAnOffer) {
  struct Row {
    const char* text;
    const char* understood;
  };
  for (const Row& row :
       {Row{"mda=SHA-512,mda=SHA-256", "mda=SHA-512"}, Row{"mda=SHA-256,mda=SHA-512", "mda=SHA-512"},
        Row{"MDA=sha-512,Replay_Detection,KDF=salted-sha512-pbkdf2",
            "mda=SHA-512,replay_detection,kdf=SALTED-SHA512-PBKDF2"},
        Row{"mda=SHA-512,mda=SHA-512,replay_detection,replay_detection", "mda=SHA-512,replay_detection"},
        Row{"integrity=HMAC-SHA-1,,new_option,mda,=,mda=", ""}, Row{"mda =SHA-512", ""},
        Row{"mandatory=REPLAY_DETECTION", "mandatory=replay_detection"}}) {
    Parsed parsed = parse(row.text, SRPSide::Client);
    EXPECT_EQ(parsed.result, SRPDone) << row.text;
    EXPECT_EQ(written(parsed.options), row.understood);
  }
  EXPECT_EQ(parse("mandatory=integrity", SRPSide::Client).detail, "Mandatory SRP option integrity not supported");
}

TEST(SRPOptions, TheServerRefusesAChoiceThatIsUnknownOrNoChoice) {
  struct Row {
    const char* text;
    const char* detail;
  };
  for (const Row& row :
       {Row{"mda=SHA-512,mda=SHA-256", "SRP MDA SHA-256 not supported"},
        Row{"mda=SHA-512,mda=sha-512", "Multiple SRP MDAs given"}, Row{"mda=", "SRP MDA  not supported"},
        Row{"confidentiality+integrity=AES", "SRP Confidentiality+Integrity option AES not supported"},
        Row{"confidentiality+integrity=ChaCha20-Poly1305,confidentiality+integrity=ChaCha20-Poly1305",
            "Multiple SRP Confidentiality+Integrity options given"},
        Row{"kdf=none", "SRP KDF option none not supported"},
        Row{"kdf=SALTED-SHA512-PBKDF2,kdf=SALTED-SHA512-PBKDF2", "Multiple SRP KDF options given"},
        Row{"replay_detection,mda=SHA-512,replay_detection", "SRP Replay Detection option appears twice"},
        Row{"mda=\x1b[31m\n", "SRP MDA ?[31m? not supported"}}) {
    Parsed parsed = parse(row.text, SRPSide::Server);
    EXPECT_EQ(parsed.result, SRPProtocolViolated);
    EXPECT_EQ(parsed.detail, row.detail);
  }
  Parsed ignored = parse("mandatory=anything,mda=SHA-512", SRPSide::Server);
  EXPECT_EQ(ignored.result, SRPDone);
  EXPECT_EQ(ignored.options.mandatory, 0U);
}

TEST(SRPOptions, DigestsByPlatformName) {
  EXPECT_EQ(cc_get_digestbyname("sha512"), DigestAlgorithm::SHA512);
  EXPECT_EQ(cc_get_digestbyname("sha384"), DigestAlgorithm::SHA384);
  EXPECT_EQ(cc_get_digestbyname("sha256"), DigestAlgorithm::SHA256);
  EXPECT_EQ(cc_get_digestbyname("sha224"), DigestAlgorithm::SHA224);
  EXPECT_EQ(cc_get_digestbyname("sha1"), std::nullopt);
  SRPContext context;
  testing::internal::CaptureStderr();
  EXPECT_LT(SetMDA(context, {}), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unable to find SRP MDA option now\n");
}

}  // namespace
}  // namespace florvane
