// What a hostile plugin or client can and cannot do against lumokitd with
// the real manager: tokens, the separation of plugins' traffic, the pairs a
// session may reach, the service ids that plugins state about themselves,
// and input nested deeper than any reader's recursion should follow.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "e2e_rig.h"
#include "ipc/json_text.h"
#include "ipc/seqpacket.h"

namespace lumokit::e2e {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

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

Json::Value two_ints() {
  Json::Value a(Json::arrayValue);
  a.append(int_arg(2));
  a.append(int_arg(3));
  return a;
}

std::string write_file(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

std::string nested(size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

// A plugin speaking the raw wire protocol on the daemon's plugin socket.
class RawPlugin {
 public:
  explicit RawPlugin(const std::string& path) {
    std::string error;
    fd_ = ipc::connect_seqpacket(path, &error);
    if (fd_ < 0) throw std::runtime_error(error);
  }
  ~RawPlugin() {
    if (fd_ >= 0) close(fd_);
  }
  RawPlugin(const RawPlugin&) = delete;
  RawPlugin& operator=(const RawPlugin&) = delete;

  void send(const std::string& text) {
    if (::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) {
      throw std::runtime_error(std::string("plugin send: ") + std::strerror(errno));
    }
  }
  void send(const Json::Value& message) { send(ipc::write_json(message)); }
  // The next message, skipping probes; empty on timeout or close.
  std::string recv(milliseconds timeout = milliseconds(5000)) {
    std::string buffer(1 << 20, '\0');
    for (;;) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(timeout.count())) <= 0) return "";
      ssize_t n = ::recv(fd_, buffer.data(), buffer.size(), 0);
      if (n <= 0) return "";
      std::string text = buffer.substr(0, static_cast<size_t>(n));
      if (text != "PING ") return text;
    }
  }
  Json::Value request(const Json::Value& message) {
    send(message);
    return parse(recv());
  }
  int init() {
    Json::Value m(Json::objectValue);
    m["req_type"] = "INIT";
    id_ = request(m)["service_id"].asInt();
    return id_;
  }
  // Registration: "REGS" without a token, or "AUTH" with one; the result.
  int register_api(const char* kind, uint32_t opcode, const Json::Value& api_def, int service_id,
                   const std::string* token = nullptr) {
    Json::Value m(Json::objectValue);
    m["req_type"] = kind;
    m["Opcode"] = std::to_string(opcode);
    m["Service_Id"] = service_id;
    m["api_def"] = api_def;
    if (token != nullptr) m["Token"] = *token;
    return request(m)["result"].asInt();
  }
  int redy(uint32_t opcode, int service_id) {
    Json::Value m(Json::objectValue);
    m["req_type"] = "REDY";
    m["Opcode"] = std::to_string(opcode);
    m["Service_Id"] = service_id;
    return request(m)["result"].asInt();
  }
  // Reads a session-start notice and accepts or refuses every pair in it.
  Json::Value answer_start_session(bool accept) {
    const Json::Value notice = parse(recv());
    if (notice["req_type"] != "start_session") {
      throw std::runtime_error("expected start_session, got " + ipc::write_json(notice));
    }
    Json::Value answer(Json::objectValue);
    answer["req_type"] = "start_session";
    answer["Result"] = accept ? "Success" : "Failure";
    answer["session_id"] = notice["session_id"];
    answer["opcodes"] = notice["opcodes"];
    send(answer);
    return notice;
  }
  int id() const { return id_; }

 private:
  int fd_ = -1;
  int id_ = 0;
};

Json::Value api_def(const std::string& opcode_hex, uint32_t subsystem) {
  Json::Value def = parse(R"([{"name":"intruder","subsystems":[{"id":1,"functions":[]}]}])");
  def[0]["opcode"] = opcode_hex;
  def[0]["subsystems"][0]["id"] = subsystem;
  return def;
}

Json::Value example_def(const char* name) {
  return parse(read_file(source_path(std::string("examples/api/") + name + ".json")))["api_def"];
}

