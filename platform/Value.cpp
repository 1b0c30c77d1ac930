#include "platform/Value.h"

#include <array>
#include <cstdio>
#include <memory>
#include <mutex>
#include <span>
#include <unordered_map>
#include <vector>

namespace florvane {

// Keys

namespace {

// The table of interned keys, in shards so that parsers on several threads seldom meet. Leaked on purpose: static
// dictionaries may outlive it otherwise.
struct KeyTable {
  struct Shard {
    std::mutex mutex;
    std::unordered_map<std::string_view, Key::Block*> blocks;
  };
  std::array<Shard, 16> shards;

  Shard& shardFor(std::string_view text) { return shards[std::hash<std::string_view>()(text) % shards.size()]; }
  static KeyTable& shared() {
    static auto* table = new KeyTable;
    return *table;
  }
};

Ref<Key::Block> intern(std::string_view text) {
  auto& shard = KeyTable::shared().shardFor(text);
  std::lock_guard lock(shard.mutex);
  if (auto found = shard.blocks.find(text); found != shard.blocks.end()) {
    if (found->second->tryRetain()) return Ref<Key::Block>::adopt(found->second);
    shard.blocks.erase(found);  // its last reference has just gone, and its destroy() waits for this lock
  }
  auto* block = new Key::Block(text);
  shard.blocks.emplace(block->text, block);
  return Ref<Key::Block>::adopt(block);
}

}  // namespace

void Key::Block::destroy(Block* block) noexcept {
  {
    auto& shard = KeyTable::shared().shardFor(block->text);
    std::lock_guard lock(shard.mutex);
    auto found = shard.blocks.find(block->text);
    if (found != shard.blocks.end() && found->second == block) shard.blocks.erase(found);
  }
  delete block;
}

Key::Key(std::string_view text) : block_(intern(text)) {}

// Blocks

struct ArrayBlock : RefCounted {
  static void destroy(ArrayBlock* block) noexcept { delete block; }
  std::vector<Value> values;
};

struct DictionaryBlock : RefCounted {
  DictionaryBlock() = default;
  DictionaryBlock(const DictionaryBlock& other) : RefCounted(other), entries(other.entries) { rebuildIndex(); }
  DictionaryBlock& operator=(const DictionaryBlock&) = delete;
  ~DictionaryBlock() = default;
  static void destroy(DictionaryBlock* block) noexcept { delete block; }

  static constexpr std::size_t kScanLimit = 32;

  const Dictionary::Entry* find(std::string_view key) const noexcept {
    if (!index) {
      for (const auto& entry : entries) {
        if (entry.key.text() == key) return &entry;
      }
      return nullptr;
    }
    auto found = index->find(key);
    return found == index->end() ? nullptr : &entries[found->second];
  }
  const Dictionary::Entry* find(const Key& key) const noexcept {
    if (index) return find(key.text());
    for (const auto& entry : entries) {
      if (entry.key == key) return &entry;
    }
    return nullptr;
  }
  void append(const Key& key, Value value) {
    entries.push_back({key, std::move(value)});
    if (index) {
      index->emplace(entries.back().key.text(), entries.size() - 1);
    } else if (entries.size() > kScanLimit) {
      rebuildIndex();
    }
  }
  void rebuildIndex() {
    index.reset();
    if (entries.size() <= kScanLimit) return;
    index = std::make_unique<Index>();
    index->reserve(entries.size() * 2);
    for (std::size_t i = 0; i < entries.size(); ++i) index->emplace(entries[i].key.text(), i);
  }

