// The floors, with no manager logic. RAW: a task-sized text to a peer
// process and back over SOCK_SEQPACKET. SHAPE: the manager's shape built
// from the same parts (caller parses the request with jsoncpp and queues it
// under a mutex and condition variable, a sender thread sends, the peer
// echoes, a receiver thread parses the answer with jsoncpp and calls the
// callback). WAKE: what one hand-off through a condition variable costs,
// the step of the SHAPE that a socket round trip does not have. RAW across
// CPUs: RAW with its two processes held apart.
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include <json/json.h>

#include "LumoManager.h"
#include "bench_util.h"
#include "drive.h"
#include "peer_roles.h"
#include "scenarios.h"
#include "spawn.h"
#include "tracker.h"

namespace bench {

namespace {

bool set_cpu(pid_t pid, int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  return sched_setaffinity(pid, sizeof(set), &set) == 0;
}

// `count` timed round trips of `size` bytes after `warmup` untimed ones.
Result raw_timed(int fd, pid_t peer, size_t size, uint32_t count, uint32_t warmup,
                 std::vector<char>& buf) {
  Result r;
  std::vector<int64_t> lat;
  lat.reserve(count);
  int64_t cpu0 = 0, t_start = 0;
  for (uint32_t i = 0; i < warmup + count; ++i) {
    if (i == warmup) {
      cpu0 = process_cpu_ns(getpid()) + process_cpu_ns(peer);
      t_start = now_ns();
    }
    const std::string text = task_text(1, i, kBaseOpcode, size);
    const int64_t t0 = now_ns();
    if (send(fd, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size()) ||
        recv(fd, buf.data(), buf.size(), 0) != static_cast<ssize_t>(text.size())) {
      r.error = "echo peer failed at " + std::to_string(size) + " bytes";
      return r;
    }
    if (i >= warmup) lat.push_back(now_ns() - t0);
  }
  const int64_t wall = now_ns() - t_start;
  const int64_t cpu = process_cpu_ns(getpid()) + process_cpu_ns(peer) - cpu0;
  return timed_result(std::move(lat), wall, cpu);
}

// caller_cpu < 0: wherever the scheduler puts the two processes. With
// `with_sizes`, the size curve follows; its first point is the figure.
Result raw_round_trips(int caller_cpu, int peer_cpu, bool with_sizes) {
  Result r;
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0) {
    r.error = "socketpair failed";
    return r;
  }
  allow_large_messages(sv[0]);
  allow_large_messages(sv[1]);
  pid_t peer = start_echo_peer(sv[1]);
  close(sv[1]);
  const int fd = sv[0];
  if (caller_cpu >= 0 && (!set_cpu(0, caller_cpu) || !set_cpu(peer, peer_cpu))) {
    r.error = "cannot place the two processes on CPUs " + std::to_string(caller_cpu) + " and " +
              std::to_string(peer_cpu);
  }
  std::vector<char> buf(1 << 20);
  if (r.error.empty()) r = raw_timed(fd, peer, kMessageSizes[0], kLatencyTasks * 2, kWarmupTasks, buf);
  if (r.error.empty() && with_sizes) {
    r.series.push_back(r.p50_us);
    for (size_t i = 1; i < kMessageSizes.size() && r.error.empty(); ++i) {
      const Result point = raw_timed(fd, peer, kMessageSizes[i], kSizeRoundTrips[i],
                                     size_warmup(kSizeRoundTrips[i]), buf);
      r.error = point.error;
      r.series.push_back(point.p50_us);
    }
  }
  close(fd);
  wait_child(peer, 2000);
  return r;
}

}  // namespace

Result run_raw() { return raw_round_trips(-1, -1, true); }

// The same round trip with the two processes held on different CPUs: every
// message then wakes the other CPU, which is what a default-scheduled RAW
// costs on a machine whose scheduler spreads the two processes.
Result run_raw_xcpu() {
  if (sysconf(_SC_NPROCESSORS_ONLN) < 2) {
    Result r;
    r.error = "needs two CPUs";
    return r;
  }
  return raw_round_trips(0, 1, false);
}

namespace {

// One peer of the SHAPE floor, with its queue, sender and receiver, built
// like a manager's plugin connection.
class ShapeLink {
 public:
  bool start() {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0) return false;
    peer_ = start_echo_peer(sv[1]);
    close(sv[1]);
    fd_ = sv[0];
    if (peer_ <= 0) return false;
    sender_ = std::thread([this] { send_loop(); });
    receiver_ = std::thread([this] { receive_loop(); });
    return true;
  }

  void push(const std::string& text) {
    {
      std::lock_guard<std::mutex> lock(mtx_);
      queue_.push_back(text);
    }
    cv_.notify_all();
  }

  void stop() {
    {
      std::lock_guard<std::mutex> lock(mtx_);
      stop_ = true;
    }
    cv_.notify_all();
    if (sender_.joinable()) sender_.join();
    shutdown(fd_, SHUT_RDWR);
    if (receiver_.joinable()) receiver_.join();
    close(fd_);
    wait_child(peer_, 2000);
  }

