#include "plugin_wire.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

#include <json/json.h>

#include "bench_util.h"
#include "token_key.h"
#include "token_sign.h"

namespace bench {

int connect_seqpacket(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof(addr.sun_path)) {
    close(fd);
    return -1;
  }
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

bool registration_members(uint32_t opcode, std::string* members, std::string* error) {
  Json::Value sub(Json::objectValue);
  sub["id"] = 1;
  sub["functions"] = Json::Value(Json::arrayValue);
  sub["functions"].append("benchEcho");
  Json::Value entry(Json::objectValue);
  entry["opcode"] = opcode_hex(opcode);
  entry["name"] = "bench";
  entry["subsystems"] = Json::Value(Json::arrayValue);
  entry["subsystems"].append(sub);
  Json::Value def(Json::arrayValue);
  def.append(entry);

  lumokit::token::KeyPtr key =
      lumokit::token::load_key(LUMOKIT_BENCH_KEY_PEM, lumokit::token::KeyUse::kSigning, error);
  if (!key) return false;
  const std::string compact = lumokit::token::compact_api_def(def);
  lumokit::token::TokenContent content;
  content.op_json[opcode] = lumokit::token::sha1_hex(compact);
  std::string token;
  if (!lumokit::token::sign_token(key.get(), content, &token, error)) return false;
  *members = ",\"api_def\":" + compact + ",\"Token\":\"" + token + "\"}";
  return true;
}

std::string request(int fd, const std::string& text, int timeout_ms) {
  if (send(fd, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) {
    return "";
  }
  static thread_local std::vector<char> buf(1 << 16);
  const int64_t deadline = now_ns() + static_cast<int64_t>(timeout_ms) * 1000000;
  for (;;) {
    const int left = static_cast<int>((deadline - now_ns()) / 1000000);
    if (left <= 0) return "";
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, left) <= 0) return "";
    ssize_t n = recv(fd, buf.data(), buf.size(), 0);
    if (n <= 0) return "";
    if (n >= 4 && memcmp(buf.data(), "PING", 4) == 0) continue;
    return std::string(buf.data(), static_cast<size_t>(n));
  }
}

namespace {

bool result_is_zero(const std::string& reply) {
  const size_t at = reply.find("\"result\": ");
  return at != std::string::npos && reply.compare(at + 10, 2, "0}") == 0;
}

}  // namespace

bool plugin_init(int fd, int* service_id) {
  const std::string reply = request(fd, "{\"req_type\":\"INIT\"}");
  uint32_t id = 0;
  if (!find_uint(reply.data(), reply.size(), "\"service_id\"", &id) || id == 0) return false;
  *service_id = static_cast<int>(id);
  return true;
}

bool plugin_auth(int fd, int service_id, uint32_t opcode, const std::string& members) {
  std::string text = "{\"req_type\":\"AUTH\",\"Opcode\":\"" + std::to_string(opcode) +
                     "\",\"Service_Id\":" + std::to_string(service_id) + members;
  return result_is_zero(request(fd, text));
}

bool plugin_redy(int fd, int service_id, uint32_t opcode) {
  std::string text = "{\"req_type\":\"REDY\",\"Service_Id\":" + std::to_string(service_id) +
                     ",\"Opcode\":\"" + std::to_string(opcode) + "\"}";
  return result_is_zero(request(fd, text));
}

bool plugin_dint(int fd, int service_id) {
  const std::string reply =
      request(fd, "{\"req_type\":\"DINT\",\"Service_Id\":" + std::to_string(service_id) + "}");
  return reply.compare(0, 1, "1") == 0;
}

namespace {

bool starts_with(const char* buf, size_t n, const char* prefix) {
  const size_t len = strlen(prefix);
  return n >= len && memcmp(buf, prefix, len) == 0;
}

bool send_text(int fd, const char* data, size_t len) {
  return send(fd, data, len, MSG_NOSIGNAL) == static_cast<ssize_t>(len);
}

// Accepts every pair of the notice: its "opcodes" array is already in the
// form the answer needs.
bool answer_start_session(int fd, const char* buf, size_t n, std::string& out) {
  uint32_t session_id = 0;
  find_uint(buf, n, "\"session_id\"", &session_id);
  static const char kKey[] = "\"opcodes\": ";
  const char* at = static_cast<const char*>(memmem(buf, n, kKey, sizeof(kKey) - 1));
  out = "{\"req_type\":\"start_session\",\"Result\":\"Success\",\"session_id\":";
  out += std::to_string(session_id);
  out += ",\"opcodes\":";
  if (at == nullptr) {
    out += "[]}";
  } else {
    const char* rest = at + sizeof(kKey) - 1;
    out.append(rest, static_cast<size_t>(buf + n - rest));
  }
  return send_text(fd, out.data(), out.size());
}

// The answer is as long as the task (at least the task text's usual size),
// so that a round trip moves the same bytes both ways at every size.
bool answer_task(int fd, const char* buf, size_t n, std::string& out) {
  uint32_t session_id = 0;
  uint32_t transac_id = 0;
  find_uint(buf, n, "\"session_id\"", &session_id);
  find_uint(buf, n, "\"transac_id\"", &transac_id);
  char head[128];
  const int len = snprintf(head, sizeof(head),
                           "{\"req_type\":\"exec_task\",\"session_id\":%u,\"transac_id\":%u,"
                           "\"status\":0,\"return\":\"",
                           session_id, transac_id);
  const size_t size = std::max(n, kTaskTextSize);
  out.assign(head, static_cast<size_t>(len));
  const size_t tail = 2;  // closing quote and brace
  if (out.size() + tail < size) out.append(size - tail - out.size(), 'y');
  out += "\"}";
  return send_text(fd, out.data(), out.size());
}

}  // namespace

void serve(int fd) {
  // Answers as large as the largest task must fit the socket in one send.
  allow_large_messages(fd);
  std::vector<char> storage(1 << 20);
  char* buf = storage.data();
  std::string out;
  static const char kEndOk[] = "{\"req_type\":\"end_session\",\"Result\":\"Success\"}";
  for (;;) {
    ssize_t r = recv(fd, buf, storage.size(), 0);
    if (r == 0) return;
    if (r < 0) {
      if (errno == EINTR) continue;
      return;
    }
    const size_t n = static_cast<size_t>(r);
    bool ok = true;
    if (starts_with(buf, n, "PING")) {
      continue;
    } else if (starts_with(buf, n, "{\"req_type\": \"start_session\"")) {
      ok = answer_start_session(fd, buf, n, out);
    } else if (starts_with(buf, n, "{\"req_type\":\"end_session\"")) {
      ok = send_text(fd, kEndOk, sizeof(kEndOk) - 1);
    } else if (starts_with(buf, n, "{\"req_type\"")) {
      continue;  // notices that need no answer
    } else {
      ok = answer_task(fd, buf, n, out);
    }
    if (!ok) return;
  }
}

}  // namespace bench
