// The soak's verdicts from what was recorded: crash notices against plugin
// deaths, lost and refused tasks against the chaos, the daemon's state dump
// against the clients still there.
#include <algorithm>

#include "ipc/json_text.h"
#include "soak.h"

namespace lumokit::soak {

namespace {

// Slack for a task in flight inside the daemon while a plugin or the
// system service changes state.
constexpr int64_t kSlackNs = 1 * kSec;

// Seconds since the first plugin started, for reading a failure.
std::string at(int64_t t, const Incarnations& all) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.3fs", static_cast<double>(t - all[0][0].t_spawn) / 1e9);
  return text;
}

std::string text_of(const Json::Value& v) { return lumokit::ipc::write_json(v).substr(0, 300); }

}  // namespace

uint64_t check_crash_notices(const Incarnations& all, const std::vector<ClientState>& clients,
                             Failures& failures) {
  uint64_t required_total = 0;
  for (const ClientState& client : clients) {
    for (const SessionRecord& s : client.records) {
      const std::string who =
          "session " + std::to_string(s.id) + " of client " + std::to_string(s.client);
      auto fail = [&](const std::string& what) { failures.add("crash notices", who + what); };
      std::map<const Incarnation*, int> heard;
      for (const auto& [t, slot] : s.notices) {
        // The death it tells of: the slot's latest one before the notice came.
        const Incarnation* dead = nullptr;
        for (const Incarnation& inc : all[slot]) dead = inc.t_kill && inc.t_kill <= t ? &inc : dead;
        if (dead == nullptr) {
          fail(" got a crash notice at " + at(t, all) + " with no death of slot " +
               std::to_string(slot) + " before it");
        } else if (dead->starts.count(s.id) == 0) {
          fail(" got a crash notice at " + at(t, all) + " for " + dead->name() +
               ", which never started it");
        } else if (++heard[dead] == 2) {
          fail(" got more than one crash notice for the death of " + dead->name());
        }
      }
      // Deaths the session certainly had to hear of: listed in an answer
      // means the plugin was alive when the manager wrote it, after the
      // session's callback was stored, so its death, however soon, is the
      // session's. A restart during the call is ambiguous.
      std::set<const Incarnation*> required;
      for (const SessionRecord::Attach& a : s.attaches) {
        for (uint32_t slot : a.slots) {
          std::vector<const Incarnation*> starters;
          for (const Incarnation& inc : all[slot]) {
            auto it = inc.starts.find(s.id);
            if (it != inc.starts.end() &&
                std::any_of(it->second.begin(), it->second.end(),
                            [&](int64_t t) { return t >= a.t_req && t <= a.t_ans; })) {
              starters.push_back(&inc);
            }
          }
          if (starters.size() == 1 && starters[0]->t_gone && starters[0]->t_gone < s.t_barrier) {
            required.insert(starters[0]);
          }
        }
      }
      for (const Incarnation* inc : required) {
        ++required_total;
        if (heard.count(inc) != 0) continue;
        fail(" was started by " + inc->name() + ", killed at " + at(inc->t_kill, all) +
             ", forgotten at " + at(inc->t_gone, all) + ", yet no crash notice came by " +
             at(s.t_barrier, all));
      }
    }
  }
  return required_total;
}

void check_task_misses(const Incarnations& all, const std::vector<ClientState>& clients,
                       const std::vector<Outage>& outages, Failures& failures) {
  for (const ClientState& client : clients) {
    for (const TaskMiss& miss : client.misses) {
      const std::vector<Incarnation>& slot = all[miss.slot];
      bool explained = false;
      for (size_t i = 0; i < slot.size(); ++i) {
        const Incarnation& inc = slot[i];
        const int64_t next_ready = i + 1 < slot.size() ? slot[i + 1].t_ready : 0;
        // A -5 while the slot had no registered plugin, from a death until
        // the next incarnation was ready. A lost task: its plugin died
        // before answering, or was dead but not yet forgotten when the task
        // came (such tasks are dropped by design).
        explained = explained || (miss.t_answer != 0
                                      ? inc.t_kill && inc.t_kill <= miss.t_answer &&
                                            (next_ready == 0 || next_ready >= miss.t_send)
                                      : inc.t_kill && inc.t_kill <= miss.t_send + kTaskTimeoutNs &&
                                            (!inc.t_gone || inc.t_gone + kSlackNs >= miss.t_send));
      }
      // The permission gate drops tasks while the system service is away.
      for (const auto& [down, up] : outages) {
        explained =
            explained || (miss.gated && miss.t_answer == 0 && down - kSlackNs <= miss.t_due &&
                          (up == 0 || miss.t_send <= up + kSlackNs));
      }
      if (explained) continue;
      failures.add("tasks",
                   std::string(miss.gated ? "gated" : "echo") + " task to slot " +
                       std::to_string(miss.slot) + " sent at " + at(miss.t_send, all) +
                       (miss.t_answer ? " was answered -5 while a plugin served it"
                                      : " was lost with no death or outage to explain it"));
    }
  }
}

