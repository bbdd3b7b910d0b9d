// A read-only snapshot of plugins and sessions for diagnostics. Each table is
// copied under its own lock, one at a time; nothing is held across a call out.
#include <map>

#include "LumoManager.h"
#include "Service.h"
#include "json_read.h"
#include "session_tables.h"

namespace {

Json::Value pair_json(const OpcodeSubsys& pair) {
  Json::Value v(Json::objectValue);
  v["opcode"] = uint32_to_hexstring(pair.first);
  v["subsystem"] = pair.second;
  return v;
}

template <typename Map>
std::map<unsigned int, OpcodeSubsysSet> copy_pair_table(Map& table, std::mutex& mtx) {
  std::map<unsigned int, OpcodeSubsysSet> copy;
  std::lock_guard<std::mutex> lock(mtx);
  for (const auto& entry : table) copy.emplace(entry.first, *entry.second);
  return copy;
}

}  // namespace

std::string lumokit_state_dump() {
  std::vector<std::shared_ptr<Service>> plugins;
  {
    std::lock_guard<std::mutex> lock(service_map_mtx);
    for (const auto& entry : service_map) plugins.push_back(entry.second);
  }
  Json::Value root(Json::objectValue);
  Json::Value& plugin_list = root["plugins"] = Json::Value(Json::arrayValue);
  for (const auto& svc : plugins) {
    if (!svc) continue;
    Json::Value p(Json::objectValue);
    p["service_id"] = svc->get_svc_id();
    p["state"] = static_cast<int>(svc->get_svc_hal_state());
    p["died"] = svc->get_svc_hal_died();
    Json::Value pairs(Json::arrayValue);
    Json::Value sessions(Json::arrayValue);
    {
      std::lock_guard<std::mutex> lock(*svc->get_svc_hal_mtx());
      p["queued"] = static_cast<Json::UInt64>(svc->get_svc_hal_queue()->size());
      p["queued_bytes"] = static_cast<Json::UInt64>(*svc->get_svc_hal_queue_bytes());
      for (const auto& entry : *svc->get_subsystem_map()) {
        Json::Value pair = pair_json(entry.first);
        pair["ready"] = entry.second->get_subsystem_status();
        pairs.append(pair);
      }
      std::unique_ptr<std::vector<unsigned int>> keys(svc->get_keys_of_session_started_map());
      for (unsigned int id : *keys) sessions.append(id);
    }
    p["pairs"] = pairs;
    p["started_sessions"] = sessions;
    plugin_list.append(p);
  }

  std::map<unsigned int, std::pair<int32_t, uint32_t>> ids;
  {
    std::lock_guard<std::mutex> lock(sessionid_pid_uid_map_mtx);
    ids = sessionid_pid_uid_map;
  }
  std::map<unsigned int, lumo_callback> callbacks;
  {
    std::lock_guard<std::mutex> lock(session_cb_map_mtx);
    callbacks = session_cb_map;
  }
  std::map<unsigned int, std::set<int>> svc_ids;
  {
    std::lock_guard<std::mutex> lock(sessionid_svcid_map_mtx);
    for (const auto& entry : sessionid_svcid_map) svc_ids.emplace(entry.first, *entry.second);
  }
  auto connected = copy_pair_table(connectedOpcodesubsysMap, connectedOpcodesubsysMapMtx);
  auto granted = copy_pair_table(sessionid_granted_opcodesubsys_map,
                                 sessionid_granted_opcodesubsys_map_mtx);

  // A session appears while any table still knows it.
  std::set<unsigned int> session_ids;
  for (const auto& e : ids) session_ids.insert(e.first);
  for (const auto& e : callbacks) session_ids.insert(e.first);
  for (const auto& e : svc_ids) session_ids.insert(e.first);
  for (const auto& e : connected) session_ids.insert(e.first);
  for (const auto& e : granted) session_ids.insert(e.first);

  Json::Value& session_list = root["sessions"] = Json::Value(Json::arrayValue);
  for (unsigned int id : session_ids) {
    Json::Value s(Json::objectValue);
    s["session_id"] = id;
    auto who = ids.find(id);
    if (who != ids.end()) {
      s["pid"] = who->second.first;
      s["uid"] = who->second.second;
    }
    s["has_callback"] = callbacks.count(id) != 0;
    Json::Value plugin_ids(Json::arrayValue);
    if (svc_ids.count(id)) {
      for (int svc : svc_ids[id]) plugin_ids.append(svc);
    }
    s["plugins"] = plugin_ids;
    Json::Value c(Json::arrayValue), g(Json::arrayValue);
    if (connected.count(id)) {
      for (const auto& pair : connected[id]) c.append(pair_json(pair));
    }
    if (granted.count(id)) {
      for (const auto& pair : granted[id]) g.append(pair_json(pair));
    }
    s["connected"] = c;
    s["granted"] = g;
    session_list.append(s);
  }

  Json::Value& registry = root["registry"] = Json::Value(Json::arrayValue);
  {
    std::lock_guard<std::mutex> lock(opcodesubsys_svcid_map_mtx);
    for (const auto& entry : opcodesubsys_svcid_map) {
      Json::Value r = pair_json(entry.first);
      r["service_id"] = entry.second;
      registry.append(r);
    }
  }
  return json_write_compact(root);
}

bool lumokit_session_snapshot(uint32_t session_id,
                              std::vector<std::pair<uint32_t, uint32_t>>* connected) {
  connected->clear();
  bool known = false;
  {
    std::lock_guard<std::mutex> lock(connectedOpcodesubsysMapMtx);
    auto it = connectedOpcodesubsysMap.find(session_id);
    if (it != connectedOpcodesubsysMap.end()) {
      known = true;
      connected->assign(it->second->begin(), it->second->end());
    }
  }
  if (known) return true;
  {
    std::lock_guard<std::mutex> lock(session_cb_map_mtx);
    if (session_cb_map.count(session_id) != 0) return true;
  }
  {
    std::lock_guard<std::mutex> lock(sessionid_pid_uid_map_mtx);
    if (sessionid_pid_uid_map.count(session_id) != 0) return true;
  }
  {
    std::lock_guard<std::mutex> lock(sessionid_svcid_map_mtx);
    if (sessionid_svcid_map.count(session_id) != 0) return true;
  }
  std::lock_guard<std::mutex> lock(sessionid_granted_opcodesubsys_map_mtx);
  return sessionid_granted_opcodesubsys_map.count(session_id) != 0;
}
