// What a hostile plugin or client can and cannot do against lumokitd with
// the real manager: tokens, the separation of plugins' traffic, the pairs a
// session may reach, the service ids that plugins state about themselves,
// and input nested deeper than any reader's recursion should follow.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
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

Json::Value perform(uint32_t session_id, const std::string& text) {
  Json::Value v(Json::objectValue);
  v["op"] = "perform_task";
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

std::string nested(size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

// A definition of one pair, (opcode, 1), for plugins that need no token.
Json::Value api_def(uint32_t opcode) {
  Json::Value def = parse(R"([{"name":"intruder","subsystems":[{"id":1,"functions":[]}]}])");
  char hex[16];
  snprintf(hex, sizeof(hex), "0x%x", opcode);
  def[0]["opcode"] = hex;
  return def;
}

Json::Value example_def(const char* name) {
  return parse(read_file(source_path(std::string("examples/api/") + name + ".json")))["api_def"];
}

// A plugin speaking the raw wire protocol on the daemon's plugin socket,
// introduced with "INIT".
class RawPlugin {
 public:
  explicit RawPlugin(const std::string& path) {
    std::string error;
    fd_ = ipc::connect_seqpacket(path, &error);
    if (fd_ < 0) throw std::runtime_error(error);
    id_ = request(parse(R"({"req_type":"INIT"})"))["service_id"].asInt();
  }
  ~RawPlugin() { close(fd_); }
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
      const std::string text = buffer.substr(0, static_cast<size_t>(n));
      if (text != "PING ") return text;
    }
  }
  Json::Value request(const Json::Value& message) {
    send(message);
    return parse(recv());
  }
  // "AUTH", "REGS" or "REDY" for `opcode` in the name of `service_id`; the
  // result. No "api_def" when `def` is null, no "Token" when `token` is empty.
  int call(const char* kind, uint32_t opcode, int service_id, const Json::Value& def = {},
           const std::string& token = "") {
    Json::Value m(Json::objectValue);
    m["req_type"] = kind;
    m["Opcode"] = std::to_string(opcode);
    m["Service_Id"] = service_id;
    if (!def.isNull()) m["api_def"] = def;
    if (!token.empty()) m["Token"] = token;
    return request(m)["result"].asInt();
  }
  // Registers (opcode, 1) without a token and makes it ready.
  bool serve(uint32_t opcode, int service_id) {
    return call("REGS", opcode, service_id, api_def(opcode)) == 0 &&
           call("REDY", opcode, service_id) == 0;
  }
  // Reads a session-start notice and accepts or refuses every pair in it.
  Json::Value answer_start_session(bool accept) {
    const Json::Value notice = parse(recv());
    if (notice["req_type"] != "start_session") {
      throw std::runtime_error("expected start_session, got " + ipc::write_json(notice));
    }
    Json::Value answer = notice;
    answer["Result"] = accept ? "Success" : "Failure";
    send(answer);
    return notice;
  }
  int id() const { return id_; }

 private:
  int fd_ = -1;
  int id_ = 0;
};

// Opens a session while `plugins` answer their start-session notices.
uint32_t open_session_with(JsonClient& client, int32_t pid,
                           std::initializer_list<std::pair<RawPlugin*, bool>> plugins) {
  Json::Value req = parse(R"({"op":"create_session","uid":10123,"handle":1})");
  req["pid"] = pid;
  client.send(req);
  for (const auto& p : plugins) p.first->answer_start_session(p.second);
  const Json::Value answer = client.next(seconds(15));
  if (answer["kind"].asInt() != 1 || answer["error"].asInt() != 0) {
    throw std::runtime_error("create_session failed: " + ipc::write_json(answer));
  }
  return answer["session_id"].asUInt();
}

// Service ids of the plugin whose record holds (`opcode_hex`, 1) and of the
// one the registry routes it to; 0 for none.
std::pair<int, int> owners(const Json::Value& status, const std::string& opcode_hex) {
  std::pair<int, int> ids{0, 0};
  for (const Json::Value& p : status["state"]["plugins"]) {
    for (const Json::Value& pair : p["pairs"]) {
      if (pair["opcode"] == opcode_hex && pair["subsystem"] == 1) ids.first = p["service_id"].asInt();
    }
  }
  for (const Json::Value& r : status["state"]["registry"]) {
    if (r["opcode"] == opcode_hex && r["subsystem"] == 1) ids.second = r["service_id"].asInt();
  }
  return ids;
}

class Security : public ::testing::Test {
 protected:
  void SetUp() override {
    rig.start_daemon();
    rig.start_plugin();
    example_id = owners(rig.status(), "0x1001").first;
    ASSERT_NE(example_id, 0);
  }
  Rig rig;
  int example_id = 0;
};

