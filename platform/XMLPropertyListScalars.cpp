#include "platform/XMLPropertyListScalars.h"

#include "platform/Encoding.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>

namespace florvane::xmlplist {

namespace {

constexpr std::string_view kWhiteSpace = " \t\n\r";

std::string_view trimmed(std::string_view text) {
  std::size_t first = text.find_first_not_of(kWhiteSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

bool takeCharacter(std::string_view& text, char character) {
  if (!text.starts_with(character)) return false;
  text.remove_prefix(1);
  return true;
}

// Takes the digits that come next, as many as the bounds allow.
bool takeDigits(std::string_view& text, std::size_t least, std::size_t most, int& number) {
  std::size_t count = 0;
  number = 0;
  for (; count < text.size() && count < most && text[count] >= '0' && text[count] <= '9'; ++count) {
    number = number * 10 + (text[count] - '0');
  }
  text.remove_prefix(count);
  return count >= least;
}

bool isXMLCharacter(char32_t point) {
  if (point < 0x20) return point == '\t' || point == '\n' || point == '\r';
  return point < 0xd800 || (point >= 0xe000 && point <= 0x10ffff && point != 0xfffe && point != 0xffff);
}

bool appendReference(std::string& text, std::string_view name) {
  struct Entity {
    std::string_view name;
    char character;
  };
  static constexpr std::array<Entity, 5> entities = {
      {{"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}}};
  if (!takeCharacter(name, '#')) {
    const auto* found =
        std::find_if(entities.begin(), entities.end(), [&](const Entity& entity) { return entity.name == name; });
    if (found == entities.end()) return false;
    text += found->character;
    return true;
  }
  int base = takeCharacter(name, 'x') ? 16 : 10;
  std::uint32_t point = 0;
  auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), point, base);
  if (error != std::errc() || end != name.data() + name.size() || !isXMLCharacter(point)) return false;
  appendUTF8(text, point);
  return true;
}

}  // namespace

bool isWhiteSpace(std::string_view text) { return text.find_first_not_of(kWhiteSpace) == std::string_view::npos; }

bool appendDecoded(std::string& text, std::string_view raw) {
  for (;;) {
    std::size_t ampersand = raw.find('&');
    text += raw.substr(0, ampersand);
    if (ampersand == std::string_view::npos) return true;
    raw.remove_prefix(ampersand + 1);
    // Bounded, so that a text of nothing but ampersands does not cost the square of its length.
    std::size_t semicolon = raw.substr(0, 32).find(';');
    if (semicolon == std::string_view::npos || !appendReference(text, raw.substr(0, semicolon))) return false;
    raw.remove_prefix(semicolon + 1);
  }
}

bool isHeldByXML(std::string_view text) {
  if (!isValidUTF8(text)) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 && !isXMLCharacter(byte)) return false;
    // U+FFFE and U+FFFF.
    if (byte == 0xef && text[i + 1] == '\xbf' && static_cast<unsigned char>(text[i + 2]) >= 0xbe) return false;
  }
  return true;
}

bool appendEncoded(std::string& xml, std::string_view text) {
  if (!isHeldByXML(text)) return false;
  for (;;) {
    std::size_t special = text.find_first_of("&<>\r");
    xml += text.substr(0, special);
    if (special == std::string_view::npos) return true;
    switch (text[special]) {
      case '&':
        xml += "&amp;";
        break;
      case '<':
        xml += "&lt;";
        break;
      case '>':
        xml += "&gt;";
        break;
      default:
        xml += "&#13;";  // a bare one would be read as a line feed
    }
    text.remove_prefix(special + 1);
  }
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
  text = trimmed(text);
  bool negative = takeCharacter(text, '-');
  if (!negative) takeCharacter(text, '+');
  int base = text.starts_with("0x") || text.starts_with("0X") ? 16 : 10;
  if (base == 16) text.remove_prefix(2);
  std::uint64_t magnitude = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
  std::uint64_t largest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) + (negative ? 1 : 0);
  if (error != std::errc() || end != text.data() + text.size() || magnitude > largest) return std::nullopt;
  return static_cast<std::int64_t>(negative ? -magnitude : magnitude);
}

std::optional<double> parseReal(std::string_view text) {
  text = trimmed(text);
  if (takeCharacter(text, '+') && text.starts_with('-')) return std::nullopt;
  double real = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), real);
  if (error == std::errc::result_out_of_range && end == text.data() + text.size()) {
    // Too large or too small for a double: infinity or zero, as the C library says.
    return std::strtod(std::string(text).c_str(), nullptr);
  }
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return real;
}

