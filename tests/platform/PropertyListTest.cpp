#include "platform/BinaryPropertyListWriter.h"
#include "platform/PropertyList.h"
#include "platform/XMLPropertyListWriter.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

namespace florvane {
namespace {

constexpr auto kBothForms = {PropertyListFormat::Binary, PropertyListFormat::XML};

Result<Value> readText(const std::string& text) { return readPropertyList(Data::fromString(text)); }

Result<Value> readXML(const std::string& body) { return readText("<plist version=\"1.0\">" + body + "</plist>"); }

Value everyKind() {
  Dictionary large;
  for (int i = 0; i < 100; ++i) large.set("key " + std::to_string(i), i);
  std::string longText(70'000, 'x');
  return Dictionary{{"zero first", 0},
                    {"integers", Array{1, 255, 256, 65536, 4294967295, 4294967296, -1, -129, INT64_MIN, INT64_MAX}},
                    {"reals", Array{0.0, -0.0, 1.5, -1e300, 5e-324, std::numeric_limits<double>::infinity(), 0.1}},
                    {"booleans", Array{true, false}},
                    {"strings", Array{"", " ", "<&>\"'\r\n\t", "M\xc3\xa4rz \xf0\x9f\x93\x84 \xe2\x82\xac", longText}},
                    {"data", Array{Data(), Data::fromString(std::string("\0\xff", 2)), Data::fromString(longText)}},
                    {"dates", Array{Date::fromMicroseconds(1'795'380'060'123'456), Date::fromMicroseconds(-1), Date(),
                                    Date::fromMicroseconds(-62'135'596'800'000'000)}},
                    {"", Array{Array(), Dictionary(), Array{Array{Dictionary{{"a", Array()}}}}}},
                    {"M\xc3\xa4rz & <b>", large}};
}

std::string problem(const Result<Value>& result) {
  if (result) return "";
  EXPECT_TRUE(result.error().is(QuilbarErrorDomain, PropertyListReadCorruptError));
  return result.error().localizedDescription();
}

#define EXPECT_REFUSED(result, words) EXPECT_NE(problem(result).find(words), std::string::npos) << problem(result)

TEST(PropertyList, BothFormsKeepEveryKindAndTheOrderOfKeys) {
  for (PropertyListFormat format : kBothForms) {
    for (const Value& value : {everyKind(), Value(Array()), Value("alone"), Value(true), Value(Date::now())}) {
      auto bytes = writePropertyList(value, format);
      ASSERT_TRUE(bytes) << bytes.error().description();
      auto read = readPropertyList(*bytes);
      ASSERT_TRUE(read) << read.error().description();
      EXPECT_TRUE(*read == value) << read->description().substr(0, 2000);
      // The description tells order and the sign of zero too.
      EXPECT_EQ(read->description(), value.description());
    }
  }
}

TEST(PropertyList, DatesKeepTheirMicroseconds) {
  for (std::int64_t start : {978'307'200'000'000LL, 1'795'380'060'000'000LL, 9'000'000'000'000'000LL, -5'000'000LL}) {
    Array dates;
    for (int i = 0; i < 2000; ++i) dates.append(Date::fromMicroseconds(start + i * 499'979LL));
    for (PropertyListFormat format : kBothForms) {
      EXPECT_TRUE(readPropertyList(*writePropertyList(dates, format)).value() == Value(dates));
    }
  }
  std::string xml(
      writePropertyList(Array{Date::fromMicroseconds(1'795'380'060'123'456), Date()}, PropertyListFormat::XML)
          .value()
          .view());
  EXPECT_NE(xml.find("<date>2026-11-22T20:41:00.123456Z</date>"), std::string::npos) << xml;
  EXPECT_NE(xml.find("<date>1970-01-01T00:00:00Z</date>"), std::string::npos) << xml;
}

TEST(PropertyList, FarDatesAreExactInXMLAndSettleAfterOneRoundInBinary) {
  Date far = Date::fromMicroseconds(14'418'337'260'123'456);  // 2426
  EXPECT_TRUE(readPropertyList(*writePropertyList(far, PropertyListFormat::XML)).value() == Value(far));
  Data bytes = writePropertyList(far, PropertyListFormat::Binary).value();
  Value settled = readPropertyList(bytes).value();
  EXPECT_LE(std::chrono::abs(*settled.asDate() - far), Duration(1));
  EXPECT_EQ(writePropertyList(settled, PropertyListFormat::Binary).value(), bytes);
}

TEST(PropertyList, TheWriterRefusesWhatNoListHolds) {
  Value deep = Array();
  for (int i = 1; i < 128; ++i) deep = Array{deep};
  // Each level holds the one below twice: small in memory, beyond any limit when written out.
  Value wide = Array{1};
  for (int i = 0; i < 100; ++i) wide = Array{wide, wide};
  PropertyListLimits limits{.values = 10'000};
  EXPECT_FALSE(BinaryPropertyListWriter(wide, limits).write());
  EXPECT_FALSE(XMLPropertyListWriter(wide, limits).write());
  for (PropertyListFormat format : kBothForms) {
    EXPECT_TRUE(readPropertyList(*writePropertyList(deep, format)).value() == deep);
    for (const Value& value : {Value(), Value(Array{Value()}), Value(Array{deep}), Value("\xc3"),
                               Value(Dictionary{{"\xff", 1}}), Value("\xed\xa0\x80")}) {
      auto bytes = writePropertyList(value, format);
      ASSERT_FALSE(bytes);
      EXPECT_TRUE(bytes.error().is(QuilbarErrorDomain, PropertyListWriteInvalidError));
    }
  }
  for (const char* text : {"\x01", "\x1f", "\xef\xbf\xbe", "\xef\xbf\xbf"}) {
    EXPECT_FALSE(writePropertyList(text, PropertyListFormat::XML));
    EXPECT_FALSE(writePropertyList(Dictionary{{text, 1}}, PropertyListFormat::XML));
    EXPECT_TRUE(readPropertyList(*writePropertyList(text, PropertyListFormat::Binary)).value() == Value(text));
  }
}

TEST(PropertyList, EqualValuesAreWrittenOnceAndSharedWhenRead) {
  Array list;
  std::string text(100, 't');
  for (int i = 0; i < 1000; ++i) {
    list.append(Dictionary{{text, std::string(text)}, {"data", Data::fromString(text)}, {"date", Date()}, {"n", 7777}});
  }
  Data bytes = writePropertyList(list, PropertyListFormat::Binary).value();
  EXPECT_LT(bytes.size(), 1000 * (1 + 8 * 2 + 2 + 2) + 500U);
  for (PropertyListFormat format : kBothForms) {
    Array read = *readPropertyList(*writePropertyList(list, format)).value().asArray();
    EXPECT_EQ(read[0].dictionaryBegin()->value.asString()->data(),
              read[999].dictionaryBegin()->value.asString()->data());
  }
  // Values that compare equal as numbers but are not the same stay apart.
  Value numbers = Array{1, 1.0, true, 0.0, -0.0, "1", Data::fromString("1"), Date::fromMicroseconds(1)};
  EXPECT_EQ(readPropertyList(*writePropertyList(numbers, PropertyListFormat::Binary)).value().description(),
            numbers.description());
}

TEST(PropertyList, WhatIsNeitherFormIsRefused) {
  EXPECT_REFUSED(readText(""), "empty");
  for (const char* text : {"bplist", "bplist99", "hello", "{ a = b; }", " ", "\xef\xbb\xbf", "bplist00"}) {
    EXPECT_FALSE(readText(text)) << text;
  }
}

TEST(PropertyList, CutListsAreRefusedAndDamagedOnesNeverCrash) {
  Value value = Array{Dictionary{{"name", "M\xc3\xa4rz"}, {"size", 70'000}, {"date", Date::fromMicroseconds(1)}},
                      Array{1.5, true, Data::fromString("0123456789abcdef")}};
  for (PropertyListFormat format : kBothForms) {
    Data bytes = writePropertyList(value, format).value();
    // The line feed at the end of the XML form is no loss.
    std::size_t whole = bytes.size() - (format == PropertyListFormat::XML ? 1 : 0);
    for (std::size_t size = 0; size < whole; ++size) EXPECT_FALSE(readPropertyList(bytes.subdata(0, size))) << size;
    std::string damaged(bytes.view());
    for (char& byte : damaged) {
      char original = byte;
      for (int mask : {1, 2, 4, 8, 16, 32, 64, 128, 255}) {
        byte = static_cast<char>(original ^ mask);
        auto read = readText(damaged);
        // What is read must be a whole tree.
        EXPECT_TRUE(!read || writePropertyList(*read, PropertyListFormat::Binary));
      }
      byte = original;
    }
  }
}

// XML

TEST(XMLPropertyList, ScalarsAsPeopleWriteThem) {
  EXPECT_TRUE(*readXML("<array><integer> -0x1F </integer><integer>+7</integer><integer>0xff</integer>"
                       "<integer>-9223372036854775808</integer></array>") == Value(Array{-31, 7, 255, INT64_MIN}));
  EXPECT_TRUE(*readXML("<array><real>+1.5e3</real><real> -inf </real><real>1</real><real>1e999</real></array>") ==
              Value(Array{1500.0, -INFINITY, 1.0, INFINITY}));
  EXPECT_TRUE(std::isnan(*readXML("<real>nan</real>")->asNumber()));
  EXPECT_TRUE(*readXML("<array><true/><false></false></array>") == Value(Array{true, false}));
  EXPECT_TRUE(*readXML("<data>\n\t AQ\n ID\t</data>") == Value(Data::fromString("\x01\x02\x03")));
  for (const char* body :
       {"<integer>9223372036854775808</integer>", "<integer>-9223372036854775809</integer>", "<integer/>",
        "<integer>1.5</integer>", "<integer>0x</integer>", "<integer>--1</integer>", "<integer>1 2</integer>",
        "<real>1,5</real>", "<real/>", "<real>+-1</real>", "<data>A</data>", "<data>AQ*D</data>", "<true>1</true>"}) {
    EXPECT_REFUSED(readXML(body), "malformed");
  }
}

TEST(XMLPropertyList, DatesWithAnyNumberOfFractionDigits) {
  auto microseconds = [](const std::string& text) {
    auto read = readXML("<date>" + text + "</date>");
    return read ? std::optional(read->asDate()->microsecondsSince1970()) : std::nullopt;
  };
  EXPECT_EQ(microseconds("2026-11-22T20:41:00.5Z"), 1'795'380'060'500'000);
  EXPECT_EQ(microseconds(" 2026-11-22T20:41:00.123456999999999999999Z\n"), 1'795'380'060'123'456);
  EXPECT_EQ(microseconds("2000-02-29T00:00:00Z"), 951'782'400'000'000);
  EXPECT_EQ(microseconds("0001-01-01T00:00:00Z"), -62'135'596'800'000'000);
  EXPECT_EQ(microseconds("999999-01-01T00:00:00Z"), 9'223'372'036'854'000'000);
  for (const char* text : {"", "2026-11-22", "2026-11-22T20:41:00", "2026-11-22T20:41:00.Z", "2026-11-22 20:41:00Z",
                           "2026-13-01T00:00:00Z", "2026-02-29T00:00:00Z", "2026-00-10T00:00:00Z",
                           "2026-01-01T24:00:00Z", "2026-01-01T00:60:00Z", "2026-01-01T00:00:60Z", "26-01-01T00:00:00Z",
                           "2026-01-01T00:00:00+01:00", "2026-01-01T00:00:00Zx", "9999999-01-01T00:00:00Z"}) {
    EXPECT_EQ(microseconds(text), std::nullopt) << text;
  }
}

TEST(XMLPropertyList, CommentsInstructionsSectionsAndWhiteSpaceInText) {
  EXPECT_TRUE(
      *readText("\xef\xbb\xbf<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<!-- <a> -->\n<?p i?>"
                "<!DOCTYPE plist [<!ELEMENT plist ANY>]>\n<plist><!-- c --><dict> <?p i?><key>a</key>"
                "<!-- c --><string> <!-- c --> b<![CDATA[&amp;<]]> <?p i?> </string></dict></plist>\n<!-- c -->") ==
      Value(Dictionary{{"a", "  b&amp;<  "}}));
  EXPECT_TRUE(*readXML("<array><string> </string><string>\n\t</string><string></string><string/></array>") ==
              Value(Array{" ", "\n\t", "", ""}));
  EXPECT_TRUE(*readXML("<string>&lt;&gt;&amp;&quot;&apos;&#65;&#x1F4C4;&#13;\r\n</string>") ==
              Value("<>&\"'A\xf0\x9f\x93\x84\r\n"));
}

TEST(XMLPropertyList, EntitiesAreNeverExpanded) {
  std::string laughs =
      "<!DOCTYPE plist [<!ENTITY a \"ha\"><!ENTITY b \"&a;&a;&a;\"><!ENTITY f SYSTEM \"/etc/passwd\">]>";
  for (const char* reference : {"&a;", "&b;", "&f;", "&", "&amp", "&;", "&#;", "&#0;", "&#1;", "&#xD800;", "&#x110000;",
                                "&#xFFFF;", "&#-1;", "&#99999999999;", "&AMP;"}) {
    EXPECT_REFUSED(readText(laughs + "<plist><string>" + reference + "</string></plist>"), "reference");
  }
}

TEST(XMLPropertyList, MalformedDocumentsAreRefused) {
  for (const char* body :
       {"", "<string/><string/>", "text", "<array>text</array>", "<array><string/>text</array>",
        "<dict><key>a</key></dict>", "<dict><string>a</string></dict>", "<dict><key>a</key><key>b</key></dict>",
        "<array><key>a</key></array>", "<set/>", "<string><b/></string>", "<string>a</array>", "<plist/>", "<String/>",
        "<integer><!-- 1 --></integer>"}) {
    EXPECT_FALSE(readXML(body)) << body;
  }
  using std::string_literals::operator""s;
  for (const std::string& text :
       {"<array/>"s, "<plist><true/></plist><plist><true/></plist>"s, "<plist><true/></plist>text"s, "<a"s, "<"s,
        "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><plist><true/></plist>"s, "<plist><string>\0</string></plist>"s,
        "<plist><string>\x01</string></plist>"s, "<plist><string>\xc3</string></plist>"s, "<!-- <plist/> -->"s}) {
    EXPECT_FALSE(readText(text)) << text;
  }
}

TEST(XMLPropertyList, NestedDeeplyOrBroadlyIsNeitherACrashNorSlow) {
  std::string deep;
  for (const char* tag : {"array", "string", "x"}) {
    deep = "<plist>";
    for (int i = 0; i < 500'000; ++i) deep.append("<").append(tag).append(">");
    EXPECT_FALSE(readText(deep));
    for (int i = 0; i < 500'000; ++i) deep.append("</").append(tag).append(">");
    EXPECT_FALSE(readText(deep + "</plist>"));
  }
  EXPECT_FALSE(readXML("<string>" + std::string(1'000'000, '&') + "</string>"));
  EXPECT_FALSE(readText("<!DOCTYPE plist " + std::string(500'000, '[') + std::string(500'000, '<')));
  std::string repeated = "<dict>";
  for (int i = 0; i < 100'000; ++i) {
    repeated +=
        "<key>same</key><integer>" + std::to_string(i) + "</integer><key>" + std::to_string(i % 1000) + "</key><true/>";
  }
  Value last = *readXML(repeated + "</dict>");
  EXPECT_EQ(last.dictionarySize(), 1001U);
  EXPECT_EQ(last.asDictionary()->integer("same"), 99'999);
}

TEST(XMLPropertyList, LimitsOfTheCallerHold) {
  PropertyListLimits limits{.depth = 2, .values = 4};
  auto read = [&](const char* body) {
    return readPropertyList(Data::fromString(std::string("<plist>") + body + "</plist>"), limits);
  };
  EXPECT_TRUE(read("<array><array/><true/><true/></array>"));
  EXPECT_REFUSED(read("<array><array/><true/><true/><true/></array>"), "too many");
  EXPECT_REFUSED(read("<array><true/><true/><true/><true/><true/><true/><true/><true/></array>"), "too many");
  EXPECT_REFUSED(read("<array><array><array/></array></array>"), "deeply");
}

}  // namespace
}  // namespace florvane
