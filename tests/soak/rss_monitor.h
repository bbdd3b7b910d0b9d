// Samples a process's resident set size (VmRSS of /proc/PID/status) on a
// thread of its own, so that the daemon's memory over the run can be
// compared between its first and last thirds; and reads its thread and
// descriptor counts.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace lumokit::soak {

// VmRSS in KiB, or -1 when it cannot be read.
int64_t read_rss_kib(pid_t pid);
// Threads and open descriptors of a process, -1 when they cannot be read.
int64_t read_thread_count(pid_t pid);
int64_t count_open_fds(pid_t pid);

class RssMonitor {
 public:
  RssMonitor(pid_t pid, int period_ms);
  ~RssMonitor();
  RssMonitor(const RssMonitor&) = delete;
  RssMonitor& operator=(const RssMonitor&) = delete;

  void stop();
  // (mono_ns, KiB) samples so far.
  std::vector<std::pair<int64_t, int64_t>> samples() const;

 private:
  void loop();
  pid_t pid_;
  int period_ms_;
  std::atomic<bool> stop_{false};
  mutable std::mutex mtx_;
  std::vector<std::pair<int64_t, int64_t>> samples_;
  std::thread thread_;
};

struct RssGrowth {
  bool valid = false;       // enough samples in both thirds
  int64_t first_kib = 0;    // mean over the first third of [from, to]
  int64_t last_kib = 0;     // mean over the last third
  int64_t peak_kib = 0;
  int64_t growth_kib() const { return last_kib - first_kib; }
};

// One "seconds<TAB>KiB" line per sample, seconds from `origin`.
void write_rss_samples(const std::string& path,
                       const std::vector<std::pair<int64_t, int64_t>>& samples, int64_t origin);

RssGrowth rss_growth(const std::vector<std::pair<int64_t, int64_t>>& samples, int64_t from,
                     int64_t to);

}  // namespace lumokit::soak
