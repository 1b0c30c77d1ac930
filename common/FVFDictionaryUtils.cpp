#include "common/FVFDictionaryUtils.h"

#include <span>

namespace florvane {

namespace {

// The kinds under which values count as being of one class: all numbers are.
Value::Kind classOf(const Value& value) {
  bool isNumber = value.kind() == Value::Kind::Boolean || value.kind() == Value::Kind::Real;
  return isNumber ? Value::Kind::Integer : value.kind();
}

std::optional<std::int64_t> wholeNumber(const Value& value) {
  if (auto boolean = value.asBoolean()) return *boolean ? 1 : 0;
  return value.asInteger();
}

bool equal(const Value& a, const Value& b) {
  if (classOf(a) != classOf(b)) return false;
  return classOf(a) == Value::Kind::Integer ? fv_isEqualToNumber(a, &b) : a == b;
}

}  // namespace

Dictionary FVFDictionaryUtils::differencesBetweenDictionary(const Dictionary& dictionary,
                                                            const Dictionary& andDictionary) {
  Dictionary differences;
  for (const auto& [key, value] : andDictionary) {
    const Value* previous = dictionary.find(key.text());
    if (previous && previous->kind() == Value::Kind::Dictionary && value.kind() == Value::Kind::Dictionary) {
      Dictionary nested = differencesBetweenDictionary(*previous->asDictionary(), *value.asDictionary());
      if (!nested.empty()) differences.set(key, nested);
    } else if (!previous || !equal(*previous, value)) {
      differences.set(key, value);
    }
  }
  Array removed;
  for (const auto& [key, value] : dictionary) {
    if (!andDictionary.contains(key.text())) removed.append(key.text());
  }
  if (!removed.empty()) differences.set(DUDictionaryDifferenceRemovedKeys, removed);
  return differences;
}

bool FVFDictionaryUtils::applyDictionaryDifferences(const Dictionary& differences, Dictionary& toDictionary) {
  Dictionary result = toDictionary;
  if (const Value* removed = differences.find(DUDictionaryDifferenceRemovedKeys)) {
    if (removed->kind() != Value::Kind::Array) return false;
    for (const Value& key : std::span(removed->arrayBegin(), removed->arraySize())) {
      if (!key.asString()) return false;
      result.remove(*key.asString());
    }
  }
  for (const auto& [key, value] : differences) {
    if (key.text() == DUDictionaryDifferenceRemovedKeys) continue;
    auto target = value.kind() == Value::Kind::Dictionary ? result.dictionary(key.text()) : std::nullopt;
    if (target) {
      if (!applyDictionaryDifferences(*value.asDictionary(), *target)) return false;
      result.set(key, *target);
    } else {
      result.set(key, value);
    }
  }
  toDictionary = std::move(result);
  return true;
}

std::string FVFDictionaryUtils::stringFromCollection(const Value& collection) { return collection.description(); }

Dictionary fv_dictionaryForKeys(const Dictionary& dictionary, std::initializer_list<std::string_view> keys) {
  Dictionary result;
  fv_dictionaryFromDictionary(result, dictionary, keys);
  return result;
}

void fv_dictionaryFromDictionary(Dictionary& into, const Dictionary& dictionary,
                                 std::initializer_list<std::string_view> forKeys) {
  for (std::string_view key : forKeys) {
    if (const Value* value = dictionary.find(key)) into.set(key, *value);
  }
}

bool fv_isEqualToNumber(const Value& number, const Value* other) {
  if (!other) return false;
  auto a = wholeNumber(number);
  auto b = wholeNumber(*other);
  if (a && b) return *a == *b;
  auto x = a ? std::optional(static_cast<double>(*a)) : number.asNumber();
  auto y = b ? std::optional(static_cast<double>(*b)) : other->asNumber();
  return x && y && *x == *y;
}

}  // namespace florvane
