#pragma once

#include "Client/Client/Florvane.h"

#include <chrono>
#include <cstddef>
#include <string>

namespace florvane::bench {

// What the programs that bench/compare runs have in common.

// Ends the process with a sentence.
[[noreturn]] void fail(const std::string& what);

// One JSON object on a line, with the milliseconds since and the peak of the process's memory in mebibytes.
void report(const std::string& what, std::chrono::steady_clock::time_point since, std::size_t items);
void report(const std::string& what, double milliseconds, std::size_t items);

// A document manager of the account that answers on a queue of its own.
class Client {
 public:
  explicit Client(const std::string& accountName);

  const std::shared_ptr<DCService>& service() const { return service_; }
  DCDocumentManager& manager() const { return *manager_; }

  Array list(const std::string& path, bool waitsForServer) const;
  // The directories above a path have to be known before it can be asked for.
  void listAncestors(const std::string& path) const;

 private:
  std::shared_ptr<DCService> service_;
  DCDocumentManager::Ptr manager_;
};

}  // namespace florvane::bench
