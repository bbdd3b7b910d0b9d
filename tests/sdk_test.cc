// The plugin SDK against a scripted manager on the other end of a local
// sequenced-packet socket pair: the texts a manager sends (trailing blanks,
// the "[," quirk, the bracket-less information answer, bare digits), replies
// routed while other messages arrive, time limits and disconnection. The
// example plugin built on it runs against lumokitd in the end-to-end tests.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "lumokit/api_def.h"
#include "lumokit/plugin.h"
#include "lumokit/plugin_wire.h"
#include "manager_harness.h"

namespace lumokit {
namespace {

using namespace std::chrono_literals;
using test::parse_json;
using test::task_request;

const char kFine[] = "android.permission.ACCESS_FINE_LOCATION";
const char kInitReply[] = R"({"req_type": "INIT", "service_id": 102} )";


// ---- message texts and files ------------------------------------------------

TEST(SdkWire, RepairsOnlyACommaDirectlyAfterAnOpeningBracket) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"opcodes": [,{"id": "0x2B"}]})", R"({"opcodes": [{"id": "0x2B"}]})"},
      {R"({"a": [ ,1]})", R"({"a": [ 1]})"},
      {R"({"a": [[,1],[2]]})", R"({"a": [[1],[2]]})"},
      {R"({"a": [1,2]})", R"({"a": [1,2]})"},
      {R"({"a": "[,x"})", R"({"a": "[,x"})"},
      {R"({"a": "q\"[,", "b": [,3]})", R"({"a": "q\"[,", "b": [3]})"},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(wire::repair_empty_list_commas(in), out) << in;
}

TEST(SdkFiles, TokensAreHexDigitsAcrossWhiteSpace) {
  const std::string name = testing::TempDir() + "lumokit-sdk-" + std::to_string(getpid());
  const std::string spaced = name + ".spaced", bad = name + ".bad";
  std::ofstream(spaced) << "  0123\n4567 \n";
  std::ofstream(bad) << "0123 xy\n";
  EXPECT_EQ(load_token(spaced), "01234567");
  EXPECT_THROW(load_token(bad), PluginError);
  std::remove(spaced.c_str());
  std::remove(bad.c_str());
}

// ---- the SDK over a socket -------------------------------------------------

// A synchronous call, giving what it returned ("=" and the value) or threw
// ("!" and the error kind), so that one table can script calls of any type.
using Call = std::function<std::string(Plugin&)>;
std::string show(bool v) { return v ? "=true" : "=false"; }
std::string show(int32_t v) { return "=" + std::to_string(v); }
std::string show(const std::vector<bool>& v) {
  std::string s = "=";
  for (bool b : v) s += b ? '1' : '0';
  return s;
}
std::string show(const std::vector<std::string>& v) {
  std::string s = "=";
  for (const std::string& item : v) s += item + "|";
  return s;
}
std::string outcome(const Call& call, Plugin& plugin) {
  try {
    return call(plugin);
  } catch (const PluginError& e) {
    return std::string("!") + plugin_error_kind_name(e.kind());
  }
}

// The plugin adopts one end of a socket pair; the test is the manager at
// the other, sending and receiving texts exactly as given.
class SdkLink : public ::testing::Test {
 protected:
  void start(PluginHooks hooks = {}, std::chrono::milliseconds timeout = 5s) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds), 0);
    const int room = 1 << 20;  // for the largest message either side sends
    for (int fd : fds) setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    manager_ = std::make_unique<test::RawPlugin>(fds[1]);
    PluginOptions options;
    options.reply_timeout = timeout;
    plugin_ = std::make_unique<Plugin>(std::move(hooks), options);
    plugin_->adopt(fds[0]);
  }
  void TearDown() override {
    plugin_.reset();
    manager_.reset();
  }

  // The plugin's next message after the manager sends `text`.
  std::string answer_to(const std::string& text) {
    manager_->send(text);
    return manager_->recv();
  }

  // Runs `call` while the manager takes `request` (none when empty) and
  // answers `reply`.
  std::string exchange(const Call& call, const std::string& request, const std::string& reply) {
    auto result = std::async(std::launch::async, [&] { return outcome(call, *plugin_); });
    if (!request.empty()) {
      EXPECT_EQ(manager_->recv(), request);
      manager_->send(reply);
    }
    return result.get();
  }

  std::unique_ptr<test::RawPlugin> manager_;  // the manager's end, played by the test
  std::unique_ptr<Plugin> plugin_;
};

