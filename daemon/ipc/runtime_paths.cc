#include "runtime_paths.h"

#include <unistd.h>

#include <cstdlib>

namespace lumokit::ipc {

std::string default_runtime_dir() {
  const char* xdg = std::getenv("XDG_RUNTIME_DIR");
  if (xdg != nullptr && xdg[0] == '/') return std::string(xdg) + "/lumokit";
  return "/tmp/lumokit-" + std::to_string(getuid());
}

}  // namespace lumokit::ipc
