// lumokitd's monitors: connections on the admin socket that watch every
// message between the manager, its plugins and its clients.
//
// Events go into one bounded buffer shared by all monitors; each monitor has
// a thread of its own that takes the events after its place and writes them
// to its socket, blocking only itself. A monitor that falls so far behind
// that the buffer drops events it has not taken is told how many it lost.
// The manager's threads only copy an event in: they never wait for a monitor.
#pragma once

#include <atomic>
#include <cstddef>

#include "client_connection.h"
#include "monitor_event.h"

namespace lumokitd {

// Bytes of events the buffer keeps for monitors that lag behind.
inline constexpr size_t kDefaultMonitorBuffer = 16u << 20;
inline constexpr size_t kMinMonitorBuffer = 64u << 10;

// Before the first monitor attaches.
void set_monitor_buffer(size_t bytes);

extern std::atomic<bool> monitors_attached;
// True while any monitor watches: the one load a client call costs otherwise.
inline bool monitors_watching() { return monitors_attached.load(std::memory_order_acquire); }

// Adds a client call to the buffer (made with client_call_event).
void record_client_call(MonitorEvent event);

// Serves `conn` as a monitor: answers {"op":"monitor","buffer":BYTES,"seq":N}
// (N: the number its first event will carry), then writes every event from
// now on, with {"op":"lost","count":N} where it lost some, until the monitor
// closes its connection or the daemon stops. What it sends is ignored.
void serve_monitor(ClientConnection& conn);

size_t monitor_count();

}  // namespace lumokitd
