// The scenario list, results as JSON, and the process that runs one
// scenario and prints its result.
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "bench_util.h"
#include "manager_host.h"
#include "scenarios.h"

namespace bench {

const std::vector<Scenario>& all_scenarios() {
  static const std::vector<Scenario> list = {
      {"raw", "RAW floor: 200 B text to a peer process and back", run_raw},
      {"raw_xcpu", "RAW across CPUs: the two processes held apart", run_raw_xcpu, true},
      {"wake", "WAKE floor: condvar hand-off to a thread and back", run_wake},
      {"shape_1", "SHAPE floor: 1 caller, 1 peer", run_shape_1},
      {"task_1x1", "task round trip: 1 session, 1 plugin", run_task_1x1},
      {"task_1x1_log", "task round trip, manager log on (info, /dev/null)", run_task_1x1_log},
      {"shape_4x4", "SHAPE floor: 4 callers, 4 peers", run_shape_4x4},
      {"task_4x4", "tasks: 4 sessions on 4 plugins", run_task_4x4},
      {"shape_4x1", "SHAPE floor: 4 callers, 1 peer", run_shape_4x1},
      {"task_4x1", "tasks: 4 sessions on 1 plugin", run_task_4x1},
      {"e2e", "end to end: client -> lumokitd (log warn) -> plugin", run_e2e},
      {"e2e_monitor", "end to end, one monitor attached to lumokitd", run_e2e_monitor},
      {"e2e_min", "end to end, bench's minimal host instead", run_e2e_min},
      {"create_1", "create_session, 1 ready plugin", run_create_1},
      {"create_8", "create_session, 8 ready plugins", run_create_8},
      {"regs", "registration: connect+INIT+AUTH+DINT", run_registrations},
      {"mem_plugin", "resident per connected ready plugin (64)", run_mem_plugins},
      {"mem_session", "resident per open one-pair session (1,000)", run_mem_sessions},
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
  if (!r.error.empty()) v["error"] = r.error;
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
  r.error = v.get("error", "").asString();
  return r;
}

int run_scenario_process(const std::string& name) {
  const Scenario* s = find_scenario(name);
  if (s == nullptr) {
    fprintf(stderr, "lumokit_bench: unknown scenario '%s'\n", name.c_str());
    return 2;
  }
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
