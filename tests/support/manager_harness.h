// Test harness: the manager started as on a device (a bound seqpacket socket
// handed over through ANDROID_SOCKET_lumo, init_manager on its own thread),
// raw plugins speaking the wire protocol, a recording client callback and a
// log capture.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include <json/json.h>

#include "LumokitSessionManager.h"

namespace lumokit::test {

// Starts the manager once per process; returns the plugin socket path.
const std::string& start_manager();

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
  mutable std::condition_variable cv_;
  std::vector<std::string> lines_;
};

// One plugin connection speaking the raw protocol.
class RawPlugin {
 public:
  explicit RawPlugin(const std::string& path = start_manager());
  ~RawPlugin();
  RawPlugin(const RawPlugin&) = delete;
  RawPlugin& operator=(const RawPlugin&) = delete;

  void send(const std::string& text);
  // Next message, skipping "PING " probes; empty on timeout.
  std::string recv(std::chrono::milliseconds timeout = std::chrono::milliseconds(3000));
  // Sends and returns the direct reply.
  std::string request(const std::string& text);
  void close_socket();
  // True once the manager has closed its end (pending messages are dropped).
  bool wait_closed(std::chrono::milliseconds timeout = std::chrono::milliseconds(3000));
  int fd() const { return fd_; }

  // Protocol steps; each checks the reply's shape and returns its result.
  int init();  // the service id
  int auth(uint32_t opcode, const Json::Value& api_def);  // signed token
  int regs(uint32_t opcode, const Json::Value& api_def);
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
lumo_callback recording_callback();
std::vector<Callback> callbacks();
void clear_callbacks();
// Waits until at least `n` callbacks were recorded.
bool wait_for_callbacks(size_t n, std::chrono::milliseconds timeout);

Json::Value parse_json(const std::string& text);

// The manager's diagnostic snapshot, parsed.
Json::Value state_dump();

}  // namespace lumokit::test
