#include "platform/SoftAssertion.h"

#include <atomic>
#include <cstdio>

namespace florvane {

namespace {

std::atomic<SoftAssertionHandler> installedHandler = nullptr;

}  // namespace

void setSoftAssertionHandler(SoftAssertionHandler handler) { installedHandler = handler; }

void reportSoftAssertion(std::string_view source, unsigned line, std::string_view condition) {
  if (SoftAssertionHandler handler = installedHandler.load()) {
    handler(source, line, condition);
    return;
  }
  std::fprintf(stderr, "%.*s:%u: failed assertion '%.*s'\n", static_cast<int>(source.size()), source.data(), line,
               static_cast<int>(condition.size()), condition.data());
}

}  // namespace florvane
