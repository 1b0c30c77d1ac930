#include "platform/PropertyList.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>

namespace florvane {
namespace {

// A NaN equals nothing, itself included, and XML keeps no more of it than its name. A binary date farther from 2001
// than 2^33 seconds is the nearest double.
bool mayChange(const Value& value) {
  if (value.kind() == Value::Kind::Real) return std::isnan(*value.asNumber());
  if (auto date = value.asDate()) return std::abs(date->secondsSince1970() - 978'307'200) >= 8'589'934'592;
  for (std::size_t i = 0; i < value.arraySize(); ++i) {
    if (mayChange(value.arrayBegin()[i])) return true;
  }
  for (std::size_t i = 0; i < value.dictionarySize(); ++i) {
    if (mayChange(value.dictionaryBegin()[i].value)) return true;
  }
  return false;
}

void require(bool condition) {
  if (!condition) std::abort();
}

// What was read can be written, and is the same when it is read again. XML refuses some texts of the binary form.
void check(const Value& value, PropertyListFormat format, bool mayRefuse, const PropertyListLimits& limits) {
  auto bytes = writePropertyList(value, format);
  require(bytes.has_value() || mayRefuse);
  if (!bytes) return;
  auto again = readPropertyList(*bytes, limits);
  require(again.has_value());
  require(mayChange(value) || *again == value);
  require(writePropertyList(*again, format).value() == *bytes);
}

}  // namespace
}  // namespace florvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace florvane;
  // Small limits: shared collections are written out each time they stand somewhere.
  PropertyListLimits limits{.depth = 128, .values = 20'000};
  auto value = readPropertyList(Data(bytes, size), limits);
  if (!value) return 0;
  bool isBinary = size > 0 && bytes[0] == 'b';
  check(*value, PropertyListFormat::Binary, false, limits);
  check(*value, PropertyListFormat::XML, isBinary, limits);
  return 0;
}
