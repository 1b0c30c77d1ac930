#pragma once

#include "platform/Data.h"

#include <optional>
#include <string>
#include <string_view>

namespace florvane {

// Lower-case hexadecimal, two digits a byte.
std::string hexEncode(const Data& data);
// Either case; absent for an odd length or a character that is no digit.
std::optional<Data> hexDecode(std::string_view text);
// Standard alphabet with padding, no line breaks.
std::string base64Encode(const Data& data);
// Strict: absent when a character is not of the alphabet, the length is no multiple of four or the padding is wrong.
std::optional<Data> base64Decode(std::string_view text);
bool isValidUTF8(std::string_view text);
// One code point, which must be no surrogate and at most U+10FFFF.
void appendUTF8(std::string& text, char32_t point);
// Of valid UTF-8 only.
std::u16string utf16FromUTF8(std::string_view text);
// A random (version 4) UUID, upper-case: "8C3F0B1E-...".
std::string makeUUID();
// 36 characters of that form, in either case.
bool isUUID(std::string_view text);

}  // namespace florvane
