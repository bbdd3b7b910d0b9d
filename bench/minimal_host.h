// A minimal host process for the library, as a yardstick for lumokitd: the
// manager in-process with one plugin process, and one client on a socket
// pair speaking the daemon's client protocol (create_session and
// perform_task only, the envelope parsed strictly with jsoncpp, callbacks
// written straight to the client's socket). Log silent.
#pragma once

namespace bench {

// Entry of "--role host --fd N". Sends {"op":"ready"} on the socket once
// its plugin is up; ends when the client closes.
int run_minimal_host(int fd);

}  // namespace bench
