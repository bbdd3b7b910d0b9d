// Ending the sessions of a client that went away.
#pragma once

#include <cstdint>

#include "client_connection.h"

namespace lumokitd {

// cancel_session on behalf of connection `client`, told to the monitors.
uint32_t cancel_for(uint64_t client, uint32_t session_id, uint32_t opcode, uint32_t subsys);

// Ends one session for connection `client`, pair by pair: every connected pair but the last is
// cancelled on its own, the last with a whole-session cancel so that the
// client's privacy operations are released too. Blocks while plugins
// acknowledge (up to 3 s each). Returns true when the manager no longer
// knows the session.
bool end_session(uint64_t client, uint32_t session_id);

// Ends every session `conn` owns and forgets their ownership.
void end_sessions_of(const ClientConnection* conn);

}  // namespace lumokitd
