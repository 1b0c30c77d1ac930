#pragma once

#include "platform/Error.h"

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

namespace florvane {

template <typename T>
concept Describable = requires(const T& value) {
  { value.description() } -> std::convertible_to<std::string>;
};

// One argument of format(), already in a form that any conversion can render.
class FormatArgument {
 public:
  FormatArgument(std::nullptr_t) : value_(Null{}) {}
  FormatArgument(bool value) : value_(static_cast<std::int64_t>(value)), isBoolean_(true) {}
  template <std::signed_integral T>
  FormatArgument(T value) : value_(static_cast<std::int64_t>(value)) {}
  template <std::unsigned_integral T>
    requires(!std::is_same_v<T, bool>)
  FormatArgument(T value) : value_(static_cast<std::uint64_t>(value)) {}
  template <typename T>
    requires std::is_enum_v<T>
  FormatArgument(T value) : FormatArgument(static_cast<std::underlying_type_t<T>>(value)) {}
  FormatArgument(double value) : value_(value) {}
  FormatArgument(const char* text) : value_(Null{}) {
    if (text) value_ = std::string(text);
  }
  FormatArgument(std::string_view text) : value_(std::string(text)) {}
  FormatArgument(const std::string& text) : value_(text) {}
  template <Describable T>
  FormatArgument(const T& value) : value_(std::string(value.description())) {}
  template <typename T>
  FormatArgument(const std::optional<T>& value) : value_(Null{}) {
    if (value) *this = FormatArgument(*value);
  }
  // A pointer to something with a description() is described; any other is an address.
  template <typename T>
  FormatArgument(const std::shared_ptr<T>& value) : FormatArgument(static_cast<const T*>(value.get())) {}
  template <typename T>
  FormatArgument(const T* value) : value_(Null{}) {
    if (!value) return;
    address_ = value;
    if constexpr (Describable<T>) {
      value_ = std::string(value->description());
    } else {
      value_ = Address{};
    }
  }

  bool isNull() const { return std::holds_alternative<Null>(value_); }
  void appendObject(std::string& out) const;                    // %@ and %s
  void appendInteger(std::string& out, bool isUnsigned) const;  // %d %u %ld %lld %lu %llu
  void appendPointer(std::string& out) const;                   // %p

 private:
  struct Null {};
  struct Address {};
  std::variant<Null, Address, std::int64_t, std::uint64_t, double, std::string> value_;
  const void* address_ = nullptr;
  bool isBoolean_ = false;
};

// Renders a format text: %@ and %s any printable value ("(null)" when absent), %d %u %ld %lld %lu %llu %zu integers,
// %p an address, %% a percent sign. Nothing else is interpreted; a missing argument renders as "(null)".
std::string formatWithArguments(std::string_view text, std::initializer_list<FormatArgument> arguments);

template <typename... Args>
std::string format(std::string_view text, const Args&... arguments) {
  return formatWithArguments(text, {FormatArgument(arguments)...});
}

// "<DCService: 0x55d0c0ffee00>": the default object description.
std::string baseDescription(std::string_view className, const void* object);

}  // namespace florvane
