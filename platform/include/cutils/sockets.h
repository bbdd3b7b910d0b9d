// Host stand-in for <cutils/sockets.h>: init-provided control sockets.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// The descriptor that init bound for `name`, read from ANDROID_SOCKET_<name>;
// -1 when the variable is absent, malformed or not a socket.
int android_get_control_socket(const char* name);

#ifdef __cplusplus
}
#endif
