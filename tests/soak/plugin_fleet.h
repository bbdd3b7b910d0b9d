// The soak's plugin processes: one slot per opcode, each slot running one
// incarnation at a time. Owned by one thread (the chaos thread) while the
// soak runs; read by the checks afterwards.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "e2e_process.h"
#include "soak_records.h"
#include "soak_setup.h"

namespace lumokit::soak {

class PluginFleet {
 public:
  enum class State { kDown, kStarting, kReady };

  PluginFleet(const WorkDir& dir, std::string plugin_bin, uint32_t slots, FailureLog& failures);
  ~PluginFleet();
  PluginFleet(const PluginFleet&) = delete;
  PluginFleet& operator=(const PluginFleet&) = delete;

  uint32_t size() const { return static_cast<uint32_t>(slots_.size()); }
  State state(uint32_t slot) const { return slots_[slot].state; }
  const Incarnation& current(uint32_t slot) const { return slots_[slot].history.back(); }
  Incarnation& current(uint32_t slot) { return slots_[slot].history.back(); }
  uint32_t count(State state) const;

  // Starts the next incarnation of a slot that is down.
  bool spawn(uint32_t slot, std::string* error);
  // Moves starting slots whose plugin reported ready to kReady; a start
  // that takes longer than `limit` is a failure.
  void poll_ready(std::chrono::milliseconds limit);
  // SIGKILL; the slot is down from now on.
  void kill(uint32_t slot);
  // Slots whose process ended without being killed (each a failure); they
  // are down from now on, with t_kill set to when it was seen.
  std::vector<uint32_t> reap_unexpected();
  // SIGTERM to every running plugin; each must leave in order (DINT) and
  // exit with status 0 within `limit`.
  void stop_all(std::chrono::milliseconds limit);
  // Every incarnation so far, with its events file read.
  std::vector<Incarnation> records() const;
  // Output of all incarnations (for sanitizer reports printed to stderr).
  std::vector<std::string> log_paths() const;

 private:
  struct Slot {
    State state = State::kDown;
    std::vector<Incarnation> history;
    std::unique_ptr<lumokit::e2e::ChildProcess> process;
  };
  const WorkDir& dir_;
  std::string plugin_bin_;
  FailureLog& failures_;
  std::vector<Slot> slots_;
};

// Reads an incarnation's events file into its record (service id, ready
// time, session starts and ends).
void read_events(Incarnation* incarnation);

}  // namespace lumokit::soak
