// create_session against ready plugin processes, and the resident size the
// manager adds per connected ready plugin and per open session.
#include "LumokitSessionManager.h"
#include "bench_util.h"
#include "manager_host.h"
#include "peer_roles.h"
#include "scenarios.h"
#include "tracker.h"

namespace bench {
namespace {

Result run_create(int plugins, int warmup, int measured) {
  Result r;
  std::string socket;
  if (!start_manager(false, &socket, &r.error)) return r;
  std::vector<pid_t> pids;
  if (!start_plugins(socket, kBaseOpcode, plugins, 1, true, &pids, &r.error)) return r;
  std::vector<int64_t> lat;
  int64_t wall = 0;
  for (int i = 0; i < warmup + measured; ++i) {
    const int64_t t0 = now_ns();
    const uint32_t sid = open_session(static_cast<uint32_t>(i));
    const int64_t t1 = now_ns();
    if (sid == 0) {
      r.error = "create_session failed";
      break;
    }
    if (i >= warmup) {
      lat.push_back(t1 - t0);
      wall += t1 - t0;
    }
  }
  stop_children(&pids);
  if (!r.error.empty()) return r;
  return timed_result(std::move(lat), wall, -1);
}

}  // namespace

Result run_create_1() { return run_create(1, 30, 400); }
Result run_create_8() { return run_create(8, 30, 400); }
Result run_create_64() { return run_create(64, 10, 100); }

// Resident size added as ready plugins connect: one point per count of the
// curve; the figure is per plugin at the last.
Result run_mem_plugins() {
  Result r;
  std::string socket;
  if (!start_manager(false, &socket, &r.error)) return r;
  std::vector<pid_t> pids;
  // One plugin first, so that one-time costs (token check tables, the first
  // thread arenas) are not charged to the measured ones.
  if (!start_plugins(socket, 0x3000, 1, 1, false, &pids, &r.error)) return r;
  const long before = rss_kib();
  int connected = 0;
  long after = before;
  for (int target : kMemoryPluginCounts) {
    // One more process with as many connections as the step adds.
    const uint32_t opcode = 0x4000 + static_cast<uint32_t>(connected);
    if (!start_plugins(socket, opcode, 1, target - connected, false, &pids, &r.error)) {
      stop_children(&pids);
      return r;
    }
    connected = target;
    after = rss_kib();
    r.series.push_back(static_cast<double>(after - before));
  }
  stop_children(&pids);
  if (before < 0 || after < 0) {
    r.error = "VmRSS unreadable";
    return r;
  }
  r.count = connected;
  r.kib_per_item = static_cast<double>(after - before) / connected;
  return r;
}

// Resident size added as sessions open, one point per count of the curve;
// the figure is per session at the last.
Result run_mem_sessions() {
  constexpr int kWarmup = 50;
  Result r;
  std::string socket;
  if (!start_manager(false, &socket, &r.error)) return r;
  std::vector<pid_t> pids;
  if (!start_plugins(socket, kBaseOpcode, 1, 1, true, &pids, &r.error)) return r;
  int opened = 0;
  for (; opened < kWarmup && r.error.empty(); ++opened) {
    if (open_session(static_cast<uint32_t>(opened)) == 0) r.error = "create_session failed";
  }
  const long before = rss_kib();
  long after = before;
  for (int target : kMemorySessionCounts) {
    for (; opened < kWarmup + target && r.error.empty(); ++opened) {
      if (open_session(static_cast<uint32_t>(opened)) == 0) r.error = "create_session failed";
    }
    after = rss_kib();
    r.series.push_back(static_cast<double>(after - before));
  }
  stop_children(&pids);
  if (!r.error.empty()) return r;
  if (before < 0 || after < 0) {
    r.error = "VmRSS unreadable";
    return r;
  }
  r.count = kMemorySessionCounts.back();
  r.kib_per_item = static_cast<double>(after - before) / r.count;
  return r;
}

}  // namespace bench
