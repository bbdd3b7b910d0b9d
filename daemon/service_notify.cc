#include "service_notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "daemon_log.h"

namespace lumokitd {

void notify_supervisor(const char* state) {
  const char* path = std::getenv("NOTIFY_SOCKET");
  if (path == nullptr || (path[0] != '/' && path[0] != '@')) return;
  size_t len = std::strlen(path);
  sockaddr_un addr;
  std::memset(&addr, 0, sizeof(addr));
  addr.sun_family = AF_UNIX;
  if (len >= sizeof(addr.sun_path)) {
    log_warn("NOTIFY_SOCKET path too long; not notifying");
    return;
  }
  std::memcpy(addr.sun_path, path, len);
  if (path[0] == '@') addr.sun_path[0] = '\0';  // abstract namespace
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  socklen_t addr_len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + len);
  if (sendto(fd, state, std::strlen(state), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&addr),
             addr_len) < 0) {
    log_warn("cannot notify the supervisor: %s", std::strerror(errno));
  }
  close(fd);
}

}  // namespace lumokitd
