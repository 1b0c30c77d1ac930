#pragma once

#include "platform/NotificationCenter.h"
#include "tests/support/ScriptedServer.h"

#include <atomic>
#include <memory>

#include <gtest/gtest.h>

namespace florvane::test {

// Counts notifications; they arrive on a thread of their own.
class NotificationCounter {
 public:
  explicit NotificationCounter(const char* name)
      : observation_(NotificationCenter::shared().addObserver(name, [this](const Notification&) { ++count_; })) {}
  // Everything that was posted before has been counted.
  int count() {
    Signal arrived;
    auto marker =
        NotificationCenter::shared().addObserver("upload-test-marker", [&](const Notification&) { arrived.raise(); });
    NotificationCenter::shared().post("upload-test-marker");
    EXPECT_TRUE(arrived.wait());
    return count_;
  }

 private:
  std::atomic<int> count_ = 0;
  std::unique_ptr<NotificationCenter::Observation> observation_;
};

}  // namespace florvane::test
