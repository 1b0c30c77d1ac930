#pragma once

#include "platform/Value.h"

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace florvane {

// In a difference: an array of the keys that the second dictionary lacks.
inline constexpr char DUDictionaryDifferenceRemovedKeys[] = "DUDictionaryDifferenceRemovedKeys";

// Differences between dictionaries, and their rendering. No state; thread-safe.
class FVFDictionaryUtils {
 public:
  // What must change in the first to make it the second: new and changed values as they are in the second, for two
  // dictionaries under one key their own difference, and the removed keys. Numbers compare by value. Empty when equal.
  static Dictionary differencesBetweenDictionary(const Dictionary& dictionary, const Dictionary& andDictionary);
  // Applies such a difference. False, with the dictionary untouched, when the removed keys are no list of strings.
  static bool applyDictionaryDifferences(const Dictionary& differences, Dictionary& toDictionary);
  // A dictionary or array for log messages; what is neither is described as it is.
  static std::string stringFromCollection(const Value& collection);
};

// A dictionary holding only those of the keys that are there.
Dictionary fv_dictionaryForKeys(const Dictionary& dictionary, std::initializer_list<std::string_view> keys);
// The same, collected in `into`, whose entries under the keys are replaced.
void fv_dictionaryFromDictionary(Dictionary& into, const Dictionary& dictionary,
                                 std::initializer_list<std::string_view> forKeys);
// Compares two numbers (booleans count as 0 and 1) by value; false when one is absent or no number.
bool fv_isEqualToNumber(const Value& number, const Value* other);

}  // namespace florvane
