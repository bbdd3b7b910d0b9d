#include "manager_harness.h"

#include <gtest/gtest.h>
#include <lumokit/host_platform.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "LumoManager.h"
#include "LumoSysAccess.h"
#include "host/lumo_sys_host.h"
#include "token_signer.h"

namespace lumokit::test {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

std::runtime_error failure(const std::string& what) { return std::runtime_error(what); }

sockaddr_un unix_address(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  return addr;
}

int connect_seqpacket(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) throw failure("socket: " + std::string(strerror(errno)));
  const sockaddr_un addr = unix_address(path);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
    int err = errno;
    close(fd);
    throw failure("connect " + path + ": " + strerror(err));
  }
  int size = 1 << 20;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
  return fd;
}

// Waits for something to read on `fd` until `deadline`.
bool readable(int fd, Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  pollfd p{fd, POLLIN, 0};
  return left.count() > 0 && poll(&p, 1, static_cast<int>(left.count())) > 0;
}

// Never destroyed: plugin handler threads may still report while the test
// process exits.
std::mutex& cb_mtx = *new std::mutex();
std::vector<Callback>* recorded = new std::vector<Callback>();

void record(lumo_response_t kind, uint32_t session_id, std::string text, int32_t error_flag,
            uint32_t handle) {
  std::lock_guard<std::mutex> lock(cb_mtx);
  recorded->push_back(Callback{kind, session_id, std::move(text), error_flag, handle});
}

Json::Value state_entry(const char* table, const char* id_member, uint32_t id) {
  const Json::Value dump = state_dump();
  for (const Json::Value& entry : dump[table]) {
    if (entry[id_member].asUInt() == id) return entry;
  }
  return Json::Value();
}

}  // namespace

const std::string& start_manager() {
  static const std::string path = [] {
    char dir_template[] = "/tmp/lumokit-test-XXXXXX";
    if (mkdtemp(dir_template) == nullptr) throw failure("mkdtemp failed");
    std::string socket_path = std::string(dir_template) + "/lumo";
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    const sockaddr_un addr = unix_address(socket_path);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
      throw failure("bind " + socket_path + ": " + strerror(errno));
    }
    setenv("ANDROID_SOCKET_lumo", std::to_string(fd).c_str(), 1);
    static std::string* cleanup_dir = new std::string(dir_template);
    atexit([] {
      unlink((*cleanup_dir + "/lumo").c_str());
      rmdir(cleanup_dir->c_str());
    });
    std::thread([] { LumoServiceManagerServer::init_manager(); }).detach();
    // listen() happens on the manager thread; wait until a connection is
    // taken. The probe's goodbye, before any INIT, leaves no record.
    for (int i = 0; i < 500; ++i) {
      try {
        RawPlugin probe(socket_path);
        return socket_path;
      } catch (const std::exception&) {
        std::this_thread::sleep_for(10ms);
      }
    }
    throw failure("manager did not start listening");
  }();
  return path;
}

bool wait_until(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    if (pred()) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(10ms);
  }
}

