// The manager started inside this process the way a device starts it: a
// bound SOCK_SEQPACKET socket handed over as the "lumo" control socket and
// init_manager on a thread of its own.
#pragma once

#include <string>

namespace bench {

// Returns the plugin socket path once the manager listens; empty on
// failure. With `log_on` the manager's log is written at info level to
// /dev/null (the cost of formatting and writing it); otherwise it is silent.
std::string start_manager(bool log_on);
// The same for a scenario: false with `error` set when the manager did not start.
bool start_manager(bool log_on, std::string* socket, std::string* error);

// Removes the socket file and its directory. The manager's threads cannot be
// stopped, so scenario processes end with _exit after this.
void remove_manager_socket();

}  // namespace bench
