// Opening a session on every registered pair (or re-attaching one to plugins
// that came back), and the capability report that answers it.
#include <android/log.h>

#include "message_tap.h"
#include "session_tables.h"

namespace {

void append_subsystem_functions(std::string& text, unsigned int opcode, unsigned int subsystem) {
  // The registry stays locked for the whole lookup, as the plugin may be
  // leaving at the same moment.
  std::lock_guard<std::mutex> lock(opcodesubsys_svcid_map_mtx);
  auto it = opcodesubsys_svcid_map.find(OpcodeSubsys(opcode, subsystem));
  if (it == opcodesubsys_svcid_map.end()) return;
  std::shared_ptr<Service> svc = find_in_service_map(it->second);
  if (!svc || svc->get_svc_hal_died()) return;
  std::lock_guard<std::mutex> rec(*svc->get_svc_hal_mtx());
  auto* map = svc->get_subsystem_map();
  auto sub = map->find(OpcodeSubsys(opcode, subsystem));
  if (sub != map->end()) text += sub->second->functions_text();
}

// Removes pairs from a session's connected set without the "last pair ends
// the session" rule, which would also drop pairs of live plugins.
void drop_connected_pairs(unsigned int session_id, const OpcodeSubsysSet& pairs) {
  std::lock_guard<std::mutex> lock(connectedOpcodesubsysMapMtx);
  auto it = connectedOpcodesubsysMap.find(session_id);
  if (it == connectedOpcodesubsysMap.end()) return;
  for (const auto& pair : pairs) it->second->erase(pair);
  if (it->second->empty()) {
    delete it->second;
    connectedOpcodesubsysMap.erase(it);
  }
}

}  // namespace

std::string create_authentication_json_response(const OpcodeMap& opcodes) {
  std::string text = "{\"capability\": {\"version\":1,\"opcodes\": [";
  size_t index = 0;
  for (const auto& entry : opcodes) {
    text += "{\"opcode\": \"";
    text += uint32_to_hexstring(entry.first);
    text += "\", \"name\": \"";
    {
      std::lock_guard<std::mutex> lock(opcode_name_map_mtx);
      auto name = opcode_name_map.find(entry.first);
      text += name != opcode_name_map.end() ? name->second : " ";
    }
    text += "\", \"subsystems\": [";
    const std::vector<unsigned int>& subsystems = *entry.second;
    for (size_t i = 0; i < subsystems.size(); ++i) {
      append_subsystem_functions(text, entry.first, subsystems[i]);
      if (i + 1 < subsystems.size()) text += ",";
    }
    text += "]}";
    if (++index < opcodes.size()) text += ",";
  }
  text += "]}}";
  return text;
}

void create_session(std::string /*request*/, lumo_callback callback, uint32_t session_id,
                    uint32_t client_handle, int32_t pid, uint32_t uid) {
  unsigned int* opcodes = nullptr;
  unsigned int* subsystems = nullptr;
  int32_t count = 0;
  const bool session_id_was_new = session_id == 0;
  if (session_id_was_new) {
    session_id = new_session_id();
    {
      std::lock_guard<std::mutex> lock(opcodesubsys_svcid_map_mtx);
      count = static_cast<int32_t>(opcodesubsys_svcid_map.size());
      if (count > 0) {
        opcodes = new unsigned int[count];
        subsystems = new unsigned int[count];
        int32_t i = 0;
        for (const auto& entry : opcodesubsys_svcid_map) {
          opcodes[i] = entry.first.first;
          subsystems[i] = entry.first.second;
          ++i;
        }
      }
    }
    addToGrantedOpcodesubsysMap(session_id, opcodes, subsystems, count);
  } else {
    getDisconnectedOpcodeSubsys(session_id, &count, &opcodes, &subsystems);
  }

  std::map<int, OpcodeSubsysSet> plan;
  for (int32_t i = 0; i < count; ++i) {
    const OpcodeSubsys pair(opcodes[i], subsystems[i]);
    int svc_id;
    {
      std::lock_guard<std::mutex> lock(opcodesubsys_svcid_map_mtx);
      auto it = opcodesubsys_svcid_map.find(pair);
      if (it == opcodesubsys_svcid_map.end()) {
        __android_log_print(ANDROID_LOG_INFO, kTagSession,
                            "No entry in opcodesubsys_svcid_map for opcode  %d, subsystem  %d",
                            static_cast<int>(pair.first), static_cast<int>(pair.second));
        continue;
      }
      svc_id = it->second;
    }
    plan[svc_id].insert(pair);
  }
  delete[] opcodes;
  delete[] subsystems;

  auto* accepted = new OpcodeSubsysSet();
  std::map<int, OpcodeSubsysSet> accepted_by;
  for (auto& entry : plan) {
    std::unique_ptr<OpcodeSubsysSet> started(
        get_response_for_start_session(entry.first, &entry.second, session_id));
    if (!started) continue;
    add_to_sessionid_svcid_map(session_id, entry.first);
    accepted->insert(started->begin(), started->end());
    accepted_by[entry.first] = std::move(*started);
  }

  if (accepted->empty()) {
    delete accepted;
    call_client(callback, 0, LUMO_RESPONSE_CREATE_SESSION, 0, "{}", 1, client_handle);
    return;
  }

  update_pid_uid_session_id(session_id, pid, uid);
  {
    std::lock_guard<std::mutex> lock(connectedOpcodesubsysMapMtx);
    auto it = connectedOpcodesubsysMap.find(session_id);
    if (it != connectedOpcodesubsysMap.end()) {
      it->second->insert(accepted->begin(), accepted->end());
      delete accepted;
    } else {
      connectedOpcodesubsysMap.emplace(session_id, accepted);
    }
  }
  bool stored_callback;
  {
    std::lock_guard<std::mutex> lock(session_cb_map_mtx);
    stored_callback = session_cb_map.emplace(session_id, callback).second;
  }

  // A plugin that died after accepting, before the session was on record,
  // found no client to tell: its pairs are dropped here instead.
  OpcodeSubsysSet report_pairs;
  for (const auto& entry : accepted_by) {
    std::shared_ptr<Service> svc = find_in_service_map(entry.first);
    if (svc && !svc->get_svc_hal_died()) {
      report_pairs.insert(entry.second.begin(), entry.second.end());
      continue;
    }
    drop_connected_pairs(session_id, entry.second);
    std::lock_guard<std::mutex> lock(sessionid_svcid_map_mtx);
    auto it = sessionid_svcid_map.find(session_id);
    if (it != sessionid_svcid_map.end()) it->second->erase(entry.first);
  }
  if (report_pairs.empty()) {
    if (session_id_was_new) {
      if (stored_callback) {
        std::lock_guard<std::mutex> lock(session_cb_map_mtx);
        session_cb_map.erase(session_id);
      }
      remove_pid_uid_session_id(session_id);
    }
    call_client(callback, 0, LUMO_RESPONSE_CREATE_SESSION, 0, "{}", 1, client_handle);
    return;
  }

  OpcodeMap* map = set_to_map_converison(report_pairs);
  std::string report = create_authentication_json_response(*map);
  free_opcode_map(map);
  call_client(callback, 0, LUMO_RESPONSE_CREATE_SESSION, session_id, std::move(report), 0,
              client_handle);
}
