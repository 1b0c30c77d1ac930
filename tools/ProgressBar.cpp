#include "tools/ProgressBar.h"

#include <algorithm>
#include <cstdio>

#include <sys/ioctl.h>
#include <unistd.h>

namespace florvane::tools {

namespace {

constexpr std::size_t kBarCells = 20, kFallbackColumns = 80;
constexpr std::int64_t kPercent = 100;

std::size_t columns() {
  winsize size{};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kFallbackColumns;
}

bool wantsProgress(const Output& output) {
  return !output.options().quiet && !output.options().json && isatty(STDERR_FILENO) == 1;
}

}  // namespace

ProgressBar::ProgressBar(const Output& output) : isShown_(wantsProgress(output)) {}

void ProgressBar::show(const std::string& what, std::int64_t done, std::int64_t total) {
  if (!isShown_) return;
  std::string line;
  if (total > 0) {
    const std::int64_t within = std::clamp<std::int64_t>(done, 0, total);
    const double share = static_cast<double>(within) / static_cast<double>(total);
    const auto filled = static_cast<std::size_t>(share * static_cast<double>(kBarCells));
    const auto percent = static_cast<std::int64_t>(share * static_cast<double>(kPercent));
    line = "[" + std::string(filled, '#') + std::string(kBarCells - filled, '.') + "] " + std::to_string(percent) +
           "% of " + humanSize(total) + "  ";
  } else {
    line = humanSize(done) + "  ";
  }
  line += printable(what);
  // A line that wraps could not be drawn over. Nothing is cut inside of a character.
  std::size_t end = std::min(line.size(), columns() - 1);
  while (end > 0 && end < line.size() && (static_cast<unsigned char>(line[end]) & 0xc0U) == 0x80U) --end;
  line.resize(end);
  std::fprintf(console(), "\r\x1b[K%s", line.c_str());
  isDrawn_ = true;
}

void ProgressBar::clear() {
  if (isDrawn_) std::fputs("\r\x1b[K", console());
  isDrawn_ = false;
}

}  // namespace florvane::tools
