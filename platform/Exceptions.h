#pragma once

#include <stdexcept>
#include <string>

namespace florvane {

// Misuse by the programmer. Never used for what can go wrong at run time: that is an Error.
class Exception : public std::runtime_error {
 public:
  Exception(std::string name, const std::string& reason) : std::runtime_error(reason), name_(std::move(name)) {}
  const std::string& name() const { return name_; }
  std::string reason() const { return what(); }

 private:
  std::string name_;
};

struct InvalidArgumentException : Exception {
  explicit InvalidArgumentException(const std::string& reason) : Exception("InvalidArgumentException", reason) {}
};

struct InternalInconsistencyException : Exception {
  explicit InternalInconsistencyException(const std::string& reason)
      : Exception("InternalInconsistencyException", reason) {}
};

struct ObjectNotAvailableException : Exception {
  explicit ObjectNotAvailableException(const std::string& reason) : Exception("ObjectNotAvailableException", reason) {}
};

}  // namespace florvane