TEST_F(SdkLink, EachCallSendsItsRequestAndReadsEveryFormOfReply) {
  // Refused before any connection: a missing socket and a stream socket.
  Plugin unconnected;
  EXPECT_EQ(outcome([](Plugin& p) { p.connect("/nonexistent/lumo"); return std::string("="); }, unconnected), "!io");
  int stream[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, stream), 0);
  EXPECT_EQ(outcome([&](Plugin& p) { p.adopt(stream[0]); return std::string("="); }, unconnected), "!invalid");
  close(stream[0]);
  close(stream[1]);

  start();
  const std::string def_text = R"([{"opcode":"0x1001","subsystems":[{"id":1}]}])";
  const Json::Value def = parse_json(def_text);
  const Call init = [](Plugin& p) { return show(p.init()); };
  const Call service_id = [](Plugin& p) { return show(p.service_id()); };
  const Call reconnect = [](Plugin& p) { p.connect("/nonexistent/lumo"); return std::string("="); };
  const auto auth = [def](uint32_t opcode, std::string token, Json::Value api = Json::Value()) -> Call {
    return [=](Plugin& p) { p.register_auth(opcode, api.isNull() ? def : api, token); return std::string("="); };
  };
  const Call legacy = [def](Plugin& p) { p.register_legacy(0x1001, def); return std::string("="); };
  const Call ready = [](Plugin& p) { p.ready(0x1001); return std::string("="); };
  const auto perm = [](std::vector<std::string> names) -> Call {
    return [=](Plugin& p) { return show(p.permission(7, names)); };
  };
  const auto info = [](std::vector<std::string> keys) -> Call {
    return [=](Plugin& p) { return show(p.info_query(9, keys)); };
  };
  const Call deinit = [](Plugin& p) { return show(p.deinit()); };
  const std::string init_req = R"({"req_type":"INIT"})";
  const std::string perm_req = R"({"req_type":"PERMISSION","Session_Id":"7","Permissions":)";
  const std::string perm_ok = R"({"req_type":"PERMISSION","status": 0,"PermRes":)";
  const std::string info_req = R"({"req_type":"INFO_QUERY","Session_Id":"9","QueryInfos":)";
  const std::string info_ok = R"({"req_type":"INFO_QUERY","QueryInfosRes":)";
  const struct {
    Call call;
    std::string request;  // empty: refused locally, nothing sent
    std::string reply;
    std::string outcome;
  } steps[] = {
      {ready, "", "", "!state"},
      {auth(0x1001, "00"), "", "", "!state"},
      {init, init_req, R"({"req_type": "INIT", "service_id": -1} )", "!refused"},
      {init, init_req, R"({"req_type": "INIT"} )", "!protocol"},
      // Cut short: still routed to the caller, which fails without waiting.
      {init, init_req, R"({"req_type": "INIT", "service_id": 1)", "!protocol"},
      {service_id, "", "", "=-1"},
      {init, init_req, kInitReply, "=102"},
      {reconnect, "", "", "!state"},
      // A definition must name the opcode in hex, with subsystem ids, as an array.
      {auth(0x1002, "00"), "", "", "!invalid"},
      {auth(0x1001, "00", parse_json(R"([{"opcode":"4097","subsystems":[]}])")), "", "", "!invalid"},
      {auth(0x1001, "00", parse_json(R"([{"opcode":"0x1001","subsystems":[{"id":-1}]}])")), "", "", "!invalid"},
      {auth(0x1001, "00", parse_json(R"({"opcode":"0x1001","subsystems":[]})")), "", "", "!invalid"},
      {auth(0x1001, ""), "", "", "!invalid"},
      {auth(0x1001, "00ff11"),
       R"({"req_type":"AUTH","Opcode":"4097","Service_Id":102,"Token":"00ff11","api_def":)" + def_text + "}",
       R"({"req_type": "AUTH","opcode": "4097", "result": 0} )", "="},
      {legacy, R"({"req_type":"REGS","Opcode":"4097","Service_Id":102,"api_def":)" + def_text + "}",
       R"({"req_type": "REGS","opcode": "4097", "result": -1} )", "!refused"},
      {ready, R"({"req_type":"REDY","Service_Id":102,"Opcode":"4097"})",
       R"({"req_type": "REDY","opcode": "4097", "result": 0} )", "="},
      {perm({"a", "b"}), perm_req + R"(["a","b"]})", perm_ok + R"(["1","0"]} )", "=10"},
      {perm({}), perm_req + "[]}", perm_ok + R"(["1"]} )", "=1"},
      {perm({"a"}), perm_req + R"(["a"]})", R"({"req_type":"PERMISSION","status": -1} )", "!refused"},
      {perm({"a", "a"}), perm_req + R"(["a","a"]})", perm_ok + R"(["1"]} )", "!protocol"},
      // Answers joined by commas with no brackets, taken literally; or an array.
      {info({"k", "l"}), info_req + R"(["k","l"]})", info_ok + R"("SUCCESS:com.example.maps","SUCCESS:10123"} )",
       "=SUCCESS:com.example.maps|SUCCESS:10123|"},
      {info({"a", "b", "c"}), info_req + R"(["a","b","c"]})", info_ok + R"("SUCCESS:a,b","","SUCCESS:"x""} )",
       "=SUCCESS:a,b||SUCCESS:\"x\"|"},
      {info({"k", "l"}), info_req + R"(["k","l"]})", info_ok + R"(["SUCCESS:1","SUCCESS:2"]})", "=SUCCESS:1|SUCCESS:2|"},
      {info({}), info_req + "[]}", info_ok + "} ", "="},
      {info({"k"}), info_req + R"(["k"]})", R"({"req_type":"INFO_QUERY","status": -1} )", "!refused"},
      {info({"k", "l"}), info_req + R"(["k","l"]})", info_ok + R"("SUCCESS:1"} )", "!protocol"},
      {info({"k"}), info_req + R"(["k"]})", info_ok + R"("SUCCESS:1)", "!protocol"},
      {info({"k"}), info_req + R"(["k"]})", info_ok + "5} ", "!protocol"},
      {deinit, R"({"req_type":"DINT","Service_Id":102})", "0 ", "=false"},
      {init, init_req, R"({"req_type": "INIT", "service_id": 103} )", "=103"},
      {deinit, R"({"req_type":"DINT","Service_Id":103})", "1 ", "=true"},
  };
  for (size_t i = 0; i < std::size(steps); ++i) {
    EXPECT_EQ(exchange(steps[i].call, steps[i].request, steps[i].reply), steps[i].outcome) << "step " << i;
  }
}

