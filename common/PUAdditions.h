#pragma once

#include "platform/Data.h"

#include <optional>
#include <string>
#include <string_view>

namespace florvane {

// Lower-case hexadecimal, two digits a byte; "" for empty data.
std::string pu_hex(const Data& data);
// Either case. Absent for no text, an odd length or a character that is no digit; empty data for the empty text.
std::optional<Data> pu_dataFromHexString(const std::optional<std::string_view>& text);
// -1, 0 or 1: shorter byte strings first (an absent one counts as empty), equal lengths by unsigned bytes.
int fv_compare(const Data& data, const std::optional<Data>& with);

}  // namespace florvane
