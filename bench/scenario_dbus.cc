// The peers: what a vendor would use instead of the manager to broker calls
// between apps and service processes on Linux, a message bus. A method call
// carrying the same text through dbus-broker or dbus-daemon, sd-bus at both
// ends, the caller in this process like the clients of the end-to-end
// figures, the bus and the services in processes of their own.
#include "dbus_peer.h"
#include "private_bus.h"
#include "scenarios.h"
#include "spawn.h"

namespace bench {
namespace {

// Starts the bus and `services` echo services; a Result that says why not
// when it cannot.
bool start_peer(BusKind kind, int services, PrivateBus* bus, std::vector<pid_t>* pids,
                Result* r) {
  std::string why;
  if (!sdbus_built(&why)) {
    *r = not_measured(why);
    return false;
  }
  if (!start_private_bus(kind, bus, &why, &r->error)) {
    if (r->error.empty()) *r = not_measured(why);
    return false;
  }
  return start_echo_services(bus->address, services, pids, &r->error);
}

std::vector<pid_t> with_bus(std::vector<pid_t> services, const PrivateBus& bus) {
  for (pid_t p : bus.processes()) services.push_back(p);
  return services;
}

// The usual text, then the size curve, whose first point is that figure.
Result round_trips(BusKind kind) {
  Result r;
  PrivateBus bus;
  std::vector<pid_t> services;
  if (!start_peer(kind, 1, &bus, &services, &r)) return r;
  std::vector<Result> sizes =
      dbus_round_trips(bus.address, kMessageSizes, kSizeRoundTrips, with_bus(services, bus));
  for (pid_t p : services) kill_child(p);
  r = sizes[0];
  for (const Result& point : sizes) {
    if (!point.error.empty()) r.error = point.error;
    r.series.push_back(point.p50_us);
  }
  return r;
}

Result throughput(BusKind kind) {
  constexpr int kCallers = 4;
  Result r;
  PrivateBus bus;
  std::vector<pid_t> services;
  if (!start_peer(kind, kCallers, &bus, &services, &r)) return r;
  r = dbus_throughput(bus.address, kCallers, kThroughputTasksPerSession, kThroughputWindow,
                      with_bus(services, bus));
  for (pid_t p : services) kill_child(p);
  return r;
}

}  // namespace

Result run_dbus_broker() { return round_trips(BusKind::kBroker); }
Result run_dbus_daemon() { return round_trips(BusKind::kDaemon); }
Result run_dbus_broker_4x4() { return throughput(BusKind::kBroker); }
Result run_dbus_daemon_4x4() { return throughput(BusKind::kDaemon); }

}  // namespace bench
