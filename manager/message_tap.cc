#include "message_tap.h"

#include <chrono>

std::atomic<lumo_tap_observer> lumokit_tap_observer{nullptr};

void lumokit_set_message_tap(lumo_tap_observer observer) {
  lumokit_tap_observer.store(observer, std::memory_order_release);
}

namespace {

int64_t now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

void tap_plugin_message(lumo_tap_observer tap, lumo_tap_direction direction, int32_t service_id,
                        uint32_t connection, uint32_t session_id, const char* text, size_t length) {
  const lumo_tap_event event{now_ns(), direction, service_id, connection, session_id,
                             text,     length,    0,          0,          0};
  tap(event);
}

void tap_client_callback(lumo_tap_observer tap, int32_t service_id, lumo_response_t kind,
                         uint32_t session_id, const std::string& text, int32_t error_flag,
                         uint32_t client_handle) {
  const lumo_tap_event event{now_ns(),    LUMO_TAP_CALLBACK, service_id,
                             0,           session_id,        text.data(),
                             text.size(), static_cast<int32_t>(kind), error_flag,
                             client_handle};
  tap(event);
}