// Notices reach their hooks in order; session starts are answered as the
// hook decides and ends always acknowledged.
TEST_F(SdkLink, NoticesReachTheirHooks) {
  std::mutex mtx;
  std::vector<std::string> seen;  // permission changes and session ends
  PluginHooks hooks;
  hooks.on_permission_change = [&](const PermissionChange& c) {
    std::lock_guard<std::mutex> lock(mtx);
    seen.push_back(std::to_string(c.opcode) + " " + std::to_string(c.subsystem) + " " +
                   std::to_string(c.session_id) + " " + c.permission + " " + std::to_string(c.granted));
  };
  hooks.on_session_start = [](const SessionStart& start, std::vector<OpcodeSubsystem>* accepted) {
    if (start.session_id == 8) return false;
    if (start.session_id == 9) throw std::runtime_error("no capacity");
    if (start.session_id == 7) {
      accepted->erase(accepted->begin() + 1);  // drop (0x1A, 2)
      accepted->push_back({0x7777, 1});        // never requested: not answered
    }
    return true;
  };
  hooks.on_session_end = [&](uint32_t session) {
    std::lock_guard<std::mutex> lock(mtx);
    seen.push_back("end " + std::to_string(session));
  };
  start(hooks);
  const std::string notice = R"({"req_type": "start_session", "session_id": )";
  const std::string pairs =
      R"(, "opcodes": [{"id": "0x1A","subsystems": [{"id" :1},{"id" :2}]},{"id": "0x2B","subsystems": [{"id" :1}]}]})";
  const std::string success = R"({"req_type":"start_session","Result":"Success","session_id":)";
  const std::string failure = R"({"req_type":"start_session","Result":"Failure","session_id":)";
  const std::pair<std::string, std::string> cases[] = {
      {notice + "6" + pairs,
       success + R"(6,"opcodes":[{"id":"0x1A","subsystems":[{"id":1},{"id":2}]},{"id":"0x2B","subsystems":[{"id":1}]}]})"},
      {notice + "7" + pairs,
       success + R"(7,"opcodes":[{"id":"0x1A","subsystems":[{"id":1}]},{"id":"0x2B","subsystems":[{"id":1}]}]})"},
      {notice + "8" + pairs, failure + "8}"},
      {notice + "9" + pairs, failure + "9}"},
      {notice + R"(5, "opcodes": [,{"id": "0x2B","subsystems": [{"id" :1}]}]})",
       success + R"(5,"opcodes":[{"id":"0x2B","subsystems":[{"id":1}]}]})"},
      {notice + R"(3, "opcodes": []})", failure + "3}"},
      {notice + R"(4, "opcodes": [{"id": "zz","subsystems": []}]})", failure + "4}"},
      {R"({"req_type":"end_session","session_id": 42})", R"({"req_type":"end_session","Result":"Success"})"},
  };
  const std::string change = R"({"req_type":"permission_change", "opcode":"8194", "ss_id":"3", "session_id":"7", "permission":"p.A", "status":")";
  for (const char* status : {"0", "maybe", "1"}) manager_->send(change + status + R"("})");
  for (const auto& [in, out] : cases) EXPECT_EQ(answer_to(in), out) << in;
  std::lock_guard<std::mutex> lock(mtx);  // the end hook ran before the acknowledgement
  EXPECT_EQ(seen, (std::vector<std::string>{"8194 3 7 p.A 0", "8194 3 7 p.A 1", "end 42"}));
}

