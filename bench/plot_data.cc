#include "plot_data.h"

#include <fstream>
#include <utility>
#include <vector>

namespace bench {
namespace {

struct Writer {
  std::ofstream out;
  void value(double v) {
    if (v < 0) {
      out << " NaN";
    } else {
      out << ' ' << v;
    }
  }
  void end_block() { out << "\n\n"; }
};

// Rows of (label, default, pinned) for a bar chart.
void bars(Writer& w, const Table& t, const std::vector<std::pair<const char*, const char*>>& rows,
          double Result::*field) {
  w.out << "# label default pinned\n";
  for (const auto& row : rows) {
    w.out << '"' << row.first << '"';
    for (const char* mode : kModes) w.value(fig(t, row.second, mode, field));
    w.out << '\n';
  }
  w.end_block();
}

// Rows of x and, per scenario, default and pinned.
void curve(Writer& w, const Table& t, const std::vector<const char*>& scenarios) {
  const Scenario* first = find_scenario(scenarios.front());
  w.out << "# x";
  for (const char* s : scenarios) w.out << ' ' << s << ":default " << s << ":pinned";
  w.out << '\n';
  for (size_t i = 0; i < first->series_x.size(); ++i) {
    w.out << first->series_x[i];
    for (const char* s : scenarios) {
      for (const char* mode : kModes) w.value(point(t, s, mode, i));
    }
    w.out << '\n';
  }
  w.end_block();
}

}  // namespace

bool write_plot_data(const Table& t, const std::string& path) {
  Writer w;
  w.out.open(path);
  w.out << "# lumokit_bench plot data; see bench/bench.gp\n";
  // 0: one call's p50 next to the peers.
  bars(w, t,
       {{"RAW", "raw"},
        {"lumokitd", "e2e"},
        {"dbus-broker", "dbus_broker"},
        {"dbus-daemon", "dbus_daemon"}},
       &Result::p50_us);
  // 1: CPU per call, 4 callers on 4 services or plugins.
  bars(w, t,
       {{"lumokitd", "e2e_4x4"}, {"dbus-broker", "dbus_broker_4x4"}, {"dbus-daemon", "dbus_daemon_4x4"}},
       &Result::cpu_us_per_op);
  // 2: round trip by message size.
  curve(w, t, {"raw", "task_1x1", "e2e", "dbus_broker", "dbus_daemon"});
  // 3: task round trip by open sessions.
  curve(w, t, {"task_sessions"});
  // 4: create_session per plugin by ready plugins.
  w.out << "# plugins default pinned (p50 us per plugin)\n";
  for (const auto& c : {std::make_pair(1, "create_1"), std::make_pair(8, "create_8"),
                        std::make_pair(64, "create_64")}) {
    w.out << c.first;
    for (const char* mode : kModes) {
      const double v = fig(t, c.second, mode, &Result::p50_us);
      w.value(v < 0 ? v : v / c.first);
    }
    w.out << '\n';
  }
  w.end_block();
  // 5, 6: resident size by ready plugins and by open sessions.
  curve(w, t, {"mem_plugin"});
  curve(w, t, {"mem_session"});
  // 7: each target as how far it is from its limit; up to 1 is met.
  w.out << "# target share-of-limit\n";
  for (const Target& target : targets(t)) {
    w.out << '"' << target.tag << " (" << target.mode << ")\"";
    const double share = !target.known() ? -1
                         : target.at_least ? (target.value > 0 ? target.limit / target.value : -1)
                                           : (target.limit > 0 ? target.value / target.limit : -1);
    w.value(share);
    w.out << '\n';
  }
  w.end_block();
  return static_cast<bool>(w.out);
}

}  // namespace bench
