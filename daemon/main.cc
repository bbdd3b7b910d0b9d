// lumokitd: hosts the service manager on a Linux host the way init and the
// vendor daemon do on a device. It creates the plugin socket (or takes the
// one a supervisor handed over) and hands it to the manager, starts the
// manager's threads, and serves clients and administrators on two sockets.
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <lumokit/host_platform.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "LumoManager.h"
#include "LumokitSessionManager.h"
#include "client_connection.h"
#include "connection_registry.h"
#include "connection_threads.h"
#include "daemon_log.h"
#include "host/lumo_sys_host.h"
#include "ipc/seqpacket.h"
#include "monitor_hub.h"
#include "options.h"
#include "runtime_dir.h"
#include "service_notify.h"
#include "socket_activation.h"

namespace {

using namespace lumokitd;

constexpr int kExitUsage = 2;
constexpr int kExitFailure = 1;

int fail(int code, const std::string& message) {
  std::fprintf(stderr, "lumokitd: %s\n", message.c_str());
  return code;
}

// Signals are taken from a signalfd in the main loop; every thread started
// later inherits the mask, so none of them is interrupted.
int block_stop_signals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) return -1;
  return signalfd(-1, &set, SFD_CLOEXEC);
}

// The manager's accept loop runs for the life of the daemon; it returning
// at all is a failure, reported to the main loop through `done_fd`.
void start_manager_thread(int done_fd) {
  std::thread([done_fd] {
    int32_t rc = LumoServiceManagerServer::init_manager();
    log_error("the plugin server stopped (%d)", rc);
    uint64_t one = 1;
    if (write(done_fd, &one, sizeof(one)) < 0) std::abort();
  }).detach();
}

// The manager marks itself up once it listens on the plugin socket.
bool wait_for_manager(int done_fd) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (lumokit::host::get_property("vendor.lumokit.ready", "0") != "1") {
    pollfd p{done_fd, POLLIN, 0};
    if (poll(&p, 1, 5) > 0) return false;
    if (std::chrono::steady_clock::now() > deadline) return false;
  }
  return true;
}

void accept_one(int listen_fd, ConnectionKind kind, ConnectionRegistry& registry,
                const ClientPolicy& policy) {
  static std::atomic<uint64_t> next_id{1};
  int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) {
    if (errno == EINTR || errno == EAGAIN || errno == ECONNABORTED) return;
    log_error("accept failed: %s", std::strerror(errno));
    // Out of descriptors or memory: back off instead of spinning.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return;
  }
  ucred cred{};
  socklen_t len = sizeof(cred);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
    log_error("cannot read peer credentials: %s", std::strerror(errno));
    close(fd);
    return;
  }
  lumokit::ipc::size_socket_buffers(fd);
  auto conn = std::make_shared<ClientConnection>(fd, next_id++, cred.pid, cred.uid);
  log_info("%s %llu connected (pid %d, uid %u)", kind == ConnectionKind::kAdmin ? "admin" : "client",
           static_cast<unsigned long long>(conn->id()), static_cast<int>(cred.pid),
           static_cast<unsigned>(cred.uid));
  start_connection_thread(registry, std::move(conn), kind, policy);
}

// Which sockets came from the supervisor, for the log.
std::string handed_roles(const HandedSockets& handed) {
  std::string roles;
  if (handed.plugin_fd >= 0) roles += " lumo";
  if (handed.client_fd >= 0) roles += " client";
  if (handed.admin_fd >= 0) roles += " admin";
  return roles;
}

