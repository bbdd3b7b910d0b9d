// Which client connection each manager callback goes to.
//
// The manager's callback is a bare function pointer, so routing state is
// process-wide: answers made on the calling thread (create_session answers,
// perform_task errors) go to the connection that made the call, recorded in
// a thread-local call context; later answers and crash notices go to the
// connection that owns the session.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "LumokitSessionManager.h"
#include "client_connection.h"

namespace lumokitd {

// Marks the current thread as calling the manager for `conn` about
// `session_id` until the scope ends.
// `creating` marks a create_session call, during which callbacks for
// sessions nobody owns yet are held for the session's claim.
class CallScope {
 public:
  CallScope(ClientConnection* conn, uint32_t session_id, bool creating = false);
  ~CallScope();
  CallScope(const CallScope&) = delete;
  CallScope& operator=(const CallScope&) = delete;

 private:
  bool creating_;
};

// The callback handed to create_session and perform_task.
void route_manager_callback(lumo_response_t kind, uint32_t session_id, std::string text,
                            int32_t error_flag, uint32_t client_handle);

// {"op":"callback",...} for one callback.
std::string callback_message(lumo_response_t kind, uint32_t session_id, const std::string& text,
                             int32_t error_flag, uint32_t client_handle);

// The id of the connection a callback made now on this thread goes to, 0
// when none owns its session yet.
uint64_t callback_client(lumo_response_t kind, uint32_t session_id);

// Owner of `session_id`, or null when no connection owns it.
std::shared_ptr<ClientConnection> session_owner(uint32_t session_id);
// True when the session is owned by a connection other than `conn`.
bool owned_by_other(uint32_t session_id, const ClientConnection* conn);
// Sessions owned by `conn`, ascending.
std::vector<uint32_t> sessions_of(const ClientConnection* conn);
// Forgets the ownership of `session_id` when `conn` holds it.
void release_session(uint32_t session_id, const ClientConnection* conn);
size_t owned_session_count();

}  // namespace lumokitd
