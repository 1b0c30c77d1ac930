#pragma once

#include <cstdint>
#include <string>

#include <tl/expected.hpp>

namespace florvane {

// Why the store refused or failed: the HTTP status that says the same, and a sentence for people.
enum class StoreStatus : std::uint16_t {
  BadRequest = 400,
  Forbidden = 403,
  NotFound = 404,
  Conflict = 409,
  Internal = 500,
  NoSpace = 507,
};
struct StoreError {
  StoreStatus status;
  std::string sentence;
};
template <typename T>
using StoreResult = tl::expected<T, StoreError>;

}  // namespace florvane
