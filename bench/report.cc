// The scenario list, results as JSON, and the process that runs one
// scenario and prints its result.
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "bench_util.h"
#include "manager_host.h"
#include "scenarios.h"

namespace bench {

namespace {

std::vector<double> as_x(const std::vector<size_t>& v) { return std::vector<double>(v.begin(), v.end()); }
std::vector<double> as_x(const std::vector<uint32_t>& v) { return std::vector<double>(v.begin(), v.end()); }
std::vector<double> as_x(const std::vector<int>& v) { return std::vector<double>(v.begin(), v.end()); }

}  // namespace

const std::vector<Scenario>& all_scenarios() {
  static const char kBySize[] = "p50 us by message size (B)";
  static const std::vector<Scenario> list = {
      {"raw", "RAW floor: 200 B text to a peer process and back", run_raw, false, as_x(kMessageSizes),
       kBySize},
      {"raw_xcpu", "RAW across CPUs: the two processes held apart", run_raw_xcpu, true},
      {"wake", "WAKE floor: condvar hand-off to a thread and back", run_wake},
      {"shape_1", "SHAPE floor: 1 caller, 1 peer", run_shape_1},
      {"task_1x1", "task round trip: 1 session, 1 plugin", run_task_1x1, false, as_x(kMessageSizes),
       kBySize},
      {"task_1x1_log", "task round trip, manager log on (info, /dev/null)", run_task_1x1_log},
      {"task_sessions", "task round trip, 1 session open (then more)", run_task_sessions, false,
       as_x(kOpenSessionCounts), "p50 us by open sessions"},
      {"shape_4x4", "SHAPE floor: 4 callers, 4 peers", run_shape_4x4},
      {"task_4x4", "tasks: 4 sessions on 4 plugins", run_task_4x4},
      {"shape_4x1", "SHAPE floor: 4 callers, 1 peer", run_shape_4x1},
      {"task_4x1", "tasks: 4 sessions on 1 plugin", run_task_4x1},
      {"e2e", "end to end: client -> lumokitd (log warn) -> plugin", run_e2e, false,
       as_x(kMessageSizes), kBySize},
      {"e2e_monitor", "end to end, one monitor attached to lumokitd", run_e2e_monitor},
      {"e2e_min", "end to end, bench's minimal host instead", run_e2e_min},
      {"e2e_4x4", "end to end: 4 clients on 4 plugins", run_e2e_4x4},
      {"dbus_broker", "D-Bus call via dbus-broker, sd-bus both ends", run_dbus_broker, false,
       as_x(kMessageSizes), kBySize},
      {"dbus_daemon", "D-Bus call via dbus-daemon, sd-bus both ends", run_dbus_daemon, false,
       as_x(kMessageSizes), kBySize},
      {"dbus_broker_4x4", "D-Bus via dbus-broker: 4 callers on 4 services", run_dbus_broker_4x4},
      {"dbus_daemon_4x4", "D-Bus via dbus-daemon: 4 callers on 4 services", run_dbus_daemon_4x4},
      {"create_1", "create_session, 1 ready plugin", run_create_1},
      {"create_8", "create_session, 8 ready plugins", run_create_8},
      {"create_64", "create_session, 64 ready plugins", run_create_64},
      {"regs", "registration: connect+INIT+AUTH+DINT", run_registrations},
      {"mem_plugin", "resident per connected ready plugin (64)", run_mem_plugins, false,
       as_x(kMemoryPluginCounts), "KiB added by ready plugins"},
      {"mem_session", "resident per open one-pair session (10,000)", run_mem_sessions, false,
       as_x(kMemorySessionCounts), "KiB added by open sessions"},
      {"json_task", "jsoncpp parse: task text (perform_task)", run_json_task},
      {"json_answer", "jsoncpp parse: plugin answer (handler)", run_json_answer},
      {"json_client", "jsoncpp parse: client message (lumokitd)", run_json_client},
      {"scan_task", "one-pass scan: task text (perform_task)", run_scan_task},
      {"scan_answer", "one-pass scan: plugin answer (handler)", run_scan_answer},
      {"scan_client", "one-pass scan+decode: client message (lumokitd)", run_scan_client},
  };
  return list;
}

Result timed_result(std::vector<int64_t> durations_ns, int64_t wall_ns, int64_t cpu_ns) {
  Result r;
  r.count = static_cast<int64_t>(durations_ns.size());
  const Percentiles p = percentiles(std::move(durations_ns));
  r.p50_us = p.p50_us;
  r.p99_us = p.p99_us;
  if (r.count > 0 && wall_ns > 0) r.ops_per_s = static_cast<double>(r.count) * 1e9 / static_cast<double>(wall_ns);
  if (r.count > 0 && cpu_ns >= 0) r.cpu_us_per_op = static_cast<double>(cpu_ns) / 1000.0 / static_cast<double>(r.count);
  return r;
}

const Scenario* find_scenario(const std::string& name) {
  for (const Scenario& s : all_scenarios()) {
    if (name == s.name) return &s;
  }
  return nullptr;
}

Json::Value to_json(const Result& r) {
  Json::Value v(Json::objectValue);
  auto put = [&](const char* key, double x) {
    if (x >= 0) v[key] = x;
  };
  put("p50_us", r.p50_us);
  put("p99_us", r.p99_us);
  put("ops_per_s", r.ops_per_s);
  put("cpu_us_per_op", r.cpu_us_per_op);
  put("kib_per_item", r.kib_per_item);
  put("other_cpus", r.other_cpus);
  v["count"] = static_cast<Json::Int64>(r.count);
  if (!r.series.empty()) {
    v["series"] = Json::Value(Json::arrayValue);
    for (double y : r.series) v["series"].append(y);
  }
  if (!r.error.empty()) v["error"] = r.error;
  if (!r.not_measured.empty()) v["not_measured"] = r.not_measured;
  return v;
}

Result result_from_json(const Json::Value& v) {
  Result r;
  auto get = [&](const char* key) { return v.isMember(key) ? v[key].asDouble() : -1.0; };
  r.p50_us = get("p50_us");
  r.p99_us = get("p99_us");
  r.ops_per_s = get("ops_per_s");
  r.cpu_us_per_op = get("cpu_us_per_op");
  r.kib_per_item = get("kib_per_item");
  r.other_cpus = get("other_cpus");
  r.count = v.get("count", 0).asInt64();
  for (const Json::Value& y : v["series"]) r.series.push_back(y.asDouble());
  r.error = v.get("error", "").asString();
  r.not_measured = v.get("not_measured", "").asString();
  return r;
}

Result not_measured(std::string why) {
  Result r;
  r.not_measured = std::move(why);
  return r;
}

int run_scenario_process(const std::string& name) {
  const Scenario* s = find_scenario(name);
  if (s == nullptr) {
    fprintf(stderr, "lumokit_bench: unknown scenario '%s'\n", name.c_str());
    return 2;
  }
  // Orphans of the run (a bus daemon's own children) come back to us, so
  // that their CPU time is the run's.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  Result r = s->run();
  Json::StreamWriterBuilder w;
  w["indentation"] = "";
  const std::string line = Json::writeString(w, to_json(r)) + "\n";
  fputs(line.c_str(), stdout);
  fflush(stdout);
  remove_manager_socket();
  // The manager's threads can't be stopped: leave without running static
  // destructors under them. Plugin processes die with us.
  _exit(r.error.empty() ? 0 : 1);
}

}  // namespace bench
