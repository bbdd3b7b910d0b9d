// The processes of one end-to-end scenario: lumokitd in a private runtime
// directory with the demo policy, the example plugin with freshly signed
// tokens, and JSON clients on the daemon's sockets.
#pragma once

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "e2e_process.h"

namespace lumokit::ipc {
struct RecvBuffer;
}

namespace lumokit::e2e {

std::string bin_path(const std::string& name);
std::string source_path(const std::string& relative);

// A connection to the client or admin socket, one JSON object per message.
class JsonClient {
 public:
  explicit JsonClient(const std::string& socket_path);
  ~JsonClient();
  JsonClient(const JsonClient&) = delete;
  JsonClient& operator=(const JsonClient&) = delete;

  void send_text(const std::string& text);
  void send(const Json::Value& message);
  // The next message, parsed; throws when none comes within `timeout`.
  Json::Value next(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // True when no message arrives within `quiet`.
  bool silent_for(std::chrono::milliseconds quiet);
  // send + next.
  Json::Value call(const Json::Value& message,
                   std::chrono::milliseconds timeout = std::chrono::seconds(15));
  void close_now();

 private:
  int fd_ = -1;
  std::unique_ptr<ipc::RecvBuffer> buffer_;  // reused: a busy client reads many messages
};

Json::Value parse(const std::string& text);

// {"op": name}, and a perform_task request carrying the task `text`.
Json::Value op(const char* name);
Json::Value perform(uint32_t session_id, const std::string& text);

// A task request text for the example plugin, and arguments of type int.
std::string task_text(uint32_t session_id, uint32_t transac_id, const std::string& opcode,
                      uint32_t subsys, const std::string& function,
                      const Json::Value& args = Json::Value(Json::arrayValue));
Json::Value int_args(std::initializer_list<int64_t> values);

// Signs the API definition file `api_def` for `opcode` ("0x1001") with the
// private key in `key_pem` into `token_path`; throws when lumokit-token fails.
void sign_token(const std::string& key_pem, const std::string& opcode, const std::string& api_def,
                const std::string& token_path);

class Rig {
 public:
  Rig();
  ~Rig();

  // Starts lumokitd with the demo policy, --trust-client-ids unless
  // `trusted` is false, and `extra` arguments; waits until it answers.
  void start_daemon(const std::vector<std::string>& extra = {}, bool trusted = true);
  // Starts the example plugin and waits until both of its opcodes are ready.
  void start_plugin();
  ChildProcess& daemon() { return daemon_; }
  ChildProcess& plugin() { return plugin_; }

  const std::string& runtime_dir() const { return runtime_dir_; }
  std::string socket(const char* name) const { return runtime_dir_ + "/" + name; }
  std::unique_ptr<JsonClient> client() { return std::make_unique<JsonClient>(socket("client")); }
  std::unique_ptr<JsonClient> admin() { return std::make_unique<JsonClient>(socket("admin")); }
  // One admin request on a fresh connection.
  Json::Value admin_call(const Json::Value& request);
  Json::Value status();
  // Waits until `pred(status)` holds; false on timeout.
  template <typename Pred>
  bool wait_status(Pred pred, std::chrono::milliseconds timeout = std::chrono::seconds(15)) {
    return eventually(timeout, [&] { return pred(status()); });
  }
  std::string daemon_log() const { return read_file(dir_.path() + "/daemon.log"); }
  std::string plugin_log() const { return read_file(dir_.path() + "/plugin.log"); }
  const std::string& dir() const { return dir_.path(); }
  // Leaves the directory with its logs in place for a look after a failure.
  void keep_dir() { dir_.keep(); }

 private:
  TempDir dir_;
  std::string runtime_dir_;
  ChildProcess daemon_;
  ChildProcess plugin_;
};

// The status answer on the admin socket at `path` once `daemon` serves it;
// throws when the daemon exits or does not answer within 10 s.
Json::Value await_status(const std::string& path, ChildProcess& daemon);

// Opens a session on `client` (stating pid and uid) and returns its id;
// throws unless the answer is a successful kind 1 callback.
uint32_t open_session(JsonClient& client, int32_t pid, uint32_t uid, uint32_t handle = 7);

}  // namespace lumokit::e2e
