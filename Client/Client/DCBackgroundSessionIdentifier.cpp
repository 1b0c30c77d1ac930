#include "Client/Client/DCBackgroundSessionIdentifier.h"

#include "Client/Client/DCPath.h"

#include <mutex>
#include <utility>

namespace florvane {

namespace {

struct MainBundle {
  std::mutex mutex;  // guards the identifier
  std::string identifier = DCFlorvaneBundleIdentifier;
};

MainBundle& mainBundle() {
  static auto& bundle = *new MainBundle;
  return bundle;
}

}  // namespace

std::string DCBackgroundSessionIdentifier(const DCService& service, std::string_view bundleIdentifier) {
  return service.uniqueIdentifier() + "~" + std::string(bundleIdentifier);
}

std::string DCMainBundleIdentifier() {
  MainBundle& bundle = mainBundle();
  std::lock_guard lock(bundle.mutex);
  return bundle.identifier;
}

void DCSetMainBundleIdentifier(std::string bundleIdentifier) {
  MainBundle& bundle = mainBundle();
  std::lock_guard lock(bundle.mutex);
  bundle.identifier = std::move(bundleIdentifier);
}

}  // namespace florvane
