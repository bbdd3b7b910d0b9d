// The chaos soak's shared parts: the plugin slots, what a client thread
// records of its session, and the failures every thread adds to.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

namespace lumokit::soak {

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr uint32_t kOpcodeBase = 0x3000;  // slot N serves opcode 0x3000+N, subsystem 1
constexpr int kSlots = 6;
constexpr int kSteadySlots = 2;  // slots 0 and 1 are never killed
constexpr int kClients = 10;     // connections at a time, one session each

inline std::string opcode_text(int slot) {  // "0x3002"
  char text[16];
  std::snprintf(text, sizeof(text), "0x%X", kOpcodeBase + static_cast<uint32_t>(slot));
  return text;
}

// The slot of an opcode given as number or "0x" text; -1 when none of ours.
inline int slot_of(const Json::Value& opcode) {
  const uint64_t v = opcode.isString()   ? std::strtoull(opcode.asCString(), nullptr, 16)
                     : opcode.isUInt64() ? opcode.asUInt64()
                                         : 0;
  return v >= kOpcodeBase && v < kOpcodeBase + kSlots ? static_cast<int>(v - kOpcodeBase) : -1;
}

struct SessionLog {
  uint32_t id = 0;
  Time asked{}, answered{};                   // its create_session
  std::set<int> slots;                        // listed in the capability report
  std::vector<std::pair<Time, int>> notices;  // crash notices: arrival, slot
  Time barrier{};  // when the find_pid_uid answered before the close was sent
};

struct Soak {
  void fail(const std::string& check, const std::string& detail) {
    std::lock_guard<std::mutex> lock(mtx);
    failures[check].push_back(detail);
  }
  std::string socket;
  uint64_t seed = 1;
  std::atomic<bool> stop{false};
  std::mutex mtx;  // guards the members below
  std::map<std::string, std::vector<std::string>> failures;
  std::vector<SessionLog> sessions;
  uint64_t tasks = 0, answers = 0, refused_creates = 0;
};

// Client `index` until `soak.stop`: one connection and session after the
// other, tasks on it with each answer checked against its task, and a
// find_pid_uid before each close.
void run_client(Soak& soak, int index);

}  // namespace lumokit::soak
