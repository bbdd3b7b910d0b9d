#include "chaos.h"

#include <thread>

#include "soak_clock.h"

namespace lumokit::soak {

namespace {

constexpr int64_t kForgetLimit = 10 * kSec;   // a dead plugin must leave the dump by then
constexpr int64_t kStartLimitMs = 20000;      // a plugin must be ready by then
constexpr int64_t kMinLifeNs = 300 * kMs;     // a plugin is not killed younger than this
constexpr auto kTick = std::chrono::milliseconds(20);

bool listed(const Json::Value& state, int32_t service_id) {
  for (const Json::Value& p : state["plugins"]) {
    if (p["service_id"].asInt() == service_id) return true;
  }
  return false;
}

}  // namespace

Chaos::Chaos(PluginFleet& fleet, const std::string& admin_socket, FailureLog& failures,
             ChaosConfig config, std::function<bool()> daemon_alive)
    : fleet_(fleet),
      admin_(admin_socket),
      failures_(failures),
      config_(config),
      daemon_alive_(std::move(daemon_alive)),
      rng_(config.seed),
      restart_at_(fleet.size(), 0) {}

int64_t Chaos::jitter(int mean_ms) {
  // Uniform over [mean/2, 3*mean/2]: irregular, yet with a known rate.
  std::uniform_int_distribution<int64_t> d(mean_ms / 2, mean_ms + mean_ms / 2);
  return d(rng_) * kMs;
}

bool Chaos::status(Json::Value* state) {
  Json::Value request(Json::objectValue);
  request["op"] = "status";
  Json::Value reply;
  std::string error;
  const int64_t t0 = mono_ns();
  if (!admin_.call(request, &reply, &error)) {
    failures_.add("daemon alive", "admin status failed: " + error);
    return false;
  }
  slowest_status_ns_ = std::max(slowest_status_ns_, mono_ns() - t0);
  if (reply["op"] != "status" || !reply["state"]["plugins"].isArray() ||
      !reply["state"]["sessions"].isArray()) {
    failures_.add("daemon alive", "admin status answered " + json_text(reply).substr(0, 300));
    return false;
  }
  *state = reply["state"];
  return true;
}

bool Chaos::admin(const char* op, Json::Value* reply) {
  Json::Value request(Json::objectValue);
  request["op"] = op;
  std::string error;
  if (!admin_.call(request, reply, &error)) {
    failures_.add("daemon alive", std::string("admin ") + op + " failed: " + error);
    return false;
  }
  return true;
}

bool Chaos::all_listed(const Json::Value& state) {
  for (uint32_t slot = 0; slot < fleet_.size(); ++slot) {
    if (fleet_.state(slot) != PluginFleet::State::kReady) return false;
    if (!listed(state, fleet_.current(slot).service_id)) return false;
  }
  return true;
}

bool Chaos::bring_up(int64_t limit_ns) {
  for (uint32_t slot = 0; slot < fleet_.size(); ++slot) {
    std::string error;
    if (!fleet_.spawn(slot, &error)) {
      failures_.add("plugins", "cannot start slot " + std::to_string(slot) + ": " + error);
      return false;
    }
  }
  return settle(limit_ns);
}

bool Chaos::settle(int64_t limit_ns) {
  const int64_t deadline = mono_ns() + limit_ns;
  if (sys_down_) {
    Json::Value reply;
    if (admin("sys_start", &reply)) {
      outages_.back().t_up = mono_ns();
      sys_down_ = false;
      ++sys_restarts_;
    }
  }
  while (mono_ns() < deadline) {
    if (!daemon_alive_()) return false;
    fleet_.reap_unexpected();
    for (uint32_t slot = 0; slot < fleet_.size(); ++slot) {
      if (fleet_.state(slot) != PluginFleet::State::kDown) continue;
      std::string error;
      if (!fleet_.spawn(slot, &error)) {
        failures_.add("plugins", "cannot restart slot " + std::to_string(slot) + ": " + error);
        return false;
      }
      restart_at_[slot] = 0;
    }
    fleet_.poll_ready(std::chrono::milliseconds(kStartLimitMs));
    Json::Value state;
    if (fleet_.count(PluginFleet::State::kReady) == fleet_.size()) {
      if (!status(&state)) return false;
      if (all_listed(state)) return true;
    }
    std::this_thread::sleep_for(kTick);
  }
  failures_.add("plugins", "not every plugin was ready and listed in time");
  return false;
}

void Chaos::wait_gone(uint32_t slot) {
  Incarnation& inc = fleet_.current(slot);
  read_events(&inc);
  if (inc.service_id < 0) {  // never got a service id: nothing to forget
    inc.t_gone = inc.t_kill;
    return;
  }
  while (mono_ns() - inc.t_kill < kForgetLimit) {
    Json::Value state;
    if (!status(&state)) return;
    if (!listed(state, inc.service_id)) {
      inc.t_gone = mono_ns();
      slowest_forget_ns_ = std::max(slowest_forget_ns_, inc.t_gone - inc.t_kill);
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  failures_.add("no leftovers", "slot " + std::to_string(slot) + " service id " +
                                    std::to_string(inc.service_id) +
                                    " still listed 10 s after its SIGKILL");
}

void Chaos::restart_due(int64_t now) {
  for (uint32_t slot = 0; slot < fleet_.size(); ++slot) {
    if (restart_at_[slot] == 0 || now < restart_at_[slot]) continue;
    restart_at_[slot] = 0;
    std::string error;
    if (!fleet_.spawn(slot, &error)) {
      failures_.add("plugins", "cannot restart slot " + std::to_string(slot) + ": " + error);
    }
  }
}

void Chaos::maybe_kill(int64_t now) {
  if (now < next_kill_at_) return;
  next_kill_at_ = now + jitter(config_.kill_every_ms);
  if (fleet_.count(PluginFleet::State::kReady) <= config_.min_ready) return;
  std::vector<uint32_t> candidates;
  for (uint32_t slot = 0; slot < fleet_.size(); ++slot) {
    if (fleet_.state(slot) == PluginFleet::State::kReady &&
        now - fleet_.current(slot).t_ready >= kMinLifeNs) {
      candidates.push_back(slot);
    }
  }
  if (candidates.empty()) return;
  std::uniform_int_distribution<size_t> pick(0, candidates.size() - 1);
  const uint32_t slot = candidates[pick(rng_)];
  fleet_.kill(slot);
  ++kills_;
  wait_gone(slot);
  restart_at_[slot] = mono_ns() + jitter(800);
}

void Chaos::maybe_toggle_sys(int64_t now) {
  if (!sys_down_ && now >= next_sys_at_) {
    Json::Value reply;
    if (!admin("sys_kill", &reply)) return;
    if (reply["op"] != "sys_kill" || reply["alive"] != false) {
      failures_.add("daemon alive", "sys_kill answered " + json_text(reply));
    }
    outages_.push_back(SysOutage{now, 0});
    sys_down_ = true;
    sys_up_at_ = mono_ns() + jitter(1000);
  } else if (sys_down_ && now >= sys_up_at_) {
    Json::Value reply;
    if (!admin("sys_start", &reply)) return;
    if (reply["op"] != "sys_start" || reply["alive"] != true) {
      failures_.add("daemon alive", "sys_start answered " + json_text(reply));
    }
    outages_.back().t_up = mono_ns();
    sys_down_ = false;
    ++sys_restarts_;
    next_sys_at_ = mono_ns() + jitter(config_.sys_every_ms);
  }
}

void Chaos::run_until(int64_t t_end) {
  next_kill_at_ = mono_ns() + jitter(config_.kill_every_ms);
  next_sys_at_ = mono_ns() + jitter(config_.sys_every_ms);
  int64_t next_probe = 0;
  while (mono_ns() < t_end) {
    if (!daemon_alive_()) return;
    const int64_t now = mono_ns();
    for (uint32_t slot : fleet_.reap_unexpected()) {
      wait_gone(slot);
      restart_at_[slot] = mono_ns() + jitter(800);
    }
    fleet_.poll_ready(std::chrono::milliseconds(kStartLimitMs));
    for (uint32_t slot = 0; slot < fleet_.size(); ++slot) {
      // A start that timed out left the slot down without a restart plan.
      if (fleet_.state(slot) == PluginFleet::State::kDown && restart_at_[slot] == 0) {
        restart_at_[slot] = now + jitter(800);
      }
    }
    restart_due(now);
    maybe_kill(now);
    maybe_toggle_sys(mono_ns());
    if (now >= next_probe) {
      // The daemon must keep answering its admin socket under load.
      Json::Value state;
      status(&state);
      next_probe = now + kSec;
    }
    std::this_thread::sleep_for(kTick);
  }
}

}  // namespace lumokit::soak