// Opens a session while `plugins` answer their start-session notices.
uint32_t open_session_with(JsonClient& client, int32_t pid,
                           std::initializer_list<std::pair<RawPlugin*, bool>> plugins) {
  Json::Value req = op("create_session");
  req["pid"] = pid;
  req["uid"] = 10123;
  req["handle"] = 1;
  client.send(req);
  for (const auto& p : plugins) p.first->answer_start_session(p.second);
  const Json::Value answer = client.next(seconds(15));
  if (answer["kind"].asInt() != 1 || answer["error"].asInt() != 0) {
    throw std::runtime_error("create_session failed: " + ipc::write_json(answer));
  }
  return answer["session_id"].asUInt();
}

// Service id of the plugin holding `opcode_hex`/`subsystem` in the status'
// plugin list; 0 when none does.
int holder_of(const Json::Value& status, const std::string& opcode_hex, uint32_t subsystem) {
  for (const Json::Value& p : status["state"]["plugins"]) {
    for (const Json::Value& pair : p["pairs"]) {
      if (pair["opcode"] == opcode_hex && pair["subsystem"].asUInt() == subsystem) {
        return p["service_id"].asInt();
      }
    }
  }
  return 0;
}

int registry_id(const Json::Value& status, const std::string& opcode_hex, uint32_t subsystem) {
  for (const Json::Value& r : status["state"]["registry"]) {
    if (r["opcode"] == opcode_hex && r["subsystem"].asUInt() == subsystem) {
      return r["service_id"].asInt();
    }
  }
  return 0;
}

class Security : public ::testing::Test {
 protected:
  void SetUp() override {
    rig.start_daemon();
    rig.start_plugin();
    example_id = holder_of(rig.status(), "0x1001", 1);
    ASSERT_NE(example_id, 0);
  }
  Rig rig;
  int example_id = 0;
};

TEST_F(Security, TokensProveTheDefinitionButNotThePlugin) {
  RawPlugin intruder(rig.socket("lumo"));
  const int id = intruder.init();
  const std::string own_key = rig.dir() + "/own-key.pem";
  std::string out;
  ASSERT_EQ(run_to_end(bin_path("lumokit-token"), {"keygen", "--out", own_key}, &out), 0) << out;
  std::string forged;
  ASSERT_EQ(run_to_end(bin_path("lumokit-token"),
                       {"sign", "--key", own_key, "--opcode", "0x1001", "--api-def",
                        source_path("examples/api/calculator.json")},
                       &forged),
            0)
      << forged;
  // The example plugin's own token, as another plugin could copy it.
  const std::string copied = read_file(rig.dir() + "/tokens/calculator.token");
  ASSERT_FALSE(copied.empty());
  Json::Value altered = example_def("calculator");
  altered[0]["subsystems"][0]["id"] = 2;

  struct Case {
    const char* what;
    uint32_t opcode;
    Json::Value def;
    std::string token;
    const char* log;
  };
  const Case refused[] = {
      {"signed by another key", 0x1001, example_def("calculator"), forged,
       "Failed to validate token authenticity."},
      {"copied token, another opcode", 0x2002, example_def("location"), copied,
       "Token is not valid for provided opcode: 8194"},
      {"copied token, altered definition", 0x1001, altered, copied,
       "Token is not valid for provided json api definition."},
  };
  for (const Case& c : refused) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(intruder.register_api("AUTH", c.opcode, c.def, id, &c.token), -1);
    EXPECT_NE(rig.daemon_log().find(c.log), std::string::npos);
  }

  // The copied token with its own definition passes: nothing ties it to the
  // plugin it was issued for. While the owner is connected, the pair stays
  // the owner's.
  EXPECT_EQ(intruder.register_api("AUTH", 0x1001, example_def("calculator"), id, &copied), 0);
  Json::Value status = rig.status();
  EXPECT_EQ(holder_of(status, "0x1001", 1), example_id);
  EXPECT_EQ(registry_id(status, "0x1001", 1), example_id);

  // Once the owner has left, the same token registers the API for the
  // intruder, and the clients' tasks go to it.
  rig.plugin().signal(SIGTERM);
  int wait_status = 0;
  ASSERT_TRUE(rig.plugin().wait_exit(seconds(10), &wait_status));
  ASSERT_TRUE(rig.wait_status([](const Json::Value& s) { return s["state"]["registry"].empty(); }));
  ASSERT_EQ(intruder.register_api("AUTH", 0x1001, example_def("calculator"), id, &copied), 0);
  ASSERT_EQ(intruder.redy(0x1001, id), 0);
  auto client = rig.client();
  const uint32_t sid = open_session_with(*client, 4242, {{&intruder, true}});
  const std::string task = task_text(sid, 5, "0x1001", 1, "add", two_ints());
  client->send(perform(sid, task));
  EXPECT_EQ(intruder.recv(), task);
  intruder.send(R"({"req_type":"exec_task","session_id":)" + std::to_string(sid) +
                R"(,"transac_id":5,"return":-1})");
  const Json::Value answer = client->next();
  EXPECT_EQ(parse(answer["text"].asString())["return"].asInt(), -1);
}

