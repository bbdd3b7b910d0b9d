// The catalogue of which API needs which permissions and privacy operations,
// copied once from the system service.
#include <android/log.h>

#include "LumoSysAccess.h"
#include "Service.h"

std::string api_catalogue_key(const std::string& id, const std::string& subsystem) {
  const size_t colon = id.find(':');
  const size_t head = colon == std::string::npos ? id.size() : colon;
  std::string key;
  key.reserve(id.size() + subsystem.size() + 1);
  key.append(id, 0, head);
  key += ':';
  key += subsystem;
  key.append(id, head, std::string::npos);
  return key;
}

int32_t fetchAPIInfo() {
  if (getLumokitSysService() == -1) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Lumokit System Service is not available");
    return -1;
  }
  std::shared_ptr<lumosys::ILumoSys> service = lumo_sys_service();
  std::vector<lumosys::APIInfo> infos;
  if (!service || !service->getAPIInfo(&infos)) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink, "fetchAPIInfo failed");
    return -1;
  }
  std::lock_guard<std::mutex> lock(api_privacyop_map_mtx);
  for (lumosys::APIInfo& info : infos) {
    privacy_op& op = api_privacyop_map[api_catalogue_key(info.id, info.subsystem)];
    op.permissions = std::move(info.permissions);
    op.start_op = std::move(info.start_op);
    op.stop_op = std::move(info.stop_op);
    op.extra1 = std::move(info.extra1);
    op.extra2 = std::move(info.extra2);
    op.subsystem = std::move(info.subsystem);
  }
  return 0;
}
