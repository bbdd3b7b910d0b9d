#include "client_worker.h"

#include <cinttypes>
#include <cstdio>
#include <thread>

#include "client_wire.h"
#include "soak_clock.h"

namespace lumokit::soak {

namespace {

constexpr int64_t kCreateLimitNs = 40 * kSec;   // 8 plugins x 3 s of waits, and slack
constexpr int64_t kBarrierLimitNs = 15 * kSec;
constexpr int64_t kSilentNs = 3 * kSec;         // a denied task must stay unanswered this long
constexpr int kGatedOneIn = 5;                  // share of gated tasks
constexpr size_t kMessagesPerPump = 64;

}  // namespace

ClientWorker::ClientWorker(WorkerConfig config, const std::atomic<int>& phase, FailureLog& failures)
    : config_(std::move(config)), phase_(phase), failures_(failures), rng_(config_.seed) {}

int64_t ClientWorker::jitter(int mean_ms) {
  std::uniform_int_distribution<int64_t> d(mean_ms / 2, mean_ms + mean_ms / 2);
  return d(rng_) * kMs;
}

void ClientWorker::fail(const std::string& check, const std::string& detail) {
  failures_.add(check, "client " + std::to_string(config_.index) + ": " + detail);
}

void ClientWorker::run() {
  int64_t retry_at = 0;
  for (;;) {
    const Phase phase = static_cast<Phase>(phase_.load(std::memory_order_acquire));
    const int64_t now = mono_ns();
    if (phase == Phase::kClose) {
      if (link_.is_open()) disconnect(true);
      return;
    }
    if (!link_.is_open()) {
      if (phase != Phase::kRun) {
        // Lost its connection late: nothing to drain, nothing open.
        if (!drained()) {
          publish_live();
          drained_.store(true, std::memory_order_release);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        continue;
      }
      if (now < retry_at || !connect_now()) {
        if (now >= retry_at) retry_at = now + 500 * kMs;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        continue;
      }
    }
    maybe_control(phase, now);
    if (phase == Phase::kRun) send_tasks(now);
    expire(now);
    pump(phase, 5);
  }
}

bool ClientWorker::connect_now() {
  std::string error;
  if (!link_.open(config_.client_socket, &error)) {
    fail("daemon alive", "cannot connect: " + error);
    return false;
  }
  connected_ = true;
  const int64_t now = mono_ns();
  to_create_ = config_.sessions;
  create_at_ = now;
  disconnect_at_ = now + jitter(config_.life_ms);
  drain_barrier_done_ = false;
  return true;
}

void ClientWorker::disconnect(bool final_close) {
  const int64_t now = mono_ns();
  for (auto& entry : live_) records_[entry.second.record].t_close = now;
  live_.clear();
  control_.reset();
  early_.clear();
  to_create_ = 0;
  link_.close_now();
  connected_ = false;
  if (!final_close) ++totals_.disconnects;
}

void ClientWorker::send_control(Control kind, uint32_t session) {
  Pending p;
  p.kind = kind;
  p.handle = next_handle_++;
  p.session = session;
  p.t_req = mono_ns();
  p.seq = next_control_seq_++;
  Json::Value msg(Json::objectValue);
  if (kind == Control::kBarrier) {
    msg["op"] = "find_pid_uid";
    msg["session_id"] = session;
  } else {
    msg["op"] = "create_session";
    msg["session_id"] = session;
    msg["handle"] = p.handle;
    msg["request"] = "{}";
    msg["pid"] = config_.pid;
    msg["uid"] = config_.uid;
  }
  std::string error;
  if (!link_.send(msg, &error)) {
    fail("daemon alive", "cannot send " + msg["op"].asString() + ": " + error);
    disconnect(false);
    return;
  }
  control_ = p;
}

void ClientWorker::maybe_control(Phase phase, int64_t now) {
  if (control_) {
    const int64_t limit = control_->kind == Control::kBarrier ? kBarrierLimitNs : kCreateLimitNs;
    if (now - control_->t_req > limit) {
      fail("daemon alive", std::string(control_->kind == Control::kBarrier ? "find_pid_uid"
                                                                            : "create_session") +
                               " unanswered after " + std::to_string(limit / kSec) + " s");
      disconnect(false);
    }
    return;
  }
  const uint32_t any_session = live_.empty() ? 0 : live_.begin()->first;
  if (phase == Phase::kRun) {
    if (to_create_ == 0 && now >= disconnect_at_) {
      send_control(Control::kBarrier, any_session);
      return;
    }
    if (to_create_ > 0) {
      if (now >= create_at_) send_control(Control::kCreate, 0);
      return;
    }
    for (auto& entry : live_) {
      if (entry.second.reattach_at != 0 && now >= entry.second.reattach_at) {
        entry.second.reattach_at = 0;
        send_control(Control::kReattach, entry.first);
        return;
      }
    }
    return;
  }
  if (phase == Phase::kDrain && !drain_barrier_done_) {
    to_create_ = 0;
    for (const auto& entry : live_) {
      if (!entry.second.outstanding.empty() || !entry.second.silent.empty()) return;
    }
    send_control(Control::kBarrier, any_session);
  }
}

void ClientWorker::send_tasks(int64_t now) {
  std::uniform_int_distribution<int> gated_pick(0, kGatedOneIn - 1);
  for (auto& entry : live_) {
    Live& live = entry.second;
    if (live.task_slots.empty() || now < live.next_task_at ||
        live.outstanding.size() >= config_.window) {
      continue;
    }
    std::uniform_int_distribution<size_t> slot_pick(0, live.task_slots.size() - 1);
    const uint32_t slot = live.task_slots[slot_pick(rng_)];
    const bool gated = gated_pick(rng_) == 0;
    const uint32_t transac = live.next_transac++;
    char nonce[24];
    std::snprintf(nonce, sizeof(nonce), "%016" PRIx64, static_cast<uint64_t>(rng_()));
    std::string error;
    if (!link_.send(task_message(entry.first, transac, slot, gated, nonce), &error)) {
      fail("daemon alive", "cannot send a task: " + error);
      disconnect(false);
      return;
    }
    ++totals_.tasks_sent;
    if (gated && config_.denied) {
      live.silent[transac] = now + kSilentNs;
    } else {
      live.outstanding[transac] = Outstanding{slot, gated, nonce, now, control_ ? control_->seq : 0};
    }
    live.next_task_at = now + jitter(config_.task_interval_ms);
  }
}

void ClientWorker::expire(int64_t now) {
  for (auto& entry : live_) {
    Live& live = entry.second;
    for (auto it = live.outstanding.begin(); it != live.outstanding.end();) {
      if (now - it->second.t_send <= kTaskTimeoutNs) {
        ++it;
        continue;
      }
      const Outstanding& task = it->second;
      int64_t t_due = task.t_send;
      if (task.behind != 0) {
        auto done = control_done_.find(task.behind);
        t_due = done != control_done_.end() ? done->second : now;
      }
      totals_.lost.push_back(TaskMiss{task.slot, task.gated, false, task.t_send, t_due, 0});
      live.timed_out.insert(it->first);
      it = live.outstanding.erase(it);
    }
    for (auto it = live.silent.begin(); it != live.silent.end();) {
      if (now < it->second) {
        ++it;
        continue;
      }
      ++totals_.denied_silent;
      live.timed_out.insert(it->first);
      it = live.silent.erase(it);
    }
  }
}

void ClientWorker::pump(Phase phase, int wait_ms) {
  std::string text, error;
  for (size_t i = 0; i < kMessagesPerPump && link_.is_open(); ++i) {
    switch (link_.receive(i == 0 ? wait_ms : 0, &text, &error)) {
      case Link::Rx::kNone:
        return;
      case Link::Rx::kMessage:
        if (phase == Phase::kHold) ++hold_messages_;
        on_message(text);
        break;
      case Link::Rx::kClosed:
        fail("daemon alive", "the daemon closed the client connection");
        disconnect(false);
        return;
      case Link::Rx::kError:
        fail("daemon alive", "client connection failed: " + error);
        disconnect(false);
        return;
    }
  }
}

void ClientWorker::note_control_done(uint64_t seq, int64_t now) {
  control_done_[seq] = now;
  // Tasks wait at most kTaskTimeoutNs; older entries have no reader left.
  while (!control_done_.empty() && now - control_done_.begin()->second > 2 * kTaskTimeoutNs) {
    control_done_.erase(control_done_.begin());
  }
}

std::vector<SessionRecord> ClientWorker::live_sessions() const {
  std::lock_guard<std::mutex> lock(snapshot_mtx_);
  return snapshot_;
}

void ClientWorker::publish_live() {
  std::lock_guard<std::mutex> lock(snapshot_mtx_);
  snapshot_.clear();
  for (const auto& entry : live_) snapshot_.push_back(records_[entry.second.record]);
}

}  // namespace lumokit::soak
