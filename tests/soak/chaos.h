// The chaos thread: kills plugins with SIGKILL at random and restarts them,
// kills and restarts the emulated system service, and measures how long
// the daemon takes to forget a dead plugin.
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "plugin_fleet.h"
#include "soak_link.h"
#include "soak_records.h"

namespace lumokit::soak {

struct ChaosConfig {
  int kill_every_ms = 2000;
  int sys_every_ms = 7000;
  uint32_t min_ready = 3;  // never kill below this many ready plugins
  uint64_t seed = 1;
};

class Chaos {
 public:
  Chaos(PluginFleet& fleet, const std::string& admin_socket, FailureLog& failures,
        ChaosConfig config, std::function<bool()> daemon_alive);

  // Starts every slot and waits until all are ready and listed by the daemon.
  bool bring_up(int64_t limit_ns);
  // Runs the chaos until `t_end` (mono_ns) or until the daemon is gone.
  void run_until(int64_t t_end);
  // Restarts every slot that is down and the system service; waits until
  // all plugins are ready and listed. False (with a failure) on timeout.
  bool settle(int64_t limit_ns);

  uint32_t kills() const { return kills_; }
  uint32_t sys_restarts() const { return sys_restarts_; }
  const std::vector<SysOutage>& outages() const { return outages_; }
  int64_t slowest_status_ns() const { return slowest_status_ns_; }
  int64_t slowest_forget_ns() const { return slowest_forget_ns_; }

 private:
  bool status(Json::Value* state);
  bool admin(const char* op, Json::Value* reply);
  // Polls the state dump until `service_id` is no longer listed.
  void wait_gone(uint32_t slot);
  bool all_listed(const Json::Value& state);
  void restart_due(int64_t now);
  void maybe_kill(int64_t now);
  void maybe_toggle_sys(int64_t now);
  int64_t jitter(int mean_ms);

  PluginFleet& fleet_;
  AdminLink admin_;
  FailureLog& failures_;
  ChaosConfig config_;
  std::function<bool()> daemon_alive_;
  std::mt19937_64 rng_;
  std::vector<int64_t> restart_at_;  // per slot; 0 = none scheduled
  int64_t next_kill_at_ = 0;
  int64_t next_sys_at_ = 0;
  int64_t sys_up_at_ = 0;
  bool sys_down_ = false;
  uint32_t kills_ = 0;
  uint32_t sys_restarts_ = 0;
  std::vector<SysOutage> outages_;
  int64_t slowest_status_ns_ = 0;
  int64_t slowest_forget_ns_ = 0;
};

}  // namespace lumokit::soak
