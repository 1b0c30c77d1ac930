#pragma once

#include "platform/PropertyList.h"

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

namespace florvane {

// Writes one property list in the binary form. Objects are numbered breadth first, so that the walk needs neither
// recursion nor a stack; strings, data, dates and numbers that are equal become one object.
class BinaryPropertyListWriter {
 public:
  // The tree must outlive the writer.
  explicit BinaryPropertyListWriter(const Value& root, const PropertyListLimits& limits = {})
      : root_(root), limits_(limits) {}
  Result<Data> write();

 private:
  // A value of the tree or a dictionary's key.
  struct Object {
    const Value* value;
    const Key* key = nullptr;
    // The text of a key or string, the bytes of data, otherwise nothing.
    std::string_view bytes() const;
    Value::Kind kind() const { return key ? Value::Kind::String : value->kind(); }
  };
  // Where a key's number was last seen. The same few keys stand in every entry of a listing.
  struct KnownKey {
    const char* text = nullptr;
    std::uint32_t object = 0;
  };
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t object = 0;  // 1 + its number; 0 for an empty slot
  };

  bool fail(const char* problem);
  Failure failure() const;
  bool number();
  bool numberChildren(const Value& collection);
  bool refer(const Object& object);
  bool referKey(const Key& key);
  bool find(const Object& object, std::uint32_t& number);
  void growTable();
  static std::uint32_t hash(const Object& object);
  static bool equal(const Object& a, const Object& b);

  void append(const Object& object);
  void appendBigEndian(std::uint64_t number, std::size_t width);
  void appendMarker(std::uint8_t type, std::size_t count);
  void appendInteger(std::int64_t integer);
  void appendString(std::string_view text);
  void appendReferences(std::size_t count);
  void appendTrailer(std::size_t offsetTable, std::size_t offsetWidth);

  const Value& root_;
  PropertyListLimits limits_;
  const char* problem_ = nullptr;
  std::vector<Object> objects_;
  std::vector<std::uint32_t> references_;  // of all collections, in the order of their numbers
  std::vector<Slot> table_;
  std::array<KnownKey, 256> knownKeys_{};
  std::size_t used_ = 0;
  std::size_t values_ = 1;
  std::size_t contentSize_ = 0;  // encoded bytes of all strings and data

  DataBuilder output_;
  std::size_t referenceWidth_ = 1;
  std::size_t nextReference_ = 0;
};

}  // namespace florvane
