#include "sasl/SRPBuffer.h"

#include "platform/Exceptions.h"
#include "sasl/SRPContext.h"
#include "sasl/SRPDiagnostics.h"

#include <algorithm>
#include <optional>

namespace florvane {

namespace {

constexpr std::size_t longestBuffer = 2147483643;
constexpr std::size_t prefixLength = 4;

// The next field code of a format, with whether it is to be read in place; nothing at the end.
struct FieldCode {
  char letter = 0;
  bool inPlace = false;
};

std::optional<FieldCode> takeCode(std::string_view& format) {
  if (format.empty()) return std::nullopt;
  FieldCode code;
  std::size_t length = format.starts_with("%-") ? 3 : 2;
  if (format.front() == '%' && format.size() >= length) {
    code = {format[length - 1], length == 3};
    format.remove_prefix(length);
  }
  return code;
}

// The argument of a field, of the kind that its code wants.
template <typename T, typename Variant>
const T& argument(const Variant* field) {
  const T* value = field ? std::get_if<T>(field) : nullptr;
  if (!value) throw InvalidArgumentException("Illegal field for an SRP buffer");
  return *value;
}

[[noreturn]] void rejectFormat() { throw InvalidArgumentException("Illegal format of an SRP buffer"); }

void appendInteger(std::vector<std::uint8_t>& buffer, std::uint64_t value, unsigned length) {
  while (length-- > 0) buffer.push_back(static_cast<std::uint8_t>(value >> (8 * length)));
}

std::uint64_t readInteger(std::span<const std::uint8_t> bytes) {
  std::uint64_t value = 0;
  for (std::uint8_t byte : bytes) value = value << 8 | byte;
  return value;
}

// Appends a length of so many bytes and what it counts. False, with the text said, when the length has no room.
bool appendCounted(std::vector<std::uint8_t>& buffer, std::span<const std::uint8_t> bytes, unsigned lengthBytes,
                   const char* complaint) {
  if (bytes.size() >> (8 * lengthBytes) != 0) {
    printDiagnostic(complaint);
    return false;
  }
  appendInteger(buffer, bytes.size(), lengthBytes);
  buffer.insert(buffer.end(), bytes.begin(), bytes.end());
  return true;
}

bool appendField(std::vector<std::uint8_t>& buffer, char letter, const SRPFieldValue* value) {
  switch (letter) {
    case 'm':
      return appendCounted(buffer, argument<std::reference_wrapper<const BigNumber>>(value).get().bytes().span(), 2,
                           "String too long to create mpi string\n");
    case 'o':
      return appendCounted(buffer, argument<std::span<const std::uint8_t>>(value), 1,
                           "String too long to create os string\n");
    case 's': {
      std::string_view text = argument<std::string_view>(value);
      return appendCounted(buffer, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, 2,
                           "String too long to create utf8 string\n");
    }
    case 'u':
      appendInteger(buffer, argument<std::uint32_t>(value), 4);
      return true;
    case 'q':
      appendInteger(buffer, argument<std::uint64_t>(value), 8);
      return true;
    case 'c':
      appendInteger(buffer, argument<std::uint8_t>(value), 1);
      return true;
    default:
      rejectFormat();
  }
}

// Cuts fields off the front of a buffer; nothing, with the text said, where they are not there.
class FieldReader {
 public:
  explicit FieldReader(std::span<const std::uint8_t> rest) : rest_(rest) {}
  bool atEnd() const { return rest_.empty(); }

  std::optional<std::span<const std::uint8_t>> take(std::size_t length, const char* complaint) {
    if (rest_.size() < length) {
      printDiagnostic(complaint);
      return std::nullopt;
    }
    auto bytes = rest_.first(length);
    rest_ = rest_.subspan(length);
    return bytes;
  }

