// The daemon's runtime directory: created 0700, guarded by a lock file so
// that only one daemon uses it, holding the plugin, client and admin sockets.
#pragma once

#include <string>

namespace lumokitd {

struct RuntimeDir {
  std::string path;
  int lock_fd = -1;
  int plugin_fd = -1;  // bound, not listening: the manager calls listen
  int client_fd = -1;  // bound, not listening until the manager is up
  int admin_fd = -1;   // bound, not listening until the manager is up
};

// Creates the directory when missing, takes the lock (refusing when another
// daemon holds it) and binds the three sockets, replacing stale files.
// On failure nothing is left open and `error` says why.
bool open_runtime_dir(const std::string& path, RuntimeDir* out, std::string* error);

// Removes the socket files and the lock file; closes the client and admin
// sockets and the lock. The plugin socket belongs to the manager by then.
void close_runtime_dir(RuntimeDir* dir);

}  // namespace lumokitd
