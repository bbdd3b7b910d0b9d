// Arbitrary plugin messages on one connection. The input is a sequence of
// messages separated by the line "|||"; after the connection ends the
// manager's tables must be consistent and the plugin fully gone.
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "LumoManager.h"
#include <android/log.h>
#include <lumokit/host_platform.h>

#include "Service.h"
#include "fuzz_tables.h"
#include "session_tables.h"

namespace {

void ignore_answer(lumo_response_t, uint32_t, std::string, int32_t, uint32_t) {}

void drain(int fd) {
  static char sink[1 << 16];
  while (recv(fd, sink, sizeof(sink), MSG_DONTWAIT) > 0) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  lumokit::host::set_log_min_priority(ANDROID_LOG_SILENT);
  // Sessions 1 to 3 have clients, so plugin answers reach a callback.
  for (unsigned int session = 1; session <= 3; ++session) {
    session_cb_map[session] = ignore_answer;
    update_pid_uid_session_id(session, 1000 + static_cast<int>(session), 10000 + session);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds) != 0) return 0;
  int big = 1 << 20;
  setsockopt(fds[1], SOL_SOCKET, SO_RCVBUF, &big, sizeof(big));
  setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &big, sizeof(big));
  pthread_t handler;
  if (pthread_create(&handler, nullptr, svc_hal_handler_thread,
                     reinterpret_cast<void*>(static_cast<intptr_t>(fds[0]))) != 0) {
    close(fds[0]);
    close(fds[1]);
    return 0;
  }

  const std::string input(reinterpret_cast<const char*>(data), size);
  static const std::string kSeparator = "\n|||\n";
  size_t start = 0;
  while (start <= input.size()) {
    size_t end = input.find(kSeparator, start);
    if (end == std::string::npos) end = input.size();
    if (send(fds[1], input.data() + start, end - start, MSG_NOSIGNAL) < 0) break;
    drain(fds[1]);
    start = end + kSeparator.size();
  }
  // Closing our end makes the handler's probe fail: the plugin dies.
  shutdown(fds[1], SHUT_RDWR);
  close(fds[1]);
  pthread_join(handler, nullptr);

  const std::string problem = check_table_consistency();
  bool left_over = false;
  std::vector<int> dead;
  {
    std::lock_guard<std::mutex> lock(service_map_mtx);
    for (const auto& entry : service_map) {
      if (entry.second->get_svc_hal_died()) {
        dead.push_back(entry.first);
      } else {
        left_over = true;
      }
    }
  }
  for (int id : dead) delete_from_service_map(static_cast<unsigned int>(id));
  if (!problem.empty() || left_over) {
    fprintf(stderr, "inconsistent tables: %s\n", left_over ? "a plugin outlived its connection" : problem.c_str());
    abort();
  }
  return 0;
}
