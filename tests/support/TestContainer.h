#pragma once

#include "tests/support/TemporaryDirectory.h"

#include <cstdlib>
#include <string>

namespace florvane::test {

// A container of the test's own, for tests that use what a process sets up only once (logging, paths, preferences):
// ctest runs each of them in a process of its own. To be made before any of that is used. Background transfers run
// inside the test unless it names the agent's program ($FLORVANE_TRANSFERD) itself, so that none outlives it.
class TestContainer {
 public:
  TestContainer() {
    setenv("FLORVANE_CONTAINER", path().c_str(), 1);
    setenv("FLORVANE_TRANSFERD", "/nonexistent", 0);
  }
  const std::string& path() const { return directory_.path(); }
  std::string file(const std::string& name) const { return directory_.file(name); }

 private:
  TemporaryDirectory directory_;
};

}  // namespace florvane::test
