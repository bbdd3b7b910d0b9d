// Plugin link: start-up and the plugin socket server, one handler thread per
// plugin connection, and the per-plugin outbound queue with its sender.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class Service;

// Receive limits of a plugin connection: the start size, and the size it
// grows to once for a ready plugin.
inline constexpr uint32_t kPluginRecvInitial = 102400;
inline constexpr uint32_t kPluginRecvGrown = 524288;
// Largest text the sender writes; longer texts are cut to this.
inline constexpr uint32_t kPluginSendMax = 524287;
// Most a plugin's outbound queue holds, each message counted as its length
// plus kPluginQueueEntryBytes. A plugin that stops reading fills its socket
// and then this; further messages for it are dropped as failed sends.
inline constexpr size_t kPluginQueueMaxBytes = 8u << 20;
inline constexpr size_t kPluginQueueEntryBytes = 64;

class LumoServiceManagerServer {
 public:
  // Takes the "lumo" control socket, listens and accepts plugins; returns
  // only on failure, with -1.
  static int32_t init_manager();
};

// Handler of one plugin connection; `arg` carries the descriptor's value.
void* svc_hal_handler_thread(void* arg);

// Queues one text for the plugin's sender; dropped when the plugin is gone.
void add_msg_to_queue(std::shared_ptr<Service> service, std::string message);

// Sender thread entry; `arg` is a heap-allocated std::shared_ptr<Service>.
void* manager_send(void* arg);

// Read-only JSON snapshot of the plugins and sessions, for diagnostics.
// Locks are taken one at a time and never across a callback.
std::string lumokit_state_dump();

// Whether any session table still knows `session_id`; when it does,
// `connected` gets its connected opcode/subsystem pairs, ascending.
bool lumokit_session_snapshot(uint32_t session_id,
                              std::vector<std::pair<uint32_t, uint32_t>>* connected);
