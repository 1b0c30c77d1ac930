#include "sasl/SRPBuffer.h"
#include "sasl/SRPContext.h"

#include <array>
#include <cstdlib>

// Any bytes as each of the mechanism's messages (the first byte says which). What can be read is written again and must
// be the same, save for numbers with leading zeros. Run with -close_fd_mask=2: every refusal is said on standard error.

namespace florvane {
namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

bool isMinimal(const Data& number) { return number.empty() || number[0] != 0; }

void readAndWriteAgain(unsigned message, std::span<const std::uint8_t> input) {
  Data N, g, B, octets, moreOctets;
  std::span<const std::uint8_t> inPlace, moreInPlace;
  std::string text, moreText, thirdText;
  std::uint8_t byte = 0;
  std::uint32_t word = 0;
  std::uint64_t longWord = 0;
  std::vector<std::uint8_t> again;
  bool comparable = true;
  switch (message) {
    case 0:
      if (UnBuffer(input, "%s%s%s%o", {&text, &moreText, &thirdText, &octets}) != SRPDone) return;
      check(MakeBuffer(again, "%s%s%s%o",
                       {std::string_view(text), std::string_view(moreText), std::string_view(thirdText),
                        octets.span()}) == SRPDone);
      break;
    case 1: {
      if (UnBuffer(input, "%c%m%m%o%m%q%s", {&byte, &N, &g, &octets, &B, &longWord, &text}) != SRPDone) return;
      const BigNumber first = BigNumber::fromBytes(N.span()), second = BigNumber::fromBytes(g.span()),
                      third = BigNumber::fromBytes(B.span());
      comparable = isMinimal(N) && isMinimal(g) && isMinimal(B);
      check(MakeBuffer(again, "%c%m%m%o%m%q%s",
                       {byte, std::cref(first), std::cref(second), octets.span(), std::cref(third), longWord,
                        std::string_view(text)}) == SRPDone);
      break;
    }
    case 2: {
      if (UnBuffer(input, "%m%-o%s%-o", {&N, &inPlace, &text, &moreInPlace}) != SRPDone) return;
      const BigNumber number = BigNumber::fromBytes(N.span());
      comparable = isMinimal(N);
      check(MakeBuffer(again, "%m%o%s%o", {std::cref(number), inPlace, std::string_view(text), moreInPlace}) ==
            SRPDone);
      break;
    }
    default:
      if (UnBuffer(input, "%-o%-o%s%u", {&inPlace, &moreInPlace, &text, &word}) != SRPDone) return;
      check(MakeBuffer(again, "%o%o%s%u", {inPlace, moreInPlace, std::string_view(text), word}) == SRPDone);
      break;
  }
  check(!comparable || std::equal(again.begin(), again.end(), input.begin(), input.end()));
}

}  // namespace
}  // namespace florvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size > 0) florvane::readAndWriteAgain(bytes[0] % 4U, {bytes + 1, size - 1});
  return 0;
}
