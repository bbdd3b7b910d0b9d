#include "dbus_peer.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <thread>

#include "bench_util.h"
#include "spawn.h"

#ifdef LUMOKIT_BENCH_SDBUS
#include <systemd/sd-bus.h>
#endif

namespace bench {

#ifndef LUMOKIT_BENCH_SDBUS

bool sdbus_built(std::string* why) {
  *why = "built without sd-bus (libsystemd-dev)";
  return false;
}

bool start_echo_services(const std::string&, int, std::vector<pid_t>*, std::string* error) {
  sdbus_built(error);
  return false;
}

int run_echo_service(const std::string&, int, int) { return 2; }

std::vector<Result> dbus_round_trips(const std::string&, const std::vector<size_t>& sizes,
                                     const std::vector<uint32_t>&, const std::vector<pid_t>&) {
  std::string why;
  sdbus_built(&why);
  return std::vector<Result>(sizes.size(), not_measured(why));
}

Result dbus_throughput(const std::string&, int, uint32_t, uint32_t, const std::vector<pid_t>&) {
  std::string why;
  sdbus_built(&why);
  return not_measured(why);
}

#else

namespace {

constexpr char kPath[] = "/org/lumokit/Bench";
constexpr char kInterface[] = "org.lumokit.Bench";
constexpr char kMember[] = "Echo";
constexpr uint64_t kReplyTimeoutUs = 5000000;

int64_t cpu_of(const std::vector<pid_t>& others) {
  int64_t total = process_cpu_ns(getpid());
  for (pid_t p : others) total += process_cpu_ns(p);
  return total;
}

std::string service_name(int index) { return "org.lumokit.Bench.Echo" + std::to_string(index); }

struct BusUnref {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using BusPtr = std::unique_ptr<sd_bus, BusUnref>;

BusPtr connect_bus(const std::string& address, std::string* error) {
  sd_bus* bus = nullptr;
  int r = sd_bus_new(&bus);
  if (r >= 0) r = sd_bus_set_address(bus, address.c_str());
  if (r >= 0) r = sd_bus_set_bus_client(bus, 1);
  if (r >= 0) r = sd_bus_start(bus);
  if (r < 0) {
    *error = std::string("cannot connect to the bus: ") + std::strerror(-r);
    if (bus != nullptr) sd_bus_unref(bus);
    return BusPtr();
  }
  return BusPtr(bus);
}

// The plainest service sd-bus allows: one object, the member checked by
// hand, the string read and sent back. No vtable, no introspection.
int on_echo(sd_bus_message* m, void*, sd_bus_error*) {
  if (!sd_bus_message_is_method_call(m, kInterface, kMember)) return 0;
  const char* text = nullptr;
  const int r = sd_bus_message_read(m, "s", &text);
  if (r < 0) return r;
  return sd_bus_reply_method_return(m, "s", text);
}

bool call_echo(sd_bus* bus, const char* name, const std::string& text, std::string* error) {
  sd_bus_error err = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  int r = sd_bus_call_method(bus, name, kPath, kInterface, kMember, &err, &reply, "s", text.c_str());
  const char* back = nullptr;
  if (r >= 0) r = sd_bus_message_read(reply, "s", &back);
  bool ok = r >= 0 && back != nullptr && strlen(back) == text.size();
  if (!ok) {
    *error = std::string("echo call failed: ") +
             (err.message != nullptr ? err.message : r < 0 ? std::strerror(-r) : "short answer");
  }
  sd_bus_message_unref(reply);
  sd_bus_error_free(&err);
  return ok;
}

}  // namespace

bool sdbus_built(std::string*) { return true; }

int run_echo_service(const std::string& address, int index, int ready_fd) {
  std::string error;
  BusPtr bus = connect_bus(address, &error);
  int r = bus ? sd_bus_add_object(bus.get(), nullptr, kPath, on_echo, nullptr) : -1;
  if (r >= 0) r = sd_bus_request_name(bus.get(), service_name(index).c_str(), 0);
  const char verdict = r >= 0 ? 'R' : 'E';
  write_all(ready_fd, &verdict, 1);
  close(ready_fd);
  if (r < 0) return 1;
  for (;;) {
    r = sd_bus_process(bus.get(), nullptr);
    if (r < 0) return 0;
    if (r > 0) continue;
    if (sd_bus_wait(bus.get(), UINT64_MAX) < 0) return 0;
  }
}

bool start_echo_services(const std::string& address, int count, std::vector<pid_t>* pids,
                         std::string* error) {
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) {
    *error = "pipe failed";
    return false;
  }
  std::vector<pid_t> started;
  for (int i = 0; i < count; ++i) {
    const pid_t pid = spawn_self({"--role", "dbus-echo", "--address", address, "--index",
                                  std::to_string(i), "--ready-fd", std::to_string(ready[1])},
                                 {ready[1]});
    if (pid > 0) started.push_back(pid);
  }
  close(ready[1]);
  bool ok = static_cast<int>(started.size()) == count;
  for (int got = 0; ok && got < count; ++got) {
    pollfd p{ready[0], POLLIN, 0};
    char verdict = 0;
    ok = poll(&p, 1, 10000) > 0 && read_all(ready[0], &verdict, 1) && verdict == 'R';
  }
  close(ready[0]);
  if (!ok) {
    for (pid_t pid : started) kill_child(pid);
    *error = "D-Bus echo services did not come up";
    return false;
  }
  pids->insert(pids->end(), started.begin(), started.end());
  return true;
}

std::vector<Result> dbus_round_trips(const std::string& address, const std::vector<size_t>& sizes,
                                     const std::vector<uint32_t>& calls,
                                     const std::vector<pid_t>& cpu_pids) {
  std::vector<Result> out(sizes.size());
  std::string error;
  BusPtr bus = connect_bus(address, &error);
  const std::string name = service_name(0);
  for (size_t s = 0; s < sizes.size(); ++s) {
    if (!bus) {
      out[s].error = error;
      continue;
    }
    const uint32_t n = calls[s];
    const uint32_t warmup = std::min(kWarmupTasks, n);
    std::vector<int64_t> lat;
    lat.reserve(n);
    int64_t cpu0 = 0, wall0 = 0;
    for (uint32_t i = 0; i < warmup + n && error.empty(); ++i) {
      if (i == warmup) {
        cpu0 = cpu_of(cpu_pids);
        wall0 = now_ns();
      }
      const std::string text = task_text(1, i, kBaseOpcode, sizes[s]);
      const int64_t t0 = now_ns();
      if (!call_echo(bus.get(), name.c_str(), text, &error)) break;
      if (i >= warmup) lat.push_back(now_ns() - t0);
    }
    if (!error.empty()) {
      out[s].error = error;
      continue;
    }
    const int64_t wall = now_ns() - wall0;
    out[s] = timed_result(std::move(lat), wall, cpu_of(cpu_pids) - cpu0);
  }
  return out;
}

namespace {

// One caller of the throughput figure: its own connection, its own
// service, up to `window` calls in flight.
class WindowedCaller {
 public:
  WindowedCaller(int index, uint32_t window) : name_(service_name(index)), window_(window) {}

