#include "e2e_rig.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "ipc/json_text.h"
#include "ipc/seqpacket.h"

namespace lumokit::e2e {

std::string bin_path(const std::string& name) { return std::string(LUMOKIT_BIN_DIR) + "/" + name; }
std::string source_path(const std::string& relative) {
  return std::string(LUMOKIT_SOURCE_DIR) + "/" + relative;
}

Json::Value parse(const std::string& text) {
  Json::Value v;
  std::string error;
  if (!lumokit::ipc::parse_json(text, &v, &error)) {
    throw std::runtime_error("not JSON (" + error + "): " + text.substr(0, 300));
  }
  return v;
}

JsonClient::JsonClient(const std::string& socket_path)
    : buffer_(std::make_unique<ipc::RecvBuffer>()) {
  std::string error;
  fd_ = lumokit::ipc::connect_seqpacket(socket_path, &error);
  if (fd_ < 0) throw std::runtime_error(error);
}

JsonClient::~JsonClient() { close_now(); }

void JsonClient::close_now() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

void JsonClient::send_text(const std::string& text) {
  if (!lumokit::ipc::send_message(fd_, text)) {
    throw std::runtime_error(std::string("send: ") + std::strerror(errno));
  }
}

void JsonClient::send(const Json::Value& message) { send_text(lumokit::ipc::write_json(message)); }

Json::Value JsonClient::next(std::chrono::milliseconds timeout) {
  pollfd p{fd_, POLLIN, 0};
  int rc = poll(&p, 1, static_cast<int>(timeout.count()));
  if (rc <= 0) throw std::runtime_error("no message within " + std::to_string(timeout.count()) + " ms");
  size_t length = 0;
  if (lumokit::ipc::recv_message(fd_, *buffer_, &length) != lumokit::ipc::RecvStatus::kMessage) {
    throw std::runtime_error("connection closed by the daemon");
  }
  return parse(std::string(buffer_->data.get(), length));
}

bool JsonClient::silent_for(std::chrono::milliseconds quiet) {
  pollfd p{fd_, POLLIN, 0};
  return poll(&p, 1, static_cast<int>(quiet.count())) == 0;
}

Json::Value JsonClient::call(const Json::Value& message, std::chrono::milliseconds timeout) {
  send(message);
  return next(timeout);
}

Json::Value op(const char* name) {
  Json::Value v(Json::objectValue);
  v["op"] = name;
  return v;
}

Json::Value perform(uint32_t session_id, const std::string& text) {
  Json::Value v = op("perform_task");
  v["session_id"] = session_id;
  v["request"] = text;
  return v;
}

Json::Value int_args(std::initializer_list<int64_t> values) {
  Json::Value args(Json::arrayValue);
  for (int64_t value : values) {
    Json::Value& arg = args.append(Json::objectValue);
    arg["type"] = "int";
    arg["value"] = Json::Int64(value);
  }
  return args;
}

std::string task_text(uint32_t session_id, uint32_t transac_id, const std::string& opcode,
                      uint32_t subsys, const std::string& function, const Json::Value& args) {
  Json::Value req(Json::objectValue);
  req["session_id"] = session_id;
  req["transac_id"] = transac_id;
  req["opcode"] = opcode;
  req["subsys_id"] = subsys;
  req["func"]["name"] = function;
  req["func"]["num_of_args"] = args.size();
  req["func"]["args"] = args;
  return lumokit::ipc::write_json(req);
}

void sign_token(const std::string& key_pem, const std::string& opcode, const std::string& api_def,
                const std::string& token_path) {
  std::string token;
  int rc = run_to_end(bin_path("lumokit-token"),
                      {"sign", "--key", key_pem, "--opcode", opcode, "--api-def", api_def}, &token);
  if (rc != 0) throw std::runtime_error("lumokit-token failed: " + token);
  if (!(std::ofstream(token_path) << token)) throw std::runtime_error("cannot write " + token_path);
}

Rig::Rig() : runtime_dir_(dir_.path() + "/run") {}

Rig::~Rig() {
  plugin_.kill_now();
  daemon_.kill_now();
}

Json::Value await_status(const std::string& path, ChildProcess& daemon) {
  for (auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);;) {
    try {
      return JsonClient(path).call(op("status"));
    } catch (const std::exception&) {
      if (daemon.wait_exit(std::chrono::milliseconds(0)) >= 0) {
        throw std::runtime_error("lumokitd exited at start");
      }
      if (std::chrono::steady_clock::now() > deadline) throw;
      std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
  }
}

void Rig::start_daemon(const std::vector<std::string>& extra, bool trusted) {
  std::vector<std::string> args = {"--runtime-dir", runtime_dir_, "--sys-policy",
                                   source_path("docs/examples/demo-policy.json")};
  if (trusted) args.push_back("--trust-client-ids");
  args.insert(args.end(), extra.begin(), extra.end());
  daemon_.start(bin_path("lumokitd"), args, dir_.path() + "/daemon.log");
  try {
    await_status(socket("admin"), daemon_);
  } catch (const std::exception& e) {
    throw std::runtime_error(e.what() + (": " + daemon_log()));
  }
}

void Rig::start_plugin() {
  const std::string tokens = dir_.path() + "/tokens";
  if (mkdir(tokens.c_str(), 0700) != 0 && errno != EEXIST) throw std::runtime_error("mkdir tokens");
  const std::pair<const char*, const char*> apis[] = {{"calculator", "0x1001"},
                                                      {"location", "0x2002"}};
  for (const auto& api : apis) {
    sign_token(source_path("keys/dev-token-key.pem"), api.second,
               source_path(std::string("examples/api/") + api.first + ".json"),
               tokens + "/" + api.first + ".token");
  }
  plugin_.start(bin_path("lumokit-example-plugin"),
                {"--socket", socket("lumo"), "--api-dir", source_path("examples/api"),
                 "--token-dir", tokens},
                dir_.path() + "/plugin.log");
  bool ready = wait_status([](const Json::Value& s) {
    int ready_pairs = 0;
    for (const Json::Value& p : s["state"]["plugins"]) {
      for (const Json::Value& pair : p["pairs"]) ready_pairs += pair["ready"].asBool() ? 1 : 0;
    }
    return ready_pairs == 2;
  });
  if (!ready) throw std::runtime_error("plugin not ready: " + plugin_log());
}

Json::Value Rig::admin_call(const Json::Value& request) {
  JsonClient admin(socket("admin"));
  return admin.call(request);
}

Json::Value Rig::status() { return admin_call(op("status")); }

uint32_t open_session(JsonClient& client, int32_t pid, uint32_t uid, uint32_t handle) {
  Json::Value req(Json::objectValue);
  req["op"] = "create_session";
  req["session_id"] = 0;
  req["handle"] = handle;
  req["pid"] = pid;
  req["uid"] = uid;
  Json::Value answer = client.call(req);
  if (answer["op"] != "callback" || answer["kind"].asInt() != 1 || answer["error"].asInt() != 0 ||
      answer["handle"].asUInt() != handle || answer["session_id"].asUInt() == 0) {
    throw std::runtime_error("create_session failed: " + lumokit::ipc::write_json(answer));
  }
  return answer["session_id"].asUInt();
}

}  // namespace lumokit::e2e
