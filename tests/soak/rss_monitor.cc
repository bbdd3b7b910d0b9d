#include "rss_monitor.h"

#include <dirent.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "soak_clock.h"

namespace lumokit::soak {

namespace {

int64_t status_field(pid_t pid, const std::string& name) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(name, 0) == 0) return std::stoll(line.substr(name.size()));
  }
  return -1;
}

}  // namespace

int64_t read_rss_kib(pid_t pid) { return status_field(pid, "VmRSS:"); }

int64_t read_thread_count(pid_t pid) { return status_field(pid, "Threads:"); }

int64_t count_open_fds(pid_t pid) {
  DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
  if (dir == nullptr) return -1;
  int64_t n = 0;
  while (dirent* e = readdir(dir)) n += e->d_name[0] != '.' ? 1 : 0;
  closedir(dir);
  return n;
}

RssMonitor::RssMonitor(pid_t pid, int period_ms)
    : pid_(pid), period_ms_(period_ms), thread_(&RssMonitor::loop, this) {}

RssMonitor::~RssMonitor() { stop(); }

void RssMonitor::stop() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
}

void RssMonitor::loop() {
  while (!stop_) {
    const int64_t kib = read_rss_kib(pid_);
    if (kib >= 0) {
      std::lock_guard<std::mutex> lock(mtx_);
      samples_.emplace_back(mono_ns(), kib);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(period_ms_));
  }
}

std::vector<std::pair<int64_t, int64_t>> RssMonitor::samples() const {
  std::lock_guard<std::mutex> lock(mtx_);
  return samples_;
}

void write_rss_samples(const std::string& path,
                       const std::vector<std::pair<int64_t, int64_t>>& samples, int64_t origin) {
  std::ofstream out(path);
  for (const auto& s : samples) {
    out << static_cast<double>(s.first - origin) / 1e9 << '\t' << s.second << '\n';
  }
}

RssGrowth rss_growth(const std::vector<std::pair<int64_t, int64_t>>& samples, int64_t from,
                     int64_t to) {
  RssGrowth out;
  const int64_t third = (to - from) / 3;
  int64_t first_sum = 0, first_n = 0, last_sum = 0, last_n = 0;
  for (const auto& s : samples) {
    if (s.first < from || s.first > to) continue;
    out.peak_kib = std::max(out.peak_kib, s.second);
    if (s.first <= from + third) {
      first_sum += s.second;
      ++first_n;
    } else if (s.first >= to - third) {
      last_sum += s.second;
      ++last_n;
    }
  }
  if (first_n < 3 || last_n < 3) return out;
  out.valid = true;
  out.first_kib = first_sum / first_n;
  out.last_kib = last_sum / last_n;
  return out;
}

}  // namespace lumokit::soak
