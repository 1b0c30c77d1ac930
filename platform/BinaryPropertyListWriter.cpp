#include "platform/BinaryPropertyListWriter.h"

#include "platform/BinaryPropertyListFormat.h"
#include "platform/Encoding.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <span>

namespace florvane {

namespace {

std::size_t widthFor(std::uint64_t largest) {
  return std::max<std::size_t>(1, (static_cast<std::size_t>(std::bit_width(largest)) + 7) / 8);
}

void putBigEndian(std::uint8_t* to, std::uint64_t number, std::size_t width) {
  for (std::size_t i = width; i > 0; --i, number >>= 8) to[i - 1] = static_cast<std::uint8_t>(number);
}

bool isASCII(std::string_view text) {
  return std::none_of(text.begin(), text.end(), [](char character) { return (character & 0x80) != 0; });
}

std::uint64_t scalarBits(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::Boolean:
      return *value.asBoolean() ? 1 : 0;
    case Value::Kind::Integer:
      return static_cast<std::uint64_t>(*value.asInteger());
    case Value::Kind::Date:
      return static_cast<std::uint64_t>(value.asDate()->microsecondsSince1970());
    case Value::Kind::Real:
      // By bits, so that -0 and 0 stay apart and a NaN is found again.
      return std::bit_cast<std::uint64_t>(*value.asNumber());
    default:
      return 0;
  }
}

}  // namespace

Result<Data> BinaryPropertyListWriter::write() {
  if (!number()) return failure();
  table_ = {};
  referenceWidth_ = widthFor(objects_.size() - 1);
  constexpr std::size_t largest = std::numeric_limits<std::uint32_t>::max();
  // Beside its content an object takes at most ten bytes, marker and count or number, and four of an offset.
  std::size_t size = contentSize_ + references_.size() * referenceWidth_ + objects_.size() * 14 +
                     bplist::kMagic.size() + bplist::kTrailerSize;
  if (size > largest) {
    fail("The property list is too large.");
    return failure();
  }
  output_.reserve(size);
  output_.append(bplist::kMagic);
  std::vector<std::uint32_t> offsets;
  offsets.reserve(objects_.size());
  for (const Object& object : objects_) {
    offsets.push_back(static_cast<std::uint32_t>(output_.size()));
    append(object);
  }
  std::size_t offsetTable = output_.size();
  std::size_t offsetWidth = widthFor(offsetTable);
  for (std::uint32_t offset : offsets) appendBigEndian(offset, offsetWidth);
  appendTrailer(offsetTable, offsetWidth);
  return output_.finish();
}

Failure BinaryPropertyListWriter::failure() const {
  return Failure(Error(QuilbarErrorDomain, PropertyListWriteInvalidError, problem_));
}

bool BinaryPropertyListWriter::fail(const char* problem) {
  problem_ = problem;
  return false;
}

// Numbering

bool BinaryPropertyListWriter::number() {
  table_.resize(1024);
  if (!refer({&root_})) return false;
  references_.clear();  // the root's number is 0, and nothing refers to it
  std::size_t depth = 0;
  std::size_t levelEnd = 0;
  for (std::size_t i = 0; i < objects_.size(); ++i) {
    if (i == levelEnd) {
      levelEnd = objects_.size();
      ++depth;
    }
    Value::Kind kind = objects_[i].kind();
    if (kind != Value::Kind::Array && kind != Value::Kind::Dictionary) continue;
    if (depth > limits_.depth) return fail("The property list is nested too deeply.");
    if (!numberChildren(*objects_[i].value)) return false;
  }
  return true;
}

bool BinaryPropertyListWriter::numberChildren(const Value& collection) {
  std::span entries(collection.dictionaryBegin(), collection.dictionarySize());
  std::span elements(collection.arrayBegin(), collection.arraySize());
  values_ += entries.size() + elements.size();
  if (values_ > limits_.values) return fail("The property list has too many values.");
  return std::all_of(entries.begin(), entries.end(), [this](const auto& entry) { return referKey(entry.key); }) &&
         std::all_of(entries.begin(), entries.end(), [this](const auto& entry) { return refer({&entry.value}); }) &&
         std::all_of(elements.begin(), elements.end(), [this](const Value& element) { return refer({&element}); });
}