  using Index = std::unordered_map<std::string_view, std::size_t>;
  std::vector<Dictionary::Entry> entries;
  std::unique_ptr<Index> index;  // null while entries are few, as they are in most; views into the keys
};

// Value

Value::Value(std::string_view string) : kind_(Kind::String) {
  payload_.pointer = string.empty() ? nullptr : ByteBlock::make(string.data(), string.size()).leak();
}

Value::Value(const florvane::Data& data) noexcept : kind_(Kind::Data) {
  payload_.pointer = Ref<ByteBlock>(data.block_).leak();
}

Value::Value(const florvane::Array& array) noexcept : kind_(Kind::Array) {
  payload_.pointer = Ref<ArrayBlock>(array.block_).leak();
}

Value::Value(const florvane::Dictionary& dictionary) noexcept : kind_(Kind::Dictionary) {
  payload_.pointer = Ref<DictionaryBlock>(dictionary.block_).leak();
}

Value::Value(const Value& other) noexcept : payload_(other.payload_), kind_(other.kind_) { retain(); }

Value& Value::operator=(Value other) noexcept {
  std::swap(payload_, other.payload_);
  std::swap(kind_, other.kind_);
  return *this;
}

void Value::retain() const noexcept {
  if (kind_ < Kind::String || kind_ == Kind::Date || !payload_.pointer) return;
  switch (kind_) {
    case Kind::String:
    case Kind::Data:
      byteBlock()->retain();
      break;
    case Kind::Array:
      arrayBlock()->retain();
      break;
    case Kind::Dictionary:
      dictionaryBlock()->retain();
      break;
    default:
      break;
  }
}

Value::~Value() {
  if (kind_ < Kind::String || kind_ == Kind::Date || !payload_.pointer) return;
  switch (kind_) {
    case Kind::String:
    case Kind::Data:
      Ref<ByteBlock>::adopt(byteBlock());
      break;
    case Kind::Array:
      Ref<ArrayBlock>::adopt(arrayBlock());
      break;
    case Kind::Dictionary:
      Ref<DictionaryBlock>::adopt(dictionaryBlock());
      break;
    default:
      break;
  }
}

std::optional<bool> Value::asBoolean() const noexcept {
  return kind_ == Kind::Boolean ? std::optional(payload_.integer != 0) : std::nullopt;
}

std::optional<std::int64_t> Value::asInteger() const noexcept {
  return kind_ == Kind::Integer ? std::optional(payload_.integer) : std::nullopt;
}

std::optional<double> Value::asNumber() const noexcept {
  if (kind_ == Kind::Integer) return static_cast<double>(payload_.integer);
  return kind_ == Kind::Real ? std::optional(payload_.real) : std::nullopt;
}

std::optional<std::string_view> Value::asString() const noexcept {
  if (kind_ != Kind::String) return std::nullopt;
  if (!payload_.pointer) return std::string_view();
  return std::string_view(reinterpret_cast<const char*>(byteBlock()->bytes()), byteBlock()->size());
}

std::optional<Data> Value::asData() const noexcept {
  if (kind_ != Kind::Data) return std::nullopt;
  return florvane::Data(Ref<ByteBlock>::share(byteBlock()));
}

std::optional<Date> Value::asDate() const noexcept {
  return kind_ == Kind::Date ? std::optional(florvane::Date::fromMicroseconds(payload_.integer)) : std::nullopt;
}

std::optional<Array> Value::asArray() const noexcept {
  if (kind_ != Kind::Array) return std::nullopt;
  florvane::Array array;
  array.block_ = Ref<ArrayBlock>::share(arrayBlock());
  return array;
}

std::optional<Dictionary> Value::asDictionary() const noexcept {
  if (kind_ != Kind::Dictionary) return std::nullopt;
  florvane::Dictionary dictionary;
  dictionary.block_ = Ref<DictionaryBlock>::share(dictionaryBlock());
  return dictionary;
}

const Value* Value::arrayBegin() const noexcept {
  return kind_ == Kind::Array && payload_.pointer ? arrayBlock()->values.data() : nullptr;
}

std::size_t Value::arraySize() const noexcept {
  return kind_ == Kind::Array && payload_.pointer ? arrayBlock()->values.size() : 0;
}

const DictionaryEntry* Value::dictionaryBegin() const noexcept {
  return kind_ == Kind::Dictionary && payload_.pointer ? dictionaryBlock()->entries.data() : nullptr;
}

std::size_t Value::dictionarySize() const noexcept {
  return kind_ == Kind::Dictionary && payload_.pointer ? dictionaryBlock()->entries.size() : 0;
}

std::string_view Value::dataBytes() const noexcept {
  if (kind_ != Kind::Data || !payload_.pointer) return {};
  return {reinterpret_cast<const char*>(byteBlock()->bytes()), byteBlock()->size()};
}

namespace {

std::string hexDescription(const Data& data) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text = "<";
  for (std::uint8_t byte : data) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text + ">";
}

}  // namespace

std::string Value::description() const {
  switch (kind_) {
    case Kind::Null:
      return "(null)";
    case Kind::Boolean:
      return payload_.integer ? "true" : "false";
    case Kind::Integer:
      return std::to_string(payload_.integer);
    case Kind::Real: {
      std::array<char, 40> text{};
      std::snprintf(text.data(), text.size(), "%.17g", payload_.real);
      return text.data();
    }
    case Kind::String:
      return std::string(*asString());
    case Kind::Data:
      return hexDescription(*asData());
    case Kind::Date:
      return asDate()->description();
    case Kind::Array: {
      std::string text = "(";
      for (const auto& value : std::span(arrayBegin(), arraySize()))
        text += (text.size() > 1 ? ", " : "") + value.description();
      return text + ")";
    }
    case Kind::Dictionary: {
      std::string text = "{";
      for (const auto& [key, value] : std::span(dictionaryBegin(), dictionarySize())) {
        text += (text.size() > 1 ? ", " : "") + std::string(key.text()) + " = " + value.description();
      }
      return text + "}";
    }
  }
  return {};
}

bool operator==(const Value& a, const Value& b) noexcept {
  if (a.kind_ != b.kind_) return false;
  switch (a.kind_) {
    case Value::Kind::Null:
      return true;
    case Value::Kind::Boolean:
    case Value::Kind::Integer:
    case Value::Kind::Date:
      return a.payload_.integer == b.payload_.integer;
    case Value::Kind::Real:
      return a.payload_.real == b.payload_.real;
    default:
      break;
  }
  if (a.payload_.pointer == b.payload_.pointer) return true;
  switch (a.kind_) {
    case Value::Kind::String:
      return *a.asString() == *b.asString();
    case Value::Kind::Data:
      return *a.asData() == *b.asData();
    case Value::Kind::Array:
      return *a.asArray() == *b.asArray();
    default:
      return *a.asDictionary() == *b.asDictionary();
  }
}

