// Session tables: what the manager knows about live sessions. Each table has
// its own mutex; no function here holds two at once.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "LumokitSessionManager.h"
#include "Service.h"

struct sessn_manager_data {
  std::mutex session_id_mtx;
  std::condition_variable session_id_cv;
  int32_t last_session_id = 0;
};
extern sessn_manager_data& session_counter;

extern std::map<unsigned int, lumo_callback>& session_cb_map;
extern std::mutex& session_cb_map_mtx;
extern std::map<unsigned int, std::set<int>*>& sessionid_svcid_map;
extern std::mutex& sessionid_svcid_map_mtx;
extern std::map<unsigned int, OpcodeSubsysSet*>& connectedOpcodesubsysMap;
extern std::mutex& connectedOpcodesubsysMapMtx;
extern std::map<unsigned int, OpcodeSubsysSet*>& sessionid_granted_opcodesubsys_map;
extern std::mutex& sessionid_granted_opcodesubsys_map_mtx;
extern std::map<unsigned int, std::pair<int32_t, uint32_t>>& sessionid_pid_uid_map;
extern std::mutex& sessionid_pid_uid_map_mtx;
extern std::map<OpcodeSubsys, int>& opcodesubsys_svcid_map;
extern std::mutex& opcodesubsys_svcid_map_mtx;
// Written by registering plugins' handler threads, read by create_session.
extern std::map<unsigned int, std::string>& opcode_name_map;
extern std::mutex& opcode_name_map_mtx;
// Written by the task and cancellation paths, possibly on several threads.
extern std::map<std::pair<int32_t, uint32_t>, std::list<std::string>*>& pid_uid_releaseindication_map;
extern std::mutex& pid_uid_releaseindication_map_mtx;

unsigned int new_session_id();
void add_to_sessionid_svcid_map(unsigned int session_id, int svc_id);
unsigned int deleteFromConnectedOpcodesubsysMap(unsigned int session_id, unsigned int opcode,
                                                unsigned int subsystem);
void getDisconnectedOpcodeSubsys(unsigned int session_id, int32_t* count, unsigned int** opcodes,
                                 unsigned int** subsystems);
void update_pid_uid_session_id(unsigned int session_id, int32_t pid, uint32_t uid);
void remove_pid_uid_session_id(unsigned int session_id);
void addToGrantedOpcodesubsysMap(unsigned int session_id, const unsigned int* opcodes,
                                 const unsigned int* subsystems, int32_t count);
unsigned int delete_from_granted_opcodesubsys_map(unsigned int session_id);

// The callback stored for a session, or null.
lumo_callback find_session_callback(unsigned int session_id);

// ---- Client responses and request sanitising ----
bool sanitizingJson(const Json::Value& value);
std::string create_error_response(std::string request, int32_t status);

// ---- Internals of session creation and cancellation ----
std::string create_authentication_json_response(const OpcodeMap& opcodes);
void sendDeinitRequest(int svc_id, unsigned int session_id, unsigned int opcode, unsigned int subsys);
