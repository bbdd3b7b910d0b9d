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

constexpr int kCreateWarmup = 30;
constexpr int kCreateMeasured = 400;

Result run_create(int plugins) {
  Result r;
  std::string socket;
  if (!start_manager(false, &socket, &r.error)) return r;
  std::vector<pid_t> pids;
  if (!start_plugins(socket, kBaseOpcode, plugins, 1, true, &pids, &r.error)) return r;
  std::vector<int64_t> lat;
  int64_t wall = 0;
  for (int i = 0; i < kCreateWarmup + kCreateMeasured; ++i) {
    const int64_t t0 = now_ns();
    const uint32_t sid = open_session(static_cast<uint32_t>(i));
    const int64_t t1 = now_ns();
    if (sid == 0) {
      r.error = "create_session failed";
      break;
    }
    if (i >= kCreateWarmup) {
      lat.push_back(t1 - t0);
      wall += t1 - t0;
    }
  }
  stop_children(&pids);
  if (!r.error.empty()) return r;
  return timed_result(std::move(lat), wall, -1);
}

}  // namespace

Result run_create_1() { return run_create(1); }
Result run_create_8() { return run_create(8); }

Result run_mem_plugins() {
  constexpr int kPlugins = 64;
  Result r;
  std::string socket;
  if (!start_manager(false, &socket, &r.error)) return r;
  std::vector<pid_t> pids;
  // One plugin first, so that one-time costs (token check tables, the first
  // thread arenas) are not charged to the measured ones.
  if (!start_plugins(socket, 0x3000, 1, 1, false, &pids, &r.error)) return r;
  const long before = rss_kib();
  if (!start_plugins(socket, 0x4000, 1, kPlugins, false, &pids, &r.error)) {
    stop_children(&pids);
    return r;
  }
  const long after = rss_kib();
  stop_children(&pids);
  if (before < 0 || after < 0) {
    r.error = "VmRSS unreadable";
    return r;
  }
  r.count = kPlugins;
  r.kib_per_item = static_cast<double>(after - before) / kPlugins;
  return r;
}

Result run_mem_sessions() {
  constexpr int kSessions = 1000;
  constexpr int kWarmup = 50;
  Result r;
  std::string socket;
  if (!start_manager(false, &socket, &r.error)) return r;
  std::vector<pid_t> pids;
  if (!start_plugins(socket, kBaseOpcode, 1, 1, true, &pids, &r.error)) return r;
  long before = -1;
  for (int i = 0; i < kWarmup + kSessions && r.error.empty(); ++i) {
    if (i == kWarmup) before = rss_kib();
    if (open_session(static_cast<uint32_t>(i)) == 0) r.error = "create_session failed";
  }
  const long after = rss_kib();
  stop_children(&pids);
  if (!r.error.empty()) return r;
  if (before < 0 || after < 0) {
    r.error = "VmRSS unreadable";
    return r;
  }
  r.count = kSessions;
  r.kib_per_item = static_cast<double>(after - before) / kSessions;
  return r;
}

}  // namespace bench
