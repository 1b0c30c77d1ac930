#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace florvane {

// One message for the system's log: syslog level 0 to 7, text, and fields (name, value) such as {"Facility", "..."}.
struct SystemLogMessage {
  int level = 6;
  std::string text;
  std::vector<std::pair<std::string, std::string>> fields;
};

// The system's log: the journal where it runs, with fields in upper case and underscores; otherwise nowhere.
// Thread-safe.
class SystemLog {
 public:
  virtual ~SystemLog() = default;
  virtual void write(const SystemLogMessage& message) = 0;

  static SystemLog& shared();
  // Puts another sink in place for the rest of the process, or until null restores the system's; the caller keeps it
  // alive. Tests and tools that show the log use it.
  static void setShared(SystemLog* sink);
};

}  // namespace florvane
