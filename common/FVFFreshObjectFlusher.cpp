#include "common/FVFFreshObjectFlusher.h"

#include <algorithm>
#include <utility>

namespace florvane {

void FVFFreshObjectFlusher::renew(WorkItem flush) {
  // A lifetime beyond what the clock can count (an infinite one, too) is as good as a century.
  constexpr FVFObjectLifetime kLongest = std::chrono::hours(24 * 365 * 100);
  auto delay = std::chrono::duration_cast<Duration>(std::min(lifetime_, kLongest));
  timer_ = clock_.schedule(clock_.monotonicNow() + delay, delay / 10, std::move(flush));
}

}  // namespace florvane