int run(const Options& opts) {
  // First, so that the variables never reach anything this process starts.
  HandedSockets handed;
  std::string error;
  if (!take_handed_sockets(&handed, &error)) return fail(kExitFailure, error);

  int signal_fd = block_stop_signals();
  if (signal_fd < 0) return fail(kExitFailure, std::string("cannot watch signals: ") + std::strerror(errno));
  signal(SIGPIPE, SIG_IGN);
  lumokit::host::set_log_min_priority(opts.log_priority);
  set_monitor_buffer(opts.monitor_buffer);

  if (!opts.log_file.empty() && !lumokit::host::set_log_file(opts.log_file)) {
    return fail(kExitUsage, "cannot open log file " + opts.log_file + ": " + std::strerror(errno));
  }
  lumokit::host::set_property("sys.boot_completed", opts.boot_completed ? "1" : "0");
  if (!opts.sys_policy.empty()) {
    if (!lumosys::host::load_policy_file(opts.sys_policy, &error)) {
      return fail(kExitUsage, "cannot load system service policy: " + error);
    }
  }

  RuntimeDir dir;
  if (!open_runtime_dir(opts.runtime_dir, handed, &dir, &error)) return fail(kExitFailure, error);
  const std::string roles = handed_roles(handed);
  if (!roles.empty()) log_info("using the sockets handed over by the supervisor:%s", roles.c_str());

  // As init would: the manager finds its socket through the environment.
  setenv("ANDROID_SOCKET_lumo", std::to_string(dir.plugin_fd).c_str(), 1);
  if (getLumokitSysServiceHandle() != 0) {
    log_info("running without the system service");
  }
  int done_fd = eventfd(0, EFD_CLOEXEC);
  if (done_fd < 0) {
    close_runtime_dir(&dir);
    return fail(kExitFailure, std::string("cannot create eventfd: ") + std::strerror(errno));
  }
  start_manager_thread(done_fd);
  if (!wait_for_manager(done_fd)) {
    close_runtime_dir(&dir);
    return fail(kExitFailure, "the plugin server did not start; see the log");
  }
  if (listen(dir.client_fd, 64) != 0 || listen(dir.admin_fd, 16) != 0) {
    error = std::string("cannot listen on the client sockets: ") + std::strerror(errno);
    close_runtime_dir(&dir);
    return fail(kExitFailure, error);
  }

  // Never freed: a connection thread still inside the manager at shutdown
  // may reach it until the process ends.
  ConnectionRegistry& registry = *new ConnectionRegistry();
  ClientPolicy policy;
  policy.trust_client_ids = opts.trust_client_ids;
  log_info("lumokitd ready in %s", dir.path.c_str());
  notify_supervisor("READY=1");

  int exit_code = 0;
  pollfd fds[4] = {{signal_fd, POLLIN, 0},
                   {done_fd, POLLIN, 0},
                   {dir.client_fd, POLLIN, 0},
                   {dir.admin_fd, POLLIN, 0}};
  for (;;) {
    if (poll(fds, 4, -1) < 0) {
      if (errno == EINTR) continue;
      log_error("poll failed: %s", std::strerror(errno));
      exit_code = kExitFailure;
      break;
    }
    if (fds[0].revents & POLLIN) {
      signalfd_siginfo info{};
      if (read(signal_fd, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
        log_info("stopping on signal %u", info.ssi_signo);
      }
      break;
    }
    if (fds[1].revents & POLLIN) {
      exit_code = kExitFailure;
      break;
    }
    if (fds[2].revents & POLLIN) accept_one(dir.client_fd, ConnectionKind::kClient, registry, policy);
    if (fds[3].revents & POLLIN) accept_one(dir.admin_fd, ConnectionKind::kAdmin, registry, policy);
  }

  notify_supervisor("STOPPING=1");
  close_runtime_dir(&dir);
  if (!registry.stop_all(std::chrono::seconds(10))) {
    log_warn("some connections were still busy at shutdown");
  }
  log_info("lumokitd stopped");
  return exit_code;
}

}  // namespace

int main(int argc, char** argv) {
  Options opts;
  std::string error;
  if (!parse_options(argc, argv, &opts, &error)) {
    std::fprintf(stderr, "lumokitd: %s\n%s", error.c_str(), usage_text());
    return kExitUsage;
  }
  if (opts.help) {
    std::fputs(usage_text(), stdout);
    return 0;
  }
  int code = run(opts);
  std::fflush(stdout);
  std::fflush(stderr);
  // The manager's plugin threads are detached and cannot be joined; ending
  // without static destructors keeps them from seeing torn-down tables.
  _exit(code);
}
