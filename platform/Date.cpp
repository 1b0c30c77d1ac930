#include "platform/Date.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace florvane {

namespace {

constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;

std::int64_t floorSeconds(std::int64_t microseconds) {
  std::int64_t seconds = microseconds / kMicrosecondsPerSecond;
  return microseconds % kMicrosecondsPerSecond < 0 ? seconds - 1 : seconds;
}

}  // namespace

Date Date::fromSeconds(double secondsSince1970) {
  // Dates from outside may hold anything: far ones are clamped, and what is no number is the epoch.
  constexpr double limit = 9.0e12;
  if (!(secondsSince1970 >= -limit)) return fromMicroseconds(secondsSince1970 < 0 ? -9'000'000'000'000'000'000 : 0);
  return fromMicroseconds(std::llround(std::min(secondsSince1970, limit) * 1e6));
}

Date Date::fromTimespec(const timespec& time) {
  return fromMicroseconds(static_cast<std::int64_t>(time.tv_sec) * kMicrosecondsPerSecond + time.tv_nsec / 1000);
}

Date Date::now() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  return fromTimespec(time);
}

timespec Date::toTimespec() const {
  timespec time{};
  time.tv_sec = floorSeconds(microseconds_);
  time.tv_nsec = (microseconds_ - time.tv_sec * kMicrosecondsPerSecond) * 1000;
  return time;
}

std::string Date::description() const {
  timespec time = toTimespec();
  tm calendar{};
  gmtime_r(&time.tv_sec, &calendar);
  std::array<char, 80> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", calendar.tm_year + 1900,
                calendar.tm_mon + 1, calendar.tm_mday, calendar.tm_hour, calendar.tm_min, calendar.tm_sec,
                time.tv_nsec / 1000);
  return text.data();
}

}  // namespace florvane
