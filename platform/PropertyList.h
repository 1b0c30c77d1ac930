#pragma once

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/Value.h"

#include <cstddef>

namespace florvane {

enum class PropertyListFormat { Binary, XML };

// What a property list from outside may hold at most. A list beyond a limit is refused with
// PropertyListReadCorruptError before memory is spent on it.
struct PropertyListLimits {
  std::size_t depth = 128;          // collections inside each other
  std::size_t values = 20'000'000;  // values of the tree, counting a shared one each time it stands somewhere
};

// Reads either form, told apart by its first bytes. Dates keep their microseconds; of a key that a dictionary has
// twice the last value counts. Errors: QuilbarErrorDomain, PropertyListReadCorruptError, with a sentence that says
// what is wrong (also for unique identifiers, sets and integers beyond 64 bits, which no Value holds). Thread-safe.
Result<Value> readPropertyList(const Data& bytes, const PropertyListLimits& limits = {});
// Writes a tree without nulls, dictionaries in their own order. Equal strings, data, dates and numbers are written once
// in the binary form, whose dates are exact to the microsecond for the 272 years around 2001 and to the nearest double
// beyond. Errors: QuilbarErrorDomain, PropertyListWriteInvalidError (null inside, beyond the limits above, over 4 GiB,
// text that is no UTF-8 or that the XML form cannot hold). Thread-safe.
Result<Data> writePropertyList(const Value& root, PropertyListFormat format);

}  // namespace florvane
