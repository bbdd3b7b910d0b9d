// The plugin SDK: one connection of a service plugin to the service manager.
//
// The SDK owns the socket, a receive thread that reads every message of the
// manager, and an event thread that runs the plugin's hooks one at a time in
// arrival order. It answers session starts and ends, hands tasks to the task
// hook and sends the answers back, ignores the manager's probes, and routes
// the manager's replies to the synchronous calls below. Those calls may be
// made from any thread, hooks included; each waits for its reply at most
// Options::reply_timeout. Calls of one kind are made one after the other.
//
// Typical life: connect(path); init(); register_auth(...) per opcode;
// ready(opcode) per opcode; serve until wait_closed() or a signal;
// deinit(); stop().
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "lumokit/plugin_error.h"
#include "lumokit/plugin_types.h"

namespace lumokit {

struct PluginHooks {
  // A session wants pairs of this plugin. `accepted` starts as every
  // requested pair; remove what is not to be served. Returning false, or
  // leaving nothing accepted, refuses the session. Unset: accept all.
  // The manager waits 3 seconds for the answer.
  std::function<bool(const SessionStart& request, std::vector<OpcodeSubsystem>* accepted)>
      on_session_start;
  // A session ended; it is acknowledged whatever the hook does.
  std::function<void(uint32_t session_id)> on_session_end;
  // Runs one task. The returned object's members form the answer (beside
  // "req_type", "session_id" and "transac_id", which the SDK sets). A throw
  // answers "status": -1 with "error": the exception's text. Unset: every
  // task is answered with that error.
  std::function<Json::Value(const TaskRequest& task)> on_task;
  std::function<void(const PermissionChange& change)> on_permission_change;
};

struct PluginOptions {
  // How long a synchronous call waits for the manager's reply.
  std::chrono::milliseconds reply_timeout{5000};
  // One line per event of the SDK (connections, dropped messages, hook
  // failures). Called from several threads, never two at a time.
  std::function<void(const std::string& line)> log;
};

class Plugin {
 public:
  explicit Plugin(PluginHooks hooks = {}, PluginOptions options = {});
  ~Plugin();  // stop(); must not run on a hook
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  // Connects to the manager's plugin socket and starts the threads.
  // PluginError(Io) when the socket can't be reached; State when already
  // connected (a Plugin connects once).
  void connect(const std::string& socket_path);
  // The same over a connected AF_UNIX SOCK_SEQPACKET socket, which the
  // Plugin then owns.
  void adopt(int fd);

  // "INIT": the service id the manager gave this plugin. Refused when the
  // manager answers -1.
  int32_t init();
  int32_t service_id() const;  // -1 before init()

  // "AUTH": registers one opcode with its API definition (the array of API
  // entries) and the token signed for it. Invalid when the definition names
  // another opcode; Refused when the manager says no.
  void register_auth(uint32_t opcode, const Json::Value& api_def, const std::string& token);
  // "REGS": the same without a token, for managers that still accept it.
  void register_legacy(uint32_t opcode, const Json::Value& api_def);
  // "REDY": the opcode's subsystems are ready to serve. Refused when the
  // manager says no.
  void ready(uint32_t opcode);

  // "PERMISSION": whether the client of `session_id` holds each permission,
  // in order. With an empty list the manager answers one entry (true for a
  // known session). Refused when the manager rejects the session id.
  std::vector<bool> permission(uint32_t session_id, const std::vector<std::string>& permissions);
  // "INFO_QUERY": one answer per key, each "SUCCESS:<value>" or
  // "ERROR:<reason>" (some keys answer the system service's text as is).
  std::vector<std::string> info_query(uint32_t session_id, const std::vector<std::string>& keys);

  // "DINT": leaves the manager, which then closes the connection. True when
  // the manager had a record for this plugin.
  bool deinit();

  // Closes the connection and joins the threads; pending events are
  // dropped. Safe to call twice; from a hook it only closes (the threads are
  // joined by the destructor).
  void stop();
  bool connected() const;
  // Waits until the connection is closed (by either side); false on timeout.
  bool wait_closed(std::chrono::milliseconds timeout);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// "SUCCESS:abc" -> true with "abc" in `value`; anything else -> false with
// the whole answer in `value`.
bool info_success(const std::string& answer, std::string* value);

}  // namespace lumokit
