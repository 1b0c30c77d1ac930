#pragma once

#include "platform/SystemLog.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace florvane::test {

// Stands in for the system's log and keeps what is written.
class RecordingSystemLog : public SystemLog {
 public:
  RecordingSystemLog() { setShared(this); }
  ~RecordingSystemLog() override { setShared(nullptr); }

  void write(const SystemLogMessage& message) override {
    {
      std::lock_guard lock(mutex_);
      messages_.push_back(message);
      changed_.notify_all();
    }
    if (onWrite) onWrite();
  }
  std::vector<SystemLogMessage> messages() const {
    std::lock_guard lock(mutex_);
    return messages_;
  }
  std::size_t countOf(std::string_view text) const {
    std::lock_guard lock(mutex_);
    std::size_t count = 0;
    for (const auto& message : messages_) count += message.text == text ? 1 : 0;
    return count;
  }
  // Returns once a message of that text has come; ctest's limit ends a wait in vain.
  SystemLogMessage waitFor(std::string_view text) const {
    std::unique_lock lock(mutex_);
    for (;;) {
      for (const auto& message : messages_) {
        if (message.text == text) return message;
      }
      changed_.wait(lock);
    }
  }

  std::function<void()> onWrite;  // to be set before anything is written

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<SystemLogMessage> messages_;
};

}  // namespace florvane::test
