#include "common/PUAdditions.h"

#include <gtest/gtest.h>

namespace florvane {
namespace {

TEST(PUAdditions, HexadecimalGoesBothWays) {
  EXPECT_EQ(pu_hex(Data()), "");
  EXPECT_EQ(pu_hex(Data::fromString("\x0a\xB0")), "0ab0");
  EXPECT_EQ(pu_dataFromHexString("0A0b"), Data::fromString("\x0a\x0b"));
  EXPECT_EQ(pu_dataFromHexString(""), Data());
  for (const char* illegal : {"abc", "zz", "0x", " a", "+1"}) EXPECT_EQ(pu_dataFromHexString(illegal), std::nullopt);
  EXPECT_EQ(pu_dataFromHexString(std::nullopt), std::nullopt);
}

TEST(PUAdditions, ShorterByteStringsComeFirst) {
  auto compare = [](std::string_view a, std::string_view b) {
    return fv_compare(Data::fromString(a), Data::fromString(b));
  };
  EXPECT_EQ(compare("\xff", "\x01\x01"), -1);
  EXPECT_EQ(compare("\x7f", "\x80"), -1) << "bytes have no sign";
  EXPECT_EQ(compare("b", "a"), 1);
  EXPECT_EQ(compare("ab", "ab"), 0);
  EXPECT_EQ(fv_compare(Data(), std::nullopt), 0);
  EXPECT_EQ(fv_compare(Data::fromString("a"), std::nullopt), 1);
}

}  // namespace
}  // namespace florvane
