// Listening sockets handed over by a service supervisor at start, the way
// Android's init hands the plugin socket over as "lumo": the systemd
// protocol (LISTEN_PID, LISTEN_FDS, LISTEN_FDNAMES, descriptors from 3).
#pragma once

#include <string>

namespace lumokitd {

// Descriptors by role; -1 where nothing was handed over for it.
struct HandedSockets {
  int plugin_fd = -1;  // "lumo"
  int client_fd = -1;  // "client"
  int admin_fd = -1;   // "admin"
};

// Takes the sockets passed to this process and removes the variables from
// the environment. A descriptor's role is its name in LISTEN_FDNAMES when
// that is "lumo", "client" or "admin", otherwise the file name of the path
// it is bound to (one socket unit gives all its descriptors the same name).
// Variables meant for another process (LISTEN_PID differs) are ignored.
// False with `error` set when a descriptor is not a local seqpacket socket,
// has no role or repeats one; every handed descriptor is then closed.
bool take_handed_sockets(HandedSockets* out, std::string* error);

}  // namespace lumokitd
