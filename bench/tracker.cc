#include "tracker.h"

#include "bench_util.h"

namespace bench {

Tracker::Tracker(uint32_t count, uint32_t window, const char* marker)
    : count_(count),
      window_(window == 0 ? 1 : window),
      marker_(marker),
      sent_(new std::atomic<int64_t>[count]),
      latency_(count, -1) {
  for (uint32_t i = 0; i < count; ++i) sent_[i].store(0, std::memory_order_relaxed);
}

void Tracker::acquire() {
  std::unique_lock<std::mutex> lock(mtx_);
  cv_.wait(lock, [this] { return inflight_ < window_ || failures_ != 0; });
  ++inflight_;
}

void Tracker::stamp(uint32_t seq) {
  if (seq < count_) sent_[seq].store(now_ns(), std::memory_order_release);
}

void Tracker::complete(uint32_t seq, const std::string& text, bool good_kind) {
  const int64_t t = now_ns();
  const bool good = good_kind && seq < count_ && text.find(marker_) != std::string::npos;
  // Notified under the lock: once the waiter sees the last answer it may
  // destroy the tracker, so nothing here may touch it after the unlock.
  std::lock_guard<std::mutex> lock(mtx_);
  if (seq < count_) latency_[seq] = t - sent_[seq].load(std::memory_order_acquire);
  if (inflight_ > 0) --inflight_;
  ++done_;
  if (!good) ++failures_;
  cv_.notify_all();
}


bool Tracker::wait_done(int64_t timeout_ns) {
  std::unique_lock<std::mutex> lock(mtx_);
  const bool all = cv_.wait_for(lock, std::chrono::nanoseconds(timeout_ns),
                                [this] { return done_ >= count_ || failures_ != 0; });
  return all && failures_ == 0;
}

std::vector<int64_t> Tracker::latencies() const {
  std::lock_guard<std::mutex> lock(mtx_);
  return latency_;
}

uint32_t Tracker::failures() const {
  std::lock_guard<std::mutex> lock(mtx_);
  return failures_;
}

namespace {

constexpr uint32_t kMaxTracked = 4096;
std::atomic<Tracker*> trackers[kMaxTracked];

std::atomic<uint32_t> created_session{0};
std::atomic<int32_t> created_error{1};

// The callback a session keeps for its life: the answer to create_session
// (on the creating thread, before it returns), then the task answers.
void on_client_callback(lumo_response_t kind, uint32_t session_id, std::string text,
                        int32_t error_flag, uint32_t handle) {
  if (kind != LUMO_RESPONSE_CREATE_SESSION) {
    on_task_answer(kind, session_id, std::move(text), error_flag, handle);
    return;
  }
  created_error.store(error_flag);
  created_session.store(session_id);
}

}  // namespace

void set_tracker(uint32_t session_id, Tracker* tracker) {
  if (session_id < kMaxTracked) trackers[session_id].store(tracker, std::memory_order_release);
}

Tracker* tracker_for(uint32_t session_id) {
  return session_id < kMaxTracked ? trackers[session_id].load(std::memory_order_acquire) : nullptr;
}

void on_task_answer(lumo_response_t kind, uint32_t session_id, std::string text, int32_t error_flag,
                    uint32_t handle) {
  Tracker* t = tracker_for(session_id);
  if (t == nullptr) return;
  t->complete(handle, text, kind == LUMO_RESPONSE_TASK && error_flag == 0);
}

uint32_t open_session(uint32_t handle) {
  created_session.store(0);
  created_error.store(1);
  create_session("{}", on_client_callback, 0, handle, 4242, 10123);
  return created_error.load() == 0 ? created_session.load() : 0;
}

}  // namespace bench
