// What one jsoncpp parse costs for the texts on the task path: the manager
// parses the task text (perform_task) and the plugin's answer (connection
// handler), and the host daemon parses the client's message around the
// task. Each parse is timed on its own, in this process.
#include <unistd.h>

#include <memory>

#include <json/json.h>

#include "bench_util.h"
#include "scenarios.h"

namespace bench {
namespace {

constexpr int kWarmup = 2000;
constexpr int kParses = 20000;

Result time_parses(const std::string& text, bool strict) {
  Result r;
  Json::CharReaderBuilder builder;
  if (strict) {
    Json::CharReaderBuilder::strictMode(&builder.settings_);
  } else {
    builder["collectComments"] = false;
  }
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::vector<int64_t> lat;
  lat.reserve(kParses);
  const int64_t cpu0 = process_cpu_ns(getpid());
  for (int i = 0; i < kWarmup + kParses; ++i) {
    Json::Value root;
    std::string errors;
    const int64_t t0 = now_ns();
    const bool ok = reader->parse(text.data(), text.data() + text.size(), &root, &errors);
    const int64_t t1 = now_ns();
    if (!ok) {
      r.error = "text does not parse: " + errors;
      return r;
    }
    if (i >= kWarmup) lat.push_back(t1 - t0);
  }
  const int64_t cpu = process_cpu_ns(getpid()) - cpu0;
  const Percentiles p = percentiles(lat);
  r.p50_us = p.p50_us;
  r.p99_us = p.p99_us;
  r.count = kParses;
  r.cpu_us_per_op = static_cast<double>(cpu) / 1000.0 / (kWarmup + kParses);
  return r;
}

}  // namespace

Result run_json_task() { return time_parses(task_text(1, 4321, kBaseOpcode), false); }

Result run_json_answer() {
  // The plugin processes' answer, byte for byte.
  std::string answer =
      "{\"req_type\":\"exec_task\",\"session_id\":1,\"transac_id\":4321,\"status\":0,\"return\":\"";
  answer.append(kTaskTextSize - answer.size() - 2, 'y');
  answer += "\"}";
  return time_parses(answer, false);
}

Result run_json_client() {
  std::string msg = "{\"op\":\"perform_task\",\"session_id\":1,\"request\":\"";
  for (char c : task_text(1, 4321, kBaseOpcode)) {
    if (c == '"') msg += '\\';
    msg += c;
  }
  msg += "\"}";
  return time_parses(msg, true);
}

}  // namespace bench
