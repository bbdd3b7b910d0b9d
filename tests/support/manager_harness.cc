#include "manager_harness.h"

#include <lumokit/host_platform.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "LumoManager.h"
#include "token_signer.h"

namespace lumokit::test {

namespace {

std::runtime_error failure(const std::string& what) { return std::runtime_error(what); }

int connect_seqpacket(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) throw failure("socket: " + std::string(strerror(errno)));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    int err = errno;
    close(fd);
    throw failure("connect " + path + ": " + strerror(err));
  }
  int size = 1 << 20;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
  return fd;
}

// Never destroyed: plugin handler threads may still report while the test
// process exits.
std::mutex& cb_mtx = *new std::mutex();
std::condition_variable& cb_cv = *new std::condition_variable();
std::vector<Callback>* recorded = new std::vector<Callback>();

void record(lumo_response_t kind, uint32_t session_id, std::string text, int32_t error_flag,
            uint32_t handle) {
  {
    std::lock_guard<std::mutex> lock(cb_mtx);
    recorded->push_back(Callback{kind, session_id, std::move(text), error_flag, handle});
  }
  cb_cv.notify_all();
}

}  // namespace

const std::string& start_manager() {
  static const std::string path = [] {
    char dir_template[] = "/tmp/lumokit-test-XXXXXX";
    if (mkdtemp(dir_template) == nullptr) throw failure("mkdtemp failed");
    std::string socket_path = std::string(dir_template) + "/lumo";
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, socket_path.c_str(), sizeof(addr.sun_path) - 1);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
      throw failure("bind " + socket_path + ": " + strerror(errno));
    }
    setenv("ANDROID_SOCKET_lumo", std::to_string(fd).c_str(), 1);
    static std::string* cleanup_dir = new std::string(dir_template);
    atexit([] {
      unlink((*cleanup_dir + "/lumo").c_str());
      rmdir(cleanup_dir->c_str());
    });
    std::thread([] { LumoServiceManagerServer::init_manager(); }).detach();
    // listen() happens on the manager thread; wait until a connect succeeds.
    for (int i = 0; i < 500; ++i) {
      int probe = socket(AF_UNIX, SOCK_SEQPACKET, 0);
      bool ok = connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
      if (ok) {
        // A clean goodbye so that the probe leaves no record.
        const char dint[] = "{\"req_type\":\"DINT\"}";
        ::send(probe, dint, sizeof(dint) - 1, MSG_NOSIGNAL);
        char buf[16];
        pollfd p{probe, POLLIN, 0};
        if (poll(&p, 1, 2000) > 0) ::recv(probe, buf, sizeof(buf), 0);
      }
      close(probe);
      if (ok) return socket_path;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    throw failure("manager did not start listening");
  }();
  return path;
}

LogCapture::LogCapture() {
  hook_id_ = lumokit::host::add_log_hook([this](int prio, const std::string& tag, const std::string& msg) {
    static const char letters[] = "??VDIWEF";
    char p = prio >= 2 && prio <= 7 ? letters[prio] : '?';
    {
      std::lock_guard<std::mutex> lock(mtx_);
      lines_.push_back(std::string(1, p) + "/" + tag + ": " + msg);
    }
    cv_.notify_all();
  });
}

LogCapture::~LogCapture() { lumokit::host::remove_log_hook(hook_id_); }

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(mtx_);
  return lines_;
}

size_t LogCapture::count(const std::string& text) const {
  std::lock_guard<std::mutex> lock(mtx_);
  size_t n = 0;
  for (const auto& line : lines_) n += line.find(text) != std::string::npos;
  return n;
}

bool LogCapture::contains(const std::string& text) const { return count(text) != 0; }

bool LogCapture::wait_for(const std::string& text, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mtx_);
  return cv_.wait_for(lock, timeout, [&] {
    for (const auto& line : lines_) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  });
}

RawPlugin::RawPlugin(const std::string& path) : fd_(connect_seqpacket(path)) {}

RawPlugin::~RawPlugin() {
  // A plugin still connected says goodbye and waits for the close, so that
  // its teardown is not still running while the test process exits.
  if (fd_ >= 0) {
    const std::string dint = "{\"req_type\":\"DINT\",\"Service_Id\":" + std::to_string(service_id_) + "}";
    if (::send(fd_, dint.data(), dint.size(), MSG_NOSIGNAL) > 0) {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
      char buf[4096];
      while (std::chrono::steady_clock::now() < deadline) {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, 100) > 0 && ::recv(fd_, buf, sizeof(buf), 0) <= 0) break;
      }
    }
  }
  close_socket();
}

void RawPlugin::close_socket() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

void RawPlugin::send(const std::string& text) {
  if (::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) {
    throw failure("send failed: " + std::string(strerror(errno)));
  }
}

std::string RawPlugin::recv(std::chrono::milliseconds timeout) {
  static thread_local std::vector<char> buffer(1 << 20);
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return "";
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) <= 0) return "";
    ssize_t n = ::recv(fd_, buffer.data(), buffer.size(), 0);
    if (n <= 0) return "";
    std::string text(buffer.data(), static_cast<size_t>(n));
    if (text == "PING ") continue;
    return text;
  }
}

bool RawPlugin::wait_closed(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  char buf[64];
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
    ssize_t n = ::recv(fd_, buf, sizeof(buf), MSG_DONTWAIT);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)) return true;
  }
}

std::string RawPlugin::request(const std::string& text) {
  send(text);
  return recv();
}

int RawPlugin::init() {
  Json::Value reply = parse_json(request("{\"req_type\":\"INIT\"}"));
  service_id_ = reply["service_id"].asInt();
  return service_id_;
}

