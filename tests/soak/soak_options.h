// The soak's command line.
#pragma once

#include <cstdint>
#include <string>

namespace lumokit::soak {

struct Options {
  int seconds = 60;            // length of the chaos phase
  uint32_t plugins = 8;        // plugin slots, opcode 0x3000+slot each
  uint32_t sessions = 100;     // client sessions open at any time
  uint32_t clients = 10;       // client connections (one thread each)
  int task_interval_ms = 100;  // per session, between two tasks
  uint32_t window = 2;         // outstanding tasks per session at most
  int kill_every_ms = 2000;    // mean time between plugin kills
  int sys_every_ms = 7000;     // mean time between system-service restarts
  int client_life_ms = 12000;  // mean life of a client connection
  uint32_t denied_every = 5;   // every Nth client lacks the gated permission (0: none)
  int64_t rss_bound_kib = 8 * 1024;  // 0: not checked
  uint64_t seed = 0;           // 0: from the clock
  bool keep = false;           // keep the work directory even on success
  std::string bin_dir;
  std::string signing_key;
  std::string work_parent = "/tmp";
  std::string daemon_prefix;   // e.g. "heaptrack -o FILE": runs the daemon under a tool
};

// Fills `options` from argv; false with a message in `error` (or the usage
// text for --help, with `*help` set).
bool parse_options(int argc, char** argv, Options* options, std::string* error, bool* help);

}  // namespace lumokit::soak
