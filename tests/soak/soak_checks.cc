#include "soak_checks.h"

#include <dirent.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>

#include "e2e_process.h"
#include "soak_clock.h"
#include "soak_link.h"

namespace lumokit::soak {

namespace {

// Slack for a task in flight inside the daemon while a plugin or the
// system service changes state.
constexpr int64_t kGateSlackNs = 1 * kSec;

std::string secs(int64_t t, int64_t origin) {
  std::ostringstream out;
  out.precision(3);
  out << std::fixed << static_cast<double>(t - origin) / 1e9 << "s";
  return out.str();
}

std::string inc_name(const Incarnation& inc) {
  return "slot " + std::to_string(inc.slot) + " incarnation " + std::to_string(inc.number) +
         " (service id " + std::to_string(inc.service_id) + ")";
}

// Incarnations per slot, in order of their number.
std::map<uint32_t, std::vector<const Incarnation*>> by_slot(const std::vector<Incarnation>& all) {
  std::map<uint32_t, std::vector<const Incarnation*>> out;
  for (const Incarnation& inc : all) out[inc.slot].push_back(&inc);
  for (auto& entry : out) {
    std::sort(entry.second.begin(), entry.second.end(),
              [](const Incarnation* a, const Incarnation* b) { return a->number < b->number; });
  }
  return out;
}

int64_t origin_of(const std::vector<Incarnation>& all) {
  int64_t t = 0;
  for (const Incarnation& inc : all) {
    if (t == 0 || (inc.t_spawn != 0 && inc.t_spawn < t)) t = inc.t_spawn;
  }
  return t;
}

bool started_between(const Incarnation& inc, uint32_t session, int64_t from, int64_t to) {
  auto it = inc.starts.find(session);
  if (it == inc.starts.end()) return false;
  return std::any_of(it->second.begin(), it->second.end(),
                     [&](int64_t t) { return t >= from && t <= to; });
}

bool read_slot(const Json::Value& pair, uint32_t* slot) {
  const std::string text = pair["opcode"].asString();
  if (text.size() < 3 || text.compare(0, 2, "0x") != 0) return false;
  char* end = nullptr;
  unsigned long v = std::strtoul(text.c_str() + 2, &end, 16);
  if (*end != '\0' || v < kOpcodeBase) return false;
  *slot = static_cast<uint32_t>(v - kOpcodeBase);
  return true;
}

}  // namespace

NoticeTally check_crash_notices(const std::vector<Incarnation>& incarnations,
                                const std::vector<SessionRecord>& sessions,
                                const std::set<uint32_t>& unowned_drops, FailureLog& failures) {
  NoticeTally tally;
  const auto slots = by_slot(incarnations);
  const int64_t origin = origin_of(incarnations);
  for (const SessionRecord& s : sessions) {
    const std::string who = "session " + std::to_string(s.id) + " (client " +
                            std::to_string(s.worker) + ")";
    std::map<const Incarnation*, int> heard;
    for (const NoticeRecord& n : s.notices) {
      ++tally.received;
      // The death it tells of: the slot's latest kill before the notice came.
      const Incarnation* dead = nullptr;
      auto it = slots.find(n.slot);
      if (it != slots.end()) {
        for (const Incarnation* inc : it->second) {
          if (inc->t_kill != 0 && inc->t_kill <= n.t) dead = inc;
        }
      }
      if (dead == nullptr) {
        failures.add("crash notices", who + " got a crash notice for slot " +
                                          std::to_string(n.slot) + " at " + secs(n.t, origin) +
                                          " with no death of that plugin before it");
        continue;
      }
      if (dead->starts.count(s.id) == 0) {
        failures.add("crash notices", who + " got a crash notice at " + secs(n.t, origin) +
                                          " for " + inc_name(*dead) + ", which never started it");
        continue;
      }
      if (++heard[dead] == 2) {
        failures.add("crash notices", who + " got more than one crash notice for the death of " +
                                          inc_name(*dead));
      }
    }
    // Deaths the session certainly had to hear of.
    std::set<const Incarnation*> required;
    for (const AttachRecord& a : s.attaches) {
      for (uint32_t slot : a.slots) {
        auto it = slots.find(slot);
        if (it == slots.end()) continue;
        const Incarnation* starter = nullptr;
        int starters = 0;
        for (const Incarnation* inc : it->second) {
          if (started_between(*inc, s.id, a.t_req, a.t_ans)) {
            starter = inc;
            ++starters;
          }
        }
        if (starters != 1) continue;  // a restart during the call: ambiguous
        // Listed in the answer means the plugin was alive when the manager
        // wrote it, after the session's callback was stored: its death,
        // however soon, is the session's to hear of.
        if (starter->t_kill != 0 && starter->t_gone != 0 && s.t_barrier != 0 &&
            starter->t_gone < s.t_barrier) {
          required.insert(starter);
        }
      }
    }
    for (const Incarnation* inc : required) {
      ++tally.required;
      if (heard.count(inc) != 0) continue;
      const std::string why =
          unowned_drops.count(s.id) != 0
              ? " (the daemon logged a crash notice for it dropped because no connection owned "
                "the session yet: the create_session answer had not been routed)"
              : "";
      failures.add("crash notices", who + " was started by " + inc_name(*inc) +
                                        " (listed in its answer at " +
                                        secs(s.attaches.front().t_ans, origin) +
                                        "), which was killed at " + secs(inc->t_kill, origin) +
                                        " and forgotten at " + secs(inc->t_gone, origin) +
                                        ", yet no crash notice came by " +
                                        secs(s.t_barrier, origin) + why);
    }
  }
  return tally;
}

TaskTally check_task_misses(const std::vector<WorkerTotals>& totals,
                            const std::vector<Incarnation>& incarnations,
                            const std::vector<SysOutage>& outages, FailureLog& failures) {
  TaskTally tally;
  const auto slots = by_slot(incarnations);
  const int64_t origin = origin_of(incarnations);
  for (const WorkerTotals& w : totals) {
    for (const TaskMiss& miss : w.lost) {
      bool explained = false;
      auto it = slots.find(miss.slot);
      if (it != slots.end()) {
        // Its plugin died before answering, or was dead but not yet
        // forgotten when the task came (such tasks are dropped by design).
        for (const Incarnation* inc : it->second) {
          if (inc->t_kill != 0 && inc->t_kill <= miss.t_send + kTaskTimeoutNs &&
              (inc->t_gone == 0 || inc->t_gone + kGateSlackNs >= miss.t_send)) {
            explained = true;
          }
        }
      }
      if (!explained && miss.gated) {
        // The permission gate drops tasks while the system service is away.
        for (const SysOutage& o : outages) {
          const int64_t up = o.t_up == 0 ? INT64_MAX : o.t_up + kGateSlackNs;
          if (o.t_down - kGateSlackNs <= miss.t_due && miss.t_send <= up) explained = true;
        }
      }
      if (explained) {
        ++tally.lost_explained;
        continue;
      }
      // Name the nearest events, for whoever reads the failure.
      std::string context;
      for (const SysOutage& o : outages) {
        if (o.t_down <= miss.t_due + 5 * kSec && (o.t_up == 0 || o.t_up + 5 * kSec >= miss.t_send)) {
          context += "; system service down " + secs(o.t_down, origin) + " to " +
                     (o.t_up == 0 ? std::string("the end") : secs(o.t_up, origin));
        }
      }
      if (it != slots.end()) {
        for (const Incarnation* inc : it->second) {
          if (inc->t_kill != 0 && inc->t_kill + 5 * kSec >= miss.t_send &&
              inc->t_kill <= miss.t_send + 5 * kSec) {
            context += "; " + inc_name(*inc) + " killed " + secs(inc->t_kill, origin);
          }
        }
      }
      failures.add("tasks", std::string(miss.gated ? "gated" : "echo") + " task to slot " +
                                std::to_string(miss.slot) + " sent at " +
                                secs(miss.t_send, origin) + " (due by " +
                                secs(miss.t_due, origin) +
                                ") got no answer, with no plugin death or outage to explain it" +
                                context);
    }
    for (const TaskMiss& miss : w.unserved) {
      bool explained = false;
      auto it = slots.find(miss.slot);
      if (it != slots.end()) {
        const auto& list = it->second;
        for (size_t i = 0; i < list.size(); ++i) {
          // The slot had no registered plugin from this death until the
          // next incarnation was ready.
          const int64_t next_ready = i + 1 < list.size() ? list[i + 1]->t_ready : 0;
          if (list[i]->t_kill != 0 && list[i]->t_kill <= miss.t_answer &&
              (next_ready == 0 || next_ready >= miss.t_send)) {
            explained = true;
          }
        }
      }
      if (explained) {
        ++tally.unserved_explained;
      } else {
        failures.add("tasks", "task to slot " + std::to_string(miss.slot) + " sent at " +
                                  secs(miss.t_send, origin) +
                                  " was answered \"no plugin serves the pair\" (-5) while one did");
      }
    }
  }
  return tally;
}

DumpTally check_state_dump(const Json::Value& status, const DumpExpectation& expect,
                           FailureLog& failures) {
  DumpTally tally;
  const std::string when = " (" + expect.label + ")";
  const Json::Value& state = status["state"];
  std::map<int32_t, const Incarnation*> by_id;
  for (const Incarnation& inc : expect.incarnations) by_id[inc.service_id] = &inc;
  std::map<uint32_t, const SessionRecord*> live;
  for (const SessionRecord& s : expect.live_sessions) live[s.id] = &s;
  const std::set<int32_t> live_ids(expect.live_service_ids.begin(), expect.live_service_ids.end());

  // Plugins: exactly the running ones, each ready with its one pair.
  std::map<int32_t, std::set<uint32_t>> started_by;
  std::set<int32_t> listed;
  for (const Json::Value& p : state["plugins"]) {
    const int32_t id = p["service_id"].asInt();
    listed.insert(id);
    auto inc = by_id.find(id);
    const std::string name =
        inc != by_id.end() ? inc_name(*inc->second) : "service id " + std::to_string(id);
    if (live_ids.count(id) == 0) {
      failures.add("no leftovers", name + " is gone but still listed" + when);
      continue;
    }
    uint32_t slot = 0;
    if (p["died"].asBool() || p["state"].asInt() != 3 || p["pairs"].size() != 1 ||
        !read_slot(p["pairs"][0], &slot) || slot != inc->second->slot ||
        !p["pairs"][0]["ready"].asBool()) {
      failures.add("no leftovers", name + " is listed wrongly" + when + ": " +
                                       json_text(p).substr(0, 300));
    }
    for (const Json::Value& sid : p["started_sessions"]) {
      const uint32_t session = sid.asUInt();
      started_by[id].insert(session);
      if (live.count(session) != 0) continue;
      if (inc->second->ends.count(session) != 0) {
        failures.add("no leftovers", name + " still lists session " + std::to_string(session) +
                                         " as started although it acknowledged its end" + when);
      } else {
        ++tally.stale_started;
      }
    }
  }
  for (int32_t id : live_ids) {
    if (listed.count(id) == 0) {
      failures.add("no leftovers", "running service id " + std::to_string(id) + " is not listed" + when);
    }
  }

  // Sessions: every open one present and whole; nothing else but the
  // granted-only records that refused creations leave by design.
  std::set<uint32_t> seen;
  for (const Json::Value& s : state["sessions"]) {
    const uint32_t id = s["session_id"].asUInt();
    auto it = live.find(id);
    if (it == live.end()) {
      const bool granted_only = !s["has_callback"].asBool() && !s.isMember("pid") &&
                                s["plugins"].empty() && s["connected"].empty();
      if (granted_only) {
        ++tally.granted_only;
      } else {
        failures.add("no leftovers", "session " + std::to_string(id) +
                                         " belongs to no open client but is still known" + when +
                                         ": " + json_text(s).substr(0, 300));
      }
      continue;
    }
    seen.insert(id);
    const SessionRecord& rec = *it->second;
    if (!s["has_callback"].asBool() || s["pid"].asInt() != rec.pid || s["uid"].asUInt() != rec.uid) {
      failures.add("no leftovers", "open session " + std::to_string(id) + " is listed wrongly" +
                                       when + ": " + json_text(s).substr(0, 300));
    }
    for (const Json::Value& svc : s["plugins"]) {
      if (live_ids.count(svc.asInt()) == 0) {
        failures.add("no leftovers", "open session " + std::to_string(id) +
                                         " still names gone service id " +
                                         std::to_string(svc.asInt()) + when);
      }
    }
    for (const Json::Value& pair : s["connected"]) {
      uint32_t slot = 0;
      bool served = false;
      if (read_slot(pair, &slot)) {
        for (int32_t svc : live_ids) {
          auto inc = by_id.find(svc);
          if (inc != by_id.end() && inc->second->slot == slot && started_by[svc].count(id) != 0) {
            served = true;
          }
        }
      }
      if (!served) {
        failures.add("no leftovers", "open session " + std::to_string(id) + " lists pair " +
                                         json_text(pair) +
                                         " as connected, but no running plugin started it" + when);
      }
    }
  }
  for (const auto& entry : live) {
    if (seen.count(entry.first) == 0) {
      failures.add("no leftovers",
                   "open session " + std::to_string(entry.first) + " is missing" + when);
    }
  }
  if (tally.granted_only > expect.failed_creates) {
    failures.add("no leftovers", std::to_string(tally.granted_only) +
                                     " granted-only session records, but only " +
                                     std::to_string(expect.failed_creates) +
                                     " creations were refused" + when);
  }
  if (status["clients"].asUInt64() != expect.clients ||
      status["owned_sessions"].asUInt64() != expect.live_sessions.size()) {
    failures.add("no leftovers", "the daemon counts " + json_text(status["clients"]) +
                                     " clients and " + json_text(status["owned_sessions"]) +
                                     " owned sessions, expected " + std::to_string(expect.clients) +
                                     " and " + std::to_string(expect.live_sessions.size()) + when);
  }
  if (!status["sys_alive"].asBool() || !status["ready"].asBool()) {
    failures.add("daemon alive", "status says sys_alive " + json_text(status["sys_alive"]) +
                                     ", ready " + json_text(status["ready"]) + when);
  }
  return tally;
}

std::set<uint32_t> unowned_notice_drops(const std::string& log) {
  std::set<uint32_t> ended, out;
  std::istringstream in(log);
  std::string line;
  const std::string ending = "; ending session ";
  const std::string dropped = "no client owns session ";
  const std::string notice_tail = "; dropped kind 2 callback (error 1)";
  while (std::getline(in, line)) {
    size_t at = line.find(ending);
    if (at != std::string::npos) {
      ended.insert(static_cast<uint32_t>(std::strtoul(line.c_str() + at + ending.size(), nullptr, 10)));
      continue;
    }
    at = line.find(dropped);
    if (at == std::string::npos || line.find(notice_tail) == std::string::npos) continue;
    const uint32_t id =
        static_cast<uint32_t>(std::strtoul(line.c_str() + at + dropped.size(), nullptr, 10));
    if (ended.count(id) == 0) out.insert(id);
  }
  return out;
}

void check_sanitizer_output(const std::string& dir, const std::vector<std::string>& outputs,
                            FailureLog& failures) {
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      if (name == "." || name == "..") continue;
      const std::string text = lumokit::e2e::read_file(dir + "/" + name);
      if (text.empty()) continue;
      failures.add("sanitizers", dir + "/" + name + ": " + text.substr(0, 400));
    }
    closedir(d);
  }
  static const char* const kMarks[] = {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                                       "WARNING: ThreadSanitizer", "runtime error:"};
  for (const std::string& path : outputs) {
    const std::string text = lumokit::e2e::read_file(path);
    for (const char* mark : kMarks) {
      size_t at = text.find(mark);
      if (at != std::string::npos) {
        failures.add("sanitizers", path + ": " + text.substr(at, 300));
        break;
      }
    }
  }
}

}  // namespace lumokit::soak