  bool connect(const std::string& address, std::string* error) {
    bus_ = connect_bus(address, error);
    return static_cast<bool>(bus_);
  }

  // `count` calls; false with error_ set when one fails.
  bool run(uint32_t count) {
    sent_ = done_ = inflight_ = 0;
    count_ = count;
    stamps_.assign(count, 0);
    latencies_.assign(count, 0);
    slots_.resize(count);
    while (done_ < count_ && error_.empty()) {
      while (inflight_ < window_ && sent_ < count_ && error_.empty()) send_next();
      const int r = sd_bus_process(bus_.get(), nullptr);
      if (r < 0) {
        error_ = std::string("sd_bus_process: ") + std::strerror(-r);
      } else if (r == 0 && sd_bus_wait(bus_.get(), kReplyTimeoutUs) < 0) {
        error_ = "sd_bus_wait failed";
      }
    }
    return error_.empty();
  }

  const std::vector<int64_t>& latencies() const { return latencies_; }
  const std::string& error() const { return error_; }

 private:
  struct Slot {
    WindowedCaller* caller;
    uint32_t seq;
  };

  void send_next() {
    const uint32_t seq = sent_++;
    slots_[seq] = Slot{this, seq};
    const std::string text = task_text(1, seq, kBaseOpcode);
    stamps_[seq] = now_ns();
    const int r = sd_bus_call_method_async(bus_.get(), nullptr, name_.c_str(), kPath, kInterface,
                                           kMember, on_reply, &slots_[seq], "s", text.c_str());
    if (r < 0) error_ = std::string("async call: ") + std::strerror(-r);
    ++inflight_;
  }

  static int on_reply(sd_bus_message* m, void* userdata, sd_bus_error*) {
    const Slot& slot = *static_cast<Slot*>(userdata);
    WindowedCaller& c = *slot.caller;
    c.latencies_[slot.seq] = now_ns() - c.stamps_[slot.seq];
    const char* back = nullptr;
    if (sd_bus_message_is_method_error(m, nullptr) || sd_bus_message_read(m, "s", &back) < 0 ||
        back == nullptr || strlen(back) != kTaskTextSize) {
      c.error_ = "an echo call failed";
    }
    --c.inflight_;
    ++c.done_;
    return 1;
  }

  BusPtr bus_;
  const std::string name_;
  const uint32_t window_;
  uint32_t sent_ = 0, done_ = 0, inflight_ = 0, count_ = 0;
  std::vector<int64_t> stamps_, latencies_;
  std::vector<Slot> slots_;
  std::string error_;
};

}  // namespace

Result dbus_throughput(const std::string& address, int callers, uint32_t per_caller,
                       uint32_t window, const std::vector<pid_t>& cpu_pids) {
  Result r;
  std::vector<std::unique_ptr<WindowedCaller>> pool;
  for (int i = 0; i < callers; ++i) {
    pool.emplace_back(new WindowedCaller(i, window));
    if (!pool.back()->connect(address, &r.error)) return r;
  }
  // A warm-up phase, then the measured one, each with all callers at once.
  auto phase = [&](uint32_t count) {
    std::vector<std::thread> threads;
    for (auto& c : pool) threads.emplace_back([&c, count] { c->run(count); });
    for (auto& t : threads) t.join();
    for (auto& c : pool) {
      if (!c->error().empty()) return c->error();
    }
    return std::string();
  };
  r.error = phase(kWarmupTasks);
  if (!r.error.empty()) return r;
  const int64_t cpu0 = cpu_of(cpu_pids);
  const int64_t t0 = now_ns();
  r.error = phase(per_caller);
  if (!r.error.empty()) return r;
  const int64_t wall = now_ns() - t0;
  const int64_t cpu = cpu_of(cpu_pids) - cpu0;
  std::vector<int64_t> all;
  for (auto& c : pool) all.insert(all.end(), c->latencies().begin(), c->latencies().end());
  return timed_result(std::move(all), wall, cpu);
}

#endif

}  // namespace bench
