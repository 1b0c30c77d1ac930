#pragma once

#include <functional>
#include <string_view>

namespace florvane {

// A failed condition that is reported while the work goes on. Layers below the log report through this; the log layer
// installs its own writer with setSoftAssertionHandler, before that standard error is used.
using SoftAssertionHandler = void (*)(std::string_view source, unsigned line, std::string_view condition);

// Thread-safe. Null restores the default.
void setSoftAssertionHandler(SoftAssertionHandler handler);
void reportSoftAssertion(std::string_view source, unsigned line, std::string_view condition);

}  // namespace florvane