bool BinaryPropertyListWriter::referKey(const Key& key) {
  const char* text = key.text().data();  // one address for each text, since keys are interned
  KnownKey& known = knownKeys_[(reinterpret_cast<std::uintptr_t>(text) >> 5) % knownKeys_.size()];
  if (known.text == text) {
    references_.push_back(known.object);
    return true;
  }
  if (!refer({nullptr, &key})) return false;
  known = {.text = text, .object = references_.back()};
  return true;
}

// Appends a reference to the object, which is numbered when it is new.
bool BinaryPropertyListWriter::refer(const Object& object) {
  auto next = static_cast<std::uint32_t>(objects_.size());
  switch (object.kind()) {
    case Value::Kind::Null:
      return fail("The property list has a null inside.");
    case Value::Kind::Array:
    case Value::Kind::Dictionary:
      break;
    default: {
      std::uint32_t number = next;
      if (find(object, number)) {
        references_.push_back(number);
        return true;
      }
      bool isString = object.kind() == Value::Kind::String;
      if (isString && !isValidUTF8(object.bytes())) return fail("The property list has a string that is no UTF-8.");
      contentSize_ +=
          isString && !isASCII(object.bytes()) ? 2 * utf16FromUTF8(object.bytes()).size() : object.bytes().size();
    }
  }
  references_.push_back(next);
  objects_.push_back(object);
  return true;
}

// Answers an equal object's number; enters the number where there is none yet.
bool BinaryPropertyListWriter::find(const Object& object, std::uint32_t& number) {
  std::uint32_t wanted = hash(object);
  std::size_t mask = table_.size() - 1;
  std::size_t at = wanted & mask;
  for (; table_[at].object; at = (at + 1) & mask) {
    if (table_[at].hash == wanted && equal(objects_[table_[at].object - 1], object)) {
      number = table_[at].object - 1;
      return true;
    }
  }
  table_[at] = {.hash = wanted, .object = number + 1};
  if (++used_ * 2 > table_.size()) growTable();
  return false;
}

void BinaryPropertyListWriter::growTable() {
  std::vector<Slot> larger(table_.size() * 2);
  std::size_t mask = larger.size() - 1;
  for (const Slot& slot : table_) {
    if (!slot.object) continue;
    std::size_t at = slot.hash & mask;
    while (larger[at].object) at = (at + 1) & mask;
    larger[at] = slot;
  }
  table_ = std::move(larger);
}

std::string_view BinaryPropertyListWriter::Object::bytes() const {
  if (key) return key->text();
  if (auto text = value->asString()) return *text;
  return value->dataBytes();
}

std::uint32_t BinaryPropertyListWriter::hash(const Object& object) {
  Value::Kind kind = object.kind();
  std::uint64_t bits = kind == Value::Kind::String || kind == Value::Kind::Data
                           ? std::hash<std::string_view>()(object.bytes())
                           : scalarBits(*object.value);
  bits = (bits ^ static_cast<std::uint64_t>(kind)) * 0x9e3779b97f4a7c15U;
  return static_cast<std::uint32_t>(bits >> 32);
}

bool BinaryPropertyListWriter::equal(const Object& a, const Object& b) {
  Value::Kind kind = a.kind();
  if (kind != b.kind()) return false;
  if (kind == Value::Kind::String || kind == Value::Kind::Data) return a.bytes() == b.bytes();
  return scalarBits(*a.value) == scalarBits(*b.value);
}

// Encoding