TEST_F(SdkLink, TasksReachTheHandlerAndAnswersCarryTheirIdsWithinTheSizeLimit) {
  PluginHooks hooks;
  hooks.on_task = [](const TaskRequest& task) -> Json::Value {
    if (task.function == "boom") throw std::runtime_error("boom failed");
    Json::Value result;
    if (task.function == "big") {
      result["return"] = std::string(task.transac_id * 1000, 'x');
      return result;
    }
    result["seen"] = task.opcode_text + " " + std::to_string(task.opcode) + " " +
                     std::to_string(task.subsystem) + " " + task.function + " " +
                     std::to_string(task.args.size());
    result["session_id"] = 999;  // the SDK keeps the task's own
    return result;
  };
  start(hooks);
  EXPECT_EQ(parse_json(answer_to(task_request(5, 11, "0x1001", 1, "add", {"int", "int"}))),
            parse_json(R"({"req_type":"exec_task","session_id":5,"transac_id":11,"seen":"0x1001 4097 1 add 2"})"));
  // The SDK's own error answers: status -1 with the text.
  const auto error_of = [this](const std::string& task) {
    const Json::Value answer = parse_json(answer_to(task));
    EXPECT_EQ(answer["transac_id"], parse_json(task)["transac_id"]) << task;
    EXPECT_EQ(answer["status"], -1) << task;
    return answer["error"].asString();
  };
  EXPECT_EQ(error_of(task_request(5, 12, "0x1001", 1, "boom", {})), "boom failed");
  // Malformed: answered with an error when its ids are usable, else dropped.
  EXPECT_NE(error_of(R"({"session_id":5,"transac_id":13,"opcode":"0x1001","subsys_id":1,"func":{"args":[]}})")
                .find("malformed"), std::string::npos);
  manager_->send(R"({"session_id":5,"transac_id":"x","func":{}})");
  EXPECT_EQ(parse_json(answer_to(task_request(5, 14, "0x1001", 1, "add", {})))["transac_id"], 14);
  // 200,000 characters: more than the manager reads before a session start.
  const std::string big = task_request(1, 200, "0x1001", 1, "big", {});
  EXPECT_NE(error_of(big).find("102400"), std::string::npos);
  EXPECT_EQ(parse_json(answer_to(R"({"req_type": "start_session", "session_id": 1, "opcodes": [{"id": "0x1001","subsystems": [{"id" :1}]}]})"))["Result"],
            "Success");
  EXPECT_EQ(parse_json(answer_to(big))["return"].asString().size(), 200000u);
  EXPECT_NE(error_of(task_request(1, 600, "0x1001", 1, "big", {})).find("524288"), std::string::npos);
}

