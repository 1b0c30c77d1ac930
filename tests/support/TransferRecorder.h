#pragma once

#include "platform/BackgroundURLSession.h"
#include "platform/Format.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace florvane::test {

// The delegate of a background session that writes down what it is told: "<task> <status> <body>" or "<task> <code>" of
// an ended task, "finished" and "invalid". Challenges are answered by `judge`.
class TransferRecorder : public URLSessionDelegate {
 public:
  using URLSessionDelegate::didReceiveChallenge;

  std::function<ChallengeDisposition(const ServerTrust&)> judge = [](const ServerTrust&) {
    return ChallengeDisposition::PerformDefaultHandling;
  };
  // On the delegate queue, before an ended task is written down.
  std::function<void()> onCompletion;

  // The lines, once there are that many; ctest's limit ends a wait in vain.
  std::vector<std::string> wait(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return lines_.size() >= count; });
    return lines_;
  }
  // Whether they come within that time of the machine.
  bool waitFor(std::size_t count, std::chrono::milliseconds patience) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, patience, [&] { return lines_.size() >= count; });
  }
  std::size_t count() const {
    std::lock_guard lock(mutex_);
    return lines_.size();
  }
  std::optional<Error> lastError() const {
    std::lock_guard lock(mutex_);
    return lastError_;
  }
  std::int64_t bytesSent() const {
    std::lock_guard lock(mutex_);
    return bytesSent_;
  }
  void waitForProgress() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return bytesSent_ > 0; });
  }

  void didReceiveChallenge(SessionRef, TaskRef, const URLAuthenticationChallenge& challenge,
                           const ChallengeCompletion& completionHandler) override {
    URLCredential credential{challenge.serverTrust};
    completionHandler(judge(*challenge.serverTrust), &credential);
  }
  void didReceiveData(SessionRef, TaskRef, const Data& data) override {
    std::lock_guard lock(mutex_);
    body_.append(data.view());
  }
  void didSendBodyData(SessionRef, TaskRef, std::int64_t, std::int64_t total, std::int64_t) override {
    std::lock_guard lock(mutex_);
    bytesSent_ = total;
    changed_.notify_all();
  }
  void didCompleteWithError(SessionRef, TaskRef task, const std::optional<Error>& error) override {
    if (onCompletion) onCompletion();
    std::lock_guard lock(mutex_);
    lastError_ = error;
    std::string body;
    body.swap(body_);
    // Long bodies by their length.
    if (body.size() > 100) body = std::to_string(body.size());
    note(error ? format("%lu %ld", task->taskIdentifier(), error->code())
               : format("%lu %d %@", task->taskIdentifier(), task->response()->statusCode(), body));
  }
  void didFinishEventsForBackgroundURLSession(SessionRef) override { add("finished"); }
  void didBecomeInvalidWithError(SessionRef, const std::optional<Error>&) override { add("invalid"); }

 private:
  void add(const std::string& line) {
    std::lock_guard lock(mutex_);
    note(line);
  }
  void note(const std::string& line) {
    lines_.push_back(line);
    changed_.notify_all();
  }

  mutable std::mutex mutex_;  // guards the rest
  std::condition_variable changed_;
  std::vector<std::string> lines_;
  std::string body_;
  std::optional<Error> lastError_;
  std::int64_t bytesSent_ = 0;
};

}  // namespace florvane::test
