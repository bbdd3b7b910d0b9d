// The D-Bus side of the peer figures, sd-bus at both ends: echo services
// (each a process with its own bus connection and name, answering one
// method that returns its string argument) and the callers, which run in the
// scenario process like the clients of the other end-to-end figures.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "scenarios.h"

namespace bench {

// False with `why` set when this build has no sd-bus (libsystemd-dev).
bool sdbus_built(std::string* why);

// `count` echo service processes on the bus at `address`; returns once each
// owns its name. False (and nothing left running) on failure.
bool start_echo_services(const std::string& address, int count, std::vector<pid_t>* pids,
                         std::string* error);

// Entry of "--role dbus-echo": serves until the bus goes away.
int run_echo_service(const std::string& address, int index, int ready_fd);

// One caller, one method call at a time to service 0, for each text size:
// warm-up, then `calls` timed round trips. `cpu_pids` are the other
// processes whose CPU time counts (bus and services). One Result per size.
std::vector<Result> dbus_round_trips(const std::string& address, const std::vector<size_t>& sizes,
                                     const std::vector<uint32_t>& calls,
                                     const std::vector<pid_t>& cpu_pids);

// `callers` threads, each on its own connection calling its own service
// with up to `window` calls in flight: throughput and CPU per call.
Result dbus_throughput(const std::string& address, int callers, uint32_t per_caller,
                       uint32_t window, const std::vector<pid_t>& cpu_pids);

}  // namespace bench
