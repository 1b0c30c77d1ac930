#pragma once

#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCService.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace florvane {

// A local file whose bytes the server does not have.
struct DCUnsentFile {
  std::string relativePath;
  std::string filePath;
};

// Bytes that were never sent, and the place where they are kept when the cache must let them go. Thread-safe.
class DCUnsentFiles {
 public:
  // Those of a service, found from its folders and its store alone, in the order of their paths: files with an upload
  // record, files at the staging places, and files that are not as they were at the last exchange with the server. A
  // file of which nothing is recorded is unsent unless it has the size and the date that the server gave it. Also for a
  // service whose account is gone.
  static std::vector<DCUnsentFile> unsentFilesOfService(const std::shared_ptr<DCService>& service,
                                                        DCDatabase& database);
  // Moves one file into the container's "Recovered" folder, under its relative path with that date behind, and says so
  // in the log; the path where it lies now. Both names are on stable storage on return. An error leaves it where it
  // was.
  static Result<std::string> recoverFile(const DCUnsentFile& file, Date date);
  // Each of them; the first error ends it. Fine when there are none.
  static Result<std::vector<std::string>> recoverFiles(const std::vector<DCUnsentFile>& files, Date date);
  // "Recovered" of the container; absent without one.
  static std::optional<std::string> directory();
};

}  // namespace florvane
