// End to end: this process is the client on a host's client socket, the same
// plugin process answers, the same task travels; from sending perform_task
// to receiving the callback message. The host is lumokitd, or, as a
// yardstick for it, the bench's minimal host.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <thread>

#include <json/json.h>

#include "bench_util.h"
#include "peer_roles.h"
#include "plugin_wire.h"
#include "scenarios.h"
#include "spawn.h"

namespace bench {
namespace {

// One message; empty on timeout or a closed connection.
std::string receive(int fd, std::vector<char>& buf, int timeout_ms) {
  pollfd p{fd, POLLIN, 0};
  if (poll(&p, 1, timeout_ms) <= 0) return "";
  ssize_t n = recv(fd, buf.data(), buf.size(), 0);
  return n > 0 ? std::string(buf.data(), static_cast<size_t>(n)) : "";
}

bool send_text(int fd, const std::string& text) {
  return send(fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

std::string perform_message(uint32_t session_id, const std::string& task) {
  std::string msg = "{\"op\":\"perform_task\",\"session_id\":" + std::to_string(session_id) +
                    ",\"request\":\"";
  for (char c : task) {
    if (c == '"' || c == '\\') msg += '\\';
    msg += c;
  }
  msg += "\"}";
  return msg;
}

// The children of a process (its plugin, for the minimal host).
std::vector<pid_t> children_of(pid_t pid) {
  std::vector<pid_t> out;
  std::ifstream in("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
  long child;
  while (in >> child) out.push_back(static_cast<pid_t>(child));
  return out;
}

// Opens a session on `client`, then runs the timed tasks. `cpu_pids` are
// the server-side processes whose CPU time counts.
Result client_tasks(int client, const std::vector<pid_t>& cpu_pids) {
  Result r;
  std::vector<char> buf(1 << 20);
  uint32_t session_id = 0;
  if (send_text(client, "{\"op\":\"create_session\",\"session_id\":0,\"handle\":1,\"request\":\"{}\"}")) {
    Json::CharReaderBuilder b;
    std::unique_ptr<Json::CharReader> reader(b.newCharReader());
    const std::string answer = receive(client, buf, 5000);
    Json::Value v;
    std::string errors;
    if (reader->parse(answer.data(), answer.data() + answer.size(), &v, &errors) &&
        v["kind"].asInt() == 1 && v["error"].asInt() == 0) {
      session_id = v["session_id"].asUInt();
    }
  }
  if (session_id == 0) {
    r.error = "create_session through the host failed";
    return r;
  }
  auto tree_cpu = [&] {
    int64_t total = process_cpu_ns(getpid());
    for (pid_t p : cpu_pids) total += process_cpu_ns(p);
    return total;
  };
  const uint32_t n = kLatencyTasks;
  std::vector<int64_t> lat;
  lat.reserve(n);
  int64_t cpu0 = 0, wall0 = 0;
  for (uint32_t i = 0; i < kWarmupTasks + n; ++i) {
    if (i == kWarmupTasks) {
      cpu0 = tree_cpu();
      wall0 = now_ns();
    }
    const std::string msg = perform_message(session_id, task_text(session_id, i, kBaseOpcode));
    const int64_t t0 = now_ns();
    if (!send_text(client, msg)) {
      r.error = "send to the host failed";
      return r;
    }
    const std::string answer = receive(client, buf, 5000);
    const int64_t t1 = now_ns();
    // The plugin's answer arrives escaped inside the callback's "text".
    if (answer.find("exec_task") == std::string::npos) {
      r.error = "no task answer from the host: " + answer.substr(0, 120);
      return r;
    }
    if (i >= kWarmupTasks) lat.push_back(t1 - t0);
  }
  const int64_t cpu = tree_cpu() - cpu0;
  const int64_t wall = now_ns() - wall0;
  return timed_result(std::move(lat), wall, cpu);
}

struct Daemon {
  std::string dir;
  pid_t pid = -1;
  void stop() {
    if (pid > 0) {
      kill(pid, SIGTERM);
      if (wait_child(pid, 3000) < 0) kill_child(pid);
    }
    pid = -1;
  }
  ~Daemon() {
    stop();
    for (const char* name : {"/client", "/admin", "/lumo", "/lumokitd.lock"}) {
      unlink((dir + name).c_str());
    }
    if (!dir.empty()) rmdir(dir.c_str());
  }
};

// A monitor on the admin socket that takes every event as it comes and
// drops it, as `lumokit monitor` writing to a fast terminal would.
struct Monitor {
  int fd = -1;
  std::thread reader;
  bool attach(const std::string& admin_path) {
    fd = connect_seqpacket(admin_path);
    std::vector<char> buf(4096);
    if (fd < 0 || !send_text(fd, "{\"op\":\"monitor\"}") ||
        receive(fd, buf, 5000).find("\"op\":\"monitor\"") == std::string::npos) {
      return false;
    }
    reader = std::thread([this] {
      std::vector<char> line(4 << 20);
      while (recv(fd, line.data(), line.size(), 0) > 0) {
      }
    });
    return true;
  }
  ~Monitor() {
    if (fd >= 0) shutdown(fd, SHUT_RDWR);
    if (reader.joinable()) reader.join();
    if (fd >= 0) close(fd);
  }
};

Result run_e2e_via_lumokitd(bool monitored) {
  Result r;
  std::string exe = self_exe();
  const std::string daemon_path = exe.substr(0, exe.rfind('/')) + "/lumokitd";
  if (access(daemon_path.c_str(), X_OK) != 0) {
    r.error = "lumokitd not built (" + daemon_path + ")";
    return r;
  }
  char dir_template[] = "/tmp/lumokit-bench-e2e-XXXXXX";
  if (mkdtemp(dir_template) == nullptr) {
    r.error = "mkdtemp failed";
    return r;
  }
  Daemon daemon;
  daemon.dir = dir_template;
  SpawnSpec launch;
  // Warnings and errors only, to /dev/null: the in-process scenarios run the
  // manager with its log off, so the per-message info lines would be the
  // one cost the daemon pays that they do not.
  launch.argv = {daemon_path, "--runtime-dir", daemon.dir, "--log-file", "/dev/null",
               "--log-level", "warn"};
  daemon.pid = spawn(launch);

  int client = -1;
  for (int i = 0; i < 2000 && client < 0; ++i) {
    client = connect_seqpacket(daemon.dir + "/client");
    if (client < 0) usleep(5000);
  }
  if (client < 0) {
    r.error = "lumokitd did not accept clients";
    return r;
  }
  Monitor monitor;
  if (monitored && !monitor.attach(daemon.dir + "/admin")) {
    close(client);
    r.error = "lumokitd did not take a monitor";
    return r;
  }
  std::vector<pid_t> plugins;
  if (!start_plugins(daemon.dir + "/lumo", kBaseOpcode, 1, 1, true, &plugins, &r.error)) {
    close(client);
    return r;
  }
  r = client_tasks(client, {daemon.pid, plugins[0]});
  close(client);
  daemon.stop();
  stop_children(&plugins);
  return r;
}

}  // namespace

Result run_e2e() { return run_e2e_via_lumokitd(false); }
Result run_e2e_monitor() { return run_e2e_via_lumokitd(true); }

Result run_e2e_min() {
  Result r;
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0) {
    r.error = "socketpair failed";
    return r;
  }
  pid_t host = spawn_self({"--role", "host", "--fd", std::to_string(sv[1])}, {sv[1]});
  close(sv[1]);
  std::vector<char> buf(4096);
  if (receive(sv[0], buf, 30000) != "{\"op\":\"ready\"}") {
    r.error = "the minimal host did not come up";
  } else {
    std::vector<pid_t> cpu_pids = children_of(host);
    cpu_pids.push_back(host);
    r = client_tasks(sv[0], cpu_pids);
  }
  close(sv[0]);
  if (wait_child(host, 3000) < 0) r.error = r.error.empty() ? "the minimal host did not end" : r.error;
  return r;
}

}  // namespace bench
