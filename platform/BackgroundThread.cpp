#include "platform/BackgroundThread.h"

#include "platform/Format.h"
#include "platform/SoftAssertion.h"

#include <exception>
#include <thread>

#include <pthread.h>

namespace florvane {

namespace {

constexpr std::size_t kLongestThreadName = 15;

}  // namespace

void runGuarded(WorkItem& item, const std::string& owner) noexcept {
  try {
    item();
  } catch (const std::exception& exception) {
    reportSoftAssertion("platform/BackgroundThread", __LINE__,
                        format("item of '%@' throws nothing: %s", owner, exception.what()));
  } catch (...) {
    reportSoftAssertion("platform/BackgroundThread", __LINE__, format("item of '%@' throws nothing", owner));
  }
}

void startBackgroundThread(const std::string& name, WorkItem body) {
  std::thread([name, body = std::move(body)]() mutable {
    pthread_setname_np(pthread_self(), name.substr(0, kLongestThreadName).c_str());
    runGuarded(body, name);
  }).detach();
}

}  // namespace florvane