void check_state_dump(const Json::Value& status, const DumpExpectation& expect,
                      Failures& failures) {
  auto fail = [&](const std::string& detail) {
    failures.add("no leftovers", detail + " (" + expect.label + ")");
  };
  std::map<int32_t, const Incarnation*> by_id;
  std::set<int32_t> live;  // service ids of the running plugins
  for (const auto& slot : expect.incarnations) {
    for (const Incarnation& inc : slot) by_id[inc.service_id] = &inc;
    if (!slot.empty() && slot.back().t_ready != 0 && slot.back().t_kill == 0) {
      live.insert(slot.back().service_id);
    }
  }
  std::map<uint32_t, const SessionRecord*> open;
  for (const SessionRecord& s : expect.open_sessions) open[s.id] = &s;

  // Plugins: exactly the running ones, each ready with its one pair, and
  // none keeps a session whose end it acknowledged.
  std::map<uint32_t, std::set<uint32_t>> started_in_slot;  // by running plugins
  std::set<int32_t> listed;
  for (const Json::Value& p : status["state"]["plugins"]) {
    const int32_t id = p["service_id"].asInt();
    listed.insert(id);
    if (live.count(id) == 0 || by_id.count(id) == 0) {
      fail("service id " + std::to_string(id) + " is gone but still listed");
      continue;
    }
    const Incarnation& inc = *by_id[id];
    uint32_t slot = 0;
    if (p["died"].asBool() || p["state"].asInt() != 3 || p["pairs"].size() != 1 ||
        !read_slot(p["pairs"][0]["opcode"].asString(), &slot) || slot != inc.slot ||
        !p["pairs"][0]["ready"].asBool()) {
      fail(inc.name() + " is listed wrongly: " + text_of(p));
    }
    for (const Json::Value& sid : p["started_sessions"]) {
      started_in_slot[inc.slot].insert(sid.asUInt());
      if (open.count(sid.asUInt()) == 0 && inc.ends.count(sid.asUInt()) != 0) {
        fail(inc.name() + " still lists session " + sid.asString() + " whose end it acknowledged");
      }
    }
  }
  for (int32_t id : live) {
    if (listed.count(id) == 0) fail("running service id " + std::to_string(id) + " is not listed");
  }

  // Sessions: every open one present and whole; nothing else but the
  // granted-only records that refused creations leave by design.
  std::set<uint32_t> seen;
  uint64_t granted_only = 0;
  for (const Json::Value& s : status["state"]["sessions"]) {
    const uint32_t id = s["session_id"].asUInt();
    const std::string name = "session " + std::to_string(id);
    auto it = open.find(id);
    if (it == open.end()) {
      const bool bare = !s["has_callback"].asBool() && !s.isMember("pid") && s["plugins"].empty() &&
                        s["connected"].empty();
      granted_only += bare ? 1 : 0;
      if (!bare) fail(name + " belongs to no open client but is still known: " + text_of(s));
      continue;
    }
    seen.insert(id);
    if (!s["has_callback"].asBool() || s["pid"].asInt() != it->second->pid ||
        s["uid"].asUInt() != it->second->uid) {
      fail("open " + name + " is listed wrongly: " + text_of(s));
    }
    for (const Json::Value& svc : s["plugins"]) {
      if (live.count(svc.asInt()) == 0) {
        fail("open " + name + " still names gone service id " + svc.asString());
      }
    }
    for (const Json::Value& pair : s["connected"]) {
      uint32_t slot = 0;
      if (!read_slot(pair["opcode"].asString(), &slot) || started_in_slot[slot].count(id) == 0) {
        fail("open " + name + " lists pair " + text_of(pair) + " that no running plugin started");
      }
    }
  }
  for (const auto& entry : open) {
    if (seen.count(entry.first) == 0)
      fail("open session " + std::to_string(entry.first) + " is missing");
  }
  if (granted_only > expect.refused_creates) {
    fail(std::to_string(granted_only) + " granted-only session records after " +
         std::to_string(expect.refused_creates) + " refused creations");
  }
  if (status["clients"].asUInt64() != expect.clients ||
      status["owned_sessions"].asUInt64() != expect.open_sessions.size()) {
    fail("the daemon counts " + text_of(status["clients"]) + " clients and " +
         text_of(status["owned_sessions"]) + " owned sessions, not " +
         std::to_string(expect.clients) + " and " + std::to_string(expect.open_sessions.size()));
  }
  if (!status["sys_alive"].asBool() || !status["ready"].asBool()) {
    failures.add("daemon alive", "status says sys_alive " + text_of(status["sys_alive"]) +
                                     ", ready " + text_of(status["ready"]));
  }
}

}  // namespace lumokit::soak