// Hooks run one at a time in arrival order; one of them waits on the manager
// while a probe, a task and a session start arrive before its replies.
TEST_F(SdkLink, HookMayCallTheManagerWhileOtherMessagesArrive) {
  PluginHooks hooks;
  hooks.on_task = [this](const TaskRequest& task) {
    Json::Value result(Json::objectValue);
    if (task.function != "ask") return result;
    const std::vector<std::string> info =
        plugin_->info_query(task.session_id, {"app.name.package", "app.id.uid"});
    std::string package;
    result["known"] = info_success(info.at(0), &package);
    result["package"] = package;
    result["uid"] = info.at(1);
    result["granted"] = static_cast<bool>(plugin_->permission(task.session_id, {kFine}).at(0));
    return result;
  };
  start(hooks);
  EXPECT_EQ(answer_to(task_request(6, 31, "0x2002", 3, "ask", {})),
            R"({"req_type":"INFO_QUERY","Session_Id":"6","QueryInfos":["app.name.package","app.id.uid"]})");
  for (const std::string& text :
       {std::string("PING "), task_request(6, 32, "0x2002", 3, "plain", {}),
        std::string(R"({"req_type": "start_session", "session_id": 8, "opcodes": [{"id": "0x2002","subsystems": [{"id" :3}]}]})")}) {
    manager_->send(text);
  }
  EXPECT_EQ(manager_->recv(200ms), "") << "answered before the hook ended";
  EXPECT_EQ(parse_json(answer_to(R"({"req_type":"INFO_QUERY","QueryInfosRes":"SUCCESS:com.example.maps","ERROR:Query failed"} )")),
            parse_json(R"({"req_type":"PERMISSION","Session_Id":"6","Permissions":[")" + std::string(kFine) + R"("]})"));
  EXPECT_EQ(parse_json(answer_to(R"({"req_type":"PERMISSION","status": 0,"PermRes":["1"]} )")),
            parse_json(R"({"req_type":"exec_task","session_id":6,"transac_id":31,"known":true,)"
                       R"("package":"com.example.maps","uid":"ERROR:Query failed","granted":true})"));
  EXPECT_EQ(parse_json(manager_->recv())["transac_id"], 32);
  EXPECT_EQ(parse_json(manager_->recv())["req_type"], "start_session");
  EXPECT_EQ(manager_->recv(200ms), "") << "the probe is not answered";
}

// The call's own time limit, not the default of 5 s, and its late reply is
// not taken for the next call's.
TEST_F(SdkLink, TimedOutCallFailsAndItsLateReplyIsNotTakenForTheNext) {
  start({}, 300ms);
  const Call ask = [](Plugin& p) { return show(p.permission(7, {"a"})); };
  const std::string request = R"({"req_type":"PERMISSION","Session_Id":"7","Permissions":["a"]})";
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(outcome(ask, *plugin_), "!timeout");
  const auto waited = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(waited, 290ms);
  EXPECT_LT(waited, 2s);
  EXPECT_EQ(manager_->recv(), request);
  manager_->send(R"({"req_type":"PERMISSION","status": 0,"PermRes":["0"]} )");  // late
  EXPECT_EQ(exchange(ask, request, R"({"req_type":"PERMISSION","status": 0,"PermRes":["1"]} )"), "=1");
}

// A pending call ends as soon as the connection does, long before its
// 5-second time limit.
TEST_F(SdkLink, CallsFailPromptlyWhenTheManagerGoesAway) {
  start();
  auto pending = std::async(std::launch::async, [&] {
    return outcome([](Plugin& p) { return show(p.info_query(7, {"app.id.pid"})); }, *plugin_);
  });
  ASSERT_EQ(parse_json(manager_->recv())["req_type"], "INFO_QUERY");
  const auto begin = std::chrono::steady_clock::now();
  manager_->close_socket();
  EXPECT_EQ(pending.get(), "!disconnected");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2500ms);
  EXPECT_TRUE(plugin_->wait_closed(2s));
  EXPECT_FALSE(plugin_->connected());
  EXPECT_EQ(outcome([](Plugin& p) { return show(p.init()); }, *plugin_), "!disconnected");
}

}  // namespace
}  // namespace lumokit
