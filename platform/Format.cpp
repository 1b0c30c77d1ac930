#include "platform/Format.h"

#include <array>
#include <cstdio>

namespace florvane {

namespace {

// The length of the conversion that starts behind a '%', and its kind: '@', 's', 'i', 'u', 'p', '%', or 0 for none.
struct Conversion {
  char kind = 0;
  std::size_t length = 0;
};

Conversion conversionAt(std::string_view rest) {
  std::size_t modifiers = rest.find_first_not_of("lzh");
  if (modifiers > 2) return {};  // nothing but modifiers included
  char letter = rest[modifiers];
  std::size_t length = modifiers + 1;
  if (letter == 'd' || letter == 'i') return {'i', length};
  if (letter == 'u') return {'u', length};
  if (modifiers == 0 && (letter == '@' || letter == 's' || letter == 'p' || letter == '%')) return {letter, length};
  return {};
}

std::string hexAddress(std::uint64_t address) {
  std::array<char, 24> text{};
  std::snprintf(text.data(), text.size(), "0x%llx", static_cast<unsigned long long>(address));
  return text.data();
}

std::string hexAddress(const void* address) { return hexAddress(reinterpret_cast<std::uintptr_t>(address)); }

}  // namespace

void FormatArgument::appendObject(std::string& out) const {
  if (std::holds_alternative<Null>(value_)) {
    out += "(null)";
  } else if (std::holds_alternative<Address>(value_)) {
    out += hexAddress(address_);
  } else if (const auto* text = std::get_if<std::string>(&value_)) {
    out += *text;
  } else if (isBoolean_) {
    out += std::get<std::int64_t>(value_) ? "true" : "false";
  } else if (const auto* real = std::get_if<double>(&value_)) {
    std::array<char, 40> digits{};
    std::snprintf(digits.data(), digits.size(), "%g", *real);
    out += digits.data();
  } else {
    appendInteger(out, std::holds_alternative<std::uint64_t>(value_));
  }
}

void FormatArgument::appendInteger(std::string& out, bool isUnsigned) const {
  if (const auto* number = std::get_if<std::int64_t>(&value_)) {
    out += isUnsigned ? std::to_string(static_cast<std::uint64_t>(*number)) : std::to_string(*number);
  } else if (const auto* natural = std::get_if<std::uint64_t>(&value_)) {
    out += std::to_string(*natural);
  } else if (const auto* real = std::get_if<double>(&value_)) {
    out += std::to_string(static_cast<long long>(*real));
  } else {
    appendObject(out);
  }
}

void FormatArgument::appendPointer(std::string& out) const {
  if (const auto* natural = std::get_if<std::uint64_t>(&value_)) {
    out += hexAddress(*natural);
  } else {
    out += hexAddress(address_);
  }
}

std::string formatWithArguments(std::string_view text, std::initializer_list<FormatArgument> arguments) {
  std::string out;
  out.reserve(text.size() + 16 * arguments.size());
  const auto* argument = arguments.begin();
  while (!text.empty()) {
    std::size_t percent = text.find('%');
    out += text.substr(0, percent);
    if (percent == std::string_view::npos) break;
    text.remove_prefix(percent + 1);
    Conversion conversion = conversionAt(text);
    text.remove_prefix(conversion.length);
    if (conversion.kind == 0 || conversion.kind == '%') {
      out += '%';
      continue;
    }
    if (argument == arguments.end()) {
      out += "(null)";
      continue;
    }
    switch (conversion.kind) {
      case 'i':
        argument->appendInteger(out, false);
        break;
      case 'u':
        argument->appendInteger(out, true);
        break;
      case 'p':
        argument->appendPointer(out);
        break;
      default:
        argument->appendObject(out);
        break;
    }
    ++argument;
  }
  return out;
}

std::string baseDescription(std::string_view className, const void* object) {
  return "<" + std::string(className) + ": " + hexAddress(object) + ">";
}

}  // namespace florvane
