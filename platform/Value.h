#pragma once

#include "platform/Data.h"
#include "platform/Date.h"
#include "platform/RefCounted.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace florvane {

class Array;
class Dictionary;
struct DictionaryEntry;
struct ArrayBlock;
struct DictionaryBlock;

// One property-list value in 16 bytes: null, boolean, integer, real, string, data, date, array or dictionary. Cheap to
// copy (shared, copied on write); values built by one thread may be read by many. Null stands for "no object" in user
// info and log arguments; no property list can hold it.
class Value {
 public:
  enum class Kind : std::uint8_t { Null, Boolean, Integer, Real, String, Data, Date, Array, Dictionary };

  Value() noexcept = default;
  template <typename T>
    requires std::is_same_v<T, bool>
  Value(T boolean) noexcept : kind_(Kind::Boolean) {
    payload_.integer = boolean ? 1 : 0;
  }
  template <typename T>
    requires(std::is_integral_v<T> && !std::is_same_v<T, bool>)
  Value(T integer) noexcept : kind_(Kind::Integer) {
    payload_.integer = static_cast<std::int64_t>(integer);
  }
  Value(double real) noexcept : kind_(Kind::Real) { payload_.real = real; }
  Value(std::string_view string);
  Value(const std::string& string) : Value(std::string_view(string)) {}
  Value(const char* string) : Value(std::string_view(string)) {}
  Value(const florvane::Data& data) noexcept;
  Value(florvane::Date date) noexcept : kind_(Kind::Date) { payload_.integer = date.microsecondsSince1970(); }
  Value(const florvane::Array& array) noexcept;
  Value(const florvane::Dictionary& dictionary) noexcept;
  template <typename T>
  Value(const std::optional<T>& optional) : Value(optional ? Value(*optional) : Value()) {}
  Value(const Value& other) noexcept;
  Value(Value&& other) noexcept : payload_(other.payload_), kind_(std::exchange(other.kind_, Kind::Null)) {}
  Value& operator=(Value other) noexcept;
  ~Value();

  Kind kind() const noexcept { return kind_; }
  bool isNull() const noexcept { return kind_ == Kind::Null; }
  // Each answers only for its own kind; a view lives as long as this value.
  std::optional<bool> asBoolean() const noexcept;
  std::optional<std::int64_t> asInteger() const noexcept;
  // The number of an integer or a real.
  std::optional<double> asNumber() const noexcept;
  std::optional<std::string_view> asString() const noexcept;
  std::optional<florvane::Data> asData() const noexcept;
  std::optional<florvane::Date> asDate() const noexcept;
  std::optional<florvane::Array> asArray() const noexcept;
  std::optional<florvane::Dictionary> asDictionary() const noexcept;
  // In place; null where the kind differs. For walks over large trees that must not touch reference counts.
  const Value* arrayBegin() const noexcept;
  std::size_t arraySize() const noexcept;
  const DictionaryEntry* dictionaryBegin() const noexcept;
  std::size_t dictionarySize() const noexcept;
  // Empty where the kind is not data.
  std::string_view dataBytes() const noexcept;

  // A rendering for messages: strings bare, data as "<0a1b>", dates as RFC 3339, collections in braces.
  std::string description() const;

  // Kind and contents; an integer never equals a real or a boolean. Dictionaries compare regardless of order.
  friend bool operator==(const Value& a, const Value& b) noexcept;

 private:
  friend class Array;
  friend class Dictionary;
  ByteBlock* byteBlock() const noexcept { return static_cast<ByteBlock*>(payload_.pointer); }
  ArrayBlock* arrayBlock() const noexcept { return static_cast<ArrayBlock*>(payload_.pointer); }
  DictionaryBlock* dictionaryBlock() const noexcept { return static_cast<DictionaryBlock*>(payload_.pointer); }
  void retain() const noexcept;

  union Payload {
    std::int64_t integer = 0;
    double real;
    void* pointer;  // null stands for the empty string, data, array or dictionary
  } payload_;
  Kind kind_ = Kind::Null;
};

static_assert(sizeof(Value) == 16);

// An ordered list of values, copied on write.
class Array {
 public:
  Array() noexcept;
  Array(std::initializer_list<Value> values);
  Array(const Array&) noexcept;
  Array(Array&&) noexcept;
  Array& operator=(const Array&) noexcept;
  Array& operator=(Array&&) noexcept;
  ~Array();

  std::size_t size() const noexcept;
  bool empty() const noexcept { return size() == 0; }
  const Value& operator[](std::size_t index) const noexcept { return begin()[index]; }
  const Value* begin() const noexcept;
  const Value* end() const noexcept;
  void reserve(std::size_t count);
  void append(Value value);
  void set(std::size_t index, Value value);
  std::string description() const { return Value(*this).description(); }

  friend bool operator==(const Array& a, const Array& b) noexcept;

 private:
  friend class Value;
  ArrayBlock& writable();
  Ref<ArrayBlock> block_;
};

// A dictionary key. Equal texts share one interned block, so keys compare by address and a file of 100,000 entries
// holds each key text once; a text that no dictionary uses any more is forgotten.
class Key {
 public:
  struct Block : RefCounted {
    explicit Block(std::string_view content) : text(content) {}
    static void destroy(Block* block) noexcept;
    const std::string text;
  };

  Key(std::string_view text);
  Key(const char* text) : Key(std::string_view(text)) {}
  Key(const std::string& text) : Key(std::string_view(text)) {}
  std::string_view text() const noexcept { return block_->text; }
  friend bool operator==(const Key& a, const Key& b) noexcept { return a.block_.get() == b.block_.get(); }

 private:
  Ref<Block> block_;
};

struct DictionaryEntry {
  Key key;
  Value value;
};

// Keys to values, copied on write; keeps the order in which keys were first set. Small ones are scanned, large ones
// carry an index, so that neither costs the square of its size.
class Dictionary {
 public:
  using Entry = DictionaryEntry;

  Dictionary() noexcept;
  Dictionary(std::initializer_list<Entry> entries);
  Dictionary(const Dictionary&) noexcept;
  Dictionary(Dictionary&&) noexcept;
  Dictionary& operator=(const Dictionary&) noexcept;
  Dictionary& operator=(Dictionary&&) noexcept;
  ~Dictionary();

  std::size_t size() const noexcept;
  bool empty() const noexcept { return size() == 0; }
  const Entry* begin() const noexcept;
  const Entry* end() const noexcept;
  bool contains(std::string_view key) const noexcept { return find(key) != nullptr; }
  // Null when absent; valid until this dictionary changes.
  const Value* find(std::string_view key) const noexcept;
  // The value when it is there and of the kind that the name says.
  std::optional<bool> boolean(std::string_view key) const noexcept;
  std::optional<std::int64_t> integer(std::string_view key) const noexcept;
  std::optional<std::string> string(std::string_view key) const;
  std::optional<Data> data(std::string_view key) const noexcept;
  std::optional<Date> date(std::string_view key) const noexcept;
  std::optional<Array> array(std::string_view key) const noexcept;
  std::optional<Dictionary> dictionary(std::string_view key) const noexcept;

  void reserve(std::size_t count);
  void set(const Key& key, Value value);
  // Without looking whether the key is there already; the caller vouches that it is not. For parsers.
  void appendUnchecked(const Key& key, Value value);
  // True when the key was there.
  bool remove(std::string_view key);
  std::string description() const { return Value(*this).description(); }

  friend bool operator==(const Dictionary& a, const Dictionary& b) noexcept;

 private:
  friend class Value;
  DictionaryBlock& writable();
  Ref<DictionaryBlock> block_;
};

}  // namespace florvane
