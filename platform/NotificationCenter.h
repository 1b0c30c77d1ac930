#pragma once

#include "platform/Value.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace florvane {

struct Notification {
  std::string name;
  std::optional<std::string> object;
  Dictionary userInfo;
  // The receiver missed notifications of any name (its queue was full): whatever it derived from them must be read
  // again. Delivered to every observer, with its own name, when it happens.
  bool missedSome = false;
};

// Notifications between the processes of one container, over Unix datagram sockets in its "Notifications" folder. Posts
// reach the posting process too. Every delivery is asynchronous, on the centre's own thread, in the order of one
// poster's posts; handlers must be short. A post never blocks. Thread-safe.
class NotificationCenter {
 public:
  using Handler = std::function<void(const Notification&)>;

  // Keeps an observer registered; destroying it from any thread ends the registration, and waits for a call that is
  // running on another thread.
  class Observation {
   public:
    virtual ~Observation() = default;
  };

  // The centre over a folder, made when missing (0700). One object per folder and process is enough.
  explicit NotificationCenter(std::string folder);
  ~NotificationCenter();
  // The centre of the process's container; made on first use.
  static NotificationCenter& shared();

  // A user info that is no property list, or one larger than 64 KiB, is not delivered to other processes and reported.
  void post(std::string_view name, std::optional<std::string> object = std::nullopt, const Dictionary& userInfo = {});
  [[nodiscard]] std::unique_ptr<Observation> addObserver(std::string_view name, Handler handler);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace florvane
