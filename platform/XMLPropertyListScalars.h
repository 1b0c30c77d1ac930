#pragma once

#include "platform/Data.h"
#include "platform/Date.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The texts of a property list's scalars in the XML form. White space around numbers and dates, and anywhere in data,
// means nothing; a text that is none of its kind is absent.
namespace florvane::xmlplist {

bool isWhiteSpace(std::string_view text);
// Replaces the five named entities and numeric references; false for anything else after an ampersand.
bool appendDecoded(std::string& text, std::string_view raw);
// False when the text is no UTF-8 or has a character that XML cannot hold.
bool appendEncoded(std::string& xml, std::string_view text);
bool isHeldByXML(std::string_view text);

// Decimal or, after "0x", hexadecimal; signed.
std::optional<std::int64_t> parseInteger(std::string_view text);
std::optional<double> parseReal(std::string_view text);
std::string formatReal(double real);
// RFC 3339 in UTC. Fraction digits beyond microseconds are dropped; the year may be signed and longer than four
// digits, and one so far that Date cannot hold it is clamped.
std::optional<Date> parseDate(std::string_view text);
// With six fraction digits where the date has a fraction, otherwise none.
std::string formatDate(Date date);
std::optional<Data> parseData(std::string_view text);

}  // namespace florvane::xmlplist
