#include "platform/SystemLog.h"

#include "platform/BackgroundThread.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <system_error>

#include <sys/uio.h>
#include <unistd.h>

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

namespace florvane {

namespace {

constexpr char kJournalSocket[] = "/run/systemd/journal/socket";
constexpr char kFieldPrefix[] = "FLORVANE_";
constexpr std::size_t kLongestFieldName = 64;  // the journal drops longer ones
constexpr std::size_t kMostWaitingMessages = 4096;
constexpr std::size_t kMostWaitingBytes = std::size_t{4} << 20;
constexpr auto kLongestWaitAtExit = std::chrono::seconds(1);

bool isUpper(char character) { return std::isupper(static_cast<unsigned char>(character)) != 0; }

std::string journalFieldName(std::string_view name) {
  std::string result = kFieldPrefix;
  for (std::size_t i = 0; i < name.size(); ++i) {
    auto character = static_cast<unsigned char>(name[i]);
    bool startsWord =
        i > 0 && isUpper(name[i]) && (!isUpper(name[i - 1]) || (i + 1 < name.size() && !isUpper(name[i + 1])));
    if (startsWord && !result.ends_with('_')) result += '_';
    bool isPlain = character < 128 && std::isalnum(character);
    result += isPlain ? static_cast<char>(std::toupper(character)) : '_';
  }
  return result.substr(0, kLongestFieldName);
}

using Entry = std::vector<std::string>;

void send(const Entry& entry) {
  std::vector<iovec> fields;
  fields.reserve(entry.size());
  // The call's type says that it could change the bytes; it only sends them.
  for (const auto& field : entry) fields.push_back({const_cast<char*>(field.data()), field.size()});
  sd_journal_sendv(fields.data(), static_cast<int>(fields.size()));
}

std::size_t byteCount(const Entry& entry) {
  std::size_t count = 0;
  for (const auto& field : entry) count += field.size();
  return count;
}

class JournalLog : public SystemLog {
 public:
  void write(const SystemLogMessage& message) override {
    if (access(kJournalSocket, F_OK) != 0) return;
    Entry entry = journalFields(message);
    std::size_t size = byteCount(entry);
    std::lock_guard lock(mutex_);
    if (waiting_.size() >= kMostWaitingMessages || waitingBytes_ + size > kMostWaitingBytes || !startSender()) {
      ++lostMessages_;
      return;
    }
    waiting_.push_back(std::move(entry));
    waitingBytes_ += size;
    changed_.notify_all();
  }

  void waitUntilSent() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kLongestWaitAtExit, [&] { return waiting_.empty() && !isSending_; });
  }

  static JournalLog& instance();

 private:
  bool startSender() {
    if (isStarted_) return true;
    try {
      startBackgroundThread("system log", [this] { sendForever(); });
    } catch (const std::system_error&) {
      return false;  // tried again with the next message
    }
    std::atexit([] { instance().waitUntilSent(); });
    isStarted_ = true;
    return true;
  }

  void sendForever() {
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [&] { return !waiting_.empty(); });
      Entry entry = std::move(waiting_.front());
      waiting_.pop_front();
      waitingBytes_ -= byteCount(entry);
      std::size_t lost = std::exchange(lostMessages_, 0);
      isSending_ = true;
      lock.unlock();
      if (lost > 0) send(journalFields({4, std::to_string(lost) + " messages were lost", {}}));
      send(entry);
      lock.lock();
      isSending_ = false;
      changed_.notify_all();
    }
  }

  std::mutex mutex_;  // guards all fields
  std::condition_variable changed_;
  std::deque<Entry> waiting_;
  std::size_t waitingBytes_ = 0;
  std::size_t lostMessages_ = 0;
  bool isStarted_ = false;
  bool isSending_ = false;
};

// Never destroyed: its thread, and whoever logs while the process ends, still use it.
JournalLog& JournalLog::instance() {
  static auto* log = new JournalLog;
  return *log;
}

std::atomic<SystemLog*> replacement = nullptr;

}  // namespace

std::vector<std::string> journalFields(const SystemLogMessage& message) {
  Entry entry = {"MESSAGE=" + message.text, "PRIORITY=" + std::to_string(std::clamp(message.level, 0, 7)),
                 std::string("SYSLOG_IDENTIFIER=") + program_invocation_short_name};
  for (const auto& [name, value] : message.fields) entry.push_back(journalFieldName(name) + "=" + value);
  return entry;
}

SystemLog& SystemLog::shared() {
  SystemLog* sink = replacement.load();
  return sink ? *sink : JournalLog::instance();
}

void SystemLog::setShared(SystemLog* sink) { replacement = sink; }

}  // namespace florvane
