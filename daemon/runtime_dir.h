// The daemon's runtime directory: created 0700, guarded by a lock file so
// that only one daemon uses it, holding the plugin, client and admin sockets
// unless a supervisor handed them over.
#pragma once

#include <string>
#include <vector>

#include "socket_activation.h"

namespace lumokitd {

struct RuntimeDir {
  std::string path;
  int lock_fd = -1;
  int plugin_fd = -1;  // the manager calls listen
  int client_fd = -1;  // made here: not listening until the manager is up
  int admin_fd = -1;   // made here: not listening until the manager is up
  // Socket files made here, removed at the end; a handed-over socket's file
  // belongs to the supervisor, which keeps listening on it.
  std::vector<std::string> made_files;
};

// Creates the directory when missing, takes the lock (refusing when another
// daemon holds it), adopts the `handed` sockets and binds the others,
// replacing stale files. On failure nothing made here is left open and
// `error` says why.
bool open_runtime_dir(const std::string& path, const HandedSockets& handed, RuntimeDir* out,
                      std::string* error);

// Removes the socket files made here and the lock file; closes the client
// and admin sockets and the lock. The plugin socket belongs to the manager
// by then.
void close_runtime_dir(RuntimeDir* dir);

}  // namespace lumokitd