std::string registration_message(const char* kind, int service_id, uint32_t opcode,
                                 const Json::Value& def, const std::string* token) {
  Json::Value msg(Json::objectValue);
  msg["req_type"] = kind;
  msg["Opcode"] = std::to_string(opcode);
  msg["Service_Id"] = service_id;
  msg["api_def"] = def;
  if (token) msg["Token"] = *token;
  Json::StreamWriterBuilder w;
  w["indentation"] = "";
  return Json::writeString(w, msg);
}

int RawPlugin::auth(uint32_t opcode, const Json::Value& def) {
  const std::string token = make_token(opcode, def);
  return parse_json(request(registration_message("AUTH", service_id_, opcode, def, &token)))["result"].asInt();
}

int RawPlugin::regs(uint32_t opcode, const Json::Value& def) {
  return parse_json(request(registration_message("REGS", service_id_, opcode, def, nullptr)))["result"].asInt();
}

int RawPlugin::redy(uint32_t opcode) {
  std::string text = "{\"req_type\":\"REDY\",\"Service_Id\":" + std::to_string(service_id_) +
                     ",\"Opcode\":\"" + std::to_string(opcode) + "\"}";
  return parse_json(request(text))["result"].asInt();
}

std::string RawPlugin::dint() {
  return request("{\"req_type\":\"DINT\",\"Service_Id\":" + std::to_string(service_id_) + "}");
}

std::string start_session_answer(const std::string& notice, bool accept) {
  // The opcode list may open with a comma; drop it to parse.
  std::string parsable = notice;
  size_t quirk = parsable.find("[,");
  if (quirk != std::string::npos) parsable.erase(quirk + 1, 1);
  Json::Value n = parse_json(parsable);
  Json::Value answer(Json::objectValue);
  answer["req_type"] = "start_session";
  answer["Result"] = accept ? "Success" : "Failure";
  answer["session_id"] = n["session_id"];
  answer["opcodes"] = n["opcodes"];
  Json::StreamWriterBuilder w;
  w["indentation"] = "";
  return Json::writeString(w, answer);
}

std::string RawPlugin::answer_start_session(bool accept) {
  std::string notice = recv();
  if (notice.find("\"start_session\"") == std::string::npos) {
    throw failure("expected a start_session notice, got: " + notice);
  }
  send(start_session_answer(notice, accept));
  return notice;
}

std::string RawPlugin::answer_end_session(bool success) {
  std::string notice = recv();
  if (notice.find("\"end_session\"") == std::string::npos) {
    throw failure("expected an end_session request, got: " + notice);
  }
  send(std::string("{\"req_type\":\"end_session\",\"Result\":\"") + (success ? "Success" : "Failure") +
       "\"}");
  return notice;
}

Json::Value api_def(uint32_t opcode, const std::vector<uint32_t>& subsystems, const std::string& name) {
  char hex[16];
  snprintf(hex, sizeof(hex), "0x%x", opcode);
  Json::Value entry(Json::objectValue);
  entry["opcode"] = hex;
  entry["name"] = name;
  Json::Value subs(Json::arrayValue);
  for (uint32_t id : subsystems) {
    Json::Value sub(Json::objectValue);
    sub["id"] = id;
    sub["functions"] = Json::Value(Json::arrayValue);
    sub["functions"].append("f" + std::to_string(id));
    subs.append(sub);
  }
  entry["subsystems"] = subs;
  Json::Value def(Json::arrayValue);
  def.append(entry);
  return def;
}

void bring_up(RawPlugin& plugin, uint32_t opcode, const std::vector<uint32_t>& subsystems,
              const std::string& name) {
  if (plugin.service_id() == 0) plugin.init();
  if (plugin.auth(opcode, api_def(opcode, subsystems, name)) != 0) throw failure("AUTH refused");
  if (plugin.redy(opcode) != 0) throw failure("REDY refused");
}

std::string task_request(uint32_t session_id, uint32_t transac_id, const std::string& opcode,
                         uint32_t subsys, const std::string& func_name,
                         const std::vector<std::string>& arg_types) {
  std::string args;
  for (size_t i = 0; i < arg_types.size(); ++i) {
    if (i) args += ",";
    args += "{\"type\":\"" + arg_types[i] + "\",\"value\":" + std::to_string(i) + "}";
  }
  return "{\"session_id\":" + std::to_string(session_id) + ",\"transac_id\":" +
         std::to_string(transac_id) + ",\"opcode\":\"" + opcode + "\",\"subsys_id\":" +
         std::to_string(subsys) + ",\"func\":{\"name\":\"" + func_name + "\",\"num_of_args\":" +
         std::to_string(arg_types.size()) + ",\"args\":[" + args + "]}}";
}

lumo_callback recording_callback() { return record; }

std::vector<Callback> callbacks() {
  std::lock_guard<std::mutex> lock(cb_mtx);
  return *recorded;
}

void clear_callbacks() {
  std::lock_guard<std::mutex> lock(cb_mtx);
  recorded->clear();
}

bool wait_for_callbacks(size_t n, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(cb_mtx);
  return cb_cv.wait_for(lock, timeout, [n] { return recorded->size() >= n; });
}

Json::Value parse_json(const std::string& text) {
  Json::CharReaderBuilder b;
  std::unique_ptr<Json::CharReader> r(b.newCharReader());
  Json::Value v;
  std::string err;
  if (!r->parse(text.data(), text.data() + text.size(), &v, &err)) {
    throw failure("not JSON (" + err + "): " + text);
  }
  return v;
}

Json::Value state_dump() { return parse_json(lumokit_state_dump()); }

}  // namespace lumokit::test
