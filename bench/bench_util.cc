#include "bench_util.h"

#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <utility>

namespace bench {

int64_t now_ns() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

int64_t process_cpu_ns(pid_t pid) {
  clockid_t clock;
  if (clock_getcpuclockid(pid, &clock) != 0) return -1;
  timespec ts{};
  if (clock_gettime(clock, &ts) != 0) return -1;
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

long rss_kib() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, 6, "VmRSS:") == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return -1;
}

Percentiles percentiles(std::vector<int64_t> ns) {
  Percentiles p;
  if (ns.empty()) return p;
  std::sort(ns.begin(), ns.end());
  auto rank = [&](double q) {
    size_t i = static_cast<size_t>(std::ceil(q * static_cast<double>(ns.size())));
    return static_cast<double>(ns[i == 0 ? 0 : i - 1]) / 1000.0;
  };
  p.p50_us = rank(0.50);
  p.p99_us = rank(0.99);
  return p;
}

double median(std::vector<double> values) {
  if (values.empty()) return -1;
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2.0;
}

std::string opcode_hex(uint32_t opcode) {
  char buf[16];
  snprintf(buf, sizeof(buf), "0x%X", opcode);
  return buf;
}

std::string task_text(uint32_t session_id, uint32_t transac_id, uint32_t opcode, size_t size) {
  char head[256];
  const int n = snprintf(head, sizeof(head),
                         "{\"session_id\":%u,\"transac_id\":%u,\"opcode\":\"0x%X\",\"subsys_id\":1,"
                         "\"func\":{\"name\":\"benchEcho\",\"num_of_args\":2,\"args\":[{\"type\":"
                         "\"int\",\"value\":7},{\"type\":\"string\",\"value\":\"",
                         session_id, transac_id, opcode);
  static const char kTail[] = "\"}]}}";
  std::string text(head, static_cast<size_t>(n));
  const size_t fixed = text.size() + sizeof(kTail) - 1;
  if (fixed < size) text.append(size - fixed, 'x');
  text += kTail;
  return text;
}

bool find_uint(const char* text, size_t len, const char* key, uint32_t* out) {
  const size_t klen = strlen(key);
  const char* end = text + len;
  const char* at = static_cast<const char*>(memmem(text, len, key, klen));
  if (at == nullptr) return false;
  const char* p = at + klen;
  while (p < end && (*p == ' ' || *p == ':')) ++p;
  if (p >= end || *p < '0' || *p > '9') return false;
  uint64_t v = 0;
  while (p < end && *p >= '0' && *p <= '9') v = v * 10 + static_cast<uint64_t>(*p++ - '0');
  *out = static_cast<uint32_t>(v);
  return true;
}

void allow_large_messages(int fd) {
  const int size = 1 << 21;
  for (const auto& option : {std::make_pair(SO_SNDBUFFORCE, SO_SNDBUF),
                             std::make_pair(SO_RCVBUFFORCE, SO_RCVBUF)}) {
    if (setsockopt(fd, SOL_SOCKET, option.first, &size, sizeof(size)) != 0) {
      setsockopt(fd, SOL_SOCKET, option.second, &size, sizeof(size));
    }
  }
}

bool write_all(int fd, const void* data, size_t len) {
  const char* p = static_cast<const char*>(data);
  while (len > 0) {
    ssize_t n = write(fd, p, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

bool read_all(int fd, void* data, size_t len) {
  char* p = static_cast<char*>(data);
  while (len > 0) {
    ssize_t n = read(fd, p, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace bench
