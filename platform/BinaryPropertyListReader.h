#pragma once

#include "platform/PropertyList.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

namespace florvane {

// Reads one property list of the binary form. Works without recursion; every offset and count is checked against the
// bytes before anything is allocated, and the objects read may not take more bytes than there are, so that memory
// grows with the input only. Objects that are referred to more than once are read once and shared.
class BinaryPropertyListReader {
 public:
  // The bytes must outlive the reader.
  BinaryPropertyListReader(std::span<const std::uint8_t> bytes, const PropertyListLimits& limits);
  Result<Value> read();

 private:
  // An array or dictionary whose children are being read.
  struct Collection {
    std::uint32_t object;
    const std::uint8_t* references;
    std::size_t count;
    bool isDictionary;
    bool holdsCollections = false;
    std::size_t next = 0;
    std::uint64_t values = 1;
    std::uint8_t height = 0;
    Array array{};
    Dictionary dictionary{};
  };

  bool fail(const char* problem);
  bool readTrailer();
  bool readTree();
  bool visit(std::uint32_t object);
  bool readNumber(std::uint32_t object, std::uint8_t marker, std::size_t at);
  bool readDate(std::uint32_t object, std::size_t at);
  bool readCount(std::uint8_t marker, std::size_t& at, std::size_t unit, std::size_t& count);
  bool readText(std::uint32_t object, std::uint8_t marker, std::size_t at);
  bool readUTF16(std::uint32_t object, std::span<const std::uint8_t> units);
  bool open(std::uint32_t object, std::uint8_t marker, std::size_t at);
  bool add(Collection& collection, std::uint32_t child);
  bool close();
  // Null after a failure.
  const Key* keyOf(std::uint32_t object);
  bool offsetOf(std::uint32_t object, std::size_t& at);
  bool take(std::size_t at, std::size_t size);
  bool referenceAt(const Collection& collection, std::size_t index, std::uint32_t& object);

  std::span<const std::uint8_t> bytes_;
  PropertyListLimits limits_;
  const char* problem_ = nullptr;

  std::size_t objectsEnd_ = 0;  // where the offset table starts
  std::size_t offsetWidth_ = 0;
  std::size_t referenceWidth_ = 0;
  std::uint32_t objectCount_ = 0;
  std::uint32_t topObject_ = 0;
  std::size_t taken_ = 0;  // bytes of the objects read so far

  // One place an object.
  std::vector<Value> values_;           // null until read
  std::vector<std::uint8_t> heights_;   // collections inside each other, this one included; kOpen while being read
  std::vector<std::uint32_t> details_;  // collection: values of its tree; string: 1 + its place in keys_ if it has one
  std::vector<Key> keys_;
  std::unordered_map<const char*, std::uint32_t> keyPlaces_;  // by a key's text
  std::vector<std::uint32_t> keyUsers_;                       // of each, the dictionary that had it last
  std::vector<Collection> open_;
  std::string scratch_;
};

}  // namespace florvane
