#include "platform/ApplicationRegistry.h"

namespace florvane {

// There is one application, and it is built and installed together with this library.
std::optional<std::string> bundleVersionOfApplication(std::string_view bundleIdentifier) {
  if (bundleIdentifier != "quorl.Florvane") return std::nullopt;
  return FLORVANE_BUNDLE_VERSION;
}

}  // namespace florvane
