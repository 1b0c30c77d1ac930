#include "platform/Encoding.h"
#include "platform/Exceptions.h"
#include "sasl/SRPBuffer.h"
#include "sasl/SRPContext.h"

#include <gtest/gtest.h>

namespace florvane {
namespace {

constexpr char everyField[] = "%m%o%s%u%q%c";

std::vector<std::uint8_t> everyFieldBuffer() {
  const std::vector<std::uint8_t> octets = {9, 8, 7};
  std::vector<std::uint8_t> buffer;
  const BigNumber number = BigNumber::fromHex("00ff01");
  EXPECT_EQ(MakeBuffer(buffer, everyField,
                       {std::cref(number), std::span<const std::uint8_t>(octets), std::string_view("h\xc3\xa9"),
                        std::uint32_t{0x01020304}, std::uint64_t{0x0102030405060708}, std::uint8_t{255}}),
            SRPDone);
  return buffer;
}

struct Fields {
  Data number, octets;
  std::string text;
  std::uint32_t word = 0;
  std::uint64_t longWord = 0;
  std::uint8_t byte = 0;
};

int readEveryField(std::span<const std::uint8_t> buffer, Fields& fields) {
  testing::internal::CaptureStderr();
  int result = UnBuffer(buffer, everyField,
                        {&fields.number, &fields.octets, &fields.text, &fields.word, &fields.longWord, &fields.byte});
  EXPECT_EQ(testing::internal::GetCapturedStderr().empty(), result == SRPDone);
  return result;
}

// The result of reading, and what it said on standard error.
std::pair<int, std::string> complaintAbout(std::span<const std::uint8_t> buffer, std::string_view format,
                                           std::initializer_list<SRPFieldTarget> targets) {
  testing::internal::CaptureStderr();
  int result = UnBuffer(buffer, format, targets);
  return {result, testing::internal::GetCapturedStderr()};
}

std::vector<std::uint8_t> framed(std::string_view hex) {
  Data body = *hexDecode(hex);
  std::vector<std::uint8_t> buffer = {0, 0, 0, static_cast<std::uint8_t>(body.size())};
  buffer.insert(buffer.end(), body.begin(), body.end());
  return buffer;
}

TEST(SRPBuffer, FieldsAreWrittenBigEndianAndMinimal) {
  auto buffer = everyFieldBuffer();
  EXPECT_EQ(hexEncode(Data(std::span<const std::uint8_t>(buffer))),
            "0000001a"
            "0002ff01"
            "03090807"
            "000368c3a9"
            "01020304"
            "0102030405060708"
            "ff");
  Fields fields;
  ASSERT_EQ(readEveryField(buffer, fields), SRPDone);
  EXPECT_EQ(hexEncode(fields.number), "ff01");
  EXPECT_EQ(hexEncode(fields.octets), "090807");
  EXPECT_EQ(fields.text, "h\xc3\xa9");
  EXPECT_EQ(fields.word, 0x01020304U);
  EXPECT_EQ(fields.longWord, 0x0102030405060708U);
  EXPECT_EQ(fields.byte, 255);
}

TEST(SRPBuffer, EmptyFieldsAreOnlyTheirLength) {
  std::vector<std::uint8_t> buffer;
  const BigNumber zero;
  ASSERT_EQ(MakeBuffer(buffer, "%o%s%m", {std::span<const std::uint8_t>(), std::string_view(), std::cref(zero)}), 0);
  EXPECT_EQ(hexEncode(Data(std::span<const std::uint8_t>(buffer))), "000000050000000000");
}

TEST(SRPBuffer, FieldsReadInPlacePointIntoTheInput) {
  auto buffer = framed("02aabb0001cc");
  std::span<const std::uint8_t> octets, number;
  ASSERT_EQ(UnBuffer(buffer, "%-o%-m", {&octets, &number}), SRPDone);
  EXPECT_EQ(octets.data(), buffer.data() + 5);
  EXPECT_EQ(number.data(), buffer.data() + 9);
}

TEST(SRPBuffer, LimitsOfWhatCanBeWritten) {
  const std::vector<std::uint8_t> octets(256);
  const std::string text(65536, 'x');
  const BigNumber number = BigNumber::fromHex("1" + std::string(131072, '0'));
  std::vector<std::uint8_t> buffer;
  auto complaint = [&](std::string_view format, const SRPFieldValue& value) {
    testing::internal::CaptureStderr();
    EXPECT_LT(MakeBuffer(buffer, format, {value}), 0);
    return testing::internal::GetCapturedStderr();
  };
  EXPECT_EQ(complaint("%o", std::span<const std::uint8_t>(octets)), "String too long to create os string\n");
  EXPECT_EQ(complaint("%s", std::string_view(text)), "String too long to create utf8 string\n");
  EXPECT_EQ(complaint("%m", std::cref(number)), "String too long to create mpi string\n");
  EXPECT_EQ(MakeBuffer(buffer, "%o%s", {std::span(octets).first(255), std::string_view(text).substr(1)}), SRPDone);
  EXPECT_EQ(buffer.size(), 4U + 1 + 255 + 2 + 65535);
}

TEST(SRPBuffer, EveryShorterInputIsRefused) {
  const auto buffer = everyFieldBuffer();
  for (std::size_t length = 0; length < buffer.size(); ++length) {
    std::vector<std::uint8_t> cut(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(length));
    Fields fields;
    EXPECT_LT(readEveryField(cut, fields), 0) << length;
    if (length < 4) continue;
    cut[3] = static_cast<std::uint8_t>(length - 4);  // with a frame that fits
    EXPECT_LT(readEveryField(cut, fields), 0) << length;
  }
}

TEST(SRPBuffer, EveryWrongLengthByteIsRefused) {
  const auto buffer = everyFieldBuffer();
  for (std::size_t place : {0U, 1U, 2U, 3U, 4U, 5U, 8U, 12U, 13U}) {
    for (unsigned value = 0; value < 256; ++value) {
      auto changed = buffer;
      changed[place] = static_cast<std::uint8_t>(value);
      if (changed == buffer) continue;
      Fields fields;
      EXPECT_LT(readEveryField(changed, fields), 0) << place << " " << value;
    }
  }
}

TEST(SRPBuffer, ComplaintsNameTheFirstFault) {
  Data data;
  std::string text;
  std::uint32_t word = 0;
  std::uint64_t longWord = 0;
  std::uint8_t byte = 0;
  const auto onlyLength = framed("");
  auto said = [](int result, const char* complaint) { return std::pair(result, std::string(complaint)); };
  EXPECT_EQ(complaintAbout(std::span(onlyLength).first(3), "%c", {&byte}),
            said(-5, "Buffer is not big enough to be SRP buffer: 3\n"));
  EXPECT_EQ(complaintAbout(std::vector<std::uint8_t>{0, 0, 0, 1}, "%c", {&byte}),
            said(-5, "SRP Buffer isn't of the right length\n"));
  EXPECT_EQ(complaintAbout(framed("00"), "%m", {&data}), said(-5, "Buffer is not big enough to be SRP MPI\n"));
  EXPECT_EQ(complaintAbout(onlyLength, "%o", {&data}), said(-5, "Buffer is not big enough to be SRP os\n"));
  EXPECT_EQ(complaintAbout(framed("00"), "%s", {&text}), said(-5, "Buffer is not big enough to be SRP UTF8\n"));
  EXPECT_EQ(complaintAbout(framed("000000"), "%u", {&word}), said(-5, "Buffer is not big enough to be SRP uint\n"));
  EXPECT_EQ(complaintAbout(framed("00000000000000"), "%q", {&longWord}),
            said(-5, "Buffer is not big enough to be SRP uint64_t\n"));
  EXPECT_EQ(complaintAbout(onlyLength, "%c", {&byte}), said(-5, "Buffer is not big enough to be SRP char\n"));
  EXPECT_EQ(complaintAbout(framed("0002aa"), "%m", {&data}), said(-5, "Not enough data for this SRP MPI\n"));
  EXPECT_EQ(complaintAbout(framed("02aa"), "%o", {&data}), said(-5, "Not enough data for this SRP os\n"));
  EXPECT_EQ(complaintAbout(framed("ffffaa"), "%s", {&text}), said(-5, "Not enough data for this SRP UTF8\n"));
  EXPECT_EQ(complaintAbout(framed("aabb"), "%c", {&byte}), said(-5, "Extra data in SRP buffer\n"));
}

TEST(SRPBuffer, AFormatMustGoWithItsArguments) {
  std::vector<std::uint8_t> buffer;
  std::uint8_t byte = 0;
  EXPECT_THROW(MakeBuffer(buffer, "%u", {std::uint8_t{1}}), InvalidArgumentException);
  EXPECT_THROW(MakeBuffer(buffer, "%c%c", {std::uint8_t{1}}), InvalidArgumentException);
  EXPECT_THROW(MakeBuffer(buffer, "%x", {std::uint8_t{1}}), InvalidArgumentException);
  EXPECT_THROW(UnBuffer(framed("00"), "", {&byte}), InvalidArgumentException);
  EXPECT_THROW(UnBuffer(framed("00"), "c", {&byte}), InvalidArgumentException);
}

}  // namespace
}  // namespace florvane
