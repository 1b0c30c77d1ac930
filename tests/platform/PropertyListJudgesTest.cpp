#include "platform/PropertyList.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryDirectory.h"

#include <cstdlib>
#include <memory>
#include <span>

#include <gtest/gtest.h>
#include <plist/plist.h>

// Both forms, both ways, as Python's plistlib and libplist see them.

namespace florvane {
namespace {

constexpr auto kBothForms = {PropertyListFormat::Binary, PropertyListFormat::XML};

// Whole seconds: neither judge keeps fractions in XML, and libplist's dates are no older than 2001.
Value sample() {
  Dictionary large;
  for (int i = 0; i < 300; ++i) large.set("key " + std::to_string(i), "value " + std::to_string(i % 7));
  return Dictionary{
      {"integers", Array{0, 1, 255, 256, 65535, 65536, 4294967295, 4294967296, -1, -70000, INT64_MIN, INT64_MAX}},
      {"reals", Array{0.0, 1.5, -1e300, 0.1}},
      {"booleans", Array{true, false, true}},
      {"strings", Array{"plain", "", "<&>\"' ]]>", "two\nlines\t", "M\xc3\xa4rz \xf0\x9f\x93\x84 \xe2\x82\xac"}},
      {"data", Array{Data::fromString(std::string("\0\xff\x80", 3)), Data::fromString(std::string(1000, 'd'))}},
      {"dates", Array{Date::fromMicroseconds(1'795'380'060'000'000), Date::fromMicroseconds(978'307'200'000'000)}},
      {"empty", Array{Array(), Dictionary()}},
      {"M\xc3\xa4rz & <b>", large}};
}

// Python

// Prints a tree with types, so that 1, 1.0 and true differ.
constexpr char kRender[] = R"(
import plistlib, sys, datetime
def render(value):
    if isinstance(value, dict): return '{' + ', '.join(render(k) + ': ' + render(v) for k, v in value.items()) + '}'
    if isinstance(value, list): return '[' + ', '.join(map(render, value)) + ']'
    if isinstance(value, datetime.datetime):
        return 'D%d' % ((value - datetime.datetime(1970, 1, 1)) // datetime.timedelta(microseconds=1))
    if isinstance(value, str): return 'S' + value.encode().hex()
    if isinstance(value, bytes): return 'B' + value.hex()
    if isinstance(value, float): return 'F' + value.hex()
    return repr(value)
)";

std::string hex(std::string_view bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (char byte : bytes) {
    text += digits[static_cast<unsigned char>(byte) >> 4];
    text += digits[static_cast<unsigned char>(byte) & 15];
  }
  return text;
}

// As Python's float.hex() writes it.
std::string hexReal(double real) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), real == 0 ? "%.1a" : "%.13a", real);
  return text.data();
}

std::string render(const Value& value) {
  std::string text;
  switch (value.kind()) {
    case Value::Kind::Boolean:
      return *value.asBoolean() ? "True" : "False";
    case Value::Kind::String:
      return "S" + hex(*value.asString());
    case Value::Kind::Data:
      return "B" + hex(value.dataBytes());
    case Value::Kind::Real:
      return "F" + hexReal(*value.asNumber());
    case Value::Kind::Date:
      return "D" + std::to_string(value.asDate()->microsecondsSince1970());
    case Value::Kind::Array:
      for (const Value& element : std::span(value.arrayBegin(), value.arraySize()))
        text += (text.empty() ? "" : ", ") + render(element);
      return "[" + text + "]";
    case Value::Kind::Dictionary:
      for (const auto& [key, element] : std::span(value.dictionaryBegin(), value.dictionarySize())) {
        text += (text.empty() ? "S" : ", S") + hex(key.text()) + ": " + render(element);
      }
      return "{" + text + "}";
    default:
      return value.description();
  }
}

TEST(PropertyListJudges, PythonReadsWhatIsWritten) {
  test::TemporaryDirectory directory;
  for (PropertyListFormat format : kBothForms) {
    test::writeText(directory.file("list"), std::string(writePropertyList(sample(), format).value().view()));
    auto result =
        test::runPython(std::string(kRender) + "print(render(plistlib.load(open(sys.argv[1], 'rb'))), end='')",
                        {directory.file("list")});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, render(sample()));
  }
}

TEST(PropertyListJudges, PythonReadsMicrosecondsOfBinaryDates) {
  test::TemporaryDirectory directory;
  Array dates;
  for (int i = 0; i < 1000; ++i) dates.append(Date::fromMicroseconds(1'795'380'060'000'000 + i * 1'000'999LL));
  test::writeText(directory.file("list"),
                  std::string(writePropertyList(dates, PropertyListFormat::Binary).value().view()));
  auto result = test::runPython(std::string(kRender) + "print(render(plistlib.load(open(sys.argv[1], 'rb'))), end='')",
                                {directory.file("list")});
  EXPECT_EQ(result.standardOutput, render(dates)) << result.standardError;
}

TEST(PropertyListJudges, WhatPythonWritesIsRead) {
  test::TemporaryDirectory directory;
  for (const char* format : {"FMT_BINARY", "FMT_XML"}) {
    auto result = test::runPython(std::string(kRender) + R"(
value = {'integers': [0, 255, 256, 65536, 2**32, -1, -2**63, 2**63 - 1], 'reals': [1.5, -1e300, 0.1, float('inf')],
         'flags': [True, False], 'text': ['', 'M\u00e4rz \U0001f4c4', '<&>', 'a' * 70000], 'data': [b'', bytes(range(256)) * 9],
         'dates': [datetime.datetime(2026, 11, 22, 20, 41), datetime.datetime(1904, 2, 29, 1, 2, 3)],
         'many': [{'n': i, 's': str(i % 50)} for i in range(400)], 'none': [[], {}], 'keys \u00e4': {str(i): i for i in range(300)}}
plistlib.dump(value, open(sys.argv[1], 'wb'), fmt=getattr(plistlib, sys.argv[2]), sort_keys=False)
print(render(value), end='')
)",
                                  {directory.file("list"), format});
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    auto read = readPropertyList(Data::fromString(test::readText(directory.file("list"))));
    ASSERT_TRUE(read) << read.error().description();
    EXPECT_EQ(render(*read), result.standardOutput);
  }
}

TEST(PropertyListJudges, WhatPythonCanWriteButNoValueHoldsIsRefused) {
  test::TemporaryDirectory directory;
  for (const char* value : {"plistlib.UID(7)", "[plistlib.UID(70000)]", "2**63", "[2**64 - 1]"}) {
    auto result = test::runPython(std::string("import plistlib, sys\nplistlib.dump(") + value +
                                      ", open(sys.argv[1], 'wb'), fmt=plistlib.FMT_BINARY)",
                                  {directory.file("list")});
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_FALSE(readPropertyList(Data::fromString(test::readText(directory.file("list"))))) << value;
  }
}

// libplist

struct NodeDeleter {
  void operator()(void* node) const { plist_free(node); }
};
using Node = std::unique_ptr<void, NodeDeleter>;

// libplist's own comparison looks at scalars only, so trees are compared as values.
Value valueOf(plist_t node) {
  constexpr std::int64_t epoch = 978'307'200;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t flag = 0;
      plist_get_bool_val(node, &flag);
      return flag != 0;
    }
    case PLIST_UINT: {
      std::uint64_t number = 0;
      plist_get_uint_val(node, &number);
      return number;
    }
    case PLIST_REAL: {
      double real = 0;
      plist_get_real_val(node, &real);
      return real;
    }
    case PLIST_STRING: {
      std::uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      return std::string_view(text, length);
    }
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const char* bytes = plist_get_data_ptr(node, &length);
      return Data(bytes, length);
    }
    case PLIST_DATE: {
      std::int32_t seconds = 0;
      std::int32_t microseconds = 0;
      plist_get_date_val(node, &seconds, &microseconds);
      return Date::fromMicroseconds((seconds + epoch) * 1'000'000 + microseconds);
    }
    case PLIST_ARRAY: {
      Array array;
      for (std::uint32_t i = 0; i < plist_array_get_size(node); ++i) {
        array.append(valueOf(plist_array_get_item(node, i)));
      }
      return array;
    }
    case PLIST_DICT: {
      Dictionary dictionary;
      plist_dict_iter iterator = nullptr;
      plist_dict_new_iter(node, &iterator);
      for (;;) {
        char* key = nullptr;
        plist_t child = nullptr;
        plist_dict_next_item(node, iterator, &key, &child);
        if (!child) break;
        dictionary.set(key, valueOf(child));
        std::free(key);
      }
      std::free(iterator);
      return dictionary;
    }
    default:
      return {};
  }
}

Node nodeOf(const Data& bytes) {
  plist_t node = nullptr;
  plist_from_memory(reinterpret_cast<const char*>(bytes.bytes()), static_cast<std::uint32_t>(bytes.size()), &node);
  return Node(node);
}

TEST(PropertyListJudges, LibplistReadsWhatIsWrittenAndItsOwnListsAreRead) {
  for (PropertyListFormat format : kBothForms) {
    Node node = nodeOf(writePropertyList(sample(), format).value());
    ASSERT_TRUE(node);
    EXPECT_EQ(valueOf(node.get()).description(), sample().description());

    char* bytes = nullptr;
    std::uint32_t length = 0;
    format == PropertyListFormat::XML ? plist_to_xml(node.get(), &bytes, &length)
                                      : plist_to_bin(node.get(), &bytes, &length);
    auto read = readPropertyList(Data(bytes, length));
    std::free(bytes);
    ASSERT_TRUE(read) << read.error().description();
    EXPECT_EQ(read->description(), sample().description());
  }
}

}  // namespace
}  // namespace florvane
