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

// What the journal is given for a message, each "NAME=value": MESSAGE, PRIORITY, SYSLOG_IDENTIFIER (the program's name)
// and the message's own fields under names of ours, so that they hide none of the journal's: "ThreadID" becomes
// FLORVANE_THREAD_ID.
std::vector<std::string> journalFields(const SystemLogMessage& message);

// The system's log: the journal where it runs; otherwise nowhere. Thread-safe.
class SystemLog {
 public:
  virtual ~SystemLog() = default;
  // Never waits for the journal: a thread sends what was written, in order. When the journal stands still messages are
  // dropped and counted; the end of the process waits at most a second for those that are left.
  virtual void write(const SystemLogMessage& message) = 0;

  static SystemLog& shared();
  // Puts another sink in place for the rest of the process, or until null restores the system's; the caller keeps it
  // alive. Tests and tools that show the log use it.
  static void setShared(SystemLog* sink);
};

}  // namespace florvane
