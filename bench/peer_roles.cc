#include "peer_roles.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "bench_util.h"
#include "dbus_peer.h"
#include "minimal_host.h"
#include "plugin_wire.h"
#include "private_bus.h"
#include "spawn.h"

namespace bench {
namespace {

std::map<std::string, std::string> parse_flags(int argc, char** argv) {
  std::map<std::string, std::string> flags;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (strncmp(argv[i], "--", 2) == 0) flags[argv[i] + 2] = argv[i + 1];
  }
  return flags;
}

long flag_num(const std::map<std::string, std::string>& f, const char* name) {
  auto it = f.find(name);
  return it == f.end() ? 0 : std::strtol(it->second.c_str(), nullptr, 0);
}

int role_echo(int fd) {
  std::vector<char> buf(1 << 20);
  for (;;) {
    ssize_t n = recv(fd, buf.data(), buf.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return 0;
    if (send(fd, buf.data(), static_cast<size_t>(n), MSG_NOSIGNAL) != n) return 0;
  }
}

int role_plugin(const std::string& socket, uint32_t base_opcode, int conns, int ready_fd, bool serving) {
  std::vector<int> fds;
  char verdict = 'R';
  for (int i = 0; i < conns && verdict == 'R'; ++i) {
    const uint32_t opcode = base_opcode + static_cast<uint32_t>(i);
    std::string members, error;
    int fd = connect_seqpacket(socket);
    int service_id = 0;
    if (fd < 0 || !registration_members(opcode, &members, &error) || !plugin_init(fd, &service_id) ||
        !plugin_auth(fd, service_id, opcode, members) || !plugin_redy(fd, service_id, opcode)) {
      fprintf(stderr, "bench plugin 0x%X: registration failed %s\n", opcode, error.c_str());
      verdict = 'E';
    }
    fds.push_back(fd);
  }
  write_all(ready_fd, &verdict, 1);
  close(ready_fd);
  if (verdict != 'R') return 1;
  if (serving && fds.size() == 1) {
    serve(fds[0]);
    return 0;
  }
  // Idle plugins stay connected until the scenario ends (and kills us).
  for (;;) pause();
}

int role_regs(const std::string& socket, uint32_t opcode, int warmup, int cycles, int result_fd) {
  std::string members, error;
  int64_t count = -1;
  if (!registration_members(opcode, &members, &error)) {
    fprintf(stderr, "bench registrations: %s\n", error.c_str());
    write_all(result_fd, &count, sizeof(count));
    return 1;
  }
  std::vector<int64_t> rounds;
  rounds.reserve(static_cast<size_t>(cycles));
  int64_t start = 0;
  for (int i = 0; i < warmup + cycles; ++i) {
    if (i == warmup) start = now_ns();
    const int64_t t0 = now_ns();
    int fd = connect_seqpacket(socket);
    int service_id = 0;
    const bool ok = fd >= 0 && plugin_init(fd, &service_id) &&
                    plugin_auth(fd, service_id, opcode, members) && plugin_dint(fd, service_id);
    if (fd >= 0) close(fd);
    if (!ok) {
      fprintf(stderr, "bench registrations: round %d refused\n", i);
      write_all(result_fd, &count, sizeof(count));
      return 1;
    }
    if (i >= warmup) rounds.push_back(now_ns() - t0);
  }
  const int64_t wall = now_ns() - start;
  count = static_cast<int64_t>(rounds.size());
  write_all(result_fd, &count, sizeof(count));
  write_all(result_fd, &wall, sizeof(wall));
  write_all(result_fd, rounds.data(), rounds.size() * sizeof(int64_t));
  return 0;
}

}  // namespace

int run_role(int argc, char** argv) {
  const auto f = parse_flags(argc, argv);
  const std::string role = f.count("role") ? f.at("role") : "";
  const std::string socket = f.count("socket") ? f.at("socket") : "";
  if (role == "echo") return role_echo(static_cast<int>(flag_num(f, "fd")));
  if (role == "host") return run_minimal_host(static_cast<int>(flag_num(f, "fd")));
  if (role == "plugin") {
    return role_plugin(socket, static_cast<uint32_t>(flag_num(f, "opcode")),
                       static_cast<int>(flag_num(f, "conns")), static_cast<int>(flag_num(f, "ready-fd")),
                       flag_num(f, "serve") != 0);
  }
  if (role == "dbus-echo") {
    return run_echo_service(f.count("address") ? f.at("address") : "",
                            static_cast<int>(flag_num(f, "index")),
                            static_cast<int>(flag_num(f, "ready-fd")));
  }
  if (role == "broker-launcher") {
    return run_broker_launcher(f.count("dir") ? f.at("dir") : "",
                               static_cast<int>(flag_num(f, "listen-fd")),
                               static_cast<int>(flag_num(f, "ready-fd")));
  }
  if (role == "regs") {
    return role_regs(socket, static_cast<uint32_t>(flag_num(f, "opcode")),
                     static_cast<int>(flag_num(f, "warmup")), static_cast<int>(flag_num(f, "cycles")),
                     static_cast<int>(flag_num(f, "result-fd")));
  }
  fprintf(stderr, "lumokit_bench: unknown role '%s'\n", role.c_str());
  return 2;
}

pid_t start_echo_peer(int fd) {
  return spawn_self({"--role", "echo", "--fd", std::to_string(fd)}, {fd});
}

bool start_plugins(const std::string& socket, uint32_t base_opcode, int processes, int conns_each,
                   bool serving, std::vector<pid_t>* pids, std::string* error) {
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) {
    *error = "pipe failed";
    return false;
  }
  std::vector<pid_t> started;
  for (int i = 0; i < processes; ++i) {
    const uint32_t opcode = base_opcode + static_cast<uint32_t>(i * conns_each);
    pid_t pid = spawn_self({"--role", "plugin", "--socket", socket, "--opcode", std::to_string(opcode),
                            "--conns", std::to_string(conns_each), "--ready-fd",
                            std::to_string(ready[1]), "--serve", serving ? "1" : "0"},
                           {ready[1]});
    if (pid > 0) started.push_back(pid);
  }
  close(ready[1]);
  bool ok = static_cast<int>(started.size()) == processes;
  for (int got = 0; ok && got < processes; ++got) {
    pollfd p{ready[0], POLLIN, 0};
    char verdict = 0;
    ok = poll(&p, 1, 30000) > 0 && read_all(ready[0], &verdict, 1) && verdict == 'R';
  }
  close(ready[0]);
  if (!ok) {
    stop_children(&started);
    *error = "plugin processes did not come up";
    return false;
  }
  pids->insert(pids->end(), started.begin(), started.end());
  return true;
}

pid_t start_registering_client(const std::string& socket, uint32_t opcode, int warmup, int cycles,
                               int result_fd) {
  return spawn_self({"--role", "regs", "--socket", socket, "--opcode", std::to_string(opcode),
                     "--warmup", std::to_string(warmup), "--cycles", std::to_string(cycles),
                     "--result-fd", std::to_string(result_fd)},
                    {result_fd});
}

void stop_children(std::vector<pid_t>* pids) {
  for (pid_t pid : *pids) kill_child(pid);
  pids->clear();
}

}  // namespace bench
