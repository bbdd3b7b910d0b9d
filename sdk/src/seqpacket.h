// The plugin end of the manager's socket: a local sequenced-packet socket
// with buffers sized for the largest message either side sends.
#pragma once

#include <cstddef>
#include <string>

namespace lumokit::seqpacket {

// Bigger than the largest message, with room for the kernel's overhead.
inline constexpr int kSocketBufferBytes = 1 << 20;

// Connected socket, or -1 with the reason in `error`. A socket whose
// buffers stay too small is still returned, with the reason in `warning`.
int connect_to(const std::string& path, std::string* error, std::string* warning);
// Sizes the buffers of a socket; false with the reason when the kernel
// leaves them too small for the largest message.
bool size_buffers(int fd, std::string* error);
// True when `fd` is an AF_UNIX SOCK_SEQPACKET socket.
bool is_seqpacket(int fd);

// Sends one whole message; -1 with `errno` set on failure. Never raises
// SIGPIPE.
long send_message(int fd, const std::string& text);

// Receives one message into `buffer`; returns its length, 0 when the peer
// closed, -1 with `errno` set on failure. `truncated` says the message did
// not fit.
long receive_message(int fd, char* buffer, size_t size, bool* truncated);

// After a receive of nothing: true when the peer has hung up (or this end
// was shut down), false for an empty message.
bool hung_up(int fd);

}  // namespace lumokit::seqpacket