TEST_F(Security, PluginsSeeOnlyTheirTrafficButMayAnswerForAnySession) {
  const Json::Value no_args(Json::arrayValue);
  RawPlugin intruder(rig.socket("lumo"));
  const int id = intruder.init();
  // The legacy registration needs no token at all.
  ASSERT_EQ(intruder.register_api("REGS", 0x3003, api_def("0x3003", 1), id), 0);
  ASSERT_EQ(intruder.redy(0x3003, id), 0);

  auto owner = rig.client();
  auto bystander = rig.client();
  // Each plugin hears only of its own pairs.
  Json::Value req = op("create_session");
  req["pid"] = 4242;
  req["uid"] = 10123;
  owner->send(req);
  const Json::Value notice = intruder.answer_start_session(true);
  EXPECT_EQ(ipc::write_json(notice["opcodes"]), R"([{"id":"0x3003","subsystems":[{"id":1}]}])");
  const uint32_t sid = owner->next(seconds(15))["session_id"].asUInt();
  ASSERT_NE(sid, 0u);
  const uint32_t other = open_session_with(*bystander, 4243, {{&intruder, false}});

  // Tasks for the example plugin's pair never reach the intruder.
  const Json::Value added =
      owner->call(perform(sid, task_text(sid, 1, "0x1001", 1, "add", two_ints())));
  EXPECT_EQ(parse(added["text"].asString())["return"].asInt(), 5);
  EXPECT_EQ(intruder.recv(milliseconds(300)), "");

  // A pair registered after the session opened was never granted to it.
  ASSERT_EQ(intruder.register_api("REGS", 0x4004, api_def("0x4004", 1), id), 0);
  ASSERT_EQ(intruder.redy(0x4004, id), 0);
  const Json::Value late =
      owner->call(perform(sid, task_text(sid, 2, "0x4004", 1, "f", no_args)));
  EXPECT_EQ(parse(late["text"].asString())["status"].asInt(), -8);

  // A task text naming another session is dropped without a word; so is
  // any request on a session owned by another connection.
  owner->send(perform(sid, task_text(other, 3, "0x3003", 1, "f", no_args)));
  EXPECT_TRUE(owner->silent_for(milliseconds(500)));
  const Json::Value intrusion =
      bystander->call(perform(sid, task_text(sid, 4, "0x3003", 1, "f", no_args)));
  EXPECT_EQ(intrusion["op"], "error");
  EXPECT_TRUE(bystander->silent_for(milliseconds(300)));
  EXPECT_EQ(intruder.recv(milliseconds(300)), "");

  // Not protected: a plugin's answer goes to whichever session it names,
  // even one that the plugin refused to start. (Bytes that are not UTF-8
  // reach the client as U+FFFD.)
  intruder.send(R"({"req_type":"exec_task","session_id":)" + std::to_string(other) +
                R"(,"transac_id":77,"return":"forged)" "\xff" R"("})");
  const Json::Value forged = bystander->next();
  EXPECT_EQ(forged["session_id"].asUInt(), other);
  EXPECT_EQ(forged["handle"].asUInt(), 77u);
  EXPECT_EQ(parse(forged["text"].asString())["return"], "forged\xEF\xBF\xBD");

  // Not protected: questions about any session's client are answered.
  Json::Value query = parse(
      R"({"req_type":"INFO_QUERY","QueryInfos":["app.id.pid","app.name.package"]})");
  query["Session_Id"] = std::to_string(other);
  intruder.send(query);
  EXPECT_EQ(intruder.recv(), "{\"req_type\":\"INFO_QUERY\",\"QueryInfosRes\":\"SUCCESS:4243\","
                             "\"SUCCESS:com.example.maps\"} ");
  Json::Value question = parse(
      R"({"req_type":"PERMISSION","Permissions":["android.permission.ACCESS_FINE_LOCATION"]})");
  question["Session_Id"] = std::to_string(other);
  intruder.send(question);
  EXPECT_EQ(intruder.recv(), "{\"req_type\":\"PERMISSION\",\"status\": 0,\"PermRes\":[\"1\"]} ");
}

