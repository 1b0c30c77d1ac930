#include "platform/PropertyList.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

// Binary lists that no honest writer makes, put together by hand.

namespace florvane {
namespace {

using std::string_literals::operator""s;

std::string bigEndian(std::uint64_t number, std::size_t width) {
  std::string bytes(width, '\0');
  for (std::size_t i = width; i-- > 0; number >>= 8) bytes[i] = static_cast<char>(number);
  return bytes;
}

struct Trailer {
  std::uint64_t offsetWidth = 4;
  std::uint64_t referenceWidth = 1;
  std::uint64_t count = 0;
  std::uint64_t top = 0;
  std::uint64_t offsetTable = 0;
};

std::string trailerBytes(const Trailer& trailer) {
  return std::string(6, '\0') + bigEndian(trailer.offsetWidth, 1) + bigEndian(trailer.referenceWidth, 1) +
         bigEndian(trailer.count, 8) + bigEndian(trailer.top, 8) + bigEndian(trailer.offsetTable, 8);
}

// The first object is the root.
std::string listOf(const std::vector<std::string>& objects, std::size_t referenceWidth = 1) {
  std::string bytes = "bplist00";
  std::string offsets;
  for (const std::string& object : objects) {
    offsets += bigEndian(bytes.size(), 4);
    bytes += object;
  }
  return bytes + offsets +
         trailerBytes({.referenceWidth = referenceWidth, .count = objects.size(), .offsetTable = bytes.size()});
}

Result<Value> read(const std::string& bytes) { return readPropertyList(Data::fromString(bytes)); }

std::string problem(const Result<Value>& result) {
  if (result) return "";
  EXPECT_TRUE(result.error().is(QuilbarErrorDomain, PropertyListReadCorruptError));
  return result.error().localizedDescription();
}

#define EXPECT_REFUSED(result, words) EXPECT_NE(problem(result).find(words), std::string::npos) << problem(result)

TEST(BinaryPropertyList, IntegersOfEveryWidthThatFit64Bits) {
  EXPECT_TRUE(*read(listOf({"\x10\xff"s})) == Value(255));
  EXPECT_TRUE(*read(listOf({"\x11\xff\xff"s})) == Value(65535));
  EXPECT_TRUE(*read(listOf({"\x12\xff\xff\xff\xff"s})) == Value(4294967295));
  EXPECT_TRUE(*read(listOf({"\x13"s + bigEndian(UINT64_MAX, 8)})) == Value(-1));
  EXPECT_TRUE(*read(listOf({"\x14"s + bigEndian(0, 8) + bigEndian(INT64_MAX, 8)})) == Value(INT64_MAX));
  EXPECT_TRUE(*read(listOf({"\x14"s + bigEndian(UINT64_MAX, 8) + bigEndian(UINT64_MAX - 1, 8)})) == Value(-2));
  EXPECT_REFUSED(read(listOf({"\x14"s + bigEndian(0, 8) + bigEndian(UINT64_MAX, 8)})), "64 bits");
  EXPECT_REFUSED(read(listOf({"\x14"s + bigEndian(1, 8) + bigEndian(0, 8)})), "64 bits");
  EXPECT_REFUSED(read(listOf({"\x15"s + std::string(32, '\0')})), "width");
}

TEST(BinaryPropertyList, RealsAndFarDates) {
  EXPECT_TRUE(*read(listOf({"\x22\x3f\xc0\x00\x00"s})) == Value(1.5));
  EXPECT_REFUSED(read(listOf({"\x21\x00\x00"s})), "width");
  EXPECT_TRUE(*read(listOf({"\x33\xbf\xf0\x00\x00\x00\x00\x00\x00"s})) ==
              Value(Date::fromMicroseconds(978'307'199'000'000)));
  EXPECT_REFUSED(read(listOf({"\x33"s + bigEndian(0x7ff8000000000000, 8)})), "no number");
  for (std::uint64_t infinity : {0x7ff0000000000000U, 0xfff0000000000000U, 0x7fefffffffffffffU}) {
    auto date = read(listOf({"\x33"s + bigEndian(infinity, 8)}));
    ASSERT_TRUE(date);
    EXPECT_TRUE(*readPropertyList(*writePropertyList(*date, PropertyListFormat::Binary)) == *date);
    EXPECT_TRUE(*readPropertyList(*writePropertyList(*date, PropertyListFormat::XML)) == *date);
  }
}

TEST(BinaryPropertyList, UnsupportedTypesAreRefused) {
  for (const std::string& object : {"\x00"s, "\x0f"s, "\x0c\x51x"s, "\x80\x01"s, "\xb0"s, "\xc0"s, "\x70"s, "\x90"s,
                                    "\xe0"s, "\xf0"s, "\x30\x01"s, "\x01"s}) {
    EXPECT_REFUSED(read(listOf({object})), "unsupported");
  }
}

TEST(BinaryPropertyList, StringsThatAreNoText) {
  EXPECT_TRUE(*read(listOf({"\x62\xd8\x3d\xdc\xc4"s})) == Value("\xf0\x9f\x93\x84"));
  for (const std::string& object :
       {"\x61\xd8\x3d"s, "\x62\xd8\x3d\x00\x41"s, "\x61\xdc\xc4"s, "\x62\xdc\xc4\xd8\x3d"s}) {
    EXPECT_REFUSED(read(listOf({object})), "surrogate");
  }
  EXPECT_REFUSED(read(listOf({"\x51\xe4"s})), "ASCII");
}

TEST(BinaryPropertyList, OfAKeyThatStandsTwiceTheLastValueCounts) {
  EXPECT_TRUE(*read(listOf({"\xd3\x01\x02\x01\x03\x04\x05"s, "\x51k"s, "\x51k"s, "\x10\x01"s, "\x10\x02"s,
                            "\x10\x03"s})) == Value(Dictionary{{"k", 3}}));
  EXPECT_TRUE(*read(listOf({"\xa1\x01"s, "\xd2\x02\x03\x04\x05"s, "\x51k"s, "\x51k"s, "\x10\x01"s, "\x10\x02"s})) ==
              Value(Array{Dictionary{{"k", 2}}}));
  EXPECT_REFUSED(read(listOf({"\xd1\x01\x01"s, "\x10\x01"s})), "key");
  EXPECT_REFUSED(read(listOf({"\xd1\x01\x02"s, "\xa0"s, "\x10\x01"s})), "key");
  EXPECT_REFUSED(read(listOf({"\xd1\x00\x01"s, "\x10\x01"s})), "key");
}

TEST(BinaryPropertyList, CyclesAndReferencesToNowhereAreRefused) {
  EXPECT_REFUSED(read(listOf({"\xa1\x00"s})), "itself");
  EXPECT_REFUSED(read(listOf({"\xa1\x01"s, "\xd1\x02\x00"s, "\x51k"s})), "itself");
  EXPECT_REFUSED(read(listOf({"\xa1\x01"s})), "does not have");
  EXPECT_REFUSED(read(listOf({"\xa1\xff\xff\xff\xff\xff\xff\xff\xff"s}, 8)), "does not have");
}

TEST(BinaryPropertyList, NestingIsCountedThroughSharedCollections) {
  auto chain = [](std::size_t length) {
    std::vector<std::string> objects;
    for (std::size_t i = 1; i < length; ++i) objects.push_back("\xa1"s + bigEndian(i, 4));
    objects.push_back("\xa0");
    return objects;
  };
  EXPECT_TRUE(read(listOf(chain(128), 4)));
  EXPECT_REFUSED(read(listOf(chain(129), 4)), "deeply");
  EXPECT_REFUSED(read(listOf(chain(500'000), 4)), "deeply");
  // Met first near the root, where it is shallow enough, then again below.
  auto shared = chain(100);
  shared[0] = "\xa2"s + bigEndian(50, 4) + bigEndian(1, 4);
  shared.back() = "\xa1"s + bigEndian(100, 4);
  for (std::size_t i = 101; i < 129; ++i) shared.push_back("\xa1"s + bigEndian(i, 4));
  shared.emplace_back("\xa0");
  EXPECT_REFUSED(read(listOf(shared, 4)), "deeply");
  shared.pop_back();
  shared.back() = "\xa0";
  EXPECT_TRUE(read(listOf(shared, 4)));
}

TEST(BinaryPropertyList, ExponentialSharingIsRefusedButSharingIsNot) {
  auto doubling = [](std::size_t levels) {
    std::vector<std::string> objects;
    for (std::size_t i = 1; i <= levels; ++i) objects.push_back("\xa2"s + bigEndian(i, 1) + bigEndian(i, 1));
    objects.emplace_back("\x10\x01");
    return listOf(objects);
  };
  EXPECT_REFUSED(read(doubling(100)), "too many");
  EXPECT_REFUSED(read(doubling(24)), "too many");
  Value value = read(doubling(20)).value();
  EXPECT_EQ(value.arrayBegin()[0].arrayBegin(), value.arrayBegin()[1].arrayBegin());
  PropertyListLimits limits{.values = 7};
  EXPECT_TRUE(readPropertyList(Data::fromString(doubling(2)), limits));
  limits.values = 6;
  EXPECT_REFUSED(readPropertyList(Data::fromString(doubling(2)), limits), "too many");
}

TEST(BinaryPropertyList, ObjectsThatOverlapCannotMultiplyTheInput) {
  // 50,000 objects that are all the same megabyte.
  std::string bytes = "bplist00";
  std::string root = "\xaf\x11"s + bigEndian(50'000, 2);
  for (std::size_t i = 1; i <= 50'000; ++i) root += bigEndian(i, 4);
  bytes += root;
  std::size_t text = bytes.size();
  bytes += "\x5f\x12"s + bigEndian(1'000'000, 4) + std::string(1'000'000, 'x');
  std::size_t table = bytes.size();
  bytes += bigEndian(8, 4);
  for (int i = 0; i < 50'000; ++i) bytes += bigEndian(text, 4);
  bytes += trailerBytes({.referenceWidth = 4, .count = 50'001, .offsetTable = table});
  EXPECT_REFUSED(read(bytes), "overlap");
}

TEST(BinaryPropertyList, ClaimsBeyondTheInputAreRefusedBeforeMemoryIsSpent) {
  std::uint64_t claimed = 2'000'000'000;
  for (const char* type : {"\x4f", "\x5f", "\x6f", "\xaf", "\xdf"}) {
    EXPECT_REFUSED(read(listOf({type + "\x12"s + bigEndian(claimed, 4)})), "cut off");
    EXPECT_REFUSED(read(listOf({type + "\x13"s + bigEndian(UINT64_MAX, 8)})), "cut off");
    EXPECT_REFUSED(read(listOf({type + "\x13"s + bigEndian(UINT64_MAX / 2 + 2, 8)})), "cut off");
    EXPECT_REFUSED(read(listOf({type + "\x14"s + std::string(16, '\0')})), "count");
    EXPECT_REFUSED(read(listOf({type + "\x51x"s})), "count");
    EXPECT_REFUSED(read(listOf({type})), "cut off");
  }
  std::string object = "bplist00\x10\x01\x08"s;
  auto with = [&](const Trailer& trailer) { return read(object + trailerBytes(trailer)); };
  EXPECT_TRUE(with({.offsetWidth = 1, .count = 1, .offsetTable = 10}));
  for (const Trailer& trailer :
       std::initializer_list<Trailer>{{.offsetWidth = 1, .count = claimed, .offsetTable = 10},
                                      {.offsetWidth = 8, .count = 1ULL << 61, .offsetTable = 10},
                                      {.offsetWidth = 1, .count = UINT64_MAX, .offsetTable = 10},
                                      {.offsetWidth = 1, .count = 0, .offsetTable = 10},
                                      {.offsetWidth = 1, .count = 1, .top = 1, .offsetTable = 10},
                                      {.offsetWidth = 0, .count = 1, .offsetTable = 10},
                                      {.offsetWidth = 9, .count = 1, .offsetTable = 10},
                                      {.offsetWidth = 1, .referenceWidth = 0, .count = 1, .offsetTable = 10},
                                      {.offsetWidth = 1, .count = 1, .offsetTable = 0},
                                      {.offsetWidth = 1, .count = 1, .offsetTable = 8},
                                      {.offsetWidth = 1, .count = 1, .offsetTable = 11},
                                      {.offsetWidth = 1, .count = 1, .offsetTable = UINT64_MAX}}) {
    EXPECT_FALSE(with(trailer));
  }
}

}  // namespace
}  // namespace florvane