// Tokens signed by another key, or for another opcode or definition, are
// refused in token_verify_test; a copy of a valid one is not.
TEST_F(Security, TokensProveTheDefinitionButNotThePlugin) {
  RawPlugin intruder(rig.socket("lumo"));
  // The example plugin's own token, as another plugin could copy it.
  const std::string copied = read_file(rig.dir() + "/tokens/calculator.token");
  ASSERT_FALSE(copied.empty());
  // The copied token with its own definition passes: nothing ties it to the
  // plugin it was issued for. While the owner is connected, the pair stays
  // the owner's.
  EXPECT_EQ(intruder.call("AUTH", 0x1001, intruder.id(), example_def("calculator"), copied), 0);
  EXPECT_EQ(owners(rig.status(), "0x1001"), std::make_pair(example_id, example_id));

  // Once the owner has left, the same token registers the API for the
  // intruder, and the clients' tasks go to it.
  rig.plugin().signal(SIGTERM);
  int wait_status = 0;
  ASSERT_TRUE(rig.plugin().wait_exit(seconds(10), &wait_status));
  ASSERT_TRUE(rig.wait_status([](const Json::Value& s) { return s["state"]["registry"].empty(); }));
  ASSERT_EQ(intruder.call("AUTH", 0x1001, intruder.id(), example_def("calculator"), copied), 0);
  ASSERT_EQ(intruder.call("REDY", 0x1001, intruder.id()), 0);
  auto client = rig.client();
  const uint32_t sid = open_session_with(*client, 4242, {{&intruder, true}});
  const std::string task = task_text(sid, 5, "0x1001", 1, "add", two_ints());
  client->send(perform(sid, task));
  EXPECT_EQ(intruder.recv(), task);
  intruder.send(R"({"req_type":"exec_task","session_id":)" + std::to_string(sid) +
                R"(,"transac_id":5,"return":-1})");
  EXPECT_EQ(parse(client->next()["text"].asString())["return"].asInt(), -1);
}

TEST_F(Security, PluginsSeeOnlyTheirTrafficButMayAnswerForAnySession) {
  RawPlugin intruder(rig.socket("lumo"));
  // The legacy registration needs no token at all.
  ASSERT_TRUE(intruder.serve(0x3003, intruder.id()));

  auto owner = rig.client();
  auto bystander = rig.client();
  // Each plugin hears only of its own pairs.
  owner->send(parse(R"({"op":"create_session","pid":4242,"uid":10123})"));
  const Json::Value notice = intruder.answer_start_session(true);
  EXPECT_EQ(ipc::write_json(notice["opcodes"]), R"([{"id":"0x3003","subsystems":[{"id":1}]}])");
  const uint32_t sid = owner->next(seconds(15))["session_id"].asUInt();
  const uint32_t other = open_session_with(*bystander, 4243, {{&intruder, false}});

  // Tasks for the example plugin's pair never reach the intruder.
  const Json::Value added =
      owner->call(perform(sid, task_text(sid, 1, "0x1001", 1, "add", two_ints())));
  EXPECT_EQ(parse(added["text"].asString())["return"].asInt(), 5);
  EXPECT_EQ(intruder.recv(milliseconds(300)), "");

  // A pair registered after the session opened was never granted to it.
  ASSERT_TRUE(intruder.serve(0x4004, intruder.id()));
  const Json::Value late =
      owner->call(perform(sid, task_text(sid, 2, "0x4004", 1, "f", Json::Value(Json::arrayValue))));
  EXPECT_EQ(parse(late["text"].asString())["status"].asInt(), -8);

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
  const std::string about = "\"Session_Id\":\"" + std::to_string(other) + "\",";
  intruder.send(R"({"req_type":"INFO_QUERY",)" + about + R"("QueryInfos":["app.id.pid","app.name.package"]})");
  EXPECT_EQ(intruder.recv(), "{\"req_type\":\"INFO_QUERY\",\"QueryInfosRes\":\"SUCCESS:4243\","
                             "\"SUCCESS:com.example.maps\"} ");
  intruder.send(R"({"req_type":"PERMISSION",)" + about +
                R"("Permissions":["android.permission.ACCESS_FINE_LOCATION"]})");
  EXPECT_EQ(intruder.recv(), "{\"req_type\":\"PERMISSION\",\"status\": 0,\"PermRes\":[\"1\"]} ");
}

