#include "connection_threads.h"

#include <cerrno>
#include <cstring>
#include <system_error>
#include <thread>

#include "admin_protocol.h"
#include "daemon_log.h"
#include "ipc/json_text.h"
#include "ipc/seqpacket.h"
#include "monitor_hub.h"
#include "session_cleanup.h"

namespace lumokitd {

namespace {

using lumokit::ipc::RecvStatus;

void serve(ConnectionRegistry& registry, std::shared_ptr<ClientConnection> conn,
           ConnectionKind kind, ClientPolicy policy) {
  const unsigned long long id = conn->id();
  lumokit::ipc::RecvBuffer buffer;
  for (;;) {
    size_t length = 0;
    RecvStatus status = lumokit::ipc::recv_message(conn->fd(), buffer, &length);
    if (status == RecvStatus::kClosed) break;
    if (status == RecvStatus::kError) {
      if (!conn->is_closed()) log_error("client %llu: receive failed: %s", id, std::strerror(errno));
      break;
    }
    std::string reply;
    if (status == RecvStatus::kTooLarge) {
      reply = lumokit::ipc::error_message("message of " + std::to_string(length) +
                                          " bytes exceeds the limit of " +
                                          std::to_string(lumokit::ipc::kMaxMessage));
    } else if (kind == ConnectionKind::kClient) {
      reply = handle_client_message(*conn, policy, buffer.data.get(), length);
    } else if (is_monitor_request(buffer.data.get(), length)) {
      serve_monitor(*conn);
      break;
    } else {
      reply = handle_admin_message(registry, id, buffer.data.get(), length);
    }
    if (!reply.empty()) conn->deliver(std::move(reply));
  }
  conn->close_connection();
  if (kind == ConnectionKind::kClient) {
    if (registry.stopping()) {
      // The daemon is going away; plugins learn of that from their sockets.
      log_info("client %llu closed at shutdown", id);
    } else {
      end_sessions_of(conn.get());
      log_info("client %llu disconnected", id);
    }
  }
  registry.remove(conn);
}

}  // namespace

bool start_connection_thread(ConnectionRegistry& registry, std::shared_ptr<ClientConnection> conn,
                             ConnectionKind kind, const ClientPolicy& policy) {
  if (!registry.add(conn, kind == ConnectionKind::kAdmin)) return false;
  try {
    std::thread(serve, std::ref(registry), conn, kind, policy).detach();
  } catch (const std::system_error& e) {
    log_error("cannot start a thread for client %llu: %s",
              static_cast<unsigned long long>(conn->id()), e.what());
    registry.remove(conn);
    return false;
  }
  return true;
}

}  // namespace lumokitd