  std::optional<std::span<const std::uint8_t>> takeCounted(std::size_t lengthBytes, const char* noLength,
                                                           const char* noBody) {
    auto length = take(lengthBytes, noLength);
    if (!length) return std::nullopt;
    return take(readInteger(*length), noBody);
  }

 private:
  std::span<const std::uint8_t> rest_;
};

template <typename Integer>
bool readField(FieldReader& reader, const SRPFieldTarget* target, const char* complaint) {
  Integer* integer = argument<Integer*>(target);
  auto bytes = reader.take(sizeof(Integer), complaint);
  if (bytes) *integer = static_cast<Integer>(readInteger(*bytes));
  return bytes.has_value();
}

bool readField(FieldReader& reader, FieldCode code, const SRPFieldTarget* target) {
  std::optional<std::span<const std::uint8_t>> bytes;
  switch (code.letter) {
    case 'm':
      bytes = reader.takeCounted(2, "Buffer is not big enough to be SRP MPI\n", "Not enough data for this SRP MPI\n");
      break;
    case 'o':
      bytes = reader.takeCounted(1, "Buffer is not big enough to be SRP os\n", "Not enough data for this SRP os\n");
      break;
    case 's':
      bytes = reader.takeCounted(2, "Buffer is not big enough to be SRP UTF8\n", "Not enough data for this SRP UTF8\n");
      break;
    case 'u':
      return readField<std::uint32_t>(reader, target, "Buffer is not big enough to be SRP uint\n");
    case 'q':
      return readField<std::uint64_t>(reader, target, "Buffer is not big enough to be SRP uint64_t\n");
    case 'c':
      return readField<std::uint8_t>(reader, target, "Buffer is not big enough to be SRP char\n");
    default:
      rejectFormat();
  }
  if (!bytes) return false;
  if (code.inPlace) {
    *argument<std::span<const std::uint8_t>*>(target) = *bytes;
  } else if (code.letter == 's') {
    argument<std::string*>(target)->assign(bytes->begin(), bytes->end());
  } else {
    *argument<Data*>(target) = Data(*bytes);
  }
  return true;
}

}  // namespace

int MakeBuffer(std::vector<std::uint8_t>& buffer, std::string_view format,
               std::initializer_list<SRPFieldValue> values) {
  buffer.assign(prefixLength, 0);
  const auto* value = values.begin();
  while (auto code = takeCode(format)) {
    if (code->inPlace) rejectFormat();
    if (!appendField(buffer, code->letter, value == values.end() ? nullptr : value++)) return SRPFailed;
    if (buffer.size() > longestBuffer) {
      printDiagnostic("String too long to create SRP buffer string\n");
      return SRPFailed;
    }
  }
  if (value != values.end()) rejectFormat();
  std::vector<std::uint8_t> prefix;
  appendInteger(prefix, buffer.size() - prefixLength, prefixLength);
  std::copy(prefix.begin(), prefix.end(), buffer.begin());
  return SRPDone;
}

int UnBuffer(std::span<const std::uint8_t> buffer, std::string_view format,
             std::initializer_list<SRPFieldTarget> targets) {
  if (buffer.size() < prefixLength) {
    printDiagnostic("Buffer is not big enough to be SRP buffer: %d\n", buffer.size());
    return SRPProtocolViolated;
  }
  if (readInteger(buffer.first(prefixLength)) != buffer.size() - prefixLength) {
    printDiagnostic("SRP Buffer isn't of the right length\n");
    return SRPProtocolViolated;
  }
  FieldReader reader(buffer.subspan(prefixLength));
  const auto* target = targets.begin();
  while (auto code = takeCode(format)) {
    if (!readField(reader, *code, target == targets.end() ? nullptr : target++)) return SRPProtocolViolated;
  }
  if (target != targets.end()) rejectFormat();
  if (!reader.atEnd()) {
    printDiagnostic("Extra data in SRP buffer\n");
    return SRPProtocolViolated;
  }
  return SRPDone;
}

}  // namespace florvane