TEST_F(Security, ServiceIdsInPluginMessagesAreTakenOnTrust) {
  auto client = rig.client();
  RawPlugin intruder(rig.socket("lumo"));
  ASSERT_TRUE(intruder.serve(0x3003, intruder.id()));
  const uint32_t sid = open_session_with(*client, 4242, {{&intruder, true}});

  // Registering and readying a pair in another plugin's name: the victim's
  // record gains it and the registry routes it to the victim.
  ASSERT_TRUE(intruder.serve(0x5005, example_id));
  EXPECT_EQ(owners(rig.status(), "0x5005"), std::make_pair(example_id, example_id));

  // An unasked session-start answer naming the victim's pair, then a
  // goodbye naming the victim's id: the victim's record is removed while
  // it stays connected, and the session loses the pair.
  intruder.send(R"({"req_type":"start_session","Result":"Success","session_id":)" + std::to_string(sid) +
                R"(,"opcodes":[{"id":"0x1001","subsystems":[{"id":1}]}]})");
  intruder.send(R"({"req_type":"DINT","Service_Id":)" + std::to_string(example_id) + "}");
  EXPECT_EQ(intruder.recv(), "1 ");

  // The client is told of the intruder's pairs only.
  const Json::Value notice = client->next();
  EXPECT_EQ(notice["error"].asInt(), 1);
  EXPECT_EQ(notice["text"], R"({"opcodes":[{"opcode" : 12291, "subsystems": [{"id" : 1}]}]})");
  const Json::Value status = rig.status();
  // The registry still names the removed plugin.
  EXPECT_EQ(owners(status, "0x1001"), std::make_pair(0, example_id));
  Json::Value session;
  for (const Json::Value& s : status["state"]["sessions"]) {
    if (s["session_id"].asUInt() == sid) session = s;
  }
  // The victim's id left the session's plugin list; the departed
  // intruder's stayed.
  EXPECT_EQ(ipc::write_json(session["plugins"]), "[" + std::to_string(intruder.id()) + "]");
  EXPECT_EQ(ipc::write_json(session["connected"]), R"([{"opcode":"0x2002","subsystem":3}])");

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
  for (int tries = 0;; ++tries) {
    try {
      JsonClient probe(rig.socket("admin"));
      break;
    } catch (const std::exception&) {
      ASSERT_LT(tries, 400) << rig.daemon_log();
      std::this_thread::sleep_for(milliseconds(25));
    }
  }
  rig.start_plugin();
  auto client = rig.client();
  Json::Value find = parse(R"({"op":"find_pid_uid"})");
  find["session_id"] = open_session(*client, 4242, 10123);
  const Json::Value ids = client->call(find);
  EXPECT_EQ(ids["pid"].asInt(), static_cast<int>(getpid()));
  EXPECT_EQ(ids["uid"].asUInt(), static_cast<uint32_t>(getuid()));
}

// Input nested far deeper than any sane message: refused, never a crash.
TEST(SecurityDeepInput, ClientAdminAndTaskMessages) {
  Rig rig;
  rig.start_daemon();
  rig.start_plugin();
  auto client = rig.client();
  auto admin = rig.admin();
  const uint32_t sid = open_session(*client, 4242, 10123);
  // The task is an ordinary string for the daemon; only the manager reads
  // its structure, and answers what it cannot read with an empty text.
  std::string task = task_text(sid, 3, "0x1001", 1, "add", two_ints());
  task.insert(task.size() - 1, ",\"deep\":" + nested(100000));
  const struct {
    JsonClient* conn;
    std::string text;
    const char* reply_op;
  } cases[] = {
      {client.get(), nested(100000), "error"},
      {admin.get(), "{\"op\":\"status\",\"x\":" + nested(100000) + "}", "error"},
      {client.get(), ipc::write_json(perform(sid, task)), "callback"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reply_op);
    c.conn->send_text(c.text);
    try {
      EXPECT_EQ(c.conn->next()["op"], c.reply_op);
    } catch (const std::exception& e) {
      ADD_FAILURE() << e.what();
    }
    int status = 0;
    if (rig.daemon().wait_exit(milliseconds(200), &status)) {
      const std::string log = rig.daemon_log();
      FAIL() << "lumokitd ended with wait status " << status << "; log ends:\n"
             << log.substr(log.size() > 600 ? log.size() - 600 : 0);
    }
  }
}

TEST(SecurityDeepInput, PolicyAndDefinitionFiles) {
  TempDir dir;
  const std::string deep = dir.path() + "/deep.json";
  std::ofstream(deep, std::ios::binary) << "{\"apis\":" + nested(100000) + "}";
  std::string out;
  EXPECT_EQ(
      run_to_end(bin_path("lumokitd"), {"--runtime-dir", dir.path() + "/run", "--sys-policy", deep}, &out), 2)
      << out;
  EXPECT_NE(out.find("deep.json"), std::string::npos) << out;
  EXPECT_EQ(run_to_end(bin_path("lumokit-token"),
                       {"sign", "--key", source_path("keys/dev-token-key.pem"), "--opcode", "0x1001",
                        "--api-def", deep},
                       &out),
            2)
      << out;
  EXPECT_NE(out.find("not valid JSON"), std::string::npos) << out;
}

}  // namespace
}  // namespace lumokit::e2e
