// The session-start notice sent to a plugin (and the wait for its answer),
// and the crash notice sent to the clients of a plugin that went away.
#include <android/log.h>

#include <chrono>
#include <cstring>

#include "LumoManager.h"
#include "Service.h"

namespace {
constexpr size_t kNoticeBufferSize = 524288;
constexpr std::chrono::nanoseconds kStartSessionWait(3000000000LL);
}  // namespace

OpcodeMap* set_to_map_converison(const OpcodeSubsysSet& pairs) {
  auto* map = new OpcodeMap();
  for (const auto& pair : pairs) {
    auto& list = (*map)[pair.first];
    if (list == nullptr) list = new std::vector<unsigned int>();
    list->push_back(pair.second);
  }
  return map;
}

void free_opcode_map(OpcodeMap* map) {
  if (map == nullptr) return;
  for (auto& entry : *map) delete entry.second;
  delete map;
}

std::string build_start_session_notice(const std::shared_ptr<Service>& svc, const OpcodeMap& map,
                                       unsigned int session_id) {
  std::string text = "{\"req_type\": \"start_session\", \"session_id\": ";
  text += std::to_string(session_id);
  text += ", \"opcodes\": [";
  std::lock_guard<std::mutex> lock(*svc->get_svc_hal_mtx());
  auto* subsystems = svc->get_subsystem_map();
  bool first_key = true;
  for (const auto& entry : map) {
    std::string subs;
    bool any = false;
    for (unsigned int subsystem : *entry.second) {
      auto it = subsystems->find(OpcodeSubsys(entry.first, subsystem));
      if (it == subsystems->end() || !it->second->get_subsystem_status()) continue;
      if (any) subs += ",";
      subs += "{\"id\" :";
      subs += std::to_string(subsystem);
      subs += "}";
      any = true;
    }
    if (any) {
      // The comma depends on the key's position in the map, not on what was
      // written before it; plugins accept the resulting "[,{" form.
      if (!first_key) text += ",";
      text += "{\"id\": \"";
      text += uint32_to_hexstring(entry.first);
      text += "\",\"subsystems\": [";
      text += subs;
      text += "]}";
    }
    first_key = false;
  }
  text += "]}";
  return text;
}

OpcodeSubsysSet* get_response_for_start_session(int svc_id, OpcodeSubsysSet* pairs,
                                                unsigned int session_id) {
  OpcodeMap* map = set_to_map_converison(*pairs);
  std::shared_ptr<Service> svc = find_in_service_map(svc_id);
  if (!svc || svc->get_svc_hal_died()) {
    free_opcode_map(map);
    return nullptr;
  }
  const std::string text = build_start_session_notice(svc, *map, session_id);
  free_opcode_map(map);

  char* buffer = new char[kNoticeBufferSize];
  size_t len = std::min(text.size(), kNoticeBufferSize - 1);
  memcpy(buffer, text.data(), len);
  buffer[len] = '\0';
  OpcodeSubsysSet* result = start_session(svc, buffer, session_id);
  delete[] buffer;
  return result;
}

OpcodeSubsysSet* start_session(std::shared_ptr<Service> svc, char* notice, unsigned int session_id) {
  add_msg_to_queue(svc, std::string(notice));
  std::unique_lock<std::mutex> lock(*svc->get_svc_hal_mtx());
  const auto deadline = std::chrono::steady_clock::now() + kStartSessionWait;
  svc->get_svc_hal_cv()->wait_until(lock, deadline, [&svc] {
    return svc->get_start_session_cv() || svc->get_svc_hal_died();
  });
  svc->set_start_session_cv(false);
  OpcodeSubsysSet* started = svc->find_in_session_started_map(session_id);
  if (started == nullptr) {
    __android_log_print(ANDROID_LOG_INFO, kTagLink, "Session not started !!");
    return nullptr;
  }
  // A copy: the plugin's own set may change or go once the lock is released.
  return new OpcodeSubsysSet(*started);
}

std::string create_crash_response(std::map<unsigned int, std::vector<unsigned int>*> opcodes) {
  std::string text = "{\"opcodes\":[";
  size_t index = 0;
  for (const auto& entry : opcodes) {
    text += "{\"opcode\" : ";
    text += std::to_string(entry.first);
    text += ", \"subsystems\": [";
    bool first = true;
    for (unsigned int id : *entry.second) {
      if (!first) text += ",";
      text += "{\"id\" : ";
      text += std::to_string(id);
      text += "}";
      first = false;
    }
    text += (++index < opcodes.size()) ? "]}," : "]}";
  }
  text += "]}";
  return text;
}
