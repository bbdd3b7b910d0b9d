// What reading one text on the task path costs: the manager reads the task
// text (perform_task) and the plugin's answer (connection handler), and the
// host daemon reads the client's message around the task. Each reading is
// timed on its own, in this process, once with jsoncpp and once with the
// one-pass scanner that the hot paths try first.
#include <unistd.h>

#include <memory>

#include <json/json.h>

#include "bench_util.h"
#include "json_scan.h"
#include "scenarios.h"

namespace bench {
namespace {

constexpr int kWarmup = 2000;
constexpr int kParses = 20000;

// Times `read`, which returns an error text or "" for a good reading.
template <typename Read>
Result time_reads(Read read) {
  Result r;
  std::vector<int64_t> lat;
  lat.reserve(kParses);
  const int64_t cpu0 = process_cpu_ns(getpid());
  for (int i = 0; i < kWarmup + kParses; ++i) {
    const int64_t t0 = now_ns();
    const std::string error = read();
    const int64_t t1 = now_ns();
    if (!error.empty()) {
      r.error = error;
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

Result time_parses(const std::string& text, bool strict) {
  Json::CharReaderBuilder builder;
  if (strict) {
    Json::CharReaderBuilder::strictMode(&builder.settings_);
  } else {
    builder["collectComments"] = false;
  }
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  return time_reads([&]() -> std::string {
    Json::Value root;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors)) {
      return "text does not parse: " + errors;
    }
    return "";
  });
}

std::string task() { return task_text(1, 4321, kBaseOpcode); }

// The plugin processes' answer, byte for byte.
std::string answer() {
  std::string text =
      "{\"req_type\":\"exec_task\",\"session_id\":1,\"transac_id\":4321,\"status\":0,\"return\":\"";
  text.append(kTaskTextSize - text.size() - 2, 'y');
  text += "\"}";
  return text;
}

std::string client_message() {
  std::string msg = "{\"op\":\"perform_task\",\"session_id\":1,\"request\":\"";
  for (char c : task()) {
    if (c == '"') msg += '\\';
    msg += c;
  }
  msg += "\"}";
  return msg;
}

}  // namespace

Result run_json_task() { return time_parses(task(), false); }
Result run_json_answer() { return time_parses(answer(), false); }
Result run_json_client() { return time_parses(client_message(), true); }

Result run_scan_task() {
  const std::string text = task();
  TaskRequestScan scan;
  return time_reads([&]() -> std::string {
    return scan_task_request(text.data(), text.size(), &scan) ? "" : "the scanner falls back";
  });
}

Result run_scan_answer() {
  const std::string text = answer();
  PluginMessageScan scan;
  return time_reads([&]() -> std::string {
    return scan_plugin_message(text.data(), text.size(), &scan) ? "" : "the scanner falls back";
  });
}

Result run_scan_client() {
  const std::string text = client_message();
  std::string request;
  return time_reads([&]() -> std::string {
    JsonFlatMember members[] = {{"op"}, {"session_id"}, {"request"}};
    if (!scan_flat_object(text.data(), text.size(), members, 3)) return "the scanner falls back";
    request.clear();
    json_decode_string(members[2].text, &request);
    return "";
  });
}

}  // namespace bench
