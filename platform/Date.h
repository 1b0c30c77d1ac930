#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <ctime>
#include <string>

namespace florvane {

using Duration = std::chrono::microseconds;
using MonotonicTime = std::chrono::steady_clock::time_point;

// A moment of the calendar in whole microseconds since 1970-01-01T00:00:00Z, so that a date written to a file and
// read back compares equal. Monotonic deadlines are MonotonicTime, never Date.
class Date {
 public:
  constexpr Date() = default;
  static constexpr Date fromMicroseconds(std::int64_t microsecondsSince1970) {
    Date date;
    date.microseconds_ = microsecondsSince1970;
    return date;
  }
  static Date fromSeconds(double secondsSince1970);
  static Date fromTimespec(const timespec& time);
  static Date now();

  constexpr std::int64_t microsecondsSince1970() const { return microseconds_; }
  double secondsSince1970() const { return static_cast<double>(microseconds_) / 1e6; }
  timespec toTimespec() const;
  // RFC 3339 in UTC, with six fraction digits: "2026-11-22T20:41:00.000000Z".
  std::string description() const;

  friend constexpr auto operator<=>(Date, Date) = default;
  friend constexpr Duration operator-(Date a, Date b) { return Duration(a.microseconds_ - b.microseconds_); }
  friend constexpr Date operator+(Date date, Duration d) { return fromMicroseconds(date.microseconds_ + d.count()); }
  friend constexpr Date operator-(Date date, Duration d) { return fromMicroseconds(date.microseconds_ - d.count()); }

 private:
  std::int64_t microseconds_ = 0;
};

}  // namespace florvane
