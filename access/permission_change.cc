// Permission changes from the system service: update the cached grant state
// and tell the plugin serving the task that depended on it.
#include <android/log.h>

#include "LumoManager.h"
#include "LumoSysAccess.h"
#include "Service.h"
#include "session_tables.h"

bool pPermissionChangeCallback::onpermissionchanged(int32_t pid, int32_t uid,
                                                    const std::string& permission, bool status) {
  __android_log_print(ANDROID_LOG_INFO, kTagLink,
                      "onpermissionchanged pid : %d uid : %d permission: %s status: %d", pid, uid,
                      permission.c_str(), status ? 1 : 0);
  const std::string key = std::to_string(pid) + ":" + permission;
  permission_info info;
  {
    std::lock_guard<std::mutex> lock(pid_perminfo_map_mtx);
    auto it = pid_perminfo_map.find(key);
    if (it == pid_perminfo_map.end()) {
      __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Key not found");
      return true;
    }
    it->second.status = status;
    info = it->second;
  }

  std::lock_guard<std::mutex> lock(opcodesubsys_svcid_map_mtx);
  auto it = opcodesubsys_svcid_map.find(OpcodeSubsys(info.opcode, info.ss_id));
  if (it == opcodesubsys_svcid_map.end()) return true;
  std::shared_ptr<Service> svc = find_in_service_map(it->second);
  if (!svc) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Service not found");
    return true;
  }
  std::string text = "{\"req_type\":\"permission_change\", \"opcode\":\"";
  text += std::to_string(info.opcode);
  text += "\", \"ss_id\":\"";
  text += std::to_string(info.ss_id);
  text += "\", \"session_id\":\"";
  text += std::to_string(info.session_id);
  text += "\", \"permission\":\"";
  text += permission;
  text += "\", \"status\":\"";
  text += status ? "1" : "0";
  text += "\"}";
  __android_log_print(ANDROID_LOG_INFO, kTagLink, "Json Permission String: %s", text.c_str());
  add_msg_to_queue(std::move(svc), std::move(text));
  return true;
}
