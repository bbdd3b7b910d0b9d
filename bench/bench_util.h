// Small measuring helpers shared by every scenario: clocks, CPU time of a
// process, resident size, percentiles, and the task text all paths carry.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

int64_t now_ns();  // steady clock
// CPU time (user + system, all threads) of a process; -1 when unreadable.
int64_t process_cpu_ns(pid_t pid);
// VmRSS of this process in KiB; -1 when unreadable.
long rss_kib();

struct Percentiles {
  double p50_us = 0;
  double p99_us = 0;
};
// Nearest-rank percentiles of durations in nanoseconds.
Percentiles percentiles(std::vector<int64_t> ns);

double median(std::vector<double> values);

// Size of the task text and of a plugin's answer: the RAW floor sends a text
// of the same size, so that every path moves the same bytes.
inline constexpr size_t kTaskTextSize = 200;

// A valid task request for (opcode, subsystem 1), padded to `size` bytes.
std::string task_text(uint32_t session_id, uint32_t transac_id, uint32_t opcode,
                      size_t size = kTaskTextSize);
// "0x" and upper-case hex, as clients write opcodes.
std::string opcode_hex(uint32_t opcode);

// Reads an unsigned decimal number that follows `key` in `text` (a plain
// substring search, enough for texts whose layout we know); false if absent.
bool find_uint(const char* text, size_t len, const char* key, uint32_t* out);

// Socket buffers that take the largest message of the size curves in one
// send (the forced variant where this process may use it).
void allow_large_messages(int fd);

// Writes all bytes, retrying on EINTR; false on failure.
bool write_all(int fd, const void* data, size_t len);
// Reads exactly `len` bytes; false on EOF or failure.
bool read_all(int fd, void* data, size_t len);

}  // namespace bench
