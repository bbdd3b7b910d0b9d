#include "session_cleanup.h"

#include <string>

#include "LumoManager.h"
#include "LumokitSessionManager.h"
#include "daemon_log.h"
#include "session_routing.h"
#include "state_view.h"

namespace lumokitd {

namespace {

bool read_session(uint32_t session_id, SessionView* view) {
  Json::Value state;
  std::string error;
  if (!parse_state(lumokit_state_dump(), &state, &error)) {
    log_error("cannot read the manager state: %s", error.c_str());
    return false;
  }
  *view = find_session(state, session_id);
  return true;
}

}  // namespace

bool end_session(uint32_t session_id) {
  // A few rounds cover pairs that a plugin re-attached meanwhile; each round
  // only shrinks the session.
  for (int round = 0; round < 4; ++round) {
    SessionView view;
    if (!read_session(session_id, &view)) return false;
    if (!view.present) return true;
    size_t singles = view.connected.empty() ? 0 : view.connected.size() - 1;
    for (size_t i = 0; i < singles; ++i) {
      const Pair& pair = view.connected[i];
      // A zero opcode or subsystem cannot name a single pair; the final
      // whole-session cancel covers it.
      if (pair.first == 0 || pair.second == 0) continue;
      cancel_session(session_id, pair.first, pair.second);
    }
    cancel_session(session_id, 0, 0);
  }
  SessionView view;
  if (read_session(session_id, &view) && !view.present) return true;
  log_error("session %u is still known to the manager after cancelling it", session_id);
  return false;
}

void end_sessions_of(const ClientConnection* conn) {
  for (uint32_t session_id : sessions_of(conn)) {
    log_info("client %llu left; ending session %u", static_cast<unsigned long long>(conn->id()),
             session_id);
    end_session(session_id);
    release_session(session_id, conn);
  }
}

}  // namespace lumokitd
