#include "socket_activation.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ipc/runtime_paths.h"

namespace lumokitd {

namespace {

constexpr int kFirstHandedFd = 3;
// More than any unit of ours hands over; a larger count is a broken caller.
constexpr long kMaxHandedFds = 16;

std::string take_variable(const char* name) {
  const char* value = std::getenv(name);
  std::string copy = value == nullptr ? "" : value;
  unsetenv(name);
  return copy;
}

bool parse_count(const std::string& text, long* out) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  long value = std::strtol(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || value < 0) return false;
  *out = value;
  return true;
}

std::vector<std::string> split_names(const std::string& text) {
  std::vector<std::string> names;
  size_t start = 0;
  for (;;) {
    size_t colon = text.find(':', start);
    names.push_back(text.substr(start, colon - start));
    if (colon == std::string::npos) return names;
    start = colon + 1;
  }
}

bool is_local_seqpacket(int fd) {
  int type = 0, domain = 0;
  socklen_t len = sizeof(type);
  if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len) != 0) return false;
  len = sizeof(domain);
  if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &len) != 0) return false;
  return type == SOCK_SEQPACKET && domain == AF_UNIX;
}

// "lumo" for a socket bound at /run/lumokit/lumo; empty when unnamed.
std::string bound_file_name(int fd) {
  sockaddr_un addr;
  std::memset(&addr, 0, sizeof(addr));
  socklen_t len = sizeof(addr);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) return "";
  if (addr.sun_path[0] == '\0') return "";  // unbound or abstract
  std::string path(addr.sun_path, strnlen(addr.sun_path, sizeof(addr.sun_path)));
  return path.substr(path.rfind('/') + 1);
}

int* slot_for(HandedSockets* sockets, const std::string& role) {
  if (role == lumokit::ipc::kPluginSocketName) return &sockets->plugin_fd;
  if (role == lumokit::ipc::kClientSocketName) return &sockets->client_fd;
  if (role == lumokit::ipc::kAdminSocketName) return &sockets->admin_fd;
  return nullptr;
}

bool fail(long count, std::string text, std::string* error, HandedSockets* out) {
  for (long i = 0; i < count; ++i) close(kFirstHandedFd + static_cast<int>(i));
  *out = HandedSockets{};
  *error = std::move(text);
  return false;
}

}  // namespace

bool take_handed_sockets(HandedSockets* out, std::string* error) {
  *out = HandedSockets{};
  const std::string pid_text = take_variable("LISTEN_PID");
  const std::string count_text = take_variable("LISTEN_FDS");
  const std::string names_text = take_variable("LISTEN_FDNAMES");
  long pid = 0;
  if (!parse_count(pid_text, &pid) || pid != getpid()) return true;
  long count = 0;
  if (!parse_count(count_text, &count) || count > kMaxHandedFds) {
    *error = "LISTEN_FDS \"" + count_text + "\" is not a number of sockets";
    return false;
  }
  const std::vector<std::string> names = split_names(names_text);
  for (long i = 0; i < count; ++i) {
    const int fd = kFirstHandedFd + static_cast<int>(i);
    const std::string label = "handed-over descriptor " + std::to_string(fd);
    if (!is_local_seqpacket(fd)) {
      return fail(count, label + " is not a local seqpacket socket", error, out);
    }
    std::string role = static_cast<size_t>(i) < names.size() ? names[static_cast<size_t>(i)] : "";
    if (slot_for(out, role) == nullptr) role = bound_file_name(fd);
    int* slot = slot_for(out, role);
    if (slot == nullptr) {
      return fail(count, label + " is none of lumo, client and admin (by name or path)", error,
                  out);
    }
    if (*slot >= 0) return fail(count, label + " is a second \"" + role + "\" socket", error, out);
    // Not for the children of this process, should it ever start any.
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    *slot = fd;
  }
  return true;
}

}  // namespace lumokitd
