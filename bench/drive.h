// Client load shared by the SHAPE floor and the manager paths: one thread
// per session issues numbered tasks, at most `window` in flight, and the
// answers come back through on_task_answer. Latency is from just before a
// task is handed over to the callback; throughput and CPU time cover the
// whole measured phase.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "scenarios.h"

namespace bench {

struct Load {
  std::vector<uint32_t> session_ids;  // one issuing thread each
  std::vector<uint32_t> opcodes;      // the opcode each session's tasks name
  uint32_t per_session = 0;
  uint32_t warmup = kWarmupTasks;    // untimed tasks per session first
  size_t text_size = 200;            // bytes of each task text
  uint32_t window = 1;
  const char* marker = "";            // text a good answer contains
  std::vector<pid_t> peers;           // processes whose CPU time counts too
};

// Hands one task text over; runs on the session's issuing thread.
using Issue = std::function<void(size_t session_index, uint32_t session_id, const std::string& text)>;

// A warm-up phase, then the measured one.
Result drive(const Load& load, const Issue& issue);

}  // namespace bench
