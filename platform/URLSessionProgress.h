#pragma once

#include "platform/Date.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace florvane {

class NetworkURLSession;
class URLSessionDelegate;
class URLSession;

// Tells a count of bytes that grows quickly at a pace that a delegate can follow: at most ten times a second, never two
// calls in the queue at once, and the last count always.
class URLSessionProgress : public std::enable_shared_from_this<URLSessionProgress> {
 public:
  using Report = std::function<void(URLSessionDelegate&, const std::shared_ptr<URLSession>&, std::int64_t bytes,
                                    std::int64_t totalBytes, std::int64_t expectedBytes)>;
  // The report runs on the delegate queue.
  explicit URLSessionProgress(Report report) : report_(std::move(report)) {}
  void setExpected(std::int64_t bytes);
  // Network thread. `last` reports at once what was not told yet.
  void advanceTo(std::int64_t total, NetworkURLSession& session, const std::shared_ptr<void>& owner, bool last);
  std::int64_t total() const;

 private:
  const Report report_;
  std::optional<MonotonicTime> lastQueued_;  // of the network thread

  mutable std::mutex mutex_;  // guards the rest
  std::int64_t total_ = 0;
  std::int64_t told_ = 0;
  std::int64_t expected_ = -1;
  bool queued_ = false;
};

}  // namespace florvane
