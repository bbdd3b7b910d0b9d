// The processes a scenario talks to: the echo peer of the floors, raw
// plugins, and the registering client. Each is this binary started with
// "--role"; the helpers here start them and wait until they are ready.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// Entry of a "--role ..." process; returns the exit status.
int run_role(int argc, char** argv);

// Echo peer on one end of a socket pair: sends back every message it gets.
pid_t start_echo_peer(int fd);

// `processes` plugin processes with `conns_each` connections each; every
// connection registers its own opcode, counting up from `base_opcode`, and
// says REDY. With `serve`, each process (one connection) then answers the
// manager. Returns once all are ready; false (and nothing left running) on
// failure.
bool start_plugins(const std::string& socket, uint32_t base_opcode, int processes, int conns_each,
                   bool serve, std::vector<pid_t>* pids, std::string* error);

// A registering client: `warmup` + `cycles` rounds of connect, INIT, AUTH
// (valid token), DINT. Writes to `result_fd`: int64 count, int64 wall time
// of the measured rounds, then one int64 duration per measured round
// (count -1 on failure).
pid_t start_registering_client(const std::string& socket, uint32_t opcode, int warmup, int cycles,
                               int result_fd);

void stop_children(std::vector<pid_t>* pids);

}  // namespace bench
