// A private D-Bus message bus for the peer figures: dbus-broker or the
// reference dbus-daemon, listening on a socket in a temporary folder, started
// by the scenario process (so pinned with it) and ended with it. Nothing on
// the host changes: dbus-broker's launcher gets the journal socket it insists
// on inside a mount namespace of its own.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

enum class BusKind { kBroker, kDaemon };

struct PrivateBus {
  std::string dir;      // the temporary folder: config file and socket
  std::string address;  // D-Bus address of the socket
  pid_t pid = -1;       // the process started; the bus is it and its descendants

  PrivateBus() = default;
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;
  ~PrivateBus();
  void stop();
  // Every process of the bus, for CPU accounting.
  std::vector<pid_t> processes() const;
};

// Starts the bus and returns once it takes connections. False with `why`
// set when it cannot run here (not installed, no namespace); with `error`
// set when it should have and did not.
bool start_private_bus(BusKind kind, PrivateBus* bus, std::string* why, std::string* error);

// Entry of "--role broker-launcher": makes the mount namespace and the
// journal socket, starts dbus-broker-launch on the listening socket it was
// handed, reads and drops what it logs, and reports readiness.
int run_broker_launcher(const std::string& dir, int listen_fd, int ready_fd);

// A process and all of its descendants.
std::vector<pid_t> process_tree(pid_t root);

}  // namespace bench
