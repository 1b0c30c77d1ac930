#pragma once

#include "platform/Date.h"

#include <ctime>

#include <sys/time.h>

namespace florvane {

// Conversions between a Date (microseconds), a timeval (seconds and microseconds) and a timespec (seconds and
// nanoseconds). The fraction is never negative. A time interval is in seconds.
class FVFTimeUtils {
 public:
  static void setTimeVal(timeval& timeVal, Date withDate);
  static void setTimeVal(timeval& timeVal, const timespec& withTimeSpec);
  static void setTimeSpec(timespec& timeSpec, Date withDate);
  static void setTimeSpec(timespec& timeSpec, const timeval& withTimeVal);
  static double timeIntervalWithTimeSpec(const timespec& timeSpec);
  static double timeIntervalWithTimeVal(const timeval& timeVal);
};

}  // namespace florvane
