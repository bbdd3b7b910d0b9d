// The process-wide session tables and the small functions over them.
#include <android/log.h>

#include "session_tables.h"

// The tables are never destroyed: detached plugin threads may still use them
// while the process exits.

sessn_manager_data& session_counter = *new sessn_manager_data();

std::map<unsigned int, lumo_callback>& session_cb_map = *new std::map<unsigned int, lumo_callback>();
std::mutex& session_cb_map_mtx = *new std::mutex();
std::map<unsigned int, std::set<int>*>& sessionid_svcid_map = *new std::map<unsigned int, std::set<int>*>();
std::mutex& sessionid_svcid_map_mtx = *new std::mutex();
std::map<unsigned int, OpcodeSubsysSet*>& connectedOpcodesubsysMap = *new std::map<unsigned int, OpcodeSubsysSet*>();
std::mutex& connectedOpcodesubsysMapMtx = *new std::mutex();
std::map<unsigned int, OpcodeSubsysSet*>& sessionid_granted_opcodesubsys_map = *new std::map<unsigned int, OpcodeSubsysSet*>();
std::mutex& sessionid_granted_opcodesubsys_map_mtx = *new std::mutex();
std::map<unsigned int, std::pair<int32_t, uint32_t>>& sessionid_pid_uid_map = *new std::map<unsigned int, std::pair<int32_t, uint32_t>>();
std::mutex& sessionid_pid_uid_map_mtx = *new std::mutex();
std::map<OpcodeSubsys, int>& opcodesubsys_svcid_map = *new std::map<OpcodeSubsys, int>();
std::mutex& opcodesubsys_svcid_map_mtx = *new std::mutex();
std::map<unsigned int, std::string>& opcode_name_map = *new std::map<unsigned int, std::string>();
std::mutex& opcode_name_map_mtx = *new std::mutex();
std::map<std::pair<int32_t, uint32_t>, std::list<std::string>*>& pid_uid_releaseindication_map = *new std::map<std::pair<int32_t, uint32_t>, std::list<std::string>*>();
std::mutex& pid_uid_releaseindication_map_mtx = *new std::mutex();

unsigned int new_session_id() {
  std::lock_guard<std::mutex> lock(session_counter.session_id_mtx);
  int32_t next;
  // The session count per process lifetime is bounded on purpose.
  if (__builtin_add_overflow(session_counter.last_session_id, 1, &next)) abort();
  session_counter.last_session_id = next;
  return static_cast<unsigned int>(next);
}

void add_to_sessionid_svcid_map(unsigned int session_id, int svc_id) {
  std::lock_guard<std::mutex> lock(sessionid_svcid_map_mtx);
  auto it = sessionid_svcid_map.find(session_id);
  if (it != sessionid_svcid_map.end()) {
    it->second->insert(svc_id);
    return;
  }
  sessionid_svcid_map.emplace(session_id, new std::set<int>{svc_id});
}

unsigned int deleteFromConnectedOpcodesubsysMap(unsigned int session_id, unsigned int opcode,
                                                unsigned int subsystem) {
  std::lock_guard<std::mutex> lock(connectedOpcodesubsysMapMtx);
  auto it = connectedOpcodesubsysMap.find(session_id);
  if (it == connectedOpcodesubsysMap.end()) return 0;
  // A session's last pair always ends it, whichever pair was named.
  if (it->second->size() == 1) {
    delete it->second;
    connectedOpcodesubsysMap.erase(it);
    return 0;
  }
  it->second->erase(OpcodeSubsys(opcode, subsystem));
  return static_cast<unsigned int>(it->second->size());
}

void getDisconnectedOpcodeSubsys(unsigned int session_id, int32_t* count, unsigned int** opcodes,
                                 unsigned int** subsystems) {
  OpcodeSubsysSet left;
  {
    std::lock_guard<std::mutex> lock(sessionid_granted_opcodesubsys_map_mtx);
    auto it = sessionid_granted_opcodesubsys_map.find(session_id);
    if (it != sessionid_granted_opcodesubsys_map.end()) left = *it->second;
  }
  {
    std::lock_guard<std::mutex> lock(connectedOpcodesubsysMapMtx);
    auto it = connectedOpcodesubsysMap.find(session_id);
    if (it != connectedOpcodesubsysMap.end()) {
      for (const auto& pair : *it->second) left.erase(pair);
    }
  }
  *count = static_cast<int32_t>(left.size());
  if (*count < 1) return;
  *opcodes = new unsigned int[left.size()];
  *subsystems = new unsigned int[left.size()];
  size_t i = 0;
  for (const auto& pair : left) {
    (*opcodes)[i] = pair.first;
    (*subsystems)[i] = pair.second;
    ++i;
  }
}

void update_pid_uid_session_id(unsigned int session_id, int32_t pid, uint32_t uid) {
  std::lock_guard<std::mutex> lock(sessionid_pid_uid_map_mtx);
  sessionid_pid_uid_map.emplace(session_id, std::make_pair(pid, uid));
}

uint32_t find_pid_uid_session_id(uint32_t session_id, int32_t* pid, uint32_t* uid) {
  if (pid == nullptr || uid == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, kTagSession, "not valid input parameter");
    return 0;
  }
  std::lock_guard<std::mutex> lock(sessionid_pid_uid_map_mtx);
  auto it = sessionid_pid_uid_map.find(session_id);
  if (it == sessionid_pid_uid_map.end()) return 0;
  *pid = it->second.first;
  *uid = it->second.second;
  return 1;
}

void remove_pid_uid_session_id(unsigned int session_id) {
  std::lock_guard<std::mutex> lock(sessionid_pid_uid_map_mtx);
  sessionid_pid_uid_map.erase(session_id);
}

void addToGrantedOpcodesubsysMap(unsigned int session_id, const unsigned int* opcodes,
                                 const unsigned int* subsystems, int32_t count) {
  auto* granted = new OpcodeSubsysSet();
  for (int32_t i = 0; i < count; ++i) granted->emplace(opcodes[i], subsystems[i]);
  std::lock_guard<std::mutex> lock(sessionid_granted_opcodesubsys_map_mtx);
  if (!sessionid_granted_opcodesubsys_map.emplace(session_id, granted).second) delete granted;
}

unsigned int delete_from_granted_opcodesubsys_map(unsigned int session_id) {
  std::lock_guard<std::mutex> lock(sessionid_granted_opcodesubsys_map_mtx);
  auto it = sessionid_granted_opcodesubsys_map.find(session_id);
  if (it == sessionid_granted_opcodesubsys_map.end()) return 2;
  delete it->second;
  sessionid_granted_opcodesubsys_map.erase(it);
  return 0;
}

lumo_callback find_session_callback(unsigned int session_id) {
  std::lock_guard<std::mutex> lock(session_cb_map_mtx);
  auto it = session_cb_map.find(session_id);
  return it == session_cb_map.end() ? nullptr : it->second;
}
