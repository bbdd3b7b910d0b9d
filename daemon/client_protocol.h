// The client protocol: one JSON request per message, turned into calls of
// the manager's session functions on behalf of one connection.
#pragma once

#include <cstddef>
#include <string>

#include "client_connection.h"

namespace lumokitd {

struct ClientPolicy {
  // Clients may state "pid" and "uid" in create_session; otherwise the ids
  // are the peer credentials of the connection.
  bool trust_client_ids = false;
};

// Handles one received message. Returns the direct reply, or an empty text
// when the answer reaches the client through manager callbacks instead.
std::string handle_client_message(ClientConnection& conn, const ClientPolicy& policy,
                                  const char* data, size_t length);

}  // namespace lumokitd
