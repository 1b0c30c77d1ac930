#pragma once

#include "platform/Format.h"

#include <cstdio>
#include <string>
#include <string_view>

namespace florvane {

// What goes wrong below the steps is said on standard error: the step's own error detail is too coarse to find out why
// two implementations do not understand each other. Never with a secret.
template <typename... Args>
void printDiagnostic(std::string_view text, const Args&... arguments) {
  std::string line = format(text, arguments...);
  if (!line.ends_with('\n')) line += '\n';
  std::fputs(line.c_str(), stderr);
}

}  // namespace florvane
