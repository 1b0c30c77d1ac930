#pragma once

#include "platform/SystemLog.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace florvane::test {

// Stands in for the system's log and keeps what is written.
class RecordingSystemLog {
 public:
  // Or only what `keeps` says of, which is called in the writing thread.
  explicit RecordingSystemLog(bool (*keeps)(const SystemLogMessage&) = nullptr) {
    sink_.keeps = keeps;
    SystemLog::setShared(&sink_);
  }
  ~RecordingSystemLog() { SystemLog::setShared(nullptr); }
  RecordingSystemLog(const RecordingSystemLog&) = delete;
  RecordingSystemLog& operator=(const RecordingSystemLog&) = delete;

  std::vector<SystemLogMessage> messages() const {
    std::lock_guard lock(sink_.mutex);
    return sink_.messages;
  }
  std::size_t countOf(std::string_view text) const {
    std::lock_guard lock(sink_.mutex);
    std::size_t count = 0;
    for (const auto& message : sink_.messages) count += message.text == text ? 1 : 0;
    return count;
  }
  // Returns once a message of that text has come; ctest's limit ends a wait in vain.
  SystemLogMessage waitFor(std::string_view text) const {
    std::unique_lock lock(sink_.mutex);
    for (;;) {
      for (const auto& message : sink_.messages) {
        if (message.text == text) return message;
      }
      sink_.changed.wait(lock);
    }
  }
  // To be called in the writing thread; to be set before anything is written.
  void setOnWrite(std::function<void()> onWrite) { sink_.onWrite = std::move(onWrite); }

 private:
  struct Sink final : SystemLog {
    void write(const SystemLogMessage& message) override {
      if (keeps && !keeps(message)) return;
      {
        std::lock_guard lock(mutex);
        messages.push_back(message);
        changed.notify_all();
      }
      if (onWrite) onWrite();
    }
    std::mutex mutex;  // guards messages
    std::condition_variable changed;
    std::vector<SystemLogMessage> messages;
    std::function<void()> onWrite;
    bool (*keeps)(const SystemLogMessage&) = nullptr;
  };
  // Kept for the life of the process: a thread may still be writing when the test is over.
  static Sink& makeSink() {
    static auto& sinks = *new std::vector<std::unique_ptr<Sink>>;
    return *sinks.emplace_back(std::make_unique<Sink>());
  }

  Sink& sink_ = makeSink();
};

}  // namespace florvane::test
