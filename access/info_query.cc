// Answering a plugin's questions about a session's client: the ids from the
// session table, the rest from the system service.
#include <android/log.h>

#include <set>

#include "LumoSysAccess.h"
#include "Service.h"
#include "session_tables.h"

namespace {
// Never destroyed, like every table plugin threads read.
const std::set<std::string>& sys_service_items_map =
    *new std::set<std::string>{"app.id.cert_hash", "app.status.fore_back", "app.name.package"};
constexpr const char* kQueryFailed = "ERROR:Query failed";
constexpr const char* kSuccess = "SUCCESS:";

void fail_service_items(const std::vector<std::string>& keys, std::vector<std::string>* working) {
  for (size_t i = 0; i < keys.size(); ++i) {
    if (sys_service_items_map.count(keys[i]) != 0) (*working)[i] = kQueryFailed;
  }
}
}  // namespace

void queryInfo(unsigned int session_id, std::vector<std::string> keys,
               std::vector<std::string>* answers) {
  if (keys.empty()) {
    answers->push_back("ERROR:Empty requested info");
    return;
  }
  int32_t pid = 0;
  uint32_t uid = 0;
  {
    std::unique_lock<std::mutex> lock(sessionid_pid_uid_map_mtx);
    auto it = sessionid_pid_uid_map.find(session_id);
    if (it == sessionid_pid_uid_map.end()) {
      lock.unlock();
      __android_log_print(ANDROID_LOG_ERROR, kTagLink, "No entry for this session_id: %d",
                          static_cast<int>(session_id));
      answers->insert(answers->end(), keys.size(), "ERROR:Invalid session ID");
      return;
    }
    pid = it->second.first;
    uid = it->second.second;
  }
  __android_log_print(ANDROID_LOG_INFO, kTagLink, "entry found for this session_id: %d , pid: %d, uid: %d",
                      static_cast<int>(session_id), pid, static_cast<int>(uid));

  std::vector<std::string> working(keys.size());
  // A fresh proxy for this call, not the cached one.
  std::shared_ptr<lumosys::ILumoSys> service = lumosys::getService(lumosys::kLumoSysInstance);
  if (!service) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink,
                        "Failed to connect to LumokitSysService service, some items query failed");
    fail_service_items(keys, &working);
  } else if (!service->queryInfo(pid, static_cast<int32_t>(uid), keys, &working) ||
             working.size() != keys.size()) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink,
                        "queryInfo from LumokitSysService failed, some items query failed");
    working.resize(keys.size());
    fail_service_items(keys, &working);
  }

  for (size_t i = 0; i < keys.size(); ++i) {
    __android_log_print(ANDROID_LOG_INFO, kTagLink, "The %d queryInfo is : %s", static_cast<int>(i),
                        keys[i].c_str());
    const std::string& key = keys[i];
    if (key == "app.id.pid") {
      working[i] = pid < 1 ? kQueryFailed : kSuccess + std::to_string(pid);
    } else if (key == "app.id.uid") {
      working[i] = uid == 0 ? kQueryFailed : kSuccess + std::to_string(uid);
    } else if (key == "app.name.package") {
      // Whatever non-empty text is here gets the prefix, error texts included.
      working[i] = working[i].empty() ? kQueryFailed : kSuccess + working[i];
    }
  }
  *answers = std::move(working);
}

std::string vector_to_string_with_qutoes(std::vector<std::string> items) {
  std::string text;
  for (const std::string& item : items) {
    text += '"';
    text += item;
    text += "\",";
  }
  if (!text.empty()) text.pop_back();
  return text;
}
