// Where the daemon's sockets live: the runtime directory and the names of
// the files in it, shared by the daemon and its command-line client.
#pragma once

#include <string>

namespace lumokit::ipc {

inline constexpr const char* kPluginSocketName = "lumo";
inline constexpr const char* kClientSocketName = "client";
inline constexpr const char* kAdminSocketName = "admin";
inline constexpr const char* kLockFileName = "lumokitd.lock";

// $XDG_RUNTIME_DIR/lumokit when that variable is set and absolute,
// otherwise /tmp/lumokit-<uid>.
std::string default_runtime_dir();

inline std::string runtime_file(const std::string& dir, const char* name) {
  return dir + "/" + name;
}

}  // namespace lumokit::ipc
