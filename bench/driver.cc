#include "driver.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "bench_util.h"
#include "plot_data.h"
#include "scenarios.h"
#include "spawn.h"
#include "targets.h"

namespace bench {
namespace {

struct Options {
  int reps = 5;
  int cpu_latency_us = -1;  // a CPU latency request held for the run; -1: none
  std::string json_path;
  std::string plot_data_path;
  std::vector<std::string> only;
};

bool parse(int argc, char** argv, Options* o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--reps" && i + 1 < argc) {
      o->reps = std::atoi(argv[++i]);
    } else if (a == "--cpu-latency-us" && i + 1 < argc) {
      char* end = nullptr;
      const long v = std::strtol(argv[++i], &end, 10);
      if (end == argv[i] || *end != '\0' || v < 0 || v > 1000000) {
        fprintf(stderr, "lumokit_bench: --cpu-latency-us wants microseconds from 0 to 1000000\n");
        return false;
      }
      o->cpu_latency_us = static_cast<int>(v);
    } else if (a == "--json" && i + 1 < argc) {
      o->json_path = argv[++i];
    } else if (a == "--plot-data" && i + 1 < argc) {
      o->plot_data_path = argv[++i];
    } else if (a == "--only" && i + 1 < argc) {
      std::stringstream list(argv[++i]);
      std::string name;
      while (std::getline(list, name, ',')) {
        if (find_scenario(name) == nullptr) {
          fprintf(stderr, "lumokit_bench: unknown scenario '%s'\n", name.c_str());
          return false;
        }
        o->only.push_back(name);
      }
    } else {
      fprintf(stderr,
              "usage: lumokit_bench [--reps N] [--json PATH] [--plot-data PATH] [--only NAME,...]\n"
              "                     [--cpu-latency-us N]\n"
              "       (internal: --scenario NAME, --role ROLE ...)\n");
      return false;
    }
  }
  if (o->reps < 3) {
    fprintf(stderr, "lumokit_bench: --reps must be at least 3 (figures are medians of repetitions)\n");
    return false;
  }
  return true;
}

// CPU time the whole machine spent busy, from /proc/stat.
int64_t machine_busy_ns() {
  std::ifstream in("/proc/stat");
  std::string cpu;
  int64_t user = 0, nice = 0, system = 0, idle = 0, iowait = 0, irq = 0, softirq = 0, steal = 0;
  in >> cpu >> user >> nice >> system >> idle >> iowait >> irq >> softirq >> steal;
  if (!in) return -1;
  return (user + nice + system + irq + softirq + steal) * (1000000000LL / sysconf(_SC_CLK_TCK));
}

int64_t children_cpu_ns() {
  rusage ru{};
  getrusage(RUSAGE_CHILDREN, &ru);
  auto ns = [](const timeval& tv) { return static_cast<int64_t>(tv.tv_sec) * 1000000000LL + tv.tv_usec * 1000LL; };
  return ns(ru.ru_utime) + ns(ru.ru_stime);
}

Result run_process(const std::string& name, bool pinned);

std::string read_line(const char* path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return in || !line.empty() ? line : "?";
}

// How idle CPUs sleep decides what waking a thread on another CPU costs,
// which dominates every unpinned figure with a hand-off between threads.
Json::Value machine_facts(int cpu_latency_us) {
  Json::Value m(Json::objectValue);
  m["cpus"] = static_cast<Json::Int64>(sysconf(_SC_NPROCESSORS_ONLN));
  m["cpuidle_driver"] = read_line("/sys/devices/system/cpu/cpuidle/current_driver");
  m["cpuidle_governor"] = read_line("/sys/devices/system/cpu/cpuidle/current_governor");
  m["guest_halt_poll_ns"] = read_line("/sys/module/haltpoll/parameters/guest_halt_poll_ns");
  m["cpu_latency_request_us"] = cpu_latency_us;
  return m;
}

