// Ending one pair of a session, or a whole session, with its plugins; the
// session's records go once its last pair is gone.
#include <chrono>

#include "LumoManager.h"
#include "LumoSysAccess.h"
#include "session_tables.h"

namespace {
constexpr std::chrono::nanoseconds kEndSessionWait(3000000000LL);
}  // namespace

void sendDeinitRequest(int svc_id, unsigned int session_id, unsigned int opcode, unsigned int subsys) {
  std::shared_ptr<Service> svc = find_in_service_map(svc_id);
  if (!svc || svc->get_svc_hal_died()) return;

  std::string message = "{\"req_type\":\"end_session\",\"session_id\": ";
  message += std::to_string(session_id);
  message += "}";
  add_msg_to_queue(svc, std::move(message));

  std::unique_lock<std::mutex> lock(*svc->get_svc_hal_mtx());
  const auto deadline = std::chrono::steady_clock::now() + kEndSessionWait;
  svc->get_svc_hal_cv()->wait_until(lock, deadline, [&svc] {
    return svc->get_end_session_cv() || svc->get_svc_hal_died();
  });
  if (svc->get_svc_hal_died()) return;
  // No answer within the wait counts as an acknowledgement.
  if (opcode != 0 && subsys != 0) {
    if (OpcodeSubsysSet* started = svc->find_in_session_started_map(session_id)) {
      started->erase(OpcodeSubsys(opcode, subsys));
    }
  } else {
    svc->delete_from_session_started_map(session_id);
  }
  svc->set_end_session_cv(false);
}

namespace {

// Tells the system service that the privacy operations started for this
// client are over.
void release_privacy_operations(unsigned int session_id) {
  int32_t pid = 0;
  uint32_t uid = 0;
  {
    std::lock_guard<std::mutex> lock(sessionid_pid_uid_map_mtx);
    auto it = sessionid_pid_uid_map.find(session_id);
    if (it != sessionid_pid_uid_map.end()) {
      pid = it->second.first;
      uid = it->second.second;
    }
  }
  std::unique_ptr<std::list<std::string>> operations;
  {
    std::lock_guard<std::mutex> lock(pid_uid_releaseindication_map_mtx);
    auto it = pid_uid_releaseindication_map.find(std::make_pair(pid, uid));
    if (it == pid_uid_releaseindication_map.end()) return;
    operations.reset(it->second);
    pid_uid_releaseindication_map.erase(it);
  }
  std::shared_ptr<lumosys::ILumoSys> sys = lumo_sys_service();
  if (!sys && getLumokitSysService() == 0) sys = lumo_sys_service();
  for (const std::string& name : *operations) {
    int32_t result = 0;
    if (sys) sys->updatePrivacyOperation(name, pid, static_cast<int32_t>(uid), true, &result);
  }
}

// Pair-by-pair cancels leave the session's (now empty) entry in each plugin's
// started sessions while the session lives; once it has ended nobody can be
// told of it any more, so the entries go rather than pile up.
void forget_ended_session(unsigned int session_id) {
  std::vector<std::shared_ptr<Service>> plugins;
  {
    std::lock_guard<std::mutex> lock(service_map_mtx);
    plugins.reserve(service_map.size());
    for (const auto& entry : service_map) plugins.push_back(entry.second);
  }
  for (const auto& svc : plugins) {
    if (!svc) continue;
    std::lock_guard<std::mutex> lock(*svc->get_svc_hal_mtx());
    svc->delete_from_session_started_map(session_id);
  }
}

}  // namespace

uint32_t cancel_session(uint32_t session_id, uint32_t opcode, uint32_t subsys) {
  int svc_id = 0;
  if (opcode != 0 && subsys != 0) {
    // The registry stays locked across the plugin's acknowledgement wait.
    std::lock_guard<std::mutex> lock(opcodesubsys_svcid_map_mtx);
    auto it = opcodesubsys_svcid_map.find(OpcodeSubsys(opcode, subsys));
    if (it == opcodesubsys_svcid_map.end()) return 2;
    svc_id = it->second;
    sendDeinitRequest(svc_id, session_id, opcode, subsys);
  } else {
    release_privacy_operations(session_id);
    std::vector<int> plugins;
    {
      std::lock_guard<std::mutex> lock(sessionid_svcid_map_mtx);
      auto it = sessionid_svcid_map.find(session_id);
      if (it != sessionid_svcid_map.end()) plugins.assign(it->second->begin(), it->second->end());
    }
    for (int id : plugins) {
      sendDeinitRequest(id, session_id, opcode, subsys);
      std::lock_guard<std::mutex> lock(sessionid_svcid_map_mtx);
      auto it = sessionid_svcid_map.find(session_id);
      if (it != sessionid_svcid_map.end()) it->second->erase(id);
      svc_id = id;
    }
  }
  {
    std::lock_guard<std::mutex> lock(sessionid_svcid_map_mtx);
    auto it = sessionid_svcid_map.find(session_id);
    if (it != sessionid_svcid_map.end()) it->second->erase(svc_id);
  }
  if (deleteFromConnectedOpcodesubsysMap(session_id, opcode, subsys) != 0) return 0;
  {
    std::lock_guard<std::mutex> lock(session_cb_map_mtx);
    session_cb_map.erase(session_id);
  }
  remove_pid_uid_session_id(session_id);
  forget_ended_session(session_id);
  {
    // An ended session keeps no empty plugin set behind.
    std::lock_guard<std::mutex> lock(sessionid_svcid_map_mtx);
    auto it = sessionid_svcid_map.find(session_id);
    if (it != sessionid_svcid_map.end() && it->second->empty()) {
      delete it->second;
      sessionid_svcid_map.erase(it);
    }
  }
  return delete_from_granted_opcodesubsys_map(session_id);
}
