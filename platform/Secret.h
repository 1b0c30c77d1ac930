#pragma once

#include "platform/Data.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace florvane {

// Bytes that must not be seen: passwords, cookies, keys. Prints as "<32 bytes>" wherever it is formatted, and its
// memory is cleansed when it goes.
class Secret {
 public:
  Secret() = default;
  explicit Secret(std::string_view bytes) : bytes_(bytes) {}
  explicit Secret(std::span<const std::uint8_t> bytes)
      : bytes_(reinterpret_cast<const char*>(bytes.data()), bytes.size()) {}
  Secret(const Secret& other) = default;
  Secret(Secret&& other) noexcept;
  Secret& operator=(Secret other) noexcept;
  ~Secret();

  // The bytes themselves, for the one who sends or stores them; valid while this value lives.
  std::string_view reveal() const noexcept { return bytes_; }
  std::span<const std::uint8_t> revealSpan() const noexcept {
    return {reinterpret_cast<const std::uint8_t*>(bytes_.data()), bytes_.size()};
  }
  Data revealData() const { return Data::fromString(bytes_); }
  std::size_t size() const noexcept { return bytes_.size(); }
  bool empty() const noexcept { return bytes_.empty(); }
  std::string description() const;
  // In constant time for equal lengths.
  friend bool operator==(const Secret& a, const Secret& b) noexcept;

 private:
  std::string bytes_;
};

}  // namespace florvane
