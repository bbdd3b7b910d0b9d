// Message framing shared by the daemon and its clients: one JSON text per
// SOCK_SEQPACKET message on a local socket, with buffers sized for the
// largest message either side may send.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>

namespace lumokit::ipc {

// Largest message accepted either way. A task text of 512 KiB may roughly
// double once escaped inside a JSON string, so there is generous headroom.
inline constexpr size_t kMaxMessage = 4 * 1024 * 1024;

// Asks the kernel for send/receive buffers that hold a kMaxMessage message;
// falls back to the privileged variant when the sysctl limit is lower.
void size_socket_buffers(int fd);

// Creates, binds and chmods a listening socket at `path` (an existing file
// there is replaced). `listen_now` false leaves the socket bound only.
// Returns the descriptor, or -1 with `error` set.
int bind_seqpacket(const std::string& path, unsigned mode, bool listen_now, std::string* error);

// Connects to the daemon socket at `path`; -1 with `error` set on failure.
int connect_seqpacket(const std::string& path, std::string* error);

// A reusable receive buffer of kMaxMessage bytes (not zero-filled).
struct RecvBuffer {
  RecvBuffer();
  std::unique_ptr<char[]> data;
  size_t capacity;
};

enum class RecvStatus { kMessage, kClosed, kTooLarge, kError };

// Receives one whole message. kTooLarge reports the real size in `*length`
// (the message itself is discarded by the kernel). kError leaves errno set.
RecvStatus recv_message(int fd, RecvBuffer& buffer, size_t* length);

// Sends one whole message, blocking; false with errno set on failure.
bool send_message(int fd, const char* data, size_t length);
inline bool send_message(int fd, const std::string& text) {
  return send_message(fd, text.data(), text.size());
}

}  // namespace lumokit::ipc
