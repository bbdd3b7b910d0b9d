// Test harness: the manager started as on a device (a bound seqpacket socket
// handed over through ANDROID_SOCKET_lumo, init_manager on its own thread),
// raw plugins speaking the wire protocol, a recording client callback, a log
// capture, and the steps most tests share (opening and ending sessions,
// reading the state dump, checking plugin exchanges).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <initializer_list>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <json/json.h>

#include "LumokitSessionManager.h"

namespace lumokit::test {

// The client that the session helpers state.
constexpr int32_t kClientPid = 4321;
constexpr uint32_t kClientUid = 10077;

// Starts the manager once per process; returns the plugin socket path.
const std::string& start_manager();

// Polls `pred` every 10 ms until it holds or `timeout` passes.
bool wait_until(const std::function<bool()>& pred, std::chrono::milliseconds timeout);

// Every log record while alive.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  std::vector<std::string> lines() const;  // "P/TAG: message"
  bool contains(const std::string& text) const;
  size_t count(const std::string& text) const;
  // Waits until a line containing `text` was logged.
  bool wait_for(const std::string& text, std::chrono::milliseconds timeout) const;

 private:
  int hook_id_;
  mutable std::mutex mtx_;
  std::vector<std::string> lines_;
};

// One plugin connection speaking the raw protocol.
class RawPlugin {
 public:
  explicit RawPlugin(const std::string& path = start_manager());
  explicit RawPlugin(int connected_fd) : fd_(connected_fd) {}  // either end of a socket pair
  ~RawPlugin();
  RawPlugin(const RawPlugin&) = delete;
  RawPlugin& operator=(const RawPlugin&) = delete;

  void send(const std::string& text);
  // Next message, skipping "PING " probes unless `keep_probes`; empty on timeout.
  std::string recv(std::chrono::milliseconds timeout = std::chrono::milliseconds(3000),
                   bool keep_probes = false);
  // Sends and returns the direct reply.
  std::string request(const std::string& text);
  void close_socket();
  // True once the manager has closed its end (pending messages are dropped).
  bool wait_closed(std::chrono::milliseconds timeout = std::chrono::milliseconds(3000));

  // Protocol steps; each checks the reply's shape and returns its result.
  int init();  // the service id
  int auth(uint32_t opcode, const Json::Value& api_def);  // signed token
  int redy(uint32_t opcode);
  std::string dint();
  int service_id() const { return service_id_; }

  // Reads the next start_session notice and answers it; returns the notice.
  std::string answer_start_session(bool accept);
  std::string answer_end_session(bool success = true);

 private:
  int fd_ = -1;
  int service_id_ = 0;
};

// An "AUTH" or "REGS" message; no "Token" member when `token` is null.
std::string registration_message(const char* kind, int service_id, uint32_t opcode,
                                 const Json::Value& api_def, const std::string* token);

// The plugin's answer to a start_session notice: accepting echoes every
// pair of the notice.
std::string start_session_answer(const std::string& notice, bool accept);
// A plugin's answer to a task, with nothing but its ids.
std::string exec_answer(uint32_t session_id, uint32_t transac_id);
// The manager's direct reply to "AUTH", "REGS" or "REDY".
std::string registration_reply(const char* kind, const std::string& opcode, int result);

// An "api_def" with one entry for `opcode` ("0x..." text) and the subsystems.
Json::Value api_def(uint32_t opcode, const std::vector<uint32_t>& subsystems,
                    const std::string& name = "api");

// A plugin that is registered and ready for the given pairs of one opcode.
void bring_up(RawPlugin& plugin, uint32_t opcode, const std::vector<uint32_t>& subsystems,
              const std::string& name = "api");

// A task request text.
std::string task_request(uint32_t session_id, uint32_t transac_id, const std::string& opcode,
                         uint32_t subsys, const std::string& func_name,
                         const std::vector<std::string>& arg_types);

// Records every client callback (process-wide, since the callback is a plain
// function pointer).
struct Callback {
  lumo_response_t kind;
  uint32_t session_id;
  std::string text;
  int32_t error_flag;
  uint32_t handle;
};
bool operator==(const Callback& a, const Callback& b);
std::ostream& operator<<(std::ostream& out, const Callback& cb);
lumo_callback recording_callback();
std::vector<Callback> callbacks();
void clear_callbacks();
// Waits until at least `n` callbacks were recorded.
bool wait_for_callbacks(size_t n, std::chrono::milliseconds timeout);

// create_session on a thread of its own (it blocks until the plugins have
// answered), so that the caller can play the plugins.
std::thread create_session_async(uint32_t handle, uint32_t session_id = 0,
                                 lumo_callback callback = recording_callback(),
                                 int32_t pid = kClientPid, uint32_t uid = kClientUid);

// Opens a session while each of `plugins` in turn accepts its start notice;
// returns the id and clears the recorded callbacks. Throws when the client
// is not told of a new session.
uint32_t open_session(std::initializer_list<RawPlugin*> plugins, uint32_t handle = 1,
                      int32_t pid = kClientPid, uint32_t uid = kClientUid);

// cancel_session on a thread of its own.
std::future<uint32_t> cancel_async(uint32_t session_id, uint32_t opcode = 0, uint32_t subsys = 0);
// cancel_session while `plugin` acknowledges the end_session request.
uint32_t cancel_answered(RawPlugin& plugin, uint32_t session_id, uint32_t opcode = 0,
                         uint32_t subsys = 0);

Json::Value parse_json(const std::string& text);
// One line of JSON text, comments kept.
std::string compact(const Json::Value& value);

// The manager's diagnostic snapshot, parsed.
Json::Value state_dump();
// One plugin's or session's entry of the snapshot; null when there is none.
Json::Value plugin_state(int service_id);
Json::Value session_state(uint32_t session_id);
// Pairs of a snapshot list as "0x10/5 0x20/1 ".
std::string pair_list(const Json::Value& pairs);

// A message a plugin sends and what must follow: its direct reply (none when
// empty), a line that must be logged once more, and the text the client is
// called back with (none when empty). A message is logged as unreadable
// exactly when `log` is kUnreadable.
constexpr const char* kUnreadable = "W/LUMOKIT_SESSION_MANAGER: Parsing failed!!";
struct Exchange {
  Exchange(std::string m, std::string r = "", std::string l = "", std::string c = "")
      : message(std::move(m)), reply(std::move(r)), log(std::move(l)), callback(std::move(c)) {}
  std::string message, reply, log, callback;
};
void expect_exchanges(RawPlugin& plugin, const std::vector<Exchange>& cases);

// Loads `policy` into the emulated system service and links the manager to
// it as at boot (boot already complete); false with `error` saying which step
// failed.
bool connect_sys_service(const std::string& policy, std::string* error);
// Waits until the manager's permission-change callback is registered with the
// live service: a probe grant change (for a process and app no test uses)
// must reach it.
bool wait_for_sys_callback(std::chrono::milliseconds timeout);

}  // namespace lumokit::test
