#include "platform/Encoding.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include <openssl/evp.h>
#include <openssl/rand.h>

namespace florvane {

namespace {

int hexDigit(char character) {
  if (character >= '0' && character <= '9') return character - '0';
  if (character >= 'a' && character <= 'f') return character - 'a' + 10;
  if (character >= 'A' && character <= 'F') return character - 'A' + 10;
  return -1;
}

// Groups of three bytes or four digits handed to OpenSSL at once: it counts in int.
constexpr std::size_t kBase64Piece = std::size_t{1} << 24;

bool isBase64Character(char character) {
  return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z') ||
         (character >= '0' && character <= '9') || character == '+' || character == '/';
}

}  // namespace

std::string hexEncode(const Data& data) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(data.size() * 2);
  for (std::uint8_t byte : data) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

std::optional<Data> hexDecode(std::string_view text) {
  if (text.size() % 2 != 0) return std::nullopt;
  std::vector<std::uint8_t> bytes(text.size() / 2);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    int high = hexDigit(text[2 * i]);
    int low = hexDigit(text[2 * i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes[i] = static_cast<std::uint8_t>(high << 4 | low);
  }
  return Data(bytes);
}

std::string base64Encode(const Data& data) {
  std::string text((data.size() + 2) / 3 * 4, '\0');
  for (std::size_t at = 0; at < data.size(); at += kBase64Piece * 3) {
    // OpenSSL ends each piece with a zero byte, which the next piece covers; the last lands on the string's own.
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()) + at / 3 * 4, data.bytes() + at,
                    static_cast<int>(std::min(data.size() - at, kBase64Piece * 3)));
  }
  return text;
}

std::optional<Data> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  if (text.empty()) return Data();
  std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
  for (char character : text.substr(0, text.size() - padding)) {
    if (!isBase64Character(character)) return std::nullopt;
  }
  std::vector<std::uint8_t> bytes(text.size() / 4 * 3);
  for (std::size_t at = 0; at < text.size(); at += kBase64Piece * 4) {
    int length = EVP_DecodeBlock(bytes.data() + at / 4 * 3, reinterpret_cast<const unsigned char*>(text.data()) + at,
                                 static_cast<int>(std::min(text.size() - at, kBase64Piece * 4)));
    if (length < 0) return std::nullopt;
  }
  return Data(bytes.data(), bytes.size() - padding);
}

bool isValidUTF8(std::string_view text) {
  const auto* at = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = at + text.size();
  while (at < end) {
    unsigned char lead = *at++;
    if (lead < 0x80) continue;
    int more = lead >= 0xf0 ? 3 : lead >= 0xe0 ? 2 : 1;
    if (lead < 0xc2 || lead > 0xf4 || end - at < more) return false;
    // The first byte that follows has a narrower range where a longer form, a surrogate or a point beyond U+10FFFF
    // hides.
    unsigned char low = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
    unsigned char high = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
    if (*at < low || *at > high) return false;
    for (++at; --more > 0; ++at) {
      if ((*at & 0xc0) != 0x80) return false;
    }
  }
  return true;
}

void appendUTF8(std::string& text, char32_t point) {
  if (point < 0x80) {
    text += static_cast<char>(point);
    return;
  }
  int more = point < 0x800 ? 1 : point < 0x10000 ? 2 : 3;
  unsigned lead = more == 1 ? 0xc0 : more == 2 ? 0xe0 : 0xf0;
  text += static_cast<char>(lead | point >> (6 * more));
  while (more-- > 0) text += static_cast<char>(0x80 | (point >> (6 * more) & 0x3f));
}

std::u16string utf16FromUTF8(std::string_view text) {
  std::u16string units;
  units.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    auto lead = static_cast<unsigned char>(text[i++]);
    int more = lead < 0x80 ? 0 : lead < 0xe0 ? 1 : lead < 0xf0 ? 2 : 3;
    char32_t point = more == 0 ? lead : lead & (0x3fU >> more);
    for (; more > 0 && i < text.size(); --more) point = point << 6 | (static_cast<unsigned char>(text[i++]) & 0x3f);
    if (point < 0x10000) {
      units += static_cast<char16_t>(point);
    } else {
      units += static_cast<char16_t>(0xd7c0 + (point >> 10));
      units += static_cast<char16_t>(0xdc00 + (point & 0x3ff));
    }
  }
  return units;
}

std::string makeUUID() {
  std::array<std::uint8_t, 16> bytes{};
  if (RAND_bytes(bytes.data(), bytes.size()) != 1) throw std::bad_alloc();
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0f) | 0x40);
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3f) | 0x80);
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    std::array<char, 3> digits{};
    std::snprintf(digits.data(), digits.size(), "%02X", bytes[i]);
    text += digits.data();
  }
  return text;
}

bool isUUID(std::string_view text) {
  if (text.size() != 36) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    bool isDash = i == 8 || i == 13 || i == 18 || i == 23;
    if (isDash ? text[i] != '-' : hexDigit(text[i]) < 0) {
      return false;
    }
  }
  return true;
}

}  // namespace florvane