// Array

Array::Array() noexcept = default;
Array::Array(const Array&) noexcept = default;
Array::Array(Array&&) noexcept = default;
Array& Array::operator=(const Array&) noexcept = default;
Array& Array::operator=(Array&&) noexcept = default;
Array::~Array() = default;

Array::Array(std::initializer_list<Value> values) {
  if (values.size()) writable().values = values;
}

ArrayBlock& Array::writable() {
  if (!block_) {
    block_ = Ref<ArrayBlock>::adopt(new ArrayBlock);
  } else if (block_->isShared()) {
    auto copy = Ref<ArrayBlock>::adopt(new ArrayBlock);
    copy->values = block_->values;
    block_ = std::move(copy);
  }
  return *block_;
}

std::size_t Array::size() const noexcept { return block_ ? block_->values.size() : 0; }
const Value* Array::begin() const noexcept { return block_ ? block_->values.data() : nullptr; }
const Value* Array::end() const noexcept { return begin() + size(); }
void Array::reserve(std::size_t count) { writable().values.reserve(count); }
void Array::append(Value value) { writable().values.push_back(std::move(value)); }
void Array::set(std::size_t index, Value value) { writable().values.at(index) = std::move(value); }

bool operator==(const Array& a, const Array& b) noexcept { return std::equal(a.begin(), a.end(), b.begin(), b.end()); }

// Dictionary

Dictionary::Dictionary() noexcept = default;
Dictionary::Dictionary(const Dictionary&) noexcept = default;
Dictionary::Dictionary(Dictionary&&) noexcept = default;
Dictionary& Dictionary::operator=(const Dictionary&) noexcept = default;
Dictionary& Dictionary::operator=(Dictionary&&) noexcept = default;
Dictionary::~Dictionary() = default;

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
  for (const auto& entry : entries) set(entry.key, entry.value);
}

DictionaryBlock& Dictionary::writable() {
  if (!block_) {
    block_ = Ref<DictionaryBlock>::adopt(new DictionaryBlock);
  } else if (block_->isShared()) {
    block_ = Ref<DictionaryBlock>::adopt(new DictionaryBlock(*block_));
  }
  return *block_;
}

std::size_t Dictionary::size() const noexcept { return block_ ? block_->entries.size() : 0; }
const Dictionary::Entry* Dictionary::begin() const noexcept { return block_ ? block_->entries.data() : nullptr; }
const Dictionary::Entry* Dictionary::end() const noexcept { return begin() + size(); }

const Value* Dictionary::find(std::string_view key) const noexcept {
  const Entry* entry = block_ ? block_->find(key) : nullptr;
  return entry ? &entry->value : nullptr;
}

std::optional<bool> Dictionary::boolean(std::string_view key) const noexcept {
  const Value* value = find(key);
  return value ? value->asBoolean() : std::nullopt;
}

std::optional<std::int64_t> Dictionary::integer(std::string_view key) const noexcept {
  const Value* value = find(key);
  return value ? value->asInteger() : std::nullopt;
}

std::optional<std::string> Dictionary::string(std::string_view key) const {
  const Value* value = find(key);
  auto text = value ? value->asString() : std::nullopt;
  return text ? std::optional(std::string(*text)) : std::nullopt;
}

std::optional<Data> Dictionary::data(std::string_view key) const noexcept {
  const Value* value = find(key);
  return value ? value->asData() : std::nullopt;
}

std::optional<Date> Dictionary::date(std::string_view key) const noexcept {
  const Value* value = find(key);
  return value ? value->asDate() : std::nullopt;
}

std::optional<Array> Dictionary::array(std::string_view key) const noexcept {
  const Value* value = find(key);
  return value ? value->asArray() : std::nullopt;
}

std::optional<Dictionary> Dictionary::dictionary(std::string_view key) const noexcept {
  const Value* value = find(key);
  return value ? value->asDictionary() : std::nullopt;
}

void Dictionary::reserve(std::size_t count) { writable().entries.reserve(count); }

void Dictionary::set(const Key& key, Value value) {
  auto& block = writable();
  if (const Entry* entry = block.find(key)) {
    block.entries[static_cast<std::size_t>(entry - block.entries.data())].value = std::move(value);
  } else {
    block.append(key, std::move(value));
  }
}

void Dictionary::appendUnchecked(const Key& key, Value value) { writable().append(key, std::move(value)); }

bool Dictionary::remove(std::string_view key) {
  if (!contains(key)) return false;
  auto& block = writable();
  block.entries.erase(block.entries.begin() + (block.find(key) - block.entries.data()));
  block.rebuildIndex();
  return true;
}

bool operator==(const Dictionary& a, const Dictionary& b) noexcept {
  if (a.size() != b.size()) return false;
  if (a.begin() == b.begin()) return true;
  for (const auto& [key, value] : a) {
    const Value* other = b.find(key.text());
    if (!other || !(value == *other)) return false;
  }
  return true;
}

}  // namespace florvane
