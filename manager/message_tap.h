// The message tap: one optional observer, set by the hosting daemon, that is
// told of every message crossing the manager: what a plugin sends (before
// it is parsed), every direct reply and probe, every message the sender
// writes, and every client callback. Unset, a message costs one atomic load.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "LumokitSessionManager.h"

enum lumo_tap_direction : int32_t {
  LUMO_TAP_FROM_PLUGIN = 1,  // received from a plugin, as received
  LUMO_TAP_REPLY = 2,        // written by the plugin's handler: a reply or the probe
  LUMO_TAP_TO_PLUGIN = 3,    // written by the plugin's sender, after the cut
  LUMO_TAP_CALLBACK = 4,     // a client callback
};

struct lumo_tap_event {
  int64_t time_ns;  // steady clock (CLOCK_MONOTONIC)
  lumo_tap_direction direction;
  int32_t service_id;   // the plugin's; 0 while its connection has sent no "INIT"
  uint32_t connection;  // the plugin connection's number (from 1); 0 when not known here
  uint32_t session_id;  // 0 when none is known without parsing
  const char* text;     // valid only during the call
  size_t length;
  // Callbacks only: the callback's kind, error flag and client handle.
  int32_t callback_kind;
  int32_t error_flag;
  uint32_t client_handle;
};

// Called on the manager's threads, the sender's with that plugin's
// svc_hal_mtx held: it must return quickly, never block and never call
// into the manager.
typedef void (*lumo_tap_observer)(const lumo_tap_event& event);

// Sets the observer, or clears it with null. A cleared observer may still
// be running on another thread for a moment: it must stay callable.
void lumokit_set_message_tap(lumo_tap_observer observer);

extern std::atomic<lumo_tap_observer> lumokit_tap_observer;

// The observer, or null: the one load a message costs when none is set.
inline lumo_tap_observer lumokit_message_tap() {
  return lumokit_tap_observer.load(std::memory_order_acquire);
}

// Hands one plugin message to `tap` with the time of the call.
void tap_plugin_message(lumo_tap_observer tap, lumo_tap_direction direction, int32_t service_id,
                        uint32_t connection, uint32_t session_id, const char* text, size_t length);

void tap_client_callback(lumo_tap_observer tap, int32_t service_id, lumo_response_t kind,
                         uint32_t session_id, const std::string& text, int32_t error_flag,
                         uint32_t client_handle);

// Calls a client's callback, telling the observer first. `service_id` names
// the plugin the answer comes from, 0 when the manager answers itself.
inline void call_client(lumo_callback callback, int32_t service_id, lumo_response_t kind,
                        uint32_t session_id, std::string text, int32_t error_flag,
                        uint32_t client_handle) {
  if (lumo_tap_observer tap = lumokit_message_tap()) {
    tap_client_callback(tap, service_id, kind, session_id, text, error_flag, client_handle);
  }
  callback(kind, session_id, std::move(text), error_flag, client_handle);
}
