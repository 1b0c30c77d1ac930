#pragma once

#include "Client/Client/DCService.h"

#include <string>
#include <string_view>

namespace florvane {

// The name of the background transfer session of a service and an application: the service's unique identifier, "~",
// the bundle identifier. Thread-safe.
std::string DCBackgroundSessionIdentifier(const DCService& service, std::string_view bundleIdentifier);

// The bundle identifier of this process's application; "quorl.Florvane" unless set, which is to be done before first
// use. Thread-safe.
std::string DCMainBundleIdentifier();
void DCSetMainBundleIdentifier(std::string bundleIdentifier);

}  // namespace florvane