  pid_t peer() const { return peer_; }

 private:
  void send_loop() {
    std::unique_lock<std::mutex> lock(mtx_);
    for (;;) {
      cv_.wait(lock, [this] { return !queue_.empty() || stop_; });
      if (stop_) break;
      const std::string& text = queue_.front();
      sendto(fd_, text.data(), std::min(text.size(), static_cast<size_t>(kPluginSendMax)),
             MSG_NOSIGNAL, nullptr, 0);
      queue_.pop_front();
    }
  }

  void receive_loop() {
    std::unique_ptr<char[]> buf(new char[kPluginRecvInitial]);
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    for (;;) {
      ssize_t n = recvfrom(fd_, buf.get(), kPluginRecvInitial, 0, nullptr, nullptr);
      if (n <= 0) return;
      root = Json::Value();
      std::string errors;
      if (!reader->parse(buf.get(), buf.get() + n, &root, &errors)) continue;
      const uint32_t transac_id = root["transac_id"].asUInt();
      const uint32_t session_id = root["session_id"].asUInt();
      const size_t len = strnlen(buf.get(), static_cast<size_t>(n));
      on_task_answer(LUMO_RESPONSE_TASK, session_id, std::string(buf.get(), len), 0, transac_id);
    }
  }

  int fd_ = -1;
  pid_t peer_ = -1;
  std::mutex mtx_;
  std::condition_variable cv_;
  std::deque<std::string> queue_;
  bool stop_ = false;
  std::thread sender_, receiver_;
};

Result run_shape(size_t sessions, size_t links, uint32_t per_session, uint32_t window) {
  Result r;
  std::vector<std::unique_ptr<ShapeLink>> pool;
  Load load;
  for (size_t i = 0; i < links; ++i) {
    pool.emplace_back(new ShapeLink());
    if (!pool.back()->start()) {
      r.error = "could not start a SHAPE peer";
      for (auto& l : pool) l->stop();
      return r;
    }
    load.peers.push_back(pool.back()->peer());
  }
  for (size_t i = 0; i < sessions; ++i) {
    load.session_ids.push_back(static_cast<uint32_t>(i + 1));
    load.opcodes.push_back(kBaseOpcode + static_cast<uint32_t>(i % links));
  }
  load.per_session = per_session;
  load.window = window;
  load.marker = "benchEcho";
  r = drive(load, [&](size_t index, uint32_t, const std::string& text) {
    // The caller's own parse of the request, as perform_task does.
    thread_local std::unique_ptr<Json::CharReader> reader([] {
      Json::CharReaderBuilder b;
      b["collectComments"] = false;
      return b.newCharReader();
    }());
    Json::Value root;
    std::string errors;
    reader->parse(text.data(), text.data() + text.size(), &root, &errors);
    pool[index % links]->push(text);
  });
  for (auto& l : pool) l->stop();
  return r;
}

}  // namespace

// Two threads of one process pass a turn back and forth under a mutex and
// condition variable: a round trip is two hand-offs. Where the kernel puts
// the woken thread on an idle CPU, this is the price of waking that CPU.
Result run_wake() {
  const uint32_t n = kLatencyTasks * 2;
  std::mutex mtx;
  std::condition_variable to_peer, to_caller;
  int turn = 0;  // 1: the peer's, 0: the caller's, -1: stop
  std::thread peer([&] {
    std::unique_lock<std::mutex> lock(mtx);
    for (;;) {
      to_peer.wait(lock, [&] { return turn != 0; });
      if (turn < 0) return;
      turn = 0;
      to_caller.notify_one();
    }
  });
  std::vector<int64_t> lat;
  lat.reserve(n);
  int64_t cpu0 = 0, t_start = 0;
  for (uint32_t i = 0; i < kWarmupTasks + n; ++i) {
    if (i == kWarmupTasks) {
      cpu0 = process_cpu_ns(getpid());
      t_start = now_ns();
    }
    const int64_t t0 = now_ns();
    {
      std::unique_lock<std::mutex> lock(mtx);
      turn = 1;
      to_peer.notify_one();
      to_caller.wait(lock, [&] { return turn == 0; });
    }
    if (i >= kWarmupTasks) lat.push_back(now_ns() - t0);
  }
  const int64_t wall = now_ns() - t_start;
  const int64_t cpu = process_cpu_ns(getpid()) - cpu0;
  {
    std::lock_guard<std::mutex> lock(mtx);
    turn = -1;
  }
  to_peer.notify_one();
  peer.join();
  return timed_result(std::move(lat), wall, cpu);
}

Result run_shape_1() { return run_shape(1, 1, kLatencyTasks, 1); }
Result run_shape_4x4() { return run_shape(4, 4, kThroughputTasksPerSession, kThroughputWindow); }
Result run_shape_4x1() { return run_shape(4, 1, kThroughputTasksPerSession, kThroughputWindow); }

}  // namespace bench
