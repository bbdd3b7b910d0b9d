// The measured scenarios. Each runs in a process of its own (a fresh
// manager for every run) and yields one Result.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <json/json.h>

namespace bench {

// One run of one scenario. Figures that do not apply stay negative.
struct Result {
  double p50_us = -1;         // per operation
  double p99_us = -1;
  double ops_per_s = -1;      // operations per second of wall time
  double cpu_us_per_op = -1;  // CPU of every process involved, per operation
  double kib_per_item = -1;   // resident size added per plugin or session
  double other_cpus = -1;     // CPUs kept busy by processes outside the run
  int64_t count = 0;          // operations measured
  std::vector<double> series; // a curve's points, one per x of the scenario
  std::string error;          // empty when the run is good
  std::string not_measured;   // why a figure that needs what this machine lacks was left out
};

Json::Value to_json(const Result& r);
// The figures of a run of timed operations: percentiles of their durations,
// their rate over `wall_ns`, and `cpu_ns` spread over them (none when < 0).
Result timed_result(std::vector<int64_t> durations_ns, int64_t wall_ns, int64_t cpu_ns);
Result result_from_json(const Json::Value& v);
// A result that says why the figure was left out.
Result not_measured(std::string why);

struct Scenario {
  const char* name;
  const char* label;
  Result (*run)();
  bool default_only = false;      // meaningless with every process on one CPU
  std::vector<double> series_x{};  // where a curve's points were taken, if the run gives one
  const char* series_y = "";      // what each point is, with its unit
};
const std::vector<Scenario>& all_scenarios();
const Scenario* find_scenario(const std::string& name);

// Runs one scenario in this process and prints its Result as one JSON line.
int run_scenario_process(const std::string& name);

// The scenarios, by file.
Result run_raw();
Result run_raw_xcpu();
Result run_wake();
Result run_shape_1();
Result run_shape_4x4();
Result run_shape_4x1();
Result run_task_1x1();
Result run_task_1x1_log();
Result run_task_4x4();
Result run_task_4x1();
Result run_e2e();
Result run_e2e_monitor();
Result run_e2e_min();
Result run_e2e_4x4();
Result run_dbus_broker();
Result run_dbus_daemon();
Result run_dbus_broker_4x4();
Result run_dbus_daemon_4x4();
Result run_task_sessions();
Result run_create_1();
Result run_create_8();
Result run_create_64();
Result run_registrations();
Result run_mem_plugins();
Result run_mem_sessions();
Result run_json_task();
Result run_json_answer();
Result run_json_client();
Result run_scan_task();
Result run_scan_answer();
Result run_scan_client();

// Sizes shared by the floors and the manager paths so that they compare.
inline constexpr uint32_t kLatencyTasks = 4000;
inline constexpr uint32_t kThroughputTasksPerSession = 3000;
inline constexpr uint32_t kThroughputWindow = 4;  // tasks in flight per session
inline constexpr uint32_t kWarmupTasks = 300;
inline constexpr uint32_t kBaseOpcode = 0x1001;

// The size curves: the usual task text up to the largest task the manager
// sends whole, with fewer round trips for the larger ones.
inline const std::vector<size_t> kMessageSizes = {200, 4096, 65536, 524287};
inline const std::vector<uint32_t> kSizeRoundTrips = {kLatencyTasks, 2000, 1000, 200};
inline uint32_t size_warmup(uint32_t round_trips) { return std::min(kWarmupTasks, round_trips / 4); }
// Where the growth curves take their points.
inline const std::vector<uint32_t> kOpenSessionCounts = {1, 100, 1000, 10000};
inline const std::vector<int> kMemoryPluginCounts = {1, 8, 16, 32, 64};
inline const std::vector<int> kMemorySessionCounts = {100, 1000, 10000};

}  // namespace bench
