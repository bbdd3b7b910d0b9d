// Readiness and stop notices to a service supervisor that passes
// $NOTIFY_SOCKET (the systemd notify protocol); a no-op without it.
#pragma once

namespace lumokitd {

void notify_supervisor(const char* state);

}  // namespace lumokitd
