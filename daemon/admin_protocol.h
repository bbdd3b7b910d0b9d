// The admin protocol: properties, the emulated system service, and a view
// of the manager's state, one JSON request per message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "connection_registry.h"

namespace lumokitd {

// True for {"op":"monitor"}: the connection becomes a monitor (monitor_hub.h).
bool is_monitor_request(const char* data, size_t length);

// Handles one admin request and returns its reply (always non-empty).
// `admin` is the connection's id, for what the request does on its behalf.
std::string handle_admin_message(ConnectionRegistry& registry, uint64_t admin, const char* data,
                                 size_t length);

}  // namespace lumokitd
