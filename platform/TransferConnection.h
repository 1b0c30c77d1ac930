#pragma once

#include "platform/FileSystem.h"
#include "platform/Value.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace florvane {

// One end of the socket between agent and session, with a thread of its own that reads, and writes what the peer does
// not take at once. A peer that sends what is no frame, or another user's, is cut off. Thread-safe.
class TransferConnection : public std::enable_shared_from_this<TransferConnection> {
 public:
  struct Handlers {
    // Called on the connection's thread, in order.
    std::function<void(const Dictionary& frame)> received;
    // Last, once, on the connection's thread.
    std::function<void()> closed;
  };

  // The error is EPERM in POSIXErrorDomain when the other end belongs to another user.
  static Result<std::shared_ptr<TransferConnection>> start(FileDescriptor socket, Handlers handlers);
  ~TransferConnection();

  // Never waits. A frame that cannot be encoded, or one to a peer that is gone, is an error.
  Result<void> send(const Dictionary& frame);
  // Bytes that the peer has not taken yet.
  std::size_t unsent() const;
  // The closing handler follows on the connection's thread.
  void close();

 private:
  TransferConnection(FileDescriptor socket, FileDescriptor wakeup, Handlers handlers);
  void run();
  bool receive();
  // False when the peer is gone. Under the mutex.
  bool flush();

  const FileDescriptor socket_;
  const FileDescriptor wakeup_;
  Handlers handlers_;

  mutable std::mutex mutex_;  // guards the two below and writing to the socket
  std::string outgoing_;
  bool closed_ = false;
  class Reader;
  std::unique_ptr<Reader> reader_;  // of the thread only
};

}  // namespace florvane
