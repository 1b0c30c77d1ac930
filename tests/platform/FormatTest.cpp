#include "platform/Format.h"
#include "platform/Secret.h"

#include <gtest/gtest.h>

namespace florvane {
namespace {

TEST(Format, RendersEveryConversionWithItsArgument) {
  EXPECT_EQ(format("%@ - %ld", std::string("domain"), -1001), "domain - -1001");
  EXPECT_EQ(format("%s:%u: failed assertion '%s'\n", "Client/Client/DCPath", 12U, "service"),
            "Client/Client/DCPath:12: failed assertion 'service'\n");
  EXPECT_EQ(format("%lld of %llu, %d%%", 5LL, 7ULL, 71), "5 of 7, 71%");
  EXPECT_EQ(format("%u", -1), std::to_string(UINT64_MAX));
  EXPECT_EQ(format("%p", static_cast<const void*>(nullptr)), "0x0");
}

TEST(Format, AbsentAndDescribableArguments) {
  EXPECT_EQ(
      format("%@ %@ %s", std::optional<std::string>(), std::shared_ptr<Error>(), static_cast<const char*>(nullptr)),
      "(null) (null) (null)");
  EXPECT_EQ(format("%@", std::optional<Data>(Data("ab", 2))), "<2 bytes>");
  EXPECT_EQ(format("%@", Value(Data("\x0a\x1b", 2))), "<0a1b>");
  EXPECT_EQ(format("cookie = %@", Secret("k=0123456789abcdef")), "cookie = <18 bytes>");
  EXPECT_EQ(format("%@ %@", 1), "1 (null)");
}

TEST(Format, TextThatIsNoConversionStands) { EXPECT_EQ(format("100% of %q, 5%"), "100% of %q, 5%"); }

}  // namespace
}  // namespace florvane