TEST_F(Security, ServiceIdsInPluginMessagesAreTakenOnTrust) {
  auto client = rig.client();
  RawPlugin intruder(rig.socket("lumo"));
  const int id = intruder.init();
  ASSERT_EQ(intruder.register_api("REGS", 0x3003, api_def("0x3003", 1), id), 0);
  ASSERT_EQ(intruder.redy(0x3003, id), 0);
  const uint32_t sid = open_session_with(*client, 4242, {{&intruder, true}});

  // Registering and readying a pair in another plugin's name: the victim's
  // record gains it and the registry routes it to the victim.
  ASSERT_EQ(intruder.register_api("REGS", 0x5005, api_def("0x5005", 1), example_id), 0);
  ASSERT_EQ(intruder.redy(0x5005, example_id), 0);
  Json::Value status = rig.status();
  EXPECT_EQ(holder_of(status, "0x5005", 1), example_id);
  EXPECT_EQ(registry_id(status, "0x5005", 1), example_id);

  // An unasked session-start answer naming the victim's pair, then a
  // goodbye naming the victim's id: the victim's record is removed while
  // it stays connected, and the session loses the pair.
  Json::Value claim = parse(R"({"req_type":"start_session","Result":"Success",
                               "opcodes":[{"id":"0x1001","subsystems":[{"id":1}]}]})");
  claim["session_id"] = sid;
  intruder.send(claim);
  Json::Value dint(Json::objectValue);
  dint["req_type"] = "DINT";
  dint["Service_Id"] = example_id;
  intruder.send(dint);
  EXPECT_EQ(intruder.recv(), "1 ");

  // The client is told of the intruder's pairs only.
  const Json::Value notice = client->next();
  EXPECT_EQ(notice["error"].asInt(), 1);
  EXPECT_EQ(notice["text"], R"({"opcodes":[{"opcode" : 12291, "subsystems": [{"id" : 1}]}]})");
  status = rig.status();
  EXPECT_EQ(holder_of(status, "0x1001", 1), 0);
  EXPECT_EQ(registry_id(status, "0x1001", 1), example_id);  // names a removed plugin
  Json::Value session;
  for (const Json::Value& s : status["state"]["sessions"]) {
    if (s["session_id"].asUInt() == sid) session = s;
  }
  ASSERT_TRUE(session.isObject());
  // The victim's id left the session's plugin list; the departed
  // intruder's stayed.
  EXPECT_EQ(ipc::write_json(session["plugins"]), "[" + std::to_string(id) + "]");
  EXPECT_EQ(ipc::write_json(session["connected"]),
            R"([{"opcode":"0x2002","subsystem":3}])");

  // Tasks for the victim's pairs now vanish without an answer, although
  // the victim is still running and connected.
  client->send(perform(sid, task_text(sid, 9, "0x1001", 1, "add", two_ints())));
  EXPECT_TRUE(client->silent_for(milliseconds(1500)));
  int wait_status = 0;
  EXPECT_FALSE(rig.plugin().wait_exit(milliseconds(0), &wait_status));
}

