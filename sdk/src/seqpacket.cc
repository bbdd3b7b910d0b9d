// Socket calls of the plugin link, with EINTR retried where a retry is safe.
#include "seqpacket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "lumokit/plugin_wire.h"

namespace lumokit::seqpacket {

bool size_buffers(int fd, std::string* error) {
  const int want = kSocketBufferBytes;
  // The kernel may cap these below what was asked; the check below says so.
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &want, sizeof want);
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &want, sizeof want);
  int got = 0;
  socklen_t len = sizeof got;
  if (getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &got, &len) != 0) {
    *error = std::string("reading SO_SNDBUF failed: ") + std::strerror(errno);
    return false;
  }
  if (static_cast<size_t>(got) <= wire::kManagerRecvGrown) {
    *error = "send buffer is " + std::to_string(got) + " bytes, too small for " +
             std::to_string(wire::kManagerRecvGrown) +
             "-byte messages (raise net.core.wmem_max)";
    return false;
  }
  return true;
}

int connect_to(const std::string& path, std::string* error, std::string* warning) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr.sun_path) {
    *error = "socket path \"" + path + "\" is empty or longer than " +
             std::to_string(sizeof addr.sun_path - 1) + " bytes";
    return -1;
  }
  std::memcpy(addr.sun_path, path.data(), path.size());
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = std::string("socket() failed: ") + std::strerror(errno);
    return -1;
  }
  size_buffers(fd, warning);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    const int err = errno;
    *error = "connecting to " + path + " failed: " + std::strerror(err);
    if (err == ENOENT || err == ECONNREFUSED) *error += " (is the manager running?)";
    close(fd);
    return -1;
  }
  return fd;
}

bool is_seqpacket(int fd) {
  int type = 0;
  socklen_t len = sizeof type;
  if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len) != 0 || type != SOCK_SEQPACKET) {
    return false;
  }
  sockaddr_storage addr{};
  len = sizeof addr;
  return getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0 &&
         addr.ss_family == AF_UNIX;
}

long send_message(int fd, const std::string& text) {
  while (true) {
    const ssize_t n = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (n >= 0 || errno != EINTR) return static_cast<long>(n);
  }
}

long receive_message(int fd, char* buffer, size_t size, bool* truncated) {
  iovec iov{buffer, size};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  while (true) {
    const ssize_t n = recvmsg(fd, &msg, MSG_CMSG_CLOEXEC);
    if (n < 0 && errno == EINTR) continue;
    *truncated = n > 0 && (msg.msg_flags & MSG_TRUNC) != 0;
    return static_cast<long>(n);
  }
}

bool hung_up(int fd) {
  pollfd p{fd, POLLIN | POLLRDHUP, 0};
  if (poll(&p, 1, 0) < 0) return true;
  return (p.revents & (POLLHUP | POLLRDHUP | POLLERR | POLLNVAL)) != 0;
}

}  // namespace lumokit::seqpacket