LogCapture::LogCapture() {
  hook_id_ = lumokit::host::add_log_hook([this](int prio, const std::string& tag, const std::string& msg) {
    static const char letters[] = "??VDIWEF";
    char p = prio >= 2 && prio <= 7 ? letters[prio] : '?';
    std::lock_guard<std::mutex> lock(mtx_);
    lines_.push_back(std::string(1, p) + "/" + tag + ": " + msg);
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
  return wait_until([&] { return contains(text); }, timeout);
}

RawPlugin::RawPlugin(const std::string& path) : fd_(connect_seqpacket(path)) {}

RawPlugin::~RawPlugin() {
  // A plugin still connected says goodbye and waits for the close, so that
  // its teardown is not still running while the test process exits.
  if (fd_ >= 0) {
    const std::string dint = "{\"req_type\":\"DINT\",\"Service_Id\":" + std::to_string(service_id_) + "}";
    if (::send(fd_, dint.data(), dint.size(), MSG_NOSIGNAL) > 0) wait_closed(5s);
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

std::string RawPlugin::recv(std::chrono::milliseconds timeout, bool keep_probes) {
  static thread_local std::vector<char> buffer(1 << 20);
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    if (!readable(fd_, deadline)) return "";
    ssize_t n = ::recv(fd_, buffer.data(), buffer.size(), 0);
    if (n <= 0) return "";
    std::string text(buffer.data(), static_cast<size_t>(n));
    if (keep_probes || text != "PING ") return text;
  }
}

bool RawPlugin::wait_closed(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  char buf[4096];
  while (readable(fd_, deadline)) {
    ssize_t n = ::recv(fd_, buf, sizeof(buf), MSG_DONTWAIT);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)) return true;
  }
  return false;
}

std::string RawPlugin::request(const std::string& text) {
  send(text);
  return recv();
}

int RawPlugin::init() {
  service_id_ = parse_json(request("{\"req_type\":\"INIT\"}"))["service_id"].asInt();
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
  return compact(msg);
}

int RawPlugin::auth(uint32_t opcode, const Json::Value& def) {
  const std::string token = make_token(opcode, def);
  return parse_json(request(registration_message("AUTH", service_id_, opcode, def, &token)))["result"].asInt();
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
  return compact(answer);
}

std::string exec_answer(uint32_t session_id, uint32_t transac_id) {
  return "{\"req_type\":\"exec_task\",\"session_id\":" + std::to_string(session_id) +
         ",\"transac_id\":" + std::to_string(transac_id) + "}";
}

std::string registration_reply(const char* kind, const std::string& opcode, int result) {
  return std::string("{\"req_type\": \"") + kind + "\",\"opcode\": \"" + opcode +
         "\", \"result\": " + std::to_string(result) + "} ";
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
  Json::Value def =
      parse_json("[{\"opcode\":\"" + std::string(hex) + "\",\"name\":\"\",\"subsystems\":[]}]");
  def[0]["name"] = name;
  for (uint32_t id : subsystems) {
    const std::string n = std::to_string(id);
    def[0]["subsystems"].append(parse_json("{\"id\":" + n + ",\"functions\":[\"f" + n + "\"]}"));
  }
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

bool operator==(const Callback& a, const Callback& b) {
  return a.kind == b.kind && a.session_id == b.session_id && a.text == b.text &&
         a.error_flag == b.error_flag && a.handle == b.handle;
}

std::ostream& operator<<(std::ostream& out, const Callback& cb) {
  return out << "{kind " << cb.kind << ", session " << cb.session_id << ", text " << cb.text
             << ", error " << cb.error_flag << ", handle " << cb.handle << "}";
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
  return wait_until([n] { return callbacks().size() >= n; }, timeout);
}

std::thread create_session_async(uint32_t handle, uint32_t session_id, lumo_callback callback,
                                 int32_t pid, uint32_t uid) {
  return std::thread([=] { create_session("{}", callback, session_id, handle, pid, uid); });
}

uint32_t open_session(std::initializer_list<RawPlugin*> plugins, uint32_t handle, int32_t pid,
                      uint32_t uid) {
  std::thread client = create_session_async(handle, 0, recording_callback(), pid, uid);
  std::string problem;
  try {
    for (RawPlugin* plugin : plugins) plugin->answer_start_session(true);
  } catch (const std::exception& e) {
    problem = e.what();
  }
  client.join();
  for (const Callback& cb : callbacks()) {
    if (problem.empty() && cb.kind == LUMO_RESPONSE_CREATE_SESSION && cb.handle == handle &&
        cb.error_flag == 0 && cb.session_id != 0) {
      clear_callbacks();
      return cb.session_id;
    }
  }
  throw failure("no session opened " + problem);
}

std::future<uint32_t> cancel_async(uint32_t session_id, uint32_t opcode, uint32_t subsys) {
  return std::async(std::launch::async, [=] { return cancel_session(session_id, opcode, subsys); });
}

uint32_t cancel_answered(RawPlugin& plugin, uint32_t session_id, uint32_t opcode, uint32_t subsys) {
  std::future<uint32_t> result = cancel_async(session_id, opcode, subsys);
  plugin.answer_end_session();  // a throw waits for the cancel in the future's destructor
  return result.get();
}

std::string compact(const Json::Value& value) {
  Json::StreamWriterBuilder w;
  w["indentation"] = "";
  return Json::writeString(w, value);
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

Json::Value plugin_state(int service_id) {
  return state_entry("plugins", "service_id", static_cast<uint32_t>(service_id));
}

Json::Value session_state(uint32_t session_id) {
  return state_entry("sessions", "session_id", session_id);
}

std::string pair_list(const Json::Value& pairs) {
  std::string text;
  for (const Json::Value& p : pairs) {
    text += p["opcode"].asString() + "/" + std::to_string(p["subsystem"].asUInt()) + " ";
  }
  return text;
}

void expect_exchanges(RawPlugin& plugin, const std::vector<Exchange>& cases) {
  LogCapture log;
  for (const Exchange& c : cases) {
    SCOPED_TRACE(c.message.substr(0, 120));
    clear_callbacks();
    const size_t unreadable = log.count(kUnreadable);
    const size_t logged = c.log.empty() ? 0 : log.count(c.log);
    plugin.send(c.message);
    EXPECT_EQ(plugin.recv(c.reply.empty() ? 300ms : 3000ms), c.reply);
    if (!c.callback.empty()) {
      EXPECT_TRUE(wait_for_callbacks(1, 3s));
      ASSERT_EQ(callbacks().size(), 1u);
      EXPECT_EQ(callbacks()[0].text, c.callback);
      EXPECT_EQ(callbacks()[0].handle, 0u);  // an unreadable transaction number
    } else {
      EXPECT_TRUE(callbacks().empty());
    }
    if (!c.log.empty()) {
      EXPECT_GT(log.count(c.log), logged) << c.log;
    }
    EXPECT_EQ(log.count(kUnreadable) - unreadable, c.log == kUnreadable ? 1u : 0u);
  }
}

bool wait_for_sys_callback(std::chrono::milliseconds timeout) {
  // Negative pids never belong to a client, so the probe touches no cache
  // entry; uid 1 is no app of any test policy.
  static std::atomic<int32_t> probe_pid{-1000};
  // Never destroyed: manager threads log at any time, also after a test.
  static LogCapture* const log = new LogCapture();
  return wait_until(
      [] {
        const int32_t pid = probe_pid.fetch_sub(1);
        if (!lumosys::host::set_permission(pid, 1, "lumokit.test.PROBE", true)) return false;
        return log->contains("onpermissionchanged pid : " + std::to_string(pid) + " ");
      },
      timeout);
}

bool connect_sys_service(const std::string& policy, std::string* error) {
  if (!lumosys::host::load_policy_text(policy, error)) return false;
  set_boot_wait_step_for_testing(1);
  lumokit::host::set_property("sys.boot_completed", "1");
  if (getLumokitSysServiceHandle() != 0) {
    *error = "getLumokitSysServiceHandle failed";
    return false;
  }
  if (!wait_for_sys_callback(std::chrono::milliseconds(5000))) {
    *error = "the permission-change callback was never registered";
    return false;
  }
  return true;
}

}  // namespace lumokit::test
