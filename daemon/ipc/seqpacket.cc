#include "seqpacket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace lumokit::ipc {

namespace {

// The kernel doubles what it is given; ask for a little more than one
// message so that one kMaxMessage send always fits.
constexpr int kBufferRequest = static_cast<int>(kMaxMessage) + 64 * 1024;

bool fill_address(const std::string& path, sockaddr_un* addr, std::string* error) {
  std::memset(addr, 0, sizeof(*addr));
  addr->sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(addr->sun_path)) {
    *error = "socket path \"" + path + "\" is empty or longer than " +
             std::to_string(sizeof(addr->sun_path) - 1) + " bytes";
    return false;
  }
  std::memcpy(addr->sun_path, path.data(), path.size());
  return true;
}

std::string errno_text(const std::string& what, const std::string& path) {
  return what + " " + path + ": " + std::strerror(errno);
}

void set_buffer(int fd, int option, int force_option) {
  int value = kBufferRequest;
  int actual = 0;
  socklen_t len = sizeof(actual);
  setsockopt(fd, SOL_SOCKET, option, &value, sizeof(value));
  if (getsockopt(fd, SOL_SOCKET, option, &actual, &len) == 0 && actual >= kBufferRequest) return;
  // Only a privileged process may pass the sysctl limit; failure is harmless.
  setsockopt(fd, SOL_SOCKET, force_option, &value, sizeof(value));
}

// A zero-length read is either an empty message or the end of the
// connection; only the latter leaves the socket hung up.
bool peer_hung_up(int fd) {
  pollfd p{fd, POLLIN | POLLRDHUP, 0};
  if (poll(&p, 1, 0) < 0) return true;
  return (p.revents & (POLLHUP | POLLRDHUP | POLLERR)) != 0;
}

}  // namespace

void size_socket_buffers(int fd) {
  set_buffer(fd, SO_SNDBUF, SO_SNDBUFFORCE);
  set_buffer(fd, SO_RCVBUF, SO_RCVBUFFORCE);
}

int bind_seqpacket(const std::string& path, unsigned mode, bool listen_now, std::string* error) {
  sockaddr_un addr;
  if (!fill_address(path, &addr, error)) return -1;
  int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = errno_text("cannot create socket for", path);
    return -1;
  }
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    *error = errno_text("cannot remove old socket", path);
    close(fd);
    return -1;
  }
  // The file is created with the umask applied; narrow it first so the
  // socket is never reachable with wider permissions than asked for.
  mode_t old_mask = umask(static_cast<mode_t>(~mode & 0777));
  int rc = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  umask(old_mask);
  if (rc != 0) {
    *error = errno_text("cannot bind", path);
    close(fd);
    return -1;
  }
  if (chmod(path.c_str(), mode) != 0) {
    *error = errno_text("cannot set the mode of", path);
    close(fd);
    unlink(path.c_str());
    return -1;
  }
  if (listen_now && listen(fd, 64) != 0) {
    *error = errno_text("cannot listen on", path);
    close(fd);
    unlink(path.c_str());
    return -1;
  }
  return fd;
}

int connect_seqpacket(const std::string& path, std::string* error) {
  sockaddr_un addr;
  if (!fill_address(path, &addr, error)) return -1;
  int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = errno_text("cannot create socket for", path);
    return -1;
  }
  size_socket_buffers(fd);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    *error = errno_text("cannot connect to", path);
    close(fd);
    return -1;
  }
  return fd;
}

RecvBuffer::RecvBuffer() : data(new char[kMaxMessage]), capacity(kMaxMessage) {}

RecvStatus recv_message(int fd, RecvBuffer& buffer, size_t* length) {
  for (;;) {
    // MSG_TRUNC makes the kernel report the real size of an oversized message.
    ssize_t n = recv(fd, buffer.data.get(), buffer.capacity, MSG_TRUNC);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == ECONNRESET) return RecvStatus::kClosed;
      return RecvStatus::kError;
    }
    *length = static_cast<size_t>(n);
    if (n == 0) return peer_hung_up(fd) ? RecvStatus::kClosed : RecvStatus::kMessage;
    if (static_cast<size_t>(n) > buffer.capacity) return RecvStatus::kTooLarge;
    return RecvStatus::kMessage;
  }
}

bool send_message(int fd, const char* data, size_t length) {
  for (;;) {
    ssize_t n = send(fd, data, length, MSG_NOSIGNAL);
    if (n >= 0) return true;
    if (errno != EINTR) return false;
  }
}

}  // namespace lumokit::ipc
