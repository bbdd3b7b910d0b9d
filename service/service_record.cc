// The records of one plugin connection and of its registered subsystems.
#include <cstdio>

#include "Service.h"

Sub_System::Sub_System(unsigned int subsystem_id, std::string functions)
    : subsystem_id(subsystem_id), subsystem_status(false), functions(std::move(functions)) {}

Service::Service(int svc_id, int socket_fd, svc_hal_state state)
    : svc_id(svc_id), servicehal_socket_fd(socket_fd), svc_hal_state_(state) {}

void Service::add_to_subsystem_map(unsigned int opcode, unsigned int subsystem, Sub_System* sub) {
  subsystem_map.emplace(OpcodeSubsys(opcode, subsystem), sub);
}

std::string Service::get_opcodes_subsystems_string() {
  std::string text = "[";
  char piece[48];
  for (const auto& entry : subsystem_map) {
    snprintf(piece, sizeof(piece), "{0x%x, %u}", entry.first.first, entry.first.second);
    text += piece;
  }
  text += "]";
  return text;
}

OpcodeSubsysSet* Service::find_in_session_started_map(unsigned int session_id) {
  auto it = session_started_map.find(session_id);
  return it == session_started_map.end() ? nullptr : it->second;
}

void Service::add_to_session_started_map(unsigned int session_id, OpcodeSubsysSet* pairs) {
  auto it = session_started_map.find(session_id);
  if (it == session_started_map.end()) {
    session_started_map.emplace(session_id, pairs);
    return;
  }
  it->second->insert(pairs->begin(), pairs->end());
}

void Service::delete_from_session_started_map(unsigned int session_id) {
  auto it = session_started_map.find(session_id);
  if (it == session_started_map.end()) return;
  delete it->second;
  session_started_map.erase(it);
}

std::vector<unsigned int>* Service::get_keys_of_session_started_map() {
  auto* keys = new std::vector<unsigned int>();
  keys->reserve(session_started_map.size());
  for (const auto& entry : session_started_map) keys->push_back(entry.first);
  return keys;
}
