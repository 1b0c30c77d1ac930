#pragma once

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/FileSystem.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace florvane {

// One process's Unix datagram socket in the notification folder, under a short random name, and the count beside it of
// datagrams that found its queue full. Nothing here blocks. Names and sending are thread-safe; receive and takeMissed
// belong to one thread.
class NotificationSocket {
 public:
  static constexpr std::size_t kLargestMessage = 65'536;

  // Makes the folder when missing (0700) and removes sockets that nobody listens on any more. Errors: POSIXErrorDomain.
  static Result<std::unique_ptr<NotificationSocket>> bind(const std::string& folder);
  // Closes the socket and removes its name.
  ~NotificationSocket();
  NotificationSocket(const NotificationSocket&) = delete;
  NotificationSocket& operator=(const NotificationSocket&) = delete;

  int descriptor() const { return socket_.get(); }
  const std::string& name() const { return name_; }
  void unlink();
  // The next datagram; absent when there is none. An empty one is only meant to wake: see takeMissed().
  std::optional<Data> receive();
  // Whether datagrams were lost since the last call.
  bool takeMissed();

  // Sends to every socket of the folder but the own one (may be ""). Receivers whose queue is full have the loss
  // counted; sockets that nobody listens on are removed.
  static void sendToOthers(const std::string& folder, const std::string& ownName, const Data& message);

 private:
  NotificationSocket(std::string folder, std::string name, FileDescriptor socket);

  const std::string folder_;
  const std::string name_;
  FileDescriptor socket_;
  // Mapped from the folder's counter file, one slot a name; null when it cannot be had.
  std::uint64_t* counters_ = nullptr;
  std::uint64_t missedBefore_ = 0;
  std::unique_ptr<std::uint8_t[]> buffer_;
};

}  // namespace florvane
