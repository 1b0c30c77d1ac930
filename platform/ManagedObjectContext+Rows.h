#pragma once

#include "platform/ManagedObjectContext.h"

#include <cstdint>
#include <vector>

#include <SQLiteCpp/SQLiteCpp.h>

namespace florvane {

// One record as the store has it, or the one number of a count.
struct ManagedObjectContext::Row {
  std::int64_t number = 0;
  std::vector<Value> values;
};

// Dates are microseconds since 1970, booleans 0 and 1, no value is NULL.
void bindValue(SQLite::Statement& statement, int place, const Value& value);
// A value of that kind; null for NULL.
Value columnValue(SQLite::Statement& row, int column, Value::Kind kind);

}  // namespace florvane