void BinaryPropertyListWriter::append(const Object& object) {
  if (object.key) return appendString(object.key->text());
  const Value& value = *object.value;
  switch (value.kind()) {
    case Value::Kind::Null:
      break;  // refused before
    case Value::Kind::Boolean:
      output_.append(*value.asBoolean() ? bplist::kTrue : bplist::kFalse);
      break;
    case Value::Kind::Integer:
      appendInteger(*value.asInteger());
      break;
    case Value::Kind::Real:
      output_.append(static_cast<std::uint8_t>(bplist::kReal | 3));
      appendBigEndian(scalarBits(value), 8);
      break;
    case Value::Kind::String:
      appendString(*value.asString());
      break;
    case Value::Kind::Data:
      appendMarker(bplist::kData, object.bytes().size());
      output_.append(object.bytes());
      break;
    case Value::Kind::Date: {
      // Whole seconds and fraction apart: one rounding only, so that microseconds survive.
      std::int64_t microseconds = value.asDate()->microsecondsSince1970();
      std::int64_t fraction = (microseconds % 1'000'000 + 1'000'000) % 1'000'000;
      std::int64_t seconds = microseconds / 1'000'000 - (microseconds % 1'000'000 < 0 ? 1 : 0);
      output_.append(static_cast<std::uint8_t>(bplist::kDate));
      appendBigEndian(std::bit_cast<std::uint64_t>(static_cast<double>(seconds - bplist::kEpochSince1970) +
                                                   static_cast<double>(fraction) / 1e6),
                      8);
      break;
    }
    case Value::Kind::Array:
      appendMarker(bplist::kArray, value.arraySize());
      appendReferences(value.arraySize());
      break;
    case Value::Kind::Dictionary:
      appendMarker(bplist::kDictionary, value.dictionarySize());
      appendReferences(2 * value.dictionarySize());
      break;
  }
}

void BinaryPropertyListWriter::appendBigEndian(std::uint64_t number, std::size_t width) {
  putBigEndian(output_.extend(width), number, width);
}

void BinaryPropertyListWriter::appendMarker(std::uint8_t type, std::size_t count) {
  if (count < bplist::kCountFollows) {
    output_.append(static_cast<std::uint8_t>(type | count));
    return;
  }
  output_.append(static_cast<std::uint8_t>(type | bplist::kCountFollows));
  appendInteger(static_cast<std::int64_t>(count));
}

void BinaryPropertyListWriter::appendInteger(std::int64_t integer) {
  auto bits = static_cast<std::uint64_t>(integer);
  unsigned logarithm = bits <= 0xff ? 0 : bits <= 0xffff ? 1 : bits <= 0xffff'ffff ? 2 : 3;
  output_.append(static_cast<std::uint8_t>(bplist::kInteger | logarithm));
  appendBigEndian(bits, std::size_t{1} << logarithm);
}

void BinaryPropertyListWriter::appendString(std::string_view text) {
  if (isASCII(text)) {
    appendMarker(bplist::kASCII, text.size());
    output_.append(text);
    return;
  }
  std::u16string units = utf16FromUTF8(text);
  appendMarker(bplist::kUTF16, units.size());
  for (char16_t unit : units) appendBigEndian(unit, 2);
}

void BinaryPropertyListWriter::appendReferences(std::size_t count) {
  for (std::uint8_t* to = output_.extend(count * referenceWidth_); count > 0; --count, to += referenceWidth_) {
    putBigEndian(to, references_[nextReference_++], referenceWidth_);
  }
}

void BinaryPropertyListWriter::appendTrailer(std::size_t offsetTable, std::size_t offsetWidth) {
  std::memset(output_.extend(bplist::kOffsetWidthAt), 0, bplist::kOffsetWidthAt);
  output_.append(static_cast<std::uint8_t>(offsetWidth));
  output_.append(static_cast<std::uint8_t>(referenceWidth_));
  appendBigEndian(objects_.size(), 8);
  appendBigEndian(0, 8);
  appendBigEndian(offsetTable, 8);
}

}  // namespace florvane
