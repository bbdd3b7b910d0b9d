#include "minimal_host.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "LumokitSessionManager.h"
#include "manager_host.h"
#include "peer_roles.h"
#include "scenarios.h"

namespace bench {
namespace {

int client_fd = -1;

void append_escaped(std::string& out, const std::string& text) {
  out += '"';
  for (char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char esc[8];
      snprintf(esc, sizeof(esc), "\\u%04x", static_cast<unsigned char>(c));
      out += esc;
    } else {
      out += c;
    }
  }
  out += '"';
}

void to_client(lumo_response_t kind, uint32_t session_id, std::string text, int32_t error_flag,
               uint32_t handle) {
  std::string msg = "{\"op\":\"callback\",\"kind\":" + std::to_string(static_cast<int>(kind)) +
                    ",\"session_id\":" + std::to_string(session_id) + ",\"text\":";
  append_escaped(msg, text);
  msg += ",\"error\":" + std::to_string(error_flag) + ",\"handle\":" + std::to_string(handle) + "}";
  send(client_fd, msg.data(), msg.size(), MSG_NOSIGNAL);
}

}  // namespace

int run_minimal_host(int fd) {
  client_fd = fd;
  const std::string socket = start_manager(false);
  std::vector<pid_t> plugins;
  std::string error;
  if (socket.empty() || !start_plugins(socket, kBaseOpcode, 1, 1, true, &plugins, &error)) {
    fprintf(stderr, "bench host: %s\n", error.c_str());
    remove_manager_socket();
    _exit(1);
  }
  static const char kReady[] = "{\"op\":\"ready\"}";
  send(fd, kReady, sizeof(kReady) - 1, MSG_NOSIGNAL);

  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::vector<char> buf(1 << 20);
  for (;;) {
    ssize_t n = recv(fd, buf.data(), buf.size(), 0);
    if (n <= 0) break;
    Json::Value msg;
    std::string errors;
    if (!reader->parse(buf.data(), buf.data() + n, &msg, &errors) || !msg.isObject()) continue;
    const std::string op = msg["op"].asString();
    if (op == "perform_task") {
      perform_task(msg["request"].asString(), to_client, msg["session_id"].asUInt());
    } else if (op == "create_session") {
      create_session(msg["request"].asString(), to_client, msg["session_id"].asUInt(),
                     msg["handle"].asUInt(), 4242, 10123);
    }
  }
  remove_manager_socket();
  _exit(0);
}

}  // namespace bench
