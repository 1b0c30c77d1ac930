#pragma once

#include "tools/Output.h"

#include <cstdint>
#include <string>

namespace florvane::tools {

// One line on the terminal that says how far something is, rewritten in place; nothing where standard error is no
// terminal, with --quiet and with --json. For one thread.
class ProgressBar {
 public:
  explicit ProgressBar(const Output& output);
  ~ProgressBar() { clear(); }
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  bool isShown() const { return isShown_; }
  // Bytes; a total of 0 or less is not known.
  void show(const std::string& what, std::int64_t done, std::int64_t total);
  // Before anything else is said.
  void clear();

 private:
  const bool isShown_;
  bool isDrawn_ = false;
};

}  // namespace florvane::tools
