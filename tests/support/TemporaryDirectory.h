#pragma once

#include <string>

namespace florvane::test {

// A fresh folder of a test's own, removed with everything in it at the end.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Whole files, for arranging and checking; a failure throws.
void writeText(const std::string& path, const std::string& text);
std::string readText(const std::string& path);

}  // namespace florvane::test
