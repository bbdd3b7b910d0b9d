// One client connection: its socket, the peer's credentials, and ordered
// delivery of outgoing messages that never blocks the sending thread.
//
// Answers are written by the connection's own thread, and callbacks by the
// manager's plugin threads; a slow reader must not stall either, so a message
// that does not fit the socket at once is queued and written by a short-lived
// drainer thread, and a client that lets too much pile up is disconnected.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

namespace lumokitd {

class ClientConnection : public std::enable_shared_from_this<ClientConnection> {
 public:
  ClientConnection(int fd, uint64_t id, pid_t pid, uid_t uid);
  ~ClientConnection();
  ClientConnection(const ClientConnection&) = delete;
  ClientConnection& operator=(const ClientConnection&) = delete;

  int fd() const { return fd_; }
  uint64_t id() const { return id_; }
  pid_t peer_pid() const { return pid_; }
  uid_t peer_uid() const { return uid_; }

  // Queues or sends `message`; false when the connection is closed (the
  // message is dropped).
  bool deliver(std::string message);

  // Stops all delivery and wakes the connection's reader (used when the
  // client goes away and at daemon shutdown).
  void close_connection();
  bool is_closed();

  // Pending bytes beyond which the client counts as not reading.
  static constexpr size_t kMaxPendingBytes = 64u * 1024 * 1024;

 private:
  void drain();

  const int fd_;
  const uint64_t id_;
  const pid_t pid_;
  const uid_t uid_;

  std::mutex mtx_;
  std::deque<std::string> pending_;  // front is being written while draining_
  size_t pending_bytes_ = 0;
  bool draining_ = false;
  bool closed_ = false;
};

}  // namespace lumokitd
