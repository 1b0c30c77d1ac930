#include "tests/support/TemporaryDirectory.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace florvane::test {

TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = std::filesystem::temp_directory_path() / "florvane-test-XXXXXX";
  if (!mkdtemp(pattern.data())) throw std::system_error(errno, std::generic_category(), pattern);
  path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void writeText(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace florvane::test
