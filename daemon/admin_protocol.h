// The admin protocol: properties, the emulated system service, and a view
// of the manager's state, one JSON request per message.
#pragma once

#include <cstddef>
#include <string>

#include "connection_registry.h"

namespace lumokitd {

// Handles one admin request and returns its reply (always non-empty).
std::string handle_admin_message(ConnectionRegistry& registry, const char* data, size_t length);

}  // namespace lumokitd
