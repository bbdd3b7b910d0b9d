// Answering a plugin's question whether a session's client holds permissions.
// Every failure answers "not granted"; nothing is thrown.
#include <android/log.h>

#include "LumoSysAccess.h"
#include "Service.h"
#include "session_tables.h"

void checkPermissionFromPackage(unsigned int session_id, std::vector<std::string> permissions,
                                std::vector<bool>* result) {
  std::vector<bool> working(permissions.size(), false);
  int32_t pid = 0;
  uint32_t uid = 0;
  bool found = false;
  {
    std::lock_guard<std::mutex> lock(sessionid_pid_uid_map_mtx);
    auto it = sessionid_pid_uid_map.find(session_id);
    if (it != sessionid_pid_uid_map.end()) {
      found = true;
      pid = it->second.first;
      uid = it->second.second;
    }
  }
  if (!found) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink, "No entry for this session_id");
    if (permissions.empty()) working.push_back(false);
    *result = std::move(working);
    return;
  }
  if (permissions.empty()) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink,
                        "valid session_id but no permissions, so return true");
    working.push_back(true);
    *result = std::move(working);
    return;
  }
  std::shared_ptr<lumosys::ILumoSys> service = lumo_sys_service();
  if (!service) {
    if (getLumokitSysService() == -1) {
      __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Failed to connect to LumokitSysService service.");
      *result = std::move(working);
      return;
    }
    service = lumo_sys_service();
  }
  if (!service || !service->checkGrantedPermissions(pid, static_cast<int32_t>(uid), permissions,
                                                    &working)) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink,
                        "checkGrantedPermissions from package manager failed");
  }
  *result = std::move(working);
}
