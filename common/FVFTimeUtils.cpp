#include "common/FVFTimeUtils.h"

namespace florvane {

void FVFTimeUtils::setTimeVal(timeval& timeVal, Date withDate) { setTimeVal(timeVal, withDate.toTimespec()); }

void FVFTimeUtils::setTimeVal(timeval& timeVal, const timespec& withTimeSpec) {
  timeVal.tv_sec = withTimeSpec.tv_sec;
  timeVal.tv_usec = withTimeSpec.tv_nsec / 1000;
}

void FVFTimeUtils::setTimeSpec(timespec& timeSpec, Date withDate) { timeSpec = withDate.toTimespec(); }

void FVFTimeUtils::setTimeSpec(timespec& timeSpec, const timeval& withTimeVal) {
  timeSpec.tv_sec = withTimeVal.tv_sec;
  timeSpec.tv_nsec = withTimeVal.tv_usec * 1000;
}

double FVFTimeUtils::timeIntervalWithTimeSpec(const timespec& timeSpec) {
  return static_cast<double>(timeSpec.tv_sec) + static_cast<double>(timeSpec.tv_nsec) / 1e9;
}

double FVFTimeUtils::timeIntervalWithTimeVal(const timeval& timeVal) {
  return static_cast<double>(timeVal.tv_sec) + static_cast<double>(timeVal.tv_usec) / 1e6;
}

}  // namespace florvane
