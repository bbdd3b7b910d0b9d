#include "session_routing.h"

#include <map>
#include <mutex>

#include "daemon_log.h"
#include "ipc/json_text.h"

namespace lumokitd {

namespace {

struct CallContext {
  ClientConnection* conn = nullptr;
  uint32_t session_id = 0;
};
thread_local CallContext t_call;

std::mutex owners_mtx;
std::map<uint32_t, std::shared_ptr<ClientConnection>> owners;
// While create_session calls are running, a callback for a session nobody
// owns yet may belong to one of them (a plugin that died just after it
// accepted): such callbacks wait here for the session's claim.
int creates_running = 0;
std::map<uint32_t, std::vector<std::string>> held;

// Under owners_mtx: the create answer first, then whatever waited for it, so
// the client never hears of a session before the answer that names it.
void claim_and_deliver_locked(uint32_t session_id, ClientConnection* conn, std::string answer) {
  // A re-attach by its owner keeps the entry; another owner is refused
  // before the call, so an existing entry is never taken over here.
  owners.emplace(session_id, conn->shared_from_this());
  conn->deliver(std::move(answer));
  auto waiting = held.find(session_id);
  if (waiting == held.end()) return;
  for (std::string& message : waiting->second) conn->deliver(std::move(message));
  held.erase(waiting);
}

}  // namespace

CallScope::CallScope(ClientConnection* conn, uint32_t session_id, bool creating) : creating_(creating) {
  t_call.conn = conn;
  t_call.session_id = session_id;
  if (creating_) {
    std::lock_guard<std::mutex> lock(owners_mtx);
    ++creates_running;
  }
}

CallScope::~CallScope() {
  t_call = CallContext();
  if (!creating_) return;
  std::map<uint32_t, std::vector<std::string>> dropped;
  {
    std::lock_guard<std::mutex> lock(owners_mtx);
    if (--creates_running == 0) dropped.swap(held);
  }
  for (const auto& entry : dropped) {
    log_warn("no client owns session %u; dropped %zu held callback(s)", entry.first,
             entry.second.size());
  }
}

std::string callback_message(lumo_response_t kind, uint32_t session_id, const std::string& text,
                             int32_t error_flag, uint32_t client_handle) {
  std::string out;
  out.reserve(text.size() + text.size() / 8 + 112);
  out.append("{\"op\":\"callback\",\"kind\":");
  out.append(std::to_string(static_cast<int32_t>(kind)));
  out.append(",\"session_id\":");
  out.append(std::to_string(session_id));
  out.append(",\"text\":");
  lumokit::ipc::append_json_string(out, text);
  out.append(",\"error\":");
  out.append(std::to_string(error_flag));
  out.append(",\"handle\":");
  out.append(std::to_string(client_handle));
  out.push_back('}');
  return out;
}

namespace {

// The connection whose call is running on this thread, when the callback
// answers that call: the create_session answer (whose session id is new)
// and perform_task errors for the session it named.
ClientConnection* answered_caller(lumo_response_t kind, uint32_t session_id) {
  ClientConnection* caller = t_call.conn;
  if (caller != nullptr &&
      (kind == LUMO_RESPONSE_CREATE_SESSION || session_id == t_call.session_id)) {
    return caller;
  }
  return nullptr;
}

}  // namespace

void route_manager_callback(lumo_response_t kind, uint32_t session_id, std::string text,
                            int32_t error_flag, uint32_t client_handle) {
  std::string message = callback_message(kind, session_id, text, error_flag, client_handle);

  if (ClientConnection* caller = answered_caller(kind, session_id)) {
    if (kind == LUMO_RESPONSE_CREATE_SESSION && error_flag == 0 && session_id != 0) {
      std::lock_guard<std::mutex> lock(owners_mtx);
      claim_and_deliver_locked(session_id, caller, std::move(message));
      return;
    }
    if (!caller->deliver(std::move(message))) {
      log_info("client %llu gone; dropped kind %d answer for session %u",
               static_cast<unsigned long long>(caller->id()), static_cast<int>(kind), session_id);
    }
    return;
  }

  std::shared_ptr<ClientConnection> owner;
  {
    // Delivered under the lock so that it cannot overtake a create answer
    // being delivered for the same session (delivery never blocks).
    std::lock_guard<std::mutex> lock(owners_mtx);
    auto it = owners.find(session_id);
    if (it != owners.end()) {
      owner = it->second;
      if (owner->deliver(std::move(message))) return;
    } else if (creates_running > 0) {
      held[session_id].push_back(std::move(message));
      return;
    }
  }
  if (!owner) {
    log_warn("no client owns session %u; dropped kind %d callback (error %d)", session_id,
             static_cast<int>(kind), error_flag);
    return;
  }
  {
    log_info("client %llu gone; dropped kind %d callback for session %u",
             static_cast<unsigned long long>(owner->id()), static_cast<int>(kind), session_id);
  }
}

uint64_t callback_client(lumo_response_t kind, uint32_t session_id) {
  if (ClientConnection* caller = answered_caller(kind, session_id)) return caller->id();
  std::lock_guard<std::mutex> lock(owners_mtx);
  auto it = owners.find(session_id);
  return it == owners.end() ? 0 : it->second->id();
}

std::shared_ptr<ClientConnection> session_owner(uint32_t session_id) {
  std::lock_guard<std::mutex> lock(owners_mtx);
  auto it = owners.find(session_id);
  if (it == owners.end()) return nullptr;
  return it->second;
}

bool owned_by_other(uint32_t session_id, const ClientConnection* conn) {
  std::lock_guard<std::mutex> lock(owners_mtx);
  auto it = owners.find(session_id);
  return it != owners.end() && it->second.get() != conn;
}

std::vector<uint32_t> sessions_of(const ClientConnection* conn) {
  std::vector<uint32_t> out;
  std::lock_guard<std::mutex> lock(owners_mtx);
  for (const auto& entry : owners) {
    if (entry.second.get() == conn) out.push_back(entry.first);
  }
  return out;
}

void release_session(uint32_t session_id, const ClientConnection* conn) {
  std::shared_ptr<ClientConnection> dropped;  // destroyed after the unlock
  std::lock_guard<std::mutex> lock(owners_mtx);
  auto it = owners.find(session_id);
  if (it != owners.end() && it->second.get() == conn) {
    dropped = std::move(it->second);
    owners.erase(it);
  }
}

size_t owned_session_count() {
  std::lock_guard<std::mutex> lock(owners_mtx);
  return owners.size();
}

}  // namespace lumokitd
