#include "targets.h"

#include <utility>

namespace bench {

double fig(const Table& t, const std::string& scenario, const std::string& mode,
           double Result::*field) {
  auto s = t.find(scenario);
  if (s == t.end()) return -1;
  auto m = s->second.find(mode);
  if (m == s->second.end() || !m->second.error.empty() || !m->second.not_measured.empty()) return -1;
  return m->second.*field;
}

double point(const Table& t, const std::string& scenario, const std::string& mode, size_t i) {
  auto s = t.find(scenario);
  if (s == t.end()) return -1;
  auto m = s->second.find(mode);
  if (m == s->second.end() || !m->second.error.empty() || i >= m->second.series.size()) return -1;
  return m->second.series[i];
}

namespace {

double scaled(double v, double k) { return v < 0 ? -1 : v * k; }
double ratio(double a, double b) { return a < 0 || b <= 0 ? -1 : a / b; }

double p50(const Table& t, const char* scenario, const char* mode) {
  return fig(t, scenario, mode, &Result::p50_us);
}

Json::Value number_or_null(double v) { return v < 0 ? Json::Value() : Json::Value(v); }

}  // namespace

std::vector<Target> targets(const Table& t) {
  std::vector<Target> out;
  // value <= limit, or value >= limit for `at_least`.
  auto add = [&](const char* tag, const char* what, const char* mode, double value, double limit,
                 const char* unit, bool at_least = false) {
    out.push_back(Target{tag, what, mode, value, limit, at_least, unit});
  };
  for (const char* mode : kModes) {
    add("lumokitd / dbus-broker", "end to end via lumokitd p50 <= 0.65 x dbus-broker p50", mode,
        p50(t, "e2e", mode), scaled(p50(t, "dbus_broker", mode), 0.65), "us");
  }
  add("CPU 4x4 / dbus-broker", "CPU per task, 4 clients/4 plugins <= 0.65 x dbus-broker's",
      "pinned", fig(t, "e2e_4x4", "pinned", &Result::cpu_us_per_op),
      scaled(fig(t, "dbus_broker_4x4", "pinned", &Result::cpu_us_per_op), 0.65), "us");
  add("task / SHAPE", "task round trip p50 <= 1.2 x SHAPE p50", "pinned",
      p50(t, "task_1x1", "pinned"), scaled(p50(t, "shape_1", "pinned"), 1.2), "us");
  add("lumokitd / RAW x-CPU", "end to end via lumokitd p50 <= 2.0 x RAW across CPUs", "default",
      p50(t, "e2e", "default"), scaled(p50(t, "raw_xcpu", "default"), 2.0), "us");
  add("create_session 8 / SHAPE", "create_session, 8 plugins, p50 <= 1.5 x 8 x SHAPE p50",
      "pinned", p50(t, "create_8", "pinned"), scaled(p50(t, "shape_1", "pinned"), 12.0), "us");
  add("registrations", ">= 5,000 registrations per second", "pinned",
      fig(t, "regs", "pinned", &Result::ops_per_s), 5000, "/s", true);
  for (const char* mode : kModes) {
    add("KiB per plugin", "<= 48 KiB resident per connected ready plugin", mode,
        fig(t, "mem_plugin", mode, &Result::kib_per_item), 48, "KiB");
  }
  for (const char* mode : kModes) {
    add("KiB per session", "<= 1 KiB resident per open session", mode,
        fig(t, "mem_session", mode, &Result::kib_per_item), 1, "KiB");
  }
  const size_t last = kOpenSessionCounts.size() - 1;
  for (const char* mode : kModes) {
    add("task, 10,000 / 1 session", "task p50 at 10,000 open sessions <= 1.2 x at 1", mode,
        point(t, "task_sessions", mode, last), scaled(point(t, "task_sessions", mode, 0), 1.2), "us");
  }
  for (const char* mode : kModes) {
    add("create_session 64 / 8", "create_session per plugin at 64 plugins <= 1.3 x at 8", mode,
        scaled(p50(t, "create_64", mode), 1.0 / 64), scaled(p50(t, "create_8", mode), 1.3 / 8), "us");
  }
  return out;
}

Json::Value curves(const Table& t) {
  Json::Value out(Json::objectValue);
  // A curve per scenario that gives one, under the name of what it shows.
  auto from_series = [&](const char* name, const char* y, std::vector<const char*> scenarios) {
    Json::Value c(Json::objectValue);
    c["y"] = y;
    c["x"] = Json::Value(Json::arrayValue);
    const Scenario* first = find_scenario(scenarios.front());
    for (double x : first->series_x) c["x"].append(x);
    for (const char* scenario : scenarios) {
      for (const char* mode : kModes) {
        Json::Value ys(Json::arrayValue);
        for (size_t i = 0; i < first->series_x.size(); ++i) {
          ys.append(number_or_null(point(t, scenario, mode, i)));
        }
        c["lines"][scenario][mode] = ys;
      }
    }
    out[name] = c;
  };
  from_series("round_trip_by_message_size", "p50 us",
              {"raw", "task_1x1", "e2e", "dbus_broker", "dbus_daemon"});
  from_series("task_round_trip_by_open_sessions", "p50 us", {"task_sessions"});
  from_series("resident_by_ready_plugins", "KiB added", {"mem_plugin"});
  from_series("resident_by_open_sessions", "KiB added", {"mem_session"});

  Json::Value create(Json::objectValue);
  create["y"] = "p50 us per plugin";
  create["x"] = Json::Value(Json::arrayValue);
  const std::pair<int, const char*> creates[] = {{1, "create_1"}, {8, "create_8"}, {64, "create_64"}};
  for (const auto& c : creates) create["x"].append(c.first);
  for (const char* mode : kModes) {
    Json::Value total(Json::arrayValue), per(Json::arrayValue);
    for (const auto& c : creates) {
      const double v = p50(t, c.second, mode);
      total.append(number_or_null(v));
      per.append(number_or_null(scaled(v, 1.0 / c.first)));
    }
    create["lines"]["create_session"][mode] = total;
    create["lines"]["create_session_per_plugin"][mode] = per;
  }
  out["create_session_by_ready_plugins"] = create;
  return out;
}

Json::Value peers(const Table& t) {
  Json::Value out(Json::objectValue);
  for (const char* mode : kModes) {
    Json::Value m(Json::objectValue);
    const double raw = p50(t, "raw", mode);
    const double e2e = p50(t, "e2e", mode);
    const double broker = p50(t, "dbus_broker", mode);
    const double daemon = p50(t, "dbus_daemon", mode);
    m["raw_p50_us"] = number_or_null(raw);
    m["lumokitd_p50_us"] = number_or_null(e2e);
    m["dbus_broker_p50_us"] = number_or_null(broker);
    m["dbus_daemon_p50_us"] = number_or_null(daemon);
    m["lumokitd_over_dbus_broker"] = number_or_null(ratio(e2e, broker));
    m["lumokitd_over_dbus_daemon"] = number_or_null(ratio(e2e, daemon));
    const double cpu = fig(t, "e2e_4x4", mode, &Result::cpu_us_per_op);
    const double cpu_broker = fig(t, "dbus_broker_4x4", mode, &Result::cpu_us_per_op);
    const double cpu_daemon = fig(t, "dbus_daemon_4x4", mode, &Result::cpu_us_per_op);
    m["lumokitd_4x4_cpu_us_per_call"] = number_or_null(cpu);
    m["dbus_broker_4x4_cpu_us_per_call"] = number_or_null(cpu_broker);
    m["dbus_daemon_4x4_cpu_us_per_call"] = number_or_null(cpu_daemon);
    m["cpu_lumokitd_over_dbus_broker"] = number_or_null(ratio(cpu, cpu_broker));
    m["lumokitd_4x4_per_s"] = number_or_null(fig(t, "e2e_4x4", mode, &Result::ops_per_s));
    m["dbus_broker_4x4_per_s"] = number_or_null(fig(t, "dbus_broker_4x4", mode, &Result::ops_per_s));
    m["dbus_daemon_4x4_per_s"] = number_or_null(fig(t, "dbus_daemon_4x4", mode, &Result::ops_per_s));
    out[mode] = m;
  }
  return out;
}

}  // namespace bench
