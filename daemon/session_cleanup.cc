#include "session_cleanup.h"

#include <utility>
#include <vector>

#include "LumoManager.h"
#include "LumokitSessionManager.h"
#include "daemon_log.h"
#include "monitor_hub.h"
#include "session_routing.h"

namespace lumokitd {

uint32_t cancel_for(uint64_t client, uint32_t session_id, uint32_t opcode, uint32_t subsys) {
  if (monitors_watching()) {
    MonitorEvent event = client_call_event(client, "cancel_session", session_id, "", 0);
    event.opcode = opcode;
    event.subsys = subsys;
    record_client_call(std::move(event));
  }
  return cancel_session(session_id, opcode, subsys);
}

bool end_session(uint64_t client, uint32_t session_id) {
  // A few rounds cover pairs that a plugin re-attached meanwhile; each round
  // only shrinks the session.
  std::vector<std::pair<uint32_t, uint32_t>> connected;
  for (int round = 0; round < 4; ++round) {
    if (!lumokit_session_snapshot(session_id, &connected)) return true;
    // All pairs but the last one by one; the last with a whole-session
    // cancel, the only one that also stops the client's privacy operations.
    for (size_t i = 0; i + 1 < connected.size(); ++i) {
      const auto& pair = connected[i];
      // A zero opcode or subsystem cannot name a single pair; the final
      // whole-session cancel covers it.
      if (pair.first == 0 || pair.second == 0) continue;
      cancel_for(client, session_id, pair.first, pair.second);
    }
    cancel_for(client, session_id, 0, 0);
  }
  if (!lumokit_session_snapshot(session_id, &connected)) return true;
  log_error("session %u is still known to the manager after cancelling it", session_id);
  return false;
}

void end_sessions_of(const ClientConnection* conn) {
  for (uint32_t session_id : sessions_of(conn)) {
    log_info("client %llu left; ending session %u", static_cast<unsigned long long>(conn->id()),
             session_id);
    end_session(conn->id(), session_id);
    release_session(session_id, conn);
  }
}

}  // namespace lumokitd
