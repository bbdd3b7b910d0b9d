// Completion of client tasks, shared by the manager paths and the SHAPE
// floor so that both hand answers back the same way: a callback finds the
// session's tracker, records the latency and wakes the issuing thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "LumokitSessionManager.h"

namespace bench {

class Tracker {
 public:
  // `count` tasks numbered 0..count-1 (the transac_id), at most `window` in
  // flight; an answer is good when it contains `marker`.
  Tracker(uint32_t count, uint32_t window, const char* marker);

  // Issuing side: wait for room in the window, then stamp the task's start
  // right before it is handed over.
  void acquire();
  void stamp(uint32_t seq);
  // Answering side (any thread).
  void complete(uint32_t seq, const std::string& text, bool good_kind);

  // True when every task was answered well before the timeout.
  bool wait_done(int64_t timeout_ns);
  std::vector<int64_t> latencies() const;
  uint32_t failures() const;

 private:
  const uint32_t count_;
  const uint32_t window_;
  const char* marker_;
  std::unique_ptr<std::atomic<int64_t>[]> sent_;
  mutable std::mutex mtx_;
  std::condition_variable cv_;
  std::vector<int64_t> latency_;
  uint32_t inflight_ = 0;
  uint32_t done_ = 0;
  uint32_t failures_ = 0;
};

// Session id -> tracker, read by callbacks on other threads.
void set_tracker(uint32_t session_id, Tracker* tracker);
Tracker* tracker_for(uint32_t session_id);

// The client callback for task answers: the handle is the task's number.
void on_task_answer(lumo_response_t kind, uint32_t session_id, std::string text, int32_t error_flag,
                    uint32_t handle);

// Opens a session through create_session on this thread; 0 on failure.
uint32_t open_session(uint32_t handle);

}  // namespace bench
