// lumokit-soak: the chaos soak. Runs lumokitd with plugin processes and
// client sessions under load while plugins are SIGKILLed and restarted,
// clients drop their connections and the system service dies and comes
// back; then checks crash notices, answer routing, the state left behind
// and the daemon's memory, and prints one summary line.
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "chaos.h"
#include "client_worker.h"
#include "e2e_process.h"
#include "plugin_fleet.h"
#include "rss_monitor.h"
#include "soak_checks.h"
#include "soak_clock.h"
#include "soak_daemon.h"
#include "soak_link.h"
#include "soak_options.h"
#include "soak_setup.h"

namespace {

using namespace lumokit::soak;

constexpr int kSkip = 77;  // ctest's SKIP_RETURN_CODE

// Checks named in the summary, in its order.
const char* const kChecks[] = {"daemon alive", "crash notices", "routing",  "tasks",
                               "gate",         "no leftovers",  "memory",   "plugins",
                               "protocol",     "sanitizers"};

bool sanitized_build() { return std::string(LUMOKIT_SOAK_SANITIZE).size() > 0; }
bool thread_sanitized_build() {
  return std::string(LUMOKIT_SOAK_SANITIZE).find("thread") != std::string::npos;
}

bool status_now(const WorkDir& dir, Json::Value* status, FailureLog& failures) {
  AdminLink admin(dir.runtime + "/admin");
  Json::Value request(Json::objectValue);
  request["op"] = "status";
  std::string error;
  if (!admin.call(request, status, &error)) {
    failures.add("daemon alive", "admin status failed at the end: " + error);
    return false;
  }
  return true;
}

std::vector<int32_t> running_ids(const PluginFleet& fleet) {
  std::vector<int32_t> ids;
  for (uint32_t slot = 0; slot < fleet.size(); ++slot) {
    if (fleet.state(slot) == PluginFleet::State::kReady) ids.push_back(fleet.current(slot).service_id);
  }
  return ids;
}

void write_text(const std::string& path, const std::string& text) {
  if (FILE* f = std::fopen(path.c_str(), "w")) {
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
  }
}

// True once the daemon has finished ending the sessions of clients that
// left: the counts match and every other session is a granted-only record.
bool departures_done(const Json::Value& status, const DumpExpectation& expect) {
  std::set<uint32_t> live;
  for (const SessionRecord& s : expect.live_sessions) live.insert(s.id);
  if (status["clients"].asUInt64() != expect.clients ||
      status["owned_sessions"].asUInt64() != live.size()) {
    return false;
  }
  for (const Json::Value& s : status["state"]["sessions"]) {
    if (live.count(s["session_id"].asUInt()) == 0 &&
        (s["has_callback"].asBool() || !s["connected"].empty() || !s["plugins"].empty())) {
      return false;
    }
  }
  return true;
}

// Checks the state dump once departures are done, or after 60 s.
// The dump is kept in `save_as` for whoever reads a failure.
DumpTally settled_dump(const WorkDir& dir, const PluginFleet& fleet, DumpExpectation expect,
                       const std::string& save_as, FailureLog& failures) {
  const int64_t deadline = mono_ns() + 60 * kSec;
  Json::Value status;
  for (;;) {
    if (!status_now(dir, &status, failures)) return DumpTally();
    if (departures_done(status, expect) || mono_ns() >= deadline) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  write_text(dir.root + "/" + save_as, json_text(status) + "\n");
  // Read the plugins' events only now: they log the ends the wait was for.
  expect.incarnations = fleet.records();
  return check_state_dump(status, expect, failures);
}

// A few threads and descriptors come and go with admin connections and
// system-service notices; anything beyond stays behind.
void check_back_to_base(pid_t pid, int64_t base_threads, int64_t base_fds, int64_t* end_threads,
                        int64_t* end_fds, FailureLog& failures) {
  constexpr int64_t kSlack = 3;
  int64_t& threads = *end_threads;
  int64_t& fds = *end_fds;
  const int64_t deadline = mono_ns() + 10 * kSec;
  do {
    threads = read_thread_count(pid);
    fds = count_open_fds(pid);
    if (threads <= base_threads + kSlack && fds <= base_fds + kSlack) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  } while (mono_ns() < deadline);
  failures.add("no leftovers", "the daemon has " + std::to_string(threads) + " threads and " +
                                   std::to_string(fds) + " descriptors after the clients left, " +
                                   std::to_string(base_threads) + " and " +
                                   std::to_string(base_fds) + " before they came");
}

std::vector<std::unique_ptr<ClientWorker>> make_workers(const Options& options, const WorkDir& dir,
                                                       const std::atomic<int>& phase,
                                                       FailureLog& failures) {
  std::vector<std::unique_ptr<ClientWorker>> workers;
  for (uint32_t i = 0; i < options.clients; ++i) {
    WorkerConfig w;
    w.index = i;
    w.sessions = options.sessions / options.clients + (i < options.sessions % options.clients ? 1 : 0);
    w.plugins = options.plugins;
    w.client_socket = dir.runtime + "/client";
    w.task_interval_ms = options.task_interval_ms;
    w.window = options.window;
    w.life_ms = options.client_life_ms;
    w.seed = options.seed * 7919 + i + 1;
    // Some clients lack the gated permission; each client has its own pid.
    w.denied = options.denied_every != 0 && i % options.denied_every == options.denied_every - 1;
    w.uid = w.denied ? kDeniedUid : kPermittedUid;
    w.pid = static_cast<int32_t>(41000 + i);
    workers.push_back(std::make_unique<ClientWorker>(w, phase, failures));
  }
  return workers;
}

// The counters of all clients (the lists of misses stay per client).
WorkerTotals add_up(const std::vector<WorkerTotals>& totals) {
  WorkerTotals sum;
  for (const WorkerTotals& t : totals) {
    sum.tasks_sent += t.tasks_sent;
    sum.answered += t.answered;
    sum.gated_answered += t.gated_answered;
    sum.denied_silent += t.denied_silent;
    sum.creates_failed += t.creates_failed;
    sum.reattach_ok += t.reattach_ok;
    sum.reattach_failed += t.reattach_failed;
    sum.disconnects += t.disconnects;
    sum.notices += t.notices;
  }
  return sum;
}

// Stops new work, lets the clients settle what is outstanding, and checks
// the state dump while they are still connected.
DumpTally drain_and_inspect(const WorkDir& dir, const PluginFleet& fleet, Daemon& daemon,
                            std::vector<std::unique_ptr<ClientWorker>>& workers,
                            std::atomic<int>& phase, FailureLog& failures) {
  DumpTally held;
  phase = static_cast<int>(Phase::kDrain);
  const int64_t deadline = mono_ns() + kTaskTimeoutNs + 30 * kSec;
  bool drained = false;
  while (!drained && mono_ns() < deadline && daemon.alive()) {
    drained = true;
    for (auto& w : workers) drained = drained && w->drained();
    if (!drained) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  phase = static_cast<int>(Phase::kHold);
  if (!drained) {
    failures.add("daemon alive", "clients could not settle their tasks in time");
    return held;
  }
  DumpExpectation expect;
  expect.label = "with clients";
  expect.live_service_ids = running_ids(fleet);
  for (auto& w : workers) {
    for (SessionRecord& s : w->live_sessions()) expect.live_sessions.push_back(s);
    expect.failed_creates += w->creates_failed_now();
    expect.clients += w->connected_now() ? 1 : 0;
  }
  held = settled_dump(dir, fleet, expect, "status-with-clients.json", failures);
  for (auto& w : workers) {
    if (w->hold_messages() != 0) {
      failures.add("routing", std::to_string(w->hold_messages()) +
                                  " messages reached a client while nothing was running");
    }
  }
  return held;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  options.bin_dir = LUMOKIT_BIN_DIR;
  options.signing_key = LUMOKIT_SOAK_SIGNING_KEY;
  if (sanitized_build()) {
    // Sanitizer allocators hold freed memory back (ASan's quarantine keeps
    // up to 256 MiB) and shadow it, so the RSS says nothing about leaks
    // there unless a bound is asked for. TSan runs everything several
    // times slower.
    options.rss_bound_kib = 0;
    if (thread_sanitized_build()) options.task_interval_ms = 400;
  }
  std::string error;
  bool help = false;
  if (!parse_options(argc, argv, &options, &error, &help)) {
    std::fprintf(help ? stdout : stderr, "%s\n", error.c_str());
    return help ? 0 : 2;
  }
  if (options.seed == 0) options.seed = static_cast<uint64_t>(mono_ns());
  signal(SIGPIPE, SIG_IGN);

  WorkDir dir;
  if (!prepare_work_dir(options, &dir, &error)) {
    std::fprintf(stderr, "soak: cannot prepare the work directory: %s\n", error.c_str());
    if (!dir.root.empty()) remove_work_dir(dir);
    return error.find("signing key") != std::string::npos ? kSkip : 1;
  }
  route_sanitizer_logs(dir);
  std::printf("soak: work directory %s, seed %llu\n", dir.root.c_str(),
              static_cast<unsigned long long>(options.seed));
  std::fflush(stdout);

  FailureLog failures;
  Daemon daemon(dir, options.bin_dir, options.daemon_prefix, failures);
  PluginFleet fleet(dir, options.bin_dir + "/lumokit-soak-plugin", options.plugins, failures);
  ChaosConfig chaos_config;
  chaos_config.kill_every_ms = options.kill_every_ms;
  chaos_config.sys_every_ms = options.sys_every_ms;
  chaos_config.min_ready = std::min<uint32_t>(3, options.plugins > 1 ? options.plugins - 1 : 0);
  chaos_config.seed = options.seed;
  Chaos chaos(fleet, dir.runtime + "/admin", failures, chaos_config,
              [&daemon] { return daemon.alive(); });

  std::atomic<int> phase{static_cast<int>(Phase::kRun)};
  std::vector<std::unique_ptr<ClientWorker>> workers;
  std::vector<std::thread> threads;
  std::unique_ptr<RssMonitor> rss;
  int64_t t_start = 0, t_chaos_end = 0;
  RssGrowth growth;
  NoticeTally notices;
  TaskTally task_tally;
  DumpTally held, after;

  const bool up = daemon.start() && chaos.bring_up(60 * kSec);
  // Threads and descriptors with every plugin up and no client: the daemon
  // must come back to these once the clients have left.
  int64_t base_threads = -1, base_fds = -1, end_threads = -1, end_fds = -1;
  if (up) {
    base_threads = read_thread_count(daemon.pid());
    base_fds = count_open_fds(daemon.pid());
  }
  if (up) {
    rss = std::make_unique<RssMonitor>(daemon.pid(), 250);
    workers = make_workers(options, dir, phase, failures);
    for (auto& w : workers) threads.emplace_back(&ClientWorker::run, w.get());

    t_start = mono_ns();
    chaos.run_until(t_start + static_cast<int64_t>(options.seconds) * kSec);
    t_chaos_end = mono_ns();
    growth = rss_growth(rss->samples(), t_start, t_chaos_end);
    // The daemon's mappings at the end of the chaos, for reading a memory failure.
    write_text(dir.root + "/daemon-smaps.txt",
               lumokit::e2e::read_file("/proc/" + std::to_string(daemon.pid()) + "/smaps"));

    // Quiet down: every plugin back, tasks settled, then look at the state.
    if (daemon.alive() && chaos.settle(60 * kSec)) {
      held = drain_and_inspect(dir, fleet, daemon, workers, phase, failures);
    }
    phase = static_cast<int>(Phase::kClose);
    for (std::thread& t : threads) t.join();

    if (daemon.alive()) {
      DumpExpectation expect;
      expect.label = "after the clients left";
      expect.live_service_ids = running_ids(fleet);
      for (auto& w : workers) expect.failed_creates += w->creates_failed_now();
      after = settled_dump(dir, fleet, expect, "status-after-clients.json", failures);
      check_back_to_base(daemon.pid(), base_threads, base_fds, &end_threads, &end_fds, failures);
    }
    rss->stop();
    write_rss_samples(dir.root + "/daemon-rss.tsv", rss->samples(), t_start);
  } else {
    phase = static_cast<int>(Phase::kClose);
  }

  fleet.stop_all(std::chrono::seconds(15));
  daemon.stop();

  // Verdicts from the records.
  std::vector<SessionRecord> sessions;
  std::vector<WorkerTotals> totals;
  for (auto& w : workers) {
    sessions.insert(sessions.end(), w->records().begin(), w->records().end());
    totals.push_back(w->totals());
  }
  const WorkerTotals sum = add_up(totals);
  const std::vector<Incarnation> incarnations = fleet.records();
  if (up) {
    notices = check_crash_notices(incarnations, sessions,
                                  unowned_notice_drops(lumokit::e2e::read_file(dir.daemon_log)),
                                  failures);
    task_tally = check_task_misses(totals, incarnations, chaos.outages(), failures);
    if (!growth.valid) {
      failures.add("memory", "too few RSS samples of the daemon");
    } else if (options.rss_bound_kib != 0 && growth.growth_kib() > options.rss_bound_kib) {
      failures.add("memory", "the daemon's RSS grew by " + std::to_string(growth.growth_kib()) +
                                 " KiB (from " + std::to_string(growth.first_kib) + " to " +
                                 std::to_string(growth.last_kib) + " KiB), more than " +
                                 std::to_string(options.rss_bound_kib) + " KiB");
    }
    if (sum.answered == 0 || chaos.kills() == 0) {
      failures.add("tasks", "the soak ran no tasks or killed no plugin: nothing was tested");
    }
    if (sum.gated_answered == 0) failures.add("gate", "no gated task was ever answered");
    if (chaos.kills() != 0 && notices.received == 0) {
      failures.add("crash notices", "plugins were killed, yet no session ever heard of it");
    }
  }
  std::vector<std::string> outputs = fleet.log_paths();
  outputs.push_back(dir.daemon_out);
  outputs.push_back(dir.daemon_log);
  check_sanitizer_output(dir.sanitizer, outputs, failures);

  std::printf("soak: details: %llu answered (%llu gated), %llu lost around deaths or outages, "
              "%llu unserved while a slot was down, %llu denied tasks kept silent, "
              "%llu creations refused, %llu re-attaches (%llu refused), %llu incarnations, "
              "slowest forget %.0f ms, slowest status %.0f ms, granted-only records %llu, "
              "stale started entries %llu/%llu, RSS %lld -> %lld KiB (peak %lld), "
              "daemon threads %lld -> %lld, descriptors %lld -> %lld\n",
              (unsigned long long)sum.answered, (unsigned long long)sum.gated_answered,
              (unsigned long long)task_tally.lost_explained,
              (unsigned long long)task_tally.unserved_explained,
              (unsigned long long)sum.denied_silent, (unsigned long long)sum.creates_failed,
              (unsigned long long)sum.reattach_ok, (unsigned long long)sum.reattach_failed,
              (unsigned long long)incarnations.size(), chaos.slowest_forget_ns() / 1e6,
              chaos.slowest_status_ns() / 1e6, (unsigned long long)after.granted_only,
              (unsigned long long)held.stale_started, (unsigned long long)after.stale_started,
              (long long)growth.first_kib, (long long)growth.last_kib, (long long)growth.peak_kib,
              (long long)base_threads, (long long)end_threads, (long long)base_fds,
              (long long)end_fds);
  failures.print(8);
  failures.write_all(dir.root + "/failures.txt");

  std::string verdicts;
  for (const char* check : kChecks) {
    verdicts += std::string(", ") + check + (failures.failed(check) ? " FAIL" : " OK");
    if (std::string(check) == "crash notices") {
      verdicts += " (" + std::to_string(notices.received) + " received, " +
                  std::to_string(notices.required) + " required)";
    } else if (std::string(check) == "memory") {
      const std::string delta = std::string(growth.growth_kib() >= 0 ? "+" : "") +
                                std::to_string(growth.growth_kib()) + " KiB";
      if (options.rss_bound_kib == 0 && !failures.failed(check)) {
        verdicts.replace(verdicts.size() - 3, 3, " SKIPPED (" + delta + ", sanitizer allocator)");
      } else {
        verdicts += " (" + delta + ", bound " + std::to_string(options.rss_bound_kib) + " KiB)";
      }
    }
  }
  const bool pass = failures.count() == 0;
  std::printf("soak: %ds, %u plugins, %u sessions, %llu tasks, %u plugin kills, %llu disconnects, "
              "%u sys restarts: %s -> %s\n",
              options.seconds, options.plugins, options.sessions,
              (unsigned long long)sum.tasks_sent, chaos.kills(),
              (unsigned long long)sum.disconnects, chaos.sys_restarts(), verdicts.substr(2).c_str(),
              pass ? "PASS" : "FAIL");
  if (pass && !options.keep) {
    remove_work_dir(dir);
  } else {
    std::printf("soak: kept %s\n", dir.root.c_str());
  }
  std::fflush(stdout);
  return pass ? 0 : 1;
}
