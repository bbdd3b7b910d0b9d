// Registration of a plugin's API definitions, and the teardown of everything
// a plugin registered when its connection ends.
#include <android/log.h>
#include <utility>

#include "Service.h"
#include "json_read.h"
#include "message_tap.h"
#include "session_tables.h"

int register_client(int svc_id, unsigned int opcode, Json::Value def) {
  std::shared_ptr<Service> svc = find_in_service_map(svc_id);
  if (!svc || svc->get_svc_hal_state() == SVC_HAL_GONE || svc->get_svc_hal_died()) return -1;
  if (process_json(opcode, std::move(def), svc) != 0) return -1;
  // A plugin registering more after its first "REDY" stays ready: its sender
  // runs, and its connection keeps the large receive limit.
  if (svc->get_svc_hal_state() != SVC_HAL_READY) svc->set_svc_hal_state(SVC_HAL_REGISTERED);
  return 0;
}

int process_json(unsigned int opcode, Json::Value def, std::shared_ptr<Service> svc) {
  static const Json::Value kNoEntries(Json::arrayValue);
  const Json::Value& read_only = def;  // a lookup that adds no member
  const Json::Value& apis = def.isObject() ? read_only["api_def"] : kNoEntries;
  if (!apis.isArray() && !apis.isObject()) return 0;

  for (const Json::Value& entry : apis) {
    std::string opcode_text;
    std::string name;
    const bool opcode_readable = json_read_text(entry, "opcode", "0", &opcode_text);
    // A name the library cannot read as text fails the entry as a wrong
    // opcode does.
    const bool name_readable = json_read_text(entry, "name", "none", &name);
    unsigned int entry_opcode = 0;
    if (!opcode_readable || hexadecimalstring_to_uint32_validation(opcode_text, &entry_opcode) != 0) {
      __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Opcode is not valid: %s", opcode_text.c_str());
      return -1;
    }
    if (entry_opcode != opcode || !name_readable) {
      __android_log_print(ANDROID_LOG_WARN, kTagLink, "Registration Failed!!!");
      return -1;
    }
    {
      std::lock_guard<std::mutex> lock(opcode_name_map_mtx);
      opcode_name_map.emplace(opcode, name);
    }
    const Json::Value* subsystems = json_member(entry, "subsystems");
    if (subsystems == nullptr || !subsystems->isArray()) continue;
    for (Json::ArrayIndex i = 0; i < subsystems->size(); ++i) {
      const Json::Value& sub = (*subsystems)[i];
      const unsigned int id = json_uint(sub, "id", 0);
      auto* record = new Sub_System(id, json_write_compact(sub));
      const OpcodeSubsys key(opcode, id);
      bool stored = false;
      {
        std::lock_guard<std::mutex> lock(*svc->get_svc_hal_mtx());
        std::lock_guard<std::mutex> set_lock(registered_opcode_subsys_set_mtx);
        OpcodeSubsysSet* registered = get_registered_opcode_subsys_set();
        // The first plugin to register a pair owns it.
        if (registered->count(key) == 0) {
          auto* map = svc->get_subsystem_map();
          stored = map->emplace(key, record).second;
          registered->insert(key);
        }
      }
      if (!stored) delete record;
    }
  }
  return 0;
}

int de_register_client(int svc_id, std::shared_ptr<Service> svc) {
  std::map<unsigned int, std::vector<unsigned int>*> crash_map;
  std::vector<OpcodeSubsys> pairs;
  {
    std::lock_guard<std::mutex> lock(*svc->get_svc_hal_mtx());
    for (const auto& entry : *svc->get_subsystem_map()) pairs.push_back(entry.first);
  }
  // One lock at a time: the registry's lock is never taken under the plugin's.
  for (const OpcodeSubsys& key : pairs) {
    auto& list = crash_map[key.first];
    if (list == nullptr) list = new std::vector<unsigned int>();
    list->push_back(key.second);
    {
      std::lock_guard<std::mutex> lock(opcodesubsys_svcid_map_mtx);
      opcodesubsys_svcid_map.erase(key);
    }
    std::lock_guard<std::mutex> lock(*svc->get_svc_hal_mtx());
    {
      std::lock_guard<std::mutex> set_lock(registered_opcode_subsys_set_mtx);
      get_registered_opcode_subsys_set()->erase(key);
    }
    auto* map = svc->get_subsystem_map();
    auto it = map->find(key);
    if (it != map->end()) {
      delete it->second;
      map->erase(it);
    }
  }

  std::vector<unsigned int> sessions;
  {
    std::lock_guard<std::mutex> lock(*svc->get_svc_hal_mtx());
    std::unique_ptr<std::vector<unsigned int>> keys(svc->get_keys_of_session_started_map());
    sessions.swap(*keys);
  }
  std::string notice;
  for (unsigned int session_id : sessions) {
    OpcodeSubsysSet started;
    {
      std::lock_guard<std::mutex> lock(*svc->get_svc_hal_mtx());
      if (OpcodeSubsysSet* set = svc->find_in_session_started_map(session_id)) started.swap(*set);
      svc->delete_from_session_started_map(session_id);
    }
    for (const auto& pair : started) {
      deleteFromConnectedOpcodesubsysMap(session_id, pair.first, pair.second);
    }
    {
      std::lock_guard<std::mutex> lock(sessionid_svcid_map_mtx);
      auto it = sessionid_svcid_map.find(session_id);
      if (it != sessionid_svcid_map.end()) it->second->erase(svc_id);
    }
    lumo_callback callback = find_session_callback(session_id);
    if (callback != nullptr) {
      // Every session hears of all the plugin's pairs, not only those it started.
      if (notice.empty()) notice = create_crash_response(crash_map);
      call_client(callback, svc_id, LUMO_RESPONSE_TASK, session_id, notice, 1, 0);
    }
  }
  for (auto& entry : crash_map) delete entry.second;

  delete_from_service_map(static_cast<unsigned int>(svc_id));
  return 1;
}
