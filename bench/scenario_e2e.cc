// End to end: this process is the client on a host's client socket, the same
// plugin process answers, the same task travels; from sending perform_task
// to receiving the callback message. The host is lumokitd, or, as a
// yardstick for it, the bench's minimal host.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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

// The timed loops wait in recv itself, bounded by a receive timeout on the
// socket, rather than polling first: one system call per answer, as a
// blocking client would make.
void bound_receives(int fd, int timeout_ms) {
  timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
}

// One message into `buf`; its size, or 0 on timeout or a closed connection.
size_t receive_into(int fd, std::vector<char>& buf) {
  ssize_t n;
  do {
    n = recv(fd, buf.data(), buf.size(), 0);
  } while (n < 0 && errno == EINTR);
  return n > 0 ? static_cast<size_t>(n) : 0;
}

bool holds(const std::vector<char>& buf, size_t n, const char* text) {
  return memmem(buf.data(), n, text, strlen(text)) != nullptr;
}

std::string answer_head(const std::vector<char>& buf, size_t n) {
  return std::string(buf.data(), std::min<size_t>(n, 120));
}

// The task as the "request" string of a perform_task message.
std::string perform_message(uint32_t session_id, const std::string& task) {
  std::string msg;
  msg.reserve(task.size() + task.size() / 8 + 64);
  msg += "{\"op\":\"perform_task\",\"session_id\":";
  msg += std::to_string(session_id);
  msg += ",\"request\":\"";
  size_t from = 0;
  for (size_t at; (at = task.find_first_of("\"\\", from)) != std::string::npos; from = at + 1) {
    msg.append(task, from, at - from);
    msg += '\\';
    msg += task[at];
  }
  msg.append(task, from, std::string::npos);
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

// Opens a session on `client`; 0 when the host refuses.
uint32_t open_client_session(int client, std::vector<char>& buf) {
  if (!send_text(client, "{\"op\":\"create_session\",\"session_id\":0,\"handle\":1,\"request\":\"{}\"}")) {
    return 0;
  }
  Json::CharReaderBuilder b;
  std::unique_ptr<Json::CharReader> reader(b.newCharReader());
  const std::string answer = receive(client, buf, 5000);
  Json::Value v;
  std::string errors;
  if (reader->parse(answer.data(), answer.data() + answer.size(), &v, &errors) &&
      v["kind"].asInt() == 1 && v["error"].asInt() == 0) {
    return v["session_id"].asUInt();
  }
  return 0;
}

int64_t tree_cpu(const std::vector<pid_t>& cpu_pids) {
  int64_t total = process_cpu_ns(getpid());
  for (pid_t p : cpu_pids) total += process_cpu_ns(p);
  return total;
}

// `count` timed tasks of `size` bytes after `warmup` untimed ones, one at a
// time. `cpu_pids` are the server-side processes whose CPU time counts.
Result client_round_trips(int client, uint32_t session_id, size_t size, uint32_t count,
                          uint32_t warmup, const std::vector<pid_t>& cpu_pids,
                          std::vector<char>& buf) {
  Result r;
  std::vector<int64_t> lat;
  lat.reserve(count);
  int64_t cpu0 = 0, wall0 = 0;
  for (uint32_t i = 0; i < warmup + count; ++i) {
    if (i == warmup) {
      cpu0 = tree_cpu(cpu_pids);
      wall0 = now_ns();
    }
    const std::string msg = perform_message(session_id, task_text(session_id, i, kBaseOpcode, size));
    const int64_t t0 = now_ns();
    if (!send_text(client, msg)) {
      r.error = "send to the host failed";
      return r;
    }
    const size_t n = receive_into(client, buf);
    const int64_t t1 = now_ns();
    // The plugin's answer arrives escaped inside the callback's "text".
    if (!holds(buf, n, "exec_task")) {
      r.error = "no task answer from the host: " + answer_head(buf, n);
      return r;
    }
    if (i >= warmup) lat.push_back(t1 - t0);
  }
  const int64_t cpu = tree_cpu(cpu_pids) - cpu0;
  const int64_t wall = now_ns() - wall0;
  return timed_result(std::move(lat), wall, cpu);
}

// Opens a session on `client`, then runs the timed tasks of the usual size;
// `with_sizes` adds the size curve, whose first point is that figure.
Result client_tasks(int client, const std::vector<pid_t>& cpu_pids, bool with_sizes) {
  Result r;
  allow_large_messages(client);
  bound_receives(client, 5000);
  std::vector<char> buf(1 << 21);
  const uint32_t session_id = open_client_session(client, buf);
  if (session_id == 0) {
    r.error = "create_session through the host failed";
    return r;
  }
  r = client_round_trips(client, session_id, kMessageSizes[0], kLatencyTasks, kWarmupTasks,
                         cpu_pids, buf);
  if (!r.error.empty() || !with_sizes) return r;
  r.series.push_back(r.p50_us);
  for (size_t i = 1; i < kMessageSizes.size(); ++i) {
    const Result point = client_round_trips(client, session_id, kMessageSizes[i], kSizeRoundTrips[i],
                                            size_warmup(kSizeRoundTrips[i]), cpu_pids, buf);
    if (!point.error.empty()) {
      r.error = point.error + " (" + std::to_string(kMessageSizes[i]) + " bytes)";
      return r;
    }
    r.series.push_back(point.p50_us);
  }
  return r;
}

// One client of the throughput figure: its own connection and session,
// tasks on its own plugin's opcode, up to `window` in flight. Returns an
// error text, or "" with the latencies of the `count` tasks.
std::string windowed_client(int client, uint32_t session_id, uint32_t opcode, uint32_t count,
                            uint32_t window, std::vector<char>& buf, std::vector<int64_t>* lat) {
  std::vector<int64_t> sent(count, 0);
  lat->clear();
  lat->reserve(count);
  uint32_t next = 0, inflight = 0;
  while (lat->size() < count) {
    while (inflight < window && next < count) {
      sent[next] = now_ns();
      if (!send_text(client, perform_message(session_id, task_text(session_id, next, opcode)))) {
        return "send to the host failed";
      }
      ++next;
      ++inflight;
    }
    const size_t n = receive_into(client, buf);
    const int64_t t = now_ns();
    uint32_t handle = 0;
    // The task's answer names the task by its number in "handle".
    if (!holds(buf, n, "exec_task") || !find_uint(buf.data(), n, "\"handle\"", &handle) ||
        handle >= count) {
      return "no task answer from the host: " + answer_head(buf, n);
    }
    lat->push_back(t - sent[handle]);
    --inflight;
  }
  return "";
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
    for (const char* name : {"/client", "/admin", "/lumo", "/lumokitd.lock", "/policy.json"}) {
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

// Starts lumokitd in a folder of its own; false with `error` set.
bool start_daemon(Daemon* daemon, std::string* error) {
  std::string exe = self_exe();
  const std::string daemon_path = exe.substr(0, exe.rfind('/')) + "/lumokitd";
  if (access(daemon_path.c_str(), X_OK) != 0) {
    *error = "lumokitd not built (" + daemon_path + ")";
    return false;
  }
  char dir_template[] = "/tmp/lumokit-bench-e2e-XXXXXX";
  if (mkdtemp(dir_template) == nullptr) {
    *error = "mkdtemp failed";
    return false;
  }
  daemon->dir = dir_template;
  // The bench's API is in the system service's catalogue, as a vendor lists
  // its APIs: no permission and no privacy operation, so every task passes
  // the gate without a query (and without the error line that an API
  // missing from the catalogue costs).
  const std::string policy = daemon->dir + "/policy.json";
  {
    std::ofstream out(policy);
    out << "{\"declared\": true, \"apis\": [{\"id\": \"benchEcho:2:int:string\", \"subsystem\": \"1\", "
           "\"permissions\": \"\", \"start_op\": \"\", \"stop_op\": \"\", \"extra1\": \"\", "
           "\"extra2\": \"\"}], \"apps\": []}\n";
    if (!out) {
      *error = "cannot write " + policy;
      return false;
    }
  }
  SpawnSpec launch;
  // Warnings and errors only, to /dev/null: the in-process scenarios run the
  // manager with its log off, so the per-message info lines would be the
  // one cost the daemon pays that they do not.
  launch.argv = {daemon_path, "--runtime-dir", daemon->dir, "--sys-policy", policy,
                 "--log-file", "/dev/null", "--log-level", "warn"};
  daemon->pid = spawn(launch);
  return true;
}

// A client connection, once the daemon accepts them; -1 if it never does.
int connect_client(const Daemon& daemon) {
  int client = -1;
  for (int i = 0; i < 2000 && client < 0; ++i) {
    client = connect_seqpacket(daemon.dir + "/client");
    if (client < 0) usleep(5000);
  }
  return client;
}

// One client and one plugin through lumokitd; with `monitored`, a monitor
// attached to the daemon for the whole run (the size curve is left out).
Result run_e2e_via_lumokitd(bool monitored) {
  Result r;
  Daemon daemon;
  if (!start_daemon(&daemon, &r.error)) return r;
  const int client = connect_client(daemon);
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
  r = client_tasks(client, {daemon.pid, plugins[0]}, !monitored);
  close(client);
  daemon.stop();
  stop_children(&plugins);
  return r;
}

}  // namespace

Result run_e2e() { return run_e2e_via_lumokitd(false); }
Result run_e2e_monitor() { return run_e2e_via_lumokitd(true); }

// 4 clients, each on its own connection with its own session, each sending
// tasks to its own plugin: throughput and the CPU of every process per task.
Result run_e2e_4x4() {
  constexpr int kClients = 4;
  Result r;
  Daemon daemon;
  if (!start_daemon(&daemon, &r.error)) return r;
  std::vector<int> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(connect_client(daemon));
    bound_receives(clients.back(), 5000);
    if (clients.back() < 0) {
      r.error = "lumokitd did not accept clients";
      for (int fd : clients) close(fd);
      return r;
    }
  }
  std::vector<pid_t> plugins;
  if (!start_plugins(daemon.dir + "/lumo", kBaseOpcode, kClients, 1, true, &plugins, &r.error)) {
    for (int fd : clients) close(fd);
    return r;
  }
  std::vector<pid_t> cpu_pids = plugins;
  cpu_pids.push_back(daemon.pid);
  std::vector<std::vector<char>> bufs(kClients, std::vector<char>(1 << 16));
  std::vector<uint32_t> sessions;
  for (int i = 0; i < kClients && r.error.empty(); ++i) {
    sessions.push_back(open_client_session(clients[i], bufs[i]));
    if (sessions.back() == 0) r.error = "create_session through the host failed";
  }
  // A warm-up phase, then the measured one, each with all clients at once.
  std::vector<std::vector<int64_t>> latencies(kClients);
  auto phase = [&](uint32_t count) {
    std::vector<std::string> errors(kClients);
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i) {
      threads.emplace_back([&, i] {
        errors[i] = windowed_client(clients[i], sessions[i], kBaseOpcode + static_cast<uint32_t>(i),
                                    count, kThroughputWindow, bufs[i], &latencies[i]);
      });
    }
    for (auto& t : threads) t.join();
    for (const std::string& e : errors) {
      if (!e.empty()) return e;
    }
    return std::string();
  };
  if (r.error.empty()) r.error = phase(kWarmupTasks);
  if (r.error.empty()) {
    const int64_t cpu0 = tree_cpu(cpu_pids);
    const int64_t t0 = now_ns();
    r.error = phase(kThroughputTasksPerSession);
    const int64_t wall = now_ns() - t0;
    const int64_t cpu = tree_cpu(cpu_pids) - cpu0;
    if (r.error.empty()) {
      std::vector<int64_t> all;
      for (const auto& l : latencies) all.insert(all.end(), l.begin(), l.end());
      r = timed_result(std::move(all), wall, cpu);
    }
  }
  for (int fd : clients) close(fd);
  daemon.stop();
  stop_children(&plugins);
  return r;
}

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
    r = client_tasks(sv[0], cpu_pids, false);
  }
  close(sv[0]);
  if (wait_child(host, 3000) < 0) r.error = r.error.empty() ? "the minimal host did not end" : r.error;
  return r;
}

}  // namespace bench