// Without --trust-client-ids a client cannot claim another process's ids:
// the permission checks and the plugins' questions see the kernel's.
TEST(SecurityClientIds, ComeFromTheKernelUnlessTrusted) {
  Rig rig;
  rig.daemon().start(bin_path("lumokitd"),
                     {"--runtime-dir", rig.runtime_dir(), "--sys-policy",
                      source_path("docs/examples/demo-policy.json")},
                     rig.dir() + "/daemon.log");
  const auto deadline = std::chrono::steady_clock::now() + seconds(10);
  for (;;) {
    try {
      JsonClient probe(rig.socket("admin"));
      break;
    } catch (const std::exception&) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << rig.daemon_log();
      std::this_thread::sleep_for(milliseconds(25));
    }
  }
  rig.start_plugin();
  auto client = rig.client();
  const uint32_t sid = open_session(*client, 4242, 10123);
  Json::Value find = op("find_pid_uid");
  find["session_id"] = sid;
  const Json::Value ids = client->call(find);
  EXPECT_EQ(ids["pid"].asInt(), static_cast<int>(getpid()));
  EXPECT_EQ(ids["uid"].asUInt(), static_cast<uint32_t>(getuid()));
}

// Input nested far deeper than any sane message: refused, never a crash.
// Sends `text` and expects a reply of `expected_op` from a daemon that is
// still running afterwards.
void expect_refused_and_alive(Rig& rig, JsonClient& conn, const std::string& text,
                              const char* expected_op) {
  conn.send_text(text);
  try {
    EXPECT_EQ(conn.next()["op"], expected_op);
  } catch (const std::exception& e) {
    ADD_FAILURE() << e.what();
  }
  int status = 0;
  if (rig.daemon().wait_exit(milliseconds(200), &status)) {
    const std::string log = rig.daemon_log();
    ADD_FAILURE() << "lumokitd ended with wait status " << status << "; log ends:\n"
                  << log.substr(log.size() > 600 ? log.size() - 600 : 0);
  }
}

TEST(SecurityDeepInput, ClientMessage) {
  Rig rig;
  rig.start_daemon();
  auto client = rig.client();
  expect_refused_and_alive(rig, *client, nested(100000), "error");
}

TEST(SecurityDeepInput, AdminMessage) {
  Rig rig;
  rig.start_daemon();
  auto admin = rig.admin();
  expect_refused_and_alive(rig, *admin, "{\"op\":\"status\",\"x\":" + nested(100000) + "}",
                           "error");
}

TEST(SecurityDeepInput, TaskText) {
  Rig rig;
  rig.start_daemon();
  rig.start_plugin();
  auto client = rig.client();
  const uint32_t sid = open_session(*client, 4242, 10123);
  // The task is an ordinary string for the daemon; only the manager reads
  // its structure, and answers what it cannot read with an empty text.
  std::string text = task_text(sid, 3, "0x1001", 1, "add", two_ints());
  text.insert(text.size() - 1, ",\"deep\":" + nested(100000));
  expect_refused_and_alive(rig, *client, ipc::write_json(perform(sid, text)), "callback");
}

TEST(SecurityDeepInput, PolicyAndDefinitionFiles) {
  TempDir dir;
  const std::string deep =
      write_file(dir.path() + "/deep.json", "{\"apis\":" + nested(100000) + "}");
  std::string out;
  int rc = run_to_end(bin_path("lumokitd"),
                      {"--runtime-dir", dir.path() + "/run", "--sys-policy", deep}, &out);
  EXPECT_EQ(rc, 2) << out;
  EXPECT_NE(out.find("deep.json"), std::string::npos) << out;

  rc = run_to_end(bin_path("lumokit-token"),
                  {"sign", "--key", source_path("keys/dev-token-key.pem"), "--opcode", "0x1001",
                   "--api-def", deep},
                  &out);
  EXPECT_EQ(rc, 2) << out;
  EXPECT_NE(out.find("not valid JSON"), std::string::npos) << out;
}

}  // namespace
}  // namespace lumokit::e2e
