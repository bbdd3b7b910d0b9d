// Registrations per second: a plugin process that connects, says INIT,
// registers one opcode with a valid token (AUTH) and leaves (DINT), again
// and again.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "bench_util.h"
#include "manager_host.h"
#include "peer_roles.h"
#include "scenarios.h"
#include "spawn.h"

namespace bench {

Result run_registrations() {
  constexpr int kWarmup = 100;
  constexpr int kRounds = 2000;
  Result r;
  std::string socket;
  if (!start_manager(false, &socket, &r.error)) return r;
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) {
    r.error = "pipe failed";
    return r;
  }
  const int64_t cpu_before = process_cpu_ns(getpid());
  pid_t client = start_registering_client(socket, 0x5000, kWarmup, kRounds, out[1]);
  close(out[1]);
  int64_t count = -1, wall = 0;
  std::vector<int64_t> rounds;
  pollfd p{out[0], POLLIN, 0};
  if (poll(&p, 1, 60000) > 0 && read_all(out[0], &count, sizeof(count)) && count > 0 &&
      read_all(out[0], &wall, sizeof(wall))) {
    rounds.resize(static_cast<size_t>(count));
    if (!read_all(out[0], rounds.data(), rounds.size() * sizeof(int64_t))) count = -1;
  } else {
    count = -1;
  }
  const int64_t manager_cpu = process_cpu_ns(getpid()) - cpu_before;
  close(out[0]);
  wait_child(client, 5000);
  if (count <= 0) {
    r.error = "the registering client failed";
    return r;
  }
  const Percentiles pc = percentiles(rounds);
  r.p50_us = pc.p50_us;
  r.p99_us = pc.p99_us;
  r.count = count;
  r.ops_per_s = static_cast<double>(count) * 1e9 / static_cast<double>(wall);
  // The manager's side only (warm-up rounds included, so slightly high):
  // the client's token signing is not the manager's cost.
  r.cpu_us_per_op = static_cast<double>(manager_cpu) / 1000.0 / static_cast<double>(kWarmup + kRounds);
  return r;
}

}  // namespace bench
