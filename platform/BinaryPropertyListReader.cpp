#include "platform/BinaryPropertyListReader.h"

#include "platform/BinaryPropertyListFormat.h"
#include "platform/Encoding.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

namespace florvane {

using bplist::bigEndian;

namespace {

constexpr std::uint8_t kOpen = 255;

}  // namespace

BinaryPropertyListReader::BinaryPropertyListReader(std::span<const std::uint8_t> bytes,
                                                   const PropertyListLimits& limits)
    : bytes_(bytes), limits_(limits) {
  // What heights_ and details_ can count.
  limits_.depth = std::min<std::size_t>(limits_.depth, kOpen - 1);
  limits_.values = std::min<std::size_t>(limits_.values, std::numeric_limits<std::uint32_t>::max());
}

Result<Value> BinaryPropertyListReader::read() {
  if (readTrailer() && readTree()) return values_[topObject_];
  return Failure(Error(QuilbarErrorDomain, PropertyListReadCorruptError, problem_));
}

bool BinaryPropertyListReader::fail(const char* problem) {
  problem_ = problem;
  return false;
}

bool BinaryPropertyListReader::readTrailer() {
  constexpr std::size_t start = bplist::kMagic.size();
  if (bytes_.size() < start + bplist::kTrailerSize) return fail("The binary property list is cut off.");
  const std::uint8_t* trailer = bytes_.data() + bytes_.size() - bplist::kTrailerSize;
  offsetWidth_ = trailer[bplist::kOffsetWidthAt];
  referenceWidth_ = trailer[bplist::kReferenceWidthAt];
  std::uint64_t count = bigEndian(trailer + bplist::kObjectCountAt, 8);
  std::uint64_t top = bigEndian(trailer + bplist::kTopObjectAt, 8);
  std::uint64_t table = bigEndian(trailer + bplist::kOffsetTableAt, 8);
  std::size_t tableEnd = bytes_.size() - bplist::kTrailerSize;
  if (offsetWidth_ < 1 || offsetWidth_ > 8 || referenceWidth_ < 1 || referenceWidth_ > 8) {
    return fail("The binary property list's trailer is damaged.");
  }
  if (table <= start || table > tableEnd || count > (tableEnd - table) / offsetWidth_ || top >= count ||
      count > table - start || count > std::numeric_limits<std::uint32_t>::max()) {
    return fail("The binary property list claims more objects than it has bytes for.");
  }
  // A tree within the limit has at most as many keys as values.
  if (count / 2 > limits_.values) return fail("The binary property list has too many values.");
  objectsEnd_ = static_cast<std::size_t>(table);
  objectCount_ = static_cast<std::uint32_t>(count);
  topObject_ = static_cast<std::uint32_t>(top);
  values_.resize(objectCount_);
  heights_.resize(objectCount_);
  details_.resize(objectCount_);
  return true;
}

bool BinaryPropertyListReader::readTree() {
  if (!visit(topObject_)) return false;
  while (!open_.empty()) {
    Collection& collection = open_.back();
    if (collection.next == collection.count) {
      if (!close()) return false;
      continue;
    }
    std::size_t place = collection.isDictionary ? collection.count + collection.next : collection.next;
    std::uint32_t child = 0;
    if (!referenceAt(collection, place, child)) return false;
    if (values_[child].isNull()) {
      std::size_t depth = open_.size();
      if (!visit(child)) return false;
      if (open_.size() != depth) continue;  // this place comes up again once the child is complete
    }
    if (!add(collection, child)) return false;
  }
  return true;
}

bool BinaryPropertyListReader::referenceAt(const Collection& collection, std::size_t index, std::uint32_t& object) {
  std::uint64_t reference = bigEndian(collection.references + index * referenceWidth_, referenceWidth_);
  if (reference >= objectCount_) return fail("The binary property list refers to an object that it does not have.");
  object = static_cast<std::uint32_t>(reference);
  return true;
}

bool BinaryPropertyListReader::offsetOf(std::uint32_t object, std::size_t& at) {
  std::uint64_t offset = bigEndian(bytes_.data() + objectsEnd_ + object * offsetWidth_, offsetWidth_);
  if (offset < bplist::kMagic.size() || offset >= objectsEnd_) {
    return fail("The binary property list has an object outside its bytes.");
  }
  at = static_cast<std::size_t>(offset);
  return true;
}

// Accounts for bytes of an object. Objects that overlap could stand for far more memory than the input has.
bool BinaryPropertyListReader::take(std::size_t at, std::size_t size) {
  if (size > objectsEnd_ - at) return fail("The binary property list has an object that is cut off.");
  taken_ += size;
  if (taken_ > objectsEnd_ - bplist::kMagic.size()) return fail("The binary property list has objects that overlap.");
  return true;
}

// Reads a scalar to its end or opens a collection.
bool BinaryPropertyListReader::visit(std::uint32_t object) {
  if (heights_[object] == kOpen) return fail("The binary property list has a collection that contains itself.");
  std::size_t at = 0;
  if (!offsetOf(object, at) || !take(at, 1)) return false;
  std::uint8_t marker = bytes_[at++];
  switch (marker & 0xf0) {
    case 0x00:
      if (marker != bplist::kTrue && marker != bplist::kFalse) break;
      values_[object] = Value(marker == bplist::kTrue);
      return true;
    case bplist::kInteger:
    case bplist::kReal:
      return readNumber(object, marker, at);
    case bplist::kDate & 0xf0:
      if (marker != bplist::kDate) break;
      return readDate(object, at);
    case bplist::kData:
    case bplist::kASCII:
    case bplist::kUTF16:
      return readText(object, marker, at);
    case bplist::kArray:
    case bplist::kDictionary:
      return open(object, marker, at);
    default:
      break;
  }
  return fail("The binary property list has an object of an unsupported type.");
}

bool BinaryPropertyListReader::readNumber(std::uint32_t object, std::uint8_t marker, std::size_t at) {
  unsigned logarithm = marker & 0x0f;
  std::size_t width = std::size_t{1} << logarithm;
  bool isReal = (marker & 0xf0) == bplist::kReal;
  if (isReal ? width != 4 && width != 8 : width > 16) {
    return fail("The binary property list has a number of an unsupported width.");
  }
  if (!take(at, width)) return false;
  const std::uint8_t* bytes = bytes_.data() + at;
  if (isReal) {
    values_[object] = width == 4 ? Value(double{std::bit_cast<float>(static_cast<std::uint32_t>(bigEndian(bytes, 4)))})
                                 : Value(std::bit_cast<double>(bigEndian(bytes, 8)));
    return true;
  }
  // Up to four bytes are unsigned, eight and sixteen are two's complement.
  if (width == 16) {
    std::uint64_t high = bigEndian(bytes, 8);
    bytes += 8;
    if (high != (bytes[0] & 0x80 ? UINT64_MAX : 0)) {
      return fail("The binary property list has an integer that does not fit 64 bits.");
    }
  }
  values_[object] = Value(static_cast<std::int64_t>(bigEndian(bytes, std::min<std::size_t>(width, 8))));
  return true;
}

bool BinaryPropertyListReader::readDate(std::uint32_t object, std::size_t at) {
  if (!take(at, 8)) return false;
  auto seconds = std::bit_cast<double>(bigEndian(bytes_.data() + at, 8));
  if (std::isnan(seconds)) return fail("The binary property list has a date that is no number.");
  // Whole seconds and fraction apart, since their sum in microseconds does not fit a double. Far dates are clamped.
  constexpr double limit = 9.0e12;
  seconds = std::clamp(seconds, -limit, limit);
  double whole = std::floor(seconds);
  std::int64_t microseconds =
      (static_cast<std::int64_t>(whole) + bplist::kEpochSince1970) * 1'000'000 + std::llround((seconds - whole) * 1e6);
  values_[object] = Value(Date::fromMicroseconds(microseconds));
  return true;
}

bool BinaryPropertyListReader::readCount(std::uint8_t marker, std::size_t& at, std::size_t unit, std::size_t& count) {
  std::uint64_t claimed = marker & 0x0f;
  if (claimed == bplist::kCountFollows) {
    if (!take(at, 1)) return false;
    std::uint8_t integer = bytes_[at++];
    if ((integer & 0xf0) != bplist::kInteger || (integer & 0x0f) > 3) {
      return fail("The binary property list has a count that is no integer.");
    }
    std::size_t width = std::size_t{1} << (integer & 0x0f);
    if (!take(at, width)) return false;
    claimed = bigEndian(bytes_.data() + at, width);
    at += width;
  }
  if (claimed > (objectsEnd_ - at) / unit) return fail("The binary property list has an object that is cut off.");
  count = static_cast<std::size_t>(claimed);
  return take(at, count * unit);
}

bool BinaryPropertyListReader::readText(std::uint32_t object, std::uint8_t marker, std::size_t at) {
  std::uint8_t type = marker & 0xf0;
  std::size_t unit = type == bplist::kUTF16 ? 2 : 1;
  std::size_t count = 0;
  if (!readCount(marker, at, unit, count)) return false;
  auto content = bytes_.subspan(at, count * unit);
  if (type == bplist::kData) {
    values_[object] = Value(Data(content));
    return true;
  }
  if (type == bplist::kUTF16) return readUTF16(object, content);
  std::string_view text(reinterpret_cast<const char*>(content.data()), content.size());
  if (std::any_of(content.begin(), content.end(), [](std::uint8_t byte) { return byte > 0x7f; })) {
    return fail("The binary property list has a string that is not ASCII where it should be.");
  }
  values_[object] = Value(text);
  return true;
}

bool BinaryPropertyListReader::readUTF16(std::uint32_t object, std::span<const std::uint8_t> units) {
  scratch_.clear();
  for (std::size_t i = 0; i < units.size(); i += 2) {
    auto point = static_cast<char32_t>(bigEndian(&units[i], 2));
    if (point >= 0xd800 && point < 0xe000) {
      char32_t low = point < 0xdc00 && i + 2 < units.size() ? static_cast<char32_t>(bigEndian(&units[i + 2], 2)) : 0;
      if (low < 0xdc00 || low > 0xdfff)
        return fail("The binary property list has a string with half a surrogate pair.");
      point = 0x10000 + ((point - 0xd800) << 10) + (low - 0xdc00);
      i += 2;
    }
    appendUTF8(scratch_, point);
  }
  values_[object] = Value(scratch_);
  return true;
}

bool BinaryPropertyListReader::open(std::uint32_t object, std::uint8_t marker, std::size_t at) {
  bool isDictionary = (marker & 0xf0) == bplist::kDictionary;
  std::size_t count = 0;
  if (open_.size() >= limits_.depth) return fail("The binary property list is nested too deeply.");
  if (!readCount(marker, at, referenceWidth_ * (isDictionary ? 2 : 1), count)) return false;
  if (count > limits_.values) return fail("The binary property list has too many values.");
  Collection collection{
      .object = object, .references = bytes_.data() + at, .count = count, .isDictionary = isDictionary};
  if (count && isDictionary) collection.dictionary.reserve(count);
  if (count && !isDictionary) collection.array.reserve(count);
  heights_[object] = kOpen;
  if (!open_.empty()) open_.back().holdsCollections = true;
  open_.push_back(std::move(collection));
  return true;
}

bool BinaryPropertyListReader::add(Collection& collection, std::uint32_t child) {
  collection.height = std::max(collection.height, heights_[child]);
  collection.values += heights_[child] ? details_[child] : 1;
  if (collection.values > limits_.values) return fail("The binary property list has too many values.");
  if (collection.isDictionary) {
    std::uint32_t keyObject = 0;
    if (!referenceAt(collection, collection.next, keyObject)) return false;
    const Key* key = keyOf(keyObject);
    if (!key) return false;
    auto& lastUser = keyUsers_[static_cast<std::size_t>(key - keys_.data())];
    // Of a key that another dictionary had last, this one has none yet, unless that other one lies within it.
    if (lastUser == collection.object || collection.holdsCollections) {
      collection.dictionary.set(*key, values_[child]);
    } else {
      lastUser = collection.object;
      collection.dictionary.appendUnchecked(*key, values_[child]);
    }
  } else {
    collection.array.append(values_[child]);
  }
  ++collection.next;
  return true;
}

bool BinaryPropertyListReader::close() {
  Collection& done = open_.back();
  // A collection that was read before may stand deeper now than where it was first met.
  if (done.height >= limits_.depth) return fail("The binary property list is nested too deeply.");
  values_[done.object] = done.isDictionary ? Value(done.dictionary) : Value(done.array);
  heights_[done.object] = done.height + 1;
  details_[done.object] = static_cast<std::uint32_t>(done.values);
  open_.pop_back();
  return true;
}

const Key* BinaryPropertyListReader::keyOf(std::uint32_t object) {
  if (details_[object] == 0 || heights_[object] != 0) {
    if (values_[object].isNull()) {
      std::size_t at = 0;
      if (!offsetOf(object, at)) return nullptr;
      std::uint8_t type = bytes_[at] & 0xf0;
      if ((type == bplist::kASCII || type == bplist::kUTF16) && !visit(object)) return nullptr;
    }
    auto text = values_[object].asString();
    if (!text) {
      fail("The binary property list has a key that is no string.");
      return nullptr;
    }
    Key key(*text);
    // Two objects may hold one text. Keys are interned, so that their addresses tell.
    auto [place, isNew] = keyPlaces_.try_emplace(key.text().data(), static_cast<std::uint32_t>(keys_.size() + 1));
    if (isNew) {
      keys_.push_back(std::move(key));
      keyUsers_.push_back(topObject_);
    }
    details_[object] = place->second;
  }
  return &keys_[details_[object] - 1];
}

}  // namespace florvane
