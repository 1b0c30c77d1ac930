#pragma once

#include "platform/BigNumber.h"
#include "platform/Data.h"

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace florvane {

// The framing of the mechanism's messages: 4 bytes with the length of the rest, then fields as a format text lists
// them. All integers are big-endian.
//   %m number   2-byte length, shortest bytes     %o bytes  1-byte length, bytes     %s text  2-byte length, UTF-8
//   %u 32 bits  4 bytes                           %q 64 bits  8 bytes                %c byte  1 byte
// When reading, %-o and the like give a view into the input instead of a copy.

using SRPFieldValue = std::variant<std::reference_wrapper<const BigNumber>,  // %m
                                   std::span<const std::uint8_t>,            // %o
                                   std::string_view,                         // %s
                                   std::uint32_t,                            // %u
                                   std::uint64_t,                            // %q
                                   std::uint8_t>;                            // %c
using SRPFieldTarget = std::variant<Data*,                                   // %m, %o
                                    std::span<const std::uint8_t>*,          // %-m, %-o, %-s
                                    std::string*,                            // %s
                                    std::uint32_t*,                          // %u
                                    std::uint64_t*,                          // %q
                                    std::uint8_t*>;                          // %c

// Both return 0 or a negative result and say on standard error what does not fit. A format that does not go with its
// arguments throws InvalidArgumentException.
int MakeBuffer(std::vector<std::uint8_t>& buffer, std::string_view format, std::initializer_list<SRPFieldValue> values);
// Numbers are given by their bytes as they were sent. Targets may have been written to when reading fails.
int UnBuffer(std::span<const std::uint8_t> buffer, std::string_view format,
             std::initializer_list<SRPFieldTarget> targets);

}  // namespace florvane
