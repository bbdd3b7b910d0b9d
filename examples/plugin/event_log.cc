#include "event_log.h"

#include <cstdio>
#include <mutex>

namespace example {

void log_line(const std::string& line) {
  static std::mutex mtx;
  std::lock_guard<std::mutex> lock(mtx);
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

}  // namespace example
