// The thread of one client or admin connection: receive a request, act on
// it, answer; on disconnect end the client's sessions.
#pragma once

#include <memory>

#include "client_connection.h"
#include "client_protocol.h"
#include "connection_registry.h"

namespace lumokitd {

enum class ConnectionKind { kClient, kAdmin };

// Starts a detached thread serving `conn`; false (connection dropped) when
// the daemon is stopping or the thread cannot be created.
bool start_connection_thread(ConnectionRegistry& registry, std::shared_ptr<ClientConnection> conn,
                             ConnectionKind kind, const ClientPolicy& policy);

}  // namespace lumokitd
