#pragma once

#include "platform/FileCoordinator.h"

#include <fstream>
#include <string>

namespace florvane::test {

// Adds 1 to the number in a file, that many times, in a way that loses counts unless writers exclude each other.
inline bool incrementCoordinated(const FileCoordinator& coordinator, const URL& url, int count) {
  for (int index = 0; index < count; ++index) {
    auto done = coordinator.coordinateWritingItemAtURL(url, FileCoordinatorWritingOptions::None, [](const URL& item) {
      long number = 0;
      std::ifstream(item.path()) >> number;
      std::ofstream(item.path()) << number + 1;
    });
    if (!done) return false;
  }
  return true;
}

}  // namespace florvane::test