std::string formatReal(double real) {
  if (std::isnan(real)) return "nan";
  std::array<char, 40> text{};
  auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), real);
  return {text.data(), end};
}

std::optional<Date> parseDate(std::string_view text) {
  text = trimmed(text);
  tm calendar{};
  bool negative = takeCharacter(text, '-');
  if (!takeDigits(text, 4, 6, calendar.tm_year) || !takeCharacter(text, '-') ||
      !takeDigits(text, 2, 2, calendar.tm_mon) || !takeCharacter(text, '-') ||
      !takeDigits(text, 2, 2, calendar.tm_mday) || !takeCharacter(text, 'T') ||
      !takeDigits(text, 2, 2, calendar.tm_hour) || !takeCharacter(text, ':') ||
      !takeDigits(text, 2, 2, calendar.tm_min) || !takeCharacter(text, ':') ||
      !takeDigits(text, 2, 2, calendar.tm_sec)) {
    return std::nullopt;
  }
  int microseconds = 0;
  if (takeCharacter(text, '.')) {
    std::size_t length = text.size();
    if (!takeDigits(text, 1, 6, microseconds)) return std::nullopt;
    for (length -= text.size(); length < 6; ++length) microseconds *= 10;
    text.remove_prefix(std::min(text.find_first_not_of("0123456789"), text.size()));
  }
  if (text != "Z") return std::nullopt;

  if (negative) calendar.tm_year = -calendar.tm_year;
  calendar.tm_year -= 1900;
  calendar.tm_mon -= 1;
  tm wanted = calendar;
  std::int64_t seconds = timegm(&calendar);
  // timegm() carries what is out of range over into the next field; such a date is none.
  if (calendar.tm_mon != wanted.tm_mon || calendar.tm_mday != wanted.tm_mday || calendar.tm_hour != wanted.tm_hour ||
      calendar.tm_min != wanted.tm_min || calendar.tm_sec != wanted.tm_sec) {
    return std::nullopt;
  }
  constexpr std::int64_t limit = 9'223'372'036'854;
  if (seconds >= limit || seconds < -limit) return Date::fromMicroseconds((seconds < 0 ? -limit : limit) * 1'000'000);
  return Date::fromMicroseconds(seconds * 1'000'000 + microseconds);
}

std::string formatDate(Date date) {
  timespec time = date.toTimespec();
  tm calendar{};
  gmtime_r(&time.tv_sec, &calendar);
  int year = calendar.tm_year + 1900;
  std::array<char, 96> text{};
  int length =
      std::snprintf(text.data(), text.size(), "%s%04d-%02d-%02dT%02d:%02d:%02d", year < 0 ? "-" : "", std::abs(year),
                    calendar.tm_mon + 1, calendar.tm_mday, calendar.tm_hour, calendar.tm_min, calendar.tm_sec);
  std::string formatted(text.data(), static_cast<std::size_t>(length));
  if (time.tv_nsec) {
    std::snprintf(text.data(), text.size(), ".%06ld", time.tv_nsec / 1000);
    formatted += text.data();
  }
  return formatted + "Z";
}

std::optional<Data> parseData(std::string_view text) {
  std::string digits;
  digits.reserve(text.size());
  for (char character : text) {
    if (kWhiteSpace.find(character) == std::string_view::npos) digits += character;
  }
  return base64Decode(digits);
}

}  // namespace florvane::xmlplist
