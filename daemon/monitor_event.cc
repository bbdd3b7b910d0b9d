#include "monitor_event.h"

#include <algorithm>
#include <chrono>

#include "ipc/json_text.h"

namespace lumokitd {

namespace {

const char* source_name(EventSource source) {
  switch (source) {
    case EventSource::kRecv: return "recv";
    case EventSource::kReply: return "reply";
    case EventSource::kSend: return "send";
    case EventSource::kCallback: return "callback";
    case EventSource::kCall: return "call";
  }
  return "?";
}

EventSource source_of(lumo_tap_direction direction) {
  switch (direction) {
    case LUMO_TAP_FROM_PLUGIN: return EventSource::kRecv;
    case LUMO_TAP_REPLY: return EventSource::kReply;
    case LUMO_TAP_TO_PLUGIN: return EventSource::kSend;
    case LUMO_TAP_CALLBACK: return EventSource::kCallback;
  }
  return EventSource::kRecv;
}

void keep_text(MonitorEvent* event, const char* text, size_t length) {
  event->size = length;
  event->text.assign(text, std::min(length, kMaxEventText));
}

}  // namespace

MonitorEvent event_from_tap(const lumo_tap_event& tap, uint64_t client) {
  MonitorEvent event;
  event.time_ns = tap.time_ns;
  event.source = source_of(tap.direction);
  event.service_id = tap.service_id;
  event.connection = tap.connection;
  event.session_id = tap.session_id;
  if (event.source == EventSource::kCallback) {
    event.client = client;
    event.callback_kind = tap.callback_kind;
    event.error_flag = tap.error_flag;
    event.handle = tap.client_handle;
  }
  keep_text(&event, tap.text, tap.length);
  return event;
}

MonitorEvent client_call_event(uint64_t client, const char* call, uint32_t session_id,
                               const char* text, size_t length) {
  MonitorEvent event;
  // The manager's tap uses the same clock.
  event.time_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                      std::chrono::steady_clock::now().time_since_epoch())
                      .count();
  event.source = EventSource::kCall;
  event.client = client;
  event.call = call;
  event.session_id = session_id;
  keep_text(&event, text, length);
  return event;
}

std::string event_line(const MonitorEvent& e) {
  lumokit::ipc::ObjectWriter out;
  out.reserve(e.text.size() + e.text.size() / 8 + 256);
  out.str("op", "event")
      .num("seq", static_cast<int64_t>(e.seq))
      .num("time_ns", e.time_ns)
      .str("dir", source_name(e.source));
  if (e.service_id != 0) out.num("service_id", e.service_id);
  if (e.connection != 0) out.num("connection", e.connection);
  if (e.client != 0) out.num("client", static_cast<int64_t>(e.client));
  out.num("session_id", e.session_id);
  if (e.source == EventSource::kCallback) {
    out.num("kind", e.callback_kind).num("error", e.error_flag).num("handle", e.handle);
  } else if (e.source == EventSource::kCall) {
    const std::string call = e.call;
    out.str("call", call);
    if (call == "create_session") {
      out.num("handle", e.handle).num("pid", e.pid).num("uid", e.uid);
    } else if (call == "cancel_session") {
      out.num("opcode", e.opcode).num("subsys", e.subsys);
    }
  }
  out.num("size", static_cast<int64_t>(e.size));
  if (e.text.size() < e.size) out.boolean("cut", true);
  out.str("text", e.text);
  return out.done();
}

}  // namespace lumokitd