// A CPU latency request (PM QoS) keeps idle CPUs in shallow states while
// the descriptor stays open; the kernel drops it when this process ends.
int hold_cpu_latency(int us) {
  const int fd = open("/dev/cpu_dma_latency", O_WRONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  const int32_t value = us;
  if (write(fd, &value, sizeof(value)) != static_cast<ssize_t>(sizeof(value))) {
    close(fd);
    return -1;
  }
  return fd;
}

// One scenario process, and how busy the rest of the machine was meanwhile:
// the machine's busy time less the time of our own (reaped) process tree.
Result run_once(const std::string& name, bool pinned) {
  const int64_t busy0 = machine_busy_ns();
  const int64_t ours0 = children_cpu_ns();
  const int64_t t0 = now_ns();
  Result r = run_process(name, pinned);
  const int64_t wall = now_ns() - t0;
  const int64_t busy = machine_busy_ns() - busy0;
  const int64_t ours = children_cpu_ns() - ours0;
  if (busy0 >= 0 && wall > 0) {
    r.other_cpus = std::max<double>(0.0, static_cast<double>(busy - ours) / static_cast<double>(wall));
  }
  return r;
}

// One scenario process; its last stdout line is the result.
Result run_process(const std::string& name, bool pinned) {
  Result r;
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) {
    r.error = "pipe failed";
    return r;
  }
  SpawnSpec launch;
  if (pinned) launch.argv = {"taskset", "-c", "0"};
  launch.argv.push_back(self_exe());
  launch.argv.push_back("--scenario");
  launch.argv.push_back(name);
  launch.stdout_fd = out[1];
  pid_t pid = spawn(launch);
  close(out[1]);
  std::string text;
  char buf[4096];
  const int64_t deadline = now_ns() + 90LL * 1000000000LL;
  for (;;) {
    const int left = static_cast<int>((deadline - now_ns()) / 1000000);
    pollfd p{out[0], POLLIN, 0};
    if (left <= 0 || poll(&p, 1, left) <= 0) break;
    ssize_t n = read(out[0], buf, sizeof(buf));
    if (n <= 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  close(out[0]);
  const int status = wait_child(pid, 5000);
  const size_t start = text.rfind('\n', text.size() >= 2 ? text.size() - 2 : 0);
  const std::string line = text.substr(start == std::string::npos ? 0 : start + 1);
  Json::CharReaderBuilder b;
  std::unique_ptr<Json::CharReader> reader(b.newCharReader());
  Json::Value v;
  std::string errors;
  if (!reader->parse(line.data(), line.data() + line.size(), &v, &errors) || !v.isObject()) {
    r.error = "scenario process gave no result (exit status " + std::to_string(status) + ")";
    return r;
  }
  return result_from_json(v);
}

// Medians over the repetitions, point by point for a curve; a figure with a
// failed run keeps the error, one that could not be measured says why.
Result aggregate(const std::vector<Result>& runs) {
  Result m;
  std::vector<double> p50, p99, ops, cpu, kib, other;
  std::vector<std::vector<double>> series;
  for (const Result& r : runs) {
    if (!r.not_measured.empty()) {
      m.not_measured = r.not_measured;
      continue;
    }
    if (!r.error.empty()) {
      m.error = r.error;
      continue;
    }
    if (series.size() < r.series.size()) series.resize(r.series.size());
    for (size_t i = 0; i < r.series.size(); ++i) {
      if (r.series[i] >= 0) series[i].push_back(r.series[i]);
    }
    if (r.p50_us >= 0) p50.push_back(r.p50_us);
    if (r.p99_us >= 0) p99.push_back(r.p99_us);
    if (r.ops_per_s >= 0) ops.push_back(r.ops_per_s);
    if (r.cpu_us_per_op >= 0) cpu.push_back(r.cpu_us_per_op);
    if (r.kib_per_item >= 0) kib.push_back(r.kib_per_item);
    if (r.other_cpus >= 0) other.push_back(r.other_cpus);
    m.count += r.count;
  }
  m.p50_us = median(p50);
  m.p99_us = median(p99);
  m.ops_per_s = median(ops);
  m.cpu_us_per_op = median(cpu);
  m.kib_per_item = median(kib);
  m.other_cpus = median(other);
  for (auto& values : series) m.series.push_back(median(values));
  return m;
}

std::string cell(double v, int width, int decimals) {
  char buf[64];
  if (v < 0) {
    snprintf(buf, sizeof(buf), "%*s", width, "-");
  } else {
    snprintf(buf, sizeof(buf), "%*.*f", width, decimals, v);
  }
  return buf;
}

// A curve's points under its figure's row.
std::string series_line(const Scenario& s, const Result& m) {
  std::string line = "    " + std::string(s.series_y) + ":";
  for (size_t i = 0; i < m.series.size() && i < s.series_x.size(); ++i) {
    char buf[64];
    snprintf(buf, sizeof(buf), " %s%.0f: %.1f", i == 0 ? "" : "| ", s.series_x[i], m.series[i]);
    line += buf;
  }
  return line + "\n";
}

}  // namespace

int run_driver(int argc, char** argv) {
  Options opt;
  if (!parse(argc, argv, &opt)) return 2;
  std::vector<const Scenario*> list;
  for (const Scenario& s : all_scenarios()) {
    if (opt.only.empty() || std::find(opt.only.begin(), opt.only.end(), s.name) != opt.only.end()) {
      list.push_back(&s);
    }
  }
  int latency_fd = -1;
  if (opt.cpu_latency_us >= 0) {
    latency_fd = hold_cpu_latency(opt.cpu_latency_us);
    if (latency_fd < 0) {
      fprintf(stderr, "lumokit_bench: cannot hold a CPU latency request (/dev/cpu_dma_latency: %s)\n",
              std::strerror(errno));
      return 1;
    }
  }
  const int64_t started = now_ns();
  const bool progress = isatty(STDERR_FILENO);
  std::map<std::string, std::map<std::string, std::vector<Result>>> runs;
  // Repetitions outermost, so that slow drifts of the machine's load touch
  // every figure alike.
  for (int rep = 0; rep < opt.reps; ++rep) {
    for (const char* mode : kModes) {
      for (const Scenario* s : list) {
        if (s->default_only && std::strcmp(mode, "pinned") == 0) continue;
        if (progress) fprintf(stderr, "\r[%d/%d] %-8s %-14s", rep + 1, opt.reps, mode, s->name);
        runs[s->name][mode].push_back(run_once(s->name, std::strcmp(mode, "pinned") == 0));
      }
    }
  }
  if (progress) fprintf(stderr, "\r%60s\r", "");
  const double elapsed = static_cast<double>(now_ns() - started) / 1e9;

  Table table;
  for (auto& s : runs) {
    for (auto& m : s.second) table[s.first][m.first] = aggregate(m.second);
  }

  const Json::Value machine = machine_facts(opt.cpu_latency_us);
  printf("lumokit_bench: median of %d runs per figure, each run a fresh process tree; p50/p99 over one run's\n"
         "operations. pinned = whole process tree under taskset -c 0. CPU us/op counts every process of the\n"
         "run. other = CPUs (of %ld) kept busy by processes outside the benchmark meanwhile: noise.\n"
         "Idle CPUs: %s/%s, guest halt-polling %s ns, CPU latency request %s.\n\n",
         opt.reps, sysconf(_SC_NPROCESSORS_ONLN), machine["cpuidle_driver"].asCString(),
         machine["cpuidle_governor"].asCString(), machine["guest_halt_poll_ns"].asCString(),
         opt.cpu_latency_us < 0 ? "none" : (std::to_string(opt.cpu_latency_us) + " us").c_str());
  printf("%-50s %-7s %9s %9s %10s %9s %9s %6s\n", "figure", "sched", "p50 us", "p99 us", "ops/s", "CPU us/op",
         "KiB/item", "other");
  Json::Value report(Json::objectValue);
  report["repetitions"] = opt.reps;
  report["machine"] = machine;
  report["figures"] = Json::Value(Json::arrayValue);
  for (const Scenario* s : list) {
    for (const char* mode : kModes) {
      if (s->default_only && std::strcmp(mode, "pinned") == 0) continue;
      const Result& m = table[s->name][mode];
      printf("%-50s %-7s", s->label, mode);
      if (!m.not_measured.empty()) {
        printf(" not measured: %s\n", m.not_measured.c_str());
      } else if (!m.error.empty()) {
        printf(" FAILED: %s\n", m.error.c_str());
      } else {
        printf(" %s %s %s %s %s %s\n", cell(m.p50_us, 9, 1).c_str(), cell(m.p99_us, 9, 1).c_str(),
               cell(m.ops_per_s, 10, 0).c_str(), cell(m.cpu_us_per_op, 9, 1).c_str(),
               cell(m.kib_per_item, 9, 2).c_str(), cell(m.other_cpus, 6, 2).c_str());
        if (!m.series.empty()) printf("%s", series_line(*s, m).c_str());
      }
      Json::Value f(Json::objectValue);
      f["scenario"] = s->name;
      f["label"] = s->label;
      f["mode"] = mode;
      f["median"] = to_json(m);
      f["runs"] = Json::Value(Json::arrayValue);
      for (const Result& r : runs[s->name][mode]) f["runs"].append(to_json(r));
      report["figures"].append(f);
    }
  }

  printf("\nTargets:\n");
  report["targets"] = Json::Value(Json::arrayValue);
  int missed = 0, unknown = 0;
  for (const Target& t : targets(table)) {
    const char* verdict = !t.known() ? "NO DATA" : t.met() ? "met" : "MISSED";
    if (!t.known()) {
      ++unknown;
    } else if (!t.met()) {
      ++missed;
    }
    printf("  [%-7s] %-58s %-7s %s %-3s (limit %s)\n", verdict, t.what.c_str(), t.mode.c_str(),
           cell(t.value, 10, 1).c_str(), t.unit.c_str(), cell(t.limit, 0, 1).c_str());
    Json::Value j(Json::objectValue);
    j["target"] = t.what;
    j["mode"] = t.mode;
    j["value"] = t.value;
    j["limit"] = t.limit;
    j["unit"] = t.unit;
    j["met"] = t.met();
    j["known"] = t.known();
    report["targets"].append(j);
  }

  report["peers"] = peers(table);
  printf("\nPeers, same run (p50 us of one call; CPU us per call with 4 callers on 4 services):\n");
  for (const char* mode : kModes) {
    const Json::Value& m = report["peers"][mode];
    auto v = [&](const char* key) { return m[key].isNull() ? -1.0 : m[key].asDouble(); };
    printf("  %-7s RAW %s | lumokitd %s | dbus-broker %s | dbus-daemon %s | lumokitd/dbus-broker %s"
           " | CPU/call %s vs %s vs %s\n",
           mode, cell(v("raw_p50_us"), 0, 1).c_str(), cell(v("lumokitd_p50_us"), 0, 1).c_str(),
           cell(v("dbus_broker_p50_us"), 0, 1).c_str(), cell(v("dbus_daemon_p50_us"), 0, 1).c_str(),
           cell(v("lumokitd_over_dbus_broker"), 0, 2).c_str(),
           cell(v("lumokitd_4x4_cpu_us_per_call"), 0, 1).c_str(),
           cell(v("dbus_broker_4x4_cpu_us_per_call"), 0, 1).c_str(),
           cell(v("dbus_daemon_4x4_cpu_us_per_call"), 0, 1).c_str());
  }
  report["curves"] = curves(table);

  printf("\nManager log cost (log on at info level to /dev/null vs silent), task round trip p50:\n");
  report["log_cost_us"] = Json::Value(Json::objectValue);
  for (const char* mode : kModes) {
    const double on = fig(table, "task_1x1_log", mode, &Result::p50_us);
    const double off = fig(table, "task_1x1", mode, &Result::p50_us);
    if (on < 0 || off < 0) continue;
    printf("  %-7s %+.1f us (%+.1f%%)\n", mode, on - off, 100.0 * (on - off) / off);
    report["log_cost_us"][mode] = on - off;
  }
  printf("\nMonitor cost (one monitor attached to lumokitd vs none), end to end p50:\n");
  report["monitor_cost_us"] = Json::Value(Json::objectValue);
  for (const char* mode : kModes) {
    const double on = fig(table, "e2e_monitor", mode, &Result::p50_us);
    const double off = fig(table, "e2e", mode, &Result::p50_us);
    if (on < 0 || off < 0) continue;
    printf("  %-7s %+.1f us (%+.1f%%)\n", mode, on - off, 100.0 * (on - off) / off);
    report["monitor_cost_us"][mode] = on - off;
  }
  // What the end-to-end path cannot go below with its hops and parses as
  // they are: two client/plugin round trips on the wire plus the three
  // jsoncpp parses on the way (host envelope, task, plugin answer).
  printf("\nEnd-to-end decomposition, p50 (us):\n");
  report["e2e_decomposition"] = Json::Value(Json::objectValue);
  for (const char* mode : kModes) {
    const double raw = fig(table, "raw", mode, &Result::p50_us);
    const double parses = fig(table, "json_client", mode, &Result::p50_us) +
                          fig(table, "json_task", mode, &Result::p50_us) +
                          fig(table, "json_answer", mode, &Result::p50_us);
    const double e2e = fig(table, "e2e", mode, &Result::p50_us);
    const double e2e_min = fig(table, "e2e_min", mode, &Result::p50_us);
    const double task = fig(table, "task_1x1", mode, &Result::p50_us);
    if (raw < 0 || parses < 0 || e2e < 0 || e2e_min < 0 || task < 0) continue;
    printf("  %-7s lumokitd %.1f = minimal host %.1f + %.1f; in-process task %.1f; "
           "wire+parse floor 2 x RAW + 3 parses = %.1f (RAW %.1f, parses %.1f)\n",
           mode, e2e, e2e_min, e2e - e2e_min, task, 2 * raw + parses, raw, parses);
    Json::Value d(Json::objectValue);
    d["lumokitd_over_minimal_host_us"] = e2e - e2e_min;
    d["wire_and_parse_floor_us"] = 2 * raw + parses;
    d["parses_us"] = parses;
    // The hot paths read plain texts with the one-pass scanner instead.
    const double scan_client = fig(table, "scan_client", mode, &Result::p50_us);
    const double scan_task = fig(table, "scan_task", mode, &Result::p50_us);
    const double scan_answer = fig(table, "scan_answer", mode, &Result::p50_us);
    if (scan_client >= 0 && scan_task >= 0 && scan_answer >= 0) {
      const double scans = scan_client + scan_task + scan_answer;
      printf("  %-7s with the one-pass scans instead: 2 x RAW + 3 scans = %.1f (scans %.1f)\n", mode,
             2 * raw + scans, scans);
      d["scans_us"] = scans;
    }
    // perform_task hands the task to the plugin's sender thread through a
    // condition variable: one hand-off that a socket round trip lacks.
    const double wake = fig(table, "wake", mode, &Result::p50_us);
    if (wake >= 0 && scan_client >= 0 && scan_task >= 0 && scan_answer >= 0) {
      const double floor_us = 2 * raw + wake / 2 + scan_client + scan_task + scan_answer;
      printf("  %-7s with the sender thread's hand-off (WAKE / 2 = %.1f): floor %.1f\n", mode, wake / 2,
             floor_us);
      d["handoff_us"] = wake / 2;
      d["wire_handoff_scan_floor_us"] = floor_us;
    }
    report["e2e_decomposition"][mode] = d;
  }

  printf("\n%d of %zu targets missed, %d without data; %.0f s\n", missed, targets(table).size(), unknown,
         elapsed);
  report["elapsed_s"] = elapsed;
  report["targets_missed"] = missed;
  report["targets_without_data"] = unknown;
  if (latency_fd >= 0) close(latency_fd);

  if (!opt.plot_data_path.empty() && !write_plot_data(table, opt.plot_data_path)) {
    fprintf(stderr, "lumokit_bench: cannot write %s\n", opt.plot_data_path.c_str());
    return 1;
  }
  if (!opt.json_path.empty()) {
    std::ofstream out(opt.json_path);
    Json::StreamWriterBuilder w;
    w["indentation"] = "  ";
    out << Json::writeString(w, report) << "\n";
    if (!out) {
      fprintf(stderr, "lumokit_bench: cannot write %s\n", opt.json_path.c_str());
      return 1;
    }
    printf("wrote %s\n", opt.json_path.c_str());
  }
  return 0;
}

}  // namespace bench
