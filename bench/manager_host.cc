#include "manager_host.h"

#include <android/log.h>
#include <lumokit/host_platform.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <thread>

#include "LumoManager.h"
#include "bench_util.h"

namespace bench {
namespace {

std::string& socket_path() {
  static std::string path;
  return path;
}

}  // namespace

void remove_manager_socket() {
  const std::string& path = socket_path();
  if (path.empty()) return;
  unlink(path.c_str());
  rmdir(path.substr(0, path.rfind('/')).c_str());
}

std::string start_manager(bool log_on) {
  if (log_on) {
    lumokit::host::set_log_file("/dev/null");
    lumokit::host::set_log_min_priority(ANDROID_LOG_INFO);
  } else {
    lumokit::host::set_log_min_priority(ANDROID_LOG_SILENT);
  }
  char dir[] = "/tmp/lumokit-bench-XXXXXX";
  if (mkdtemp(dir) == nullptr) return "";
  const std::string path = std::string(dir) + "/lumo";
  int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) return "";
  socket_path() = path;
  setenv("ANDROID_SOCKET_lumo", std::to_string(fd).c_str(), 1);
  std::thread([] { LumoServiceManagerServer::init_manager(); }).detach();
  // init_manager sets the property right after listen().
  const int64_t deadline = now_ns() + 5000000000LL;
  while (lumokit::host::get_property("vendor.lumokit.ready", "0") != "1") {
    if (now_ns() > deadline) return "";
    usleep(1000);
  }
  return path;
}

bool start_manager(bool log_on, std::string* socket, std::string* error) {
  *socket = start_manager(log_on);
  if (socket->empty()) *error = "manager did not start";
  return !socket->empty();
}

}  // namespace bench
