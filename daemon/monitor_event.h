// One message seen by lumokitd's monitors: the manager's tap events and the
// client calls the daemon makes into the manager, as kept in the buffer
// and as the JSON line a monitor receives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "message_tap.h"

namespace lumokitd {

enum class EventSource {
  kRecv,      // plugin to manager
  kReply,     // manager to plugin, written by the plugin's handler
  kSend,      // manager to plugin, written by the plugin's sender
  kCallback,  // manager to client
  kCall,      // client to manager
};

// Texts are kept up to the largest message a plugin connection receives;
// "size" still gives the whole length of a longer one.
inline constexpr size_t kMaxEventText = 524288;

struct MonitorEvent {
  uint64_t seq = 0;  // given when the event enters the buffer
  int64_t time_ns = 0;
  EventSource source = EventSource::kRecv;
  int32_t service_id = 0;   // 0: not known (a connection before "INIT", a client call)
  uint32_t connection = 0;  // plugin connection number, 0 when not known
  uint32_t session_id = 0;  // 0: none known
  uint64_t client = 0;      // client connection of a call or callback, 0 when none
  const char* call = "";    // a call's name
  int32_t callback_kind = 0;
  int32_t error_flag = 0;
  uint32_t handle = 0;  // callback's client handle; create_session's handle
  int32_t pid = 0;      // create_session
  uint32_t uid = 0;
  uint32_t opcode = 0;  // cancel_session
  uint32_t subsys = 0;
  size_t size = 0;
  std::string text;
};

// The event for one tap notice; `client` is the connection a callback goes to.
MonitorEvent event_from_tap(const lumo_tap_event& tap, uint64_t client);

// A client call about to be made, stamped now; the caller adds the
// call's own arguments.
MonitorEvent client_call_event(uint64_t client, const char* call, uint32_t session_id,
                               const char* text, size_t length);

// {"op":"event",...}: one line for a monitor.
std::string event_line(const MonitorEvent& event);

}  // namespace lumokitd
