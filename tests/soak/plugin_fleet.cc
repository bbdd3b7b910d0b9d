#include "plugin_fleet.h"

#include <signal.h>
#include <sys/wait.h>

#include <sstream>

#include "soak_clock.h"

namespace lumokit::soak {

namespace {

std::string describe(const Incarnation& inc) {
  return "slot " + std::to_string(inc.slot) + " incarnation " + std::to_string(inc.number) +
         " (service id " + std::to_string(inc.service_id) + ")";
}

std::string exit_text(int status) {
  if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
  return "wait status " + std::to_string(status);
}

}  // namespace

void read_events(Incarnation* inc) {
  inc->starts.clear();
  inc->ends.clear();
  std::istringstream in(lumokit::e2e::read_file(inc->events_path));
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    long long t = 0;
    std::string kind;
    long long value = 0;
    if (!(fields >> t >> kind >> value)) continue;
    if (kind == "init") {
      inc->service_id = static_cast<int32_t>(value);
    } else if (kind == "ready") {
      inc->t_ready = t;
    } else if (kind == "start") {
      inc->starts[static_cast<uint32_t>(value)].push_back(t);
    } else if (kind == "end") {
      inc->ends[static_cast<uint32_t>(value)].push_back(t);
    }
  }
}

PluginFleet::PluginFleet(const WorkDir& dir, std::string plugin_bin, uint32_t slots,
                         FailureLog& failures)
    : dir_(dir), plugin_bin_(std::move(plugin_bin)), failures_(failures), slots_(slots) {}

PluginFleet::~PluginFleet() {
  for (Slot& slot : slots_) {
    if (slot.process) slot.process->kill_now();
  }
}

uint32_t PluginFleet::count(State state) const {
  uint32_t n = 0;
  for (const Slot& slot : slots_) n += slot.state == state ? 1 : 0;
  return n;
}

bool PluginFleet::spawn(uint32_t index, std::string* error) {
  Slot& slot = slots_[index];
  if (slot.state != State::kDown) {
    *error = "slot " + std::to_string(index) + " is not down";
    return false;
  }
  Incarnation inc;
  inc.slot = index;
  inc.number = static_cast<uint32_t>(slot.history.size()) + 1;
  const std::string stem =
      dir_.plugins + "/slot" + std::to_string(index) + "." + std::to_string(inc.number);
  inc.events_path = stem + ".events";
  inc.log_path = stem + ".log";
  auto process = std::make_unique<lumokit::e2e::ChildProcess>();
  try {
    process->start(plugin_bin_,
                   {"--socket", dir_.runtime + "/lumo", "--slot", std::to_string(index),
                    "--incarnation", std::to_string(inc.number), "--api-def",
                    dir_.api_def(index), "--token", dir_.token(index), "--events",
                    inc.events_path},
                   inc.log_path);
  } catch (const std::exception& e) {
    *error = e.what();
    return false;
  }
  inc.t_spawn = mono_ns();
  slot.history.push_back(std::move(inc));
  slot.process = std::move(process);
  slot.state = State::kStarting;
  return true;
}

void PluginFleet::poll_ready(std::chrono::milliseconds limit) {
  const int64_t now = mono_ns();
  for (Slot& slot : slots_) {
    if (slot.state != State::kStarting) continue;
    Incarnation& inc = slot.history.back();
    read_events(&inc);
    if (inc.t_ready != 0) {
      slot.state = State::kReady;
    } else if (now - inc.t_spawn > static_cast<int64_t>(limit.count()) * kMs) {
      failures_.add("plugins", describe(inc) + " not ready after " +
                                   std::to_string(limit.count()) + " ms; see " + inc.log_path);
      // Killed and left down; the chaos thread restarts it like any other.
      slot.process->kill_now();
      inc.t_kill = mono_ns();
      slot.state = State::kDown;
    }
  }
}

void PluginFleet::kill(uint32_t index) {
  Slot& slot = slots_[index];
  if (slot.state == State::kDown || !slot.process) return;
  slot.history.back().t_kill = mono_ns();
  slot.process->kill_now();
  slot.state = State::kDown;
}

std::vector<uint32_t> PluginFleet::reap_unexpected() {
  std::vector<uint32_t> out;
  for (uint32_t i = 0; i < slots_.size(); ++i) {
    Slot& slot = slots_[i];
    if (slot.state == State::kDown || !slot.process) continue;
    int status = 0;
    if (!slot.process->wait_exit(std::chrono::milliseconds(0), &status)) continue;
    Incarnation& inc = slot.history.back();
    inc.t_kill = mono_ns();
    read_events(&inc);
    failures_.add("plugins", describe(inc) + " ended by itself (" + exit_text(status) +
                                 "); see " + inc.log_path);
    slot.state = State::kDown;
    out.push_back(i);
  }
  return out;
}

void PluginFleet::stop_all(std::chrono::milliseconds limit) {
  for (Slot& slot : slots_) {
    if (slot.state != State::kDown && slot.process) slot.process->signal(SIGTERM);
  }
  const int64_t deadline = mono_ns() + static_cast<int64_t>(limit.count()) * kMs;
  for (Slot& slot : slots_) {
    if (slot.state == State::kDown || !slot.process) continue;
    Incarnation& inc = slot.history.back();
    int status = 0;
    const int64_t left_ms = std::max<int64_t>(0, (deadline - mono_ns()) / kMs);
    if (!slot.process->wait_exit(std::chrono::milliseconds(left_ms), &status)) {
      failures_.add("plugins", describe(inc) + " did not leave within " +
                                   std::to_string(limit.count()) + " ms of SIGTERM");
      slot.process->kill_now();
    } else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      failures_.add("plugins", describe(inc) + " left with " + exit_text(status) +
                                   " instead of a clean DINT; see " + inc.log_path);
    }
    slot.state = State::kDown;
  }
}

std::vector<Incarnation> PluginFleet::records() const {
  std::vector<Incarnation> out;
  for (const Slot& slot : slots_) {
    for (Incarnation inc : slot.history) {
      read_events(&inc);
      out.push_back(std::move(inc));
    }
  }
  return out;
}

std::vector<std::string> PluginFleet::log_paths() const {
  std::vector<std::string> out;
  for (const Slot& slot : slots_) {
    for (const Incarnation& inc : slot.history) out.push_back(inc.log_path);
  }
  return out;
}

}  // namespace lumokit::soak
