#include "drive.h"

#include <unistd.h>

#include <memory>
#include <thread>

#include "bench_util.h"
#include "tracker.h"

namespace bench {
namespace {

int64_t cpu_of(const std::vector<pid_t>& peers) {
  int64_t total = process_cpu_ns(getpid());
  for (pid_t p : peers) total += process_cpu_ns(p);
  return total;
}

struct Phase {
  std::vector<int64_t> latencies;
  int64_t wall_ns = 0;
  int64_t cpu_ns = 0;
  std::string error;
};

Phase run_phase(const Load& load, const Issue& issue, uint32_t per_session) {
  Phase out;
  std::vector<std::unique_ptr<Tracker>> trackers;
  for (uint32_t sid : load.session_ids) {
    trackers.emplace_back(new Tracker(per_session, load.window, load.marker));
    set_tracker(sid, trackers.back().get());
  }
  const int64_t cpu0 = cpu_of(load.peers);
  const int64_t t0 = now_ns();
  std::vector<std::thread> callers;
  for (size_t i = 0; i < load.session_ids.size(); ++i) {
    callers.emplace_back([&, i] {
      Tracker& t = *trackers[i];
      const uint32_t sid = load.session_ids[i];
      const uint32_t opcode = load.opcodes[i];
      for (uint32_t seq = 0; seq < per_session; ++seq) {
        t.acquire();
        const std::string text = task_text(sid, seq, opcode, load.text_size);
        t.stamp(seq);
        issue(i, sid, text);
      }
    });
  }
  for (auto& c : callers) c.join();
  bool good = true;
  for (auto& t : trackers) good = t->wait_done(20000000000LL) && good;
  out.wall_ns = now_ns() - t0;
  out.cpu_ns = cpu_of(load.peers) - cpu0;
  for (size_t i = 0; i < trackers.size(); ++i) {
    set_tracker(load.session_ids[i], nullptr);
    std::vector<int64_t> l = trackers[i]->latencies();
    out.latencies.insert(out.latencies.end(), l.begin(), l.end());
  }
  if (!good) out.error = "some tasks were not answered, or answered with an error";
  return out;
}

}  // namespace

Result drive(const Load& load, const Issue& issue) {
  Result r;
  Phase warm = run_phase(load, issue, load.warmup);
  if (!warm.error.empty()) {
    r.error = "warm-up: " + warm.error;
    return r;
  }
  Phase m = run_phase(load, issue, load.per_session);
  if (!m.error.empty()) {
    r.error = m.error;
    return r;
  }
  return timed_result(std::move(m.latencies), m.wall_ns, m.cpu_ns);
}

}  // namespace bench
