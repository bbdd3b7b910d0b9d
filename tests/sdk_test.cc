// The plugin SDK against a scripted manager over a real local
// sequenced-packet socket: the texts a manager sends (trailing blanks, the
// "[," quirk, the bracket-less information answer, bare digits), replies
// routed while other messages arrive, time limits and disconnection; and the
// example plugin run as a process against the same scripted manager.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "lumokit/api_def.h"
#include "lumokit/plugin.h"
#include "lumokit/plugin_wire.h"
#include "sdk_child_process.h"
#include "sdk_fake_manager.h"

namespace lumokit {
namespace {

using namespace std::chrono_literals;
using test::SdkChildProcess;
using test::SdkFakeManager;
using test::sdk_parse_json;
using Kind = PluginError::Kind;

const char kFine[] = "android.permission.ACCESS_FINE_LOCATION";

// ---- message texts --------------------------------------------------------

TEST(SdkWire, RepairsOnlyACommaDirectlyAfterAnOpeningBracket) {
  struct Case {
    const char* in;
    const char* out;
  } cases[] = {
      {R"({"opcodes": [,{"id": "0x2B"}]})", R"({"opcodes": [{"id": "0x2B"}]})"},
      {R"({"a": [ ,1]})", R"({"a": [ 1]})"},
      {R"({"a": [[,1],[2]]})", R"({"a": [[1],[2]]})"},
      {R"({"a": [1,2]})", R"({"a": [1,2]})"},
      {R"({"a": "[,x"})", R"({"a": "[,x"})"},
      {R"({"a": "q\"[,", "b": [,3]})", R"({"a": "q\"[,", "b": [3]})"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(wire::repair_empty_list_commas(c.in), c.out) << c.in;
  }
}

TEST(SdkWire, ClassifiesEveryKindOfManagerMessage) {
  struct Case {
    std::string text;
    wire::Incoming kind;
    std::string req_type;
  } cases[] = {
      {"PING ", wire::Incoming::Ping, ""},
      {"1 ", wire::Incoming::Digit, ""},
      {"0 ", wire::Incoming::Digit, ""},
      {R"({"req_type": "INIT", "service_id": 102} )", wire::Incoming::Json, "INIT"},
      {R"({"req_type": "start_session", "session_id": 3, "opcodes": [,{"id": "0x2B","subsystems": [{"id" :1}]}]})",
       wire::Incoming::Json, "start_session"},
      {R"({"req_type":"INFO_QUERY","QueryInfosRes":"SUCCESS:a","SUCCESS:b"} )",
       wire::Incoming::Unreadable, "INFO_QUERY"},
      {"[1,2]", wire::Incoming::Unreadable, ""},
      {"{\"req_type\": \"INIT\"", wire::Incoming::Unreadable, "INIT"},
      {"", wire::Incoming::Unreadable, ""},
  };
  for (const Case& c : cases) {
    const wire::Classified got = wire::classify(c.text);
    EXPECT_EQ(got.kind, c.kind) << c.text;
    EXPECT_EQ(got.req_type, c.req_type) << c.text;
  }
  EXPECT_EQ(wire::classify("1 ").digit, 1);
  EXPECT_EQ(wire::classify("0 ").digit, 0);
}

TEST(SdkWire, ReadsQueryInfosResInEveryForm) {
  struct Case {
    std::string reply;
    bool ok;
    std::vector<std::string> answers;
  } cases[] = {
      {R"({"req_type":"INFO_QUERY","QueryInfosRes":"SUCCESS:com.example.maps","SUCCESS:10123"} )",
       true, {"SUCCESS:com.example.maps", "SUCCESS:10123"}},
      {R"({"req_type":"INFO_QUERY","QueryInfosRes":"SUCCESS:1"} )", true, {"SUCCESS:1"}},
      {R"({"req_type":"INFO_QUERY","QueryInfosRes":"ERROR:Invalid session ID","ERROR:Invalid session ID","ERROR:Invalid session ID"} )",
       true, {"ERROR:Invalid session ID", "ERROR:Invalid session ID", "ERROR:Invalid session ID"}},
      {R"({"req_type":"INFO_QUERY","QueryInfosRes":"SUCCESS:a,b","","SUCCESS:"x""} )", true,
       {"SUCCESS:a,b", "", "SUCCESS:\"x\""}},
      {R"({"req_type":"INFO_QUERY","QueryInfosRes":["SUCCESS:1","SUCCESS:2"]})", true,
       {"SUCCESS:1", "SUCCESS:2"}},
      {R"({"req_type":"INFO_QUERY","QueryInfosRes":} )", true, {}},
      {R"({"req_type":"INFO_QUERY","status": -1} )", false, {}},
      {R"({"req_type":"INFO_QUERY","QueryInfosRes":"SUCCESS:1)", false, {}},
      {R"({"req_type":"INFO_QUERY","QueryInfosRes":5} )", false, {}},
  };
  for (const Case& c : cases) {
    std::vector<std::string> got;
    std::string error;
    EXPECT_EQ(wire::parse_query_infos_res(c.reply, &got, &error), c.ok) << c.reply;
    if (c.ok) {
      EXPECT_EQ(got, c.answers) << c.reply;
    } else {
      EXPECT_FALSE(error.empty()) << c.reply;
    }
  }
}

TEST(SdkWire, ApiDefinitionsAreCheckedAgainstTheirOpcode) {
  const Json::Value calc = load_api_def(LUMOKIT_SOURCE_DIR "/examples/api/calculator.json");
  std::string error;
  EXPECT_TRUE(check_api_def(calc, 0x1001, &error)) << error;
  EXPECT_FALSE(check_api_def(calc, 0x1002, &error));
  EXPECT_NE(error.find("0x1002"), std::string::npos) << error;
  EXPECT_EQ(api_def_subsystems(calc), std::vector<uint32_t>{1});
  // The file may also hold the array itself.
  EXPECT_FALSE(check_api_def(sdk_parse_json(R"([{"opcode":"4097","subsystems":[]}])"), 4097, &error));
  EXPECT_FALSE(check_api_def(sdk_parse_json(R"([{"opcode":"0x1001","subsystems":[{"id":-1}]}])"),
                             0x1001, &error));
  EXPECT_THROW(load_api_def("/nonexistent/api.json"), PluginError);
}

// ---- the SDK over a socket -------------------------------------------------

class SdkLink : public ::testing::Test {
 protected:
  void start(PluginHooks hooks = {}, std::chrono::milliseconds timeout = 5s) {
    PluginOptions options;
    options.reply_timeout = timeout;
    options.log = [this](const std::string& line) {
      std::lock_guard<std::mutex> lock(log_mtx_);
      log_.push_back(line);
    };
    plugin_ = std::make_unique<Plugin>(std::move(hooks), options);
    plugin_->connect(fake_.socket_path());
    ASSERT_TRUE(fake_.accept_plugin());
  }

  // init() answered with service id 102.
  void init() {
    auto id = std::async(std::launch::async, [&] { return plugin_->init(); });
    ASSERT_EQ(fake_.receive_json()["req_type"].asString(), "INIT");
    ASSERT_TRUE(fake_.send(R"({"req_type": "INIT", "service_id": 102} )"));
    ASSERT_EQ(id.get(), 102);
  }

  bool logged(const std::string& text) {
    std::lock_guard<std::mutex> lock(log_mtx_);
    for (const std::string& line : log_) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  }

  SdkFakeManager fake_;
  std::mutex log_mtx_;
  std::vector<std::string> log_;
  std::unique_ptr<Plugin> plugin_;  // last: its threads log into log_ until it is gone
};

template <typename T>
Kind error_kind(std::future<T>& result) {
  try {
    result.get();
  } catch (const PluginError& e) {
    return e.kind();
  }
  ADD_FAILURE() << "no PluginError";
  return Kind::Io;
}

std::string task_text(uint32_t session, uint32_t transac, const std::string& opcode, uint32_t subsys,
                      const std::string& func, const std::string& args) {
  return R"({"session_id":)" + std::to_string(session) + R"(,"transac_id":)" +
         std::to_string(transac) + R"(,"opcode":")" + opcode + R"(","subsys_id":)" +
         std::to_string(subsys) + R"(,"func":{"name":")" + func + R"(","num_of_args":)" +
         std::to_string(sdk_parse_json(args).size()) + R"(,"args":)" + args + "}}";
}

TEST_F(SdkLink, RegistersBecomesReadyAndLeavesWithTheExpectedMessages) {
  start();
  init();
  const Json::Value calc = load_api_def(LUMOKIT_SOURCE_DIR "/examples/api/calculator.json");

  auto auth = std::async(std::launch::async, [&] { plugin_->register_auth(0x1001, calc, "00ff11"); });
  const Json::Value auth_msg = fake_.receive_json();
  EXPECT_EQ(auth_msg["req_type"].asString(), "AUTH");
  EXPECT_TRUE(auth_msg["Opcode"].isString());
  EXPECT_EQ(auth_msg["Opcode"].asString(), "4097");
  EXPECT_TRUE(auth_msg["Service_Id"].isInt());
  EXPECT_EQ(auth_msg["Service_Id"].asInt(), 102);
  EXPECT_EQ(auth_msg["Token"].asString(), "00ff11");
  EXPECT_EQ(auth_msg["api_def"], calc);
  ASSERT_TRUE(fake_.send(R"({"req_type": "AUTH","opcode": "4097", "result": 0} )"));
  auth.get();

  const Json::Value loc = load_api_def(LUMOKIT_SOURCE_DIR "/examples/api/location.json");
  auto regs = std::async(std::launch::async, [&] { plugin_->register_legacy(0x2002, loc); });
  const Json::Value regs_msg = fake_.receive_json();
  EXPECT_EQ(regs_msg["req_type"].asString(), "REGS");
  EXPECT_EQ(regs_msg["Opcode"].asString(), "8194");
  EXPECT_FALSE(regs_msg.isMember("Token"));
  EXPECT_EQ(regs_msg["api_def"], loc);
  ASSERT_TRUE(fake_.send(R"({"req_type": "REGS","opcode": "8194", "result": -1} )"));
  EXPECT_EQ(error_kind(regs), Kind::Refused);

  auto redy = std::async(std::launch::async, [&] { plugin_->ready(0x1001); });
  const Json::Value redy_msg = fake_.receive_json();
  EXPECT_EQ(redy_msg["req_type"].asString(), "REDY");
  EXPECT_EQ(redy_msg["Service_Id"].asInt(), 102);
  EXPECT_EQ(redy_msg["Opcode"].asString(), "4097");
  ASSERT_TRUE(fake_.send(R"({"req_type": "REDY","opcode": "4097", "result": 0} )"));
  redy.get();

  auto dint = std::async(std::launch::async, [&] { return plugin_->deinit(); });
  const Json::Value dint_msg = fake_.receive_json();
  EXPECT_EQ(dint_msg["req_type"].asString(), "DINT");
  EXPECT_EQ(dint_msg["Service_Id"].asInt(), 102);
  ASSERT_TRUE(fake_.send("1 "));
  fake_.close_plugin();
  EXPECT_TRUE(dint.get());
  EXPECT_TRUE(plugin_->wait_closed(2s));
  EXPECT_FALSE(plugin_->connected());
}

TEST_F(SdkLink, ManagerRepliesDecideEachSynchronousResult) {
  start();
  init();
  struct PermCase {
    std::vector<std::string> perms;
    std::string reply;
    std::vector<bool> want;
    bool fails;
    Kind kind;
  } perm_cases[] = {
      {{kFine, "android.permission.CAMERA"}, R"({"req_type":"PERMISSION","status": 0,"PermRes":["1","0"]} )",
       {true, false}, false, Kind::Io},
      {{}, R"({"req_type":"PERMISSION","status": 0,"PermRes":["1"]} )", {true}, false, Kind::Io},
      {{kFine}, R"({"req_type":"PERMISSION","status": -1} )", {}, true, Kind::Refused},
      {{kFine, kFine}, R"({"req_type":"PERMISSION","status": 0,"PermRes":["1"]} )", {}, true,
       Kind::Protocol},
  };
  for (const PermCase& c : perm_cases) {
    auto got = std::async(std::launch::async, [&] { return plugin_->permission(7, c.perms); });
    const Json::Value msg = fake_.receive_json();
    EXPECT_EQ(msg["req_type"].asString(), "PERMISSION");
    EXPECT_EQ(msg["Session_Id"], Json::Value("7"));
    EXPECT_EQ(msg["Permissions"].size(), c.perms.size());
    ASSERT_TRUE(fake_.send(c.reply));
    if (c.fails) {
      EXPECT_EQ(error_kind(got), c.kind) << c.reply;
    } else {
      EXPECT_EQ(got.get(), c.want) << c.reply;
    }
  }

  struct InfoCase {
    std::vector<std::string> keys;
    std::string reply;
    std::vector<std::string> want;
    bool fails;
    Kind kind;
  } info_cases[] = {
      {{"app.name.package", "app.id.uid"},
       R"({"req_type":"INFO_QUERY","QueryInfosRes":"SUCCESS:com.example.maps","SUCCESS:10123"} )",
       {"SUCCESS:com.example.maps", "SUCCESS:10123"}, false, Kind::Io},
      {{"app.id.pid"}, R"({"req_type":"INFO_QUERY","QueryInfosRes":"SUCCESS:4711"} )",
       {"SUCCESS:4711"}, false, Kind::Io},
      {{"app.id.pid"}, R"({"req_type":"INFO_QUERY","status": -1} )", {}, true, Kind::Refused},
      {{"a", "b"}, R"({"req_type":"INFO_QUERY","QueryInfosRes":"SUCCESS:1"} )", {}, true,
       Kind::Protocol},
  };
  for (const InfoCase& c : info_cases) {
    auto got = std::async(std::launch::async, [&] { return plugin_->info_query(9, c.keys); });
    const Json::Value msg = fake_.receive_json();
    EXPECT_EQ(msg["req_type"].asString(), "INFO_QUERY");
    EXPECT_EQ(msg["Session_Id"], Json::Value("9"));
    EXPECT_EQ(msg["QueryInfos"].size(), c.keys.size());
    ASSERT_TRUE(fake_.send(c.reply));
    if (c.fails) {
      EXPECT_EQ(error_kind(got), c.kind) << c.reply;
    } else {
      EXPECT_EQ(got.get(), c.want) << c.reply;
    }
  }

  auto dint = std::async(std::launch::async, [&] { return plugin_->deinit(); });
  ASSERT_EQ(fake_.receive_json()["req_type"].asString(), "DINT");
  ASSERT_TRUE(fake_.send("0 "));
  EXPECT_FALSE(dint.get());
}

TEST_F(SdkLink, InitAnswersOtherThanAnIdAreErrors) {
  start();
  struct Case {
    std::string reply;
    Kind kind;
  } cases[] = {
      {R"({"req_type": "INIT", "service_id": -1} )", Kind::Refused},
      {R"({"req_type": "INIT"} )", Kind::Protocol},
      // Cut short: still routed to the caller, which fails without waiting.
      {R"({"req_type": "INIT", "service_id": 1)", Kind::Protocol},
  };
  for (const Case& c : cases) {
    auto id = std::async(std::launch::async, [&] { return plugin_->init(); });
    ASSERT_EQ(fake_.receive_json()["req_type"].asString(), "INIT");
    ASSERT_TRUE(fake_.send(c.reply));
    EXPECT_EQ(error_kind(id), c.kind) << c.reply;
  }
  EXPECT_EQ(plugin_->service_id(), -1);
  // Without an id nothing is registered, and nothing is sent.
  EXPECT_THROW(plugin_->ready(0x1001), PluginError);
  EXPECT_FALSE(fake_.receive(200ms).has_value());
}

TEST_F(SdkLink, AnswersSessionStartsIncludingTheLeadingCommaForm) {
  start();
  struct Case {
    std::string notice;
    std::string answer;
  } cases[] = {
      {R"({"req_type": "start_session", "session_id": 7, "opcodes": [{"id": "0x1A","subsystems": [{"id" :1},{"id" :2}]},{"id": "0x2B","subsystems": [{"id" :1}]}]})",
       R"({"req_type":"start_session","Result":"Success","session_id":7,"opcodes":[{"id":"0x1A","subsystems":[{"id":1},{"id":2}]},{"id":"0x2B","subsystems":[{"id":1}]}]})"},
      {R"({"req_type": "start_session", "session_id": 8, "opcodes": [,{"id": "0x2B","subsystems": [{"id" :1}]}]})",
       R"({"req_type":"start_session","Result":"Success","session_id":8,"opcodes":[{"id":"0x2B","subsystems":[{"id":1}]}]})"},
      {R"({"req_type": "start_session", "session_id": 3, "opcodes": []})",
       R"({"req_type":"start_session","Result":"Failure","session_id":3})"},
      {R"({"req_type": "start_session", "session_id": 4, "opcodes": [{"id": "zz","subsystems": []}]})",
       R"({"req_type":"start_session","Result":"Failure","session_id":4})"},
  };
  for (const Case& c : cases) {
    ASSERT_TRUE(fake_.send(c.notice));
    EXPECT_EQ(fake_.receive().value_or("<none>"), c.answer) << c.notice;
  }
}

TEST_F(SdkLink, SessionHooksNarrowRefuseAndSeeEnds) {
  std::atomic<uint32_t> ended{0};
  PluginHooks hooks;
  hooks.on_session_start = [](const SessionStart& start, std::vector<OpcodeSubsystem>* accepted) {
    if (start.session_id == 8) return false;
    if (start.session_id == 9) throw std::runtime_error("no capacity");
    accepted->erase(accepted->begin() + 1);      // drop (0x1A, 2)
    accepted->push_back({0x7777, 1});            // never requested: not answered
    return true;
  };
  hooks.on_session_end = [&](uint32_t session) { ended = session; };
  start(hooks);
  const std::string pairs =
      R"("opcodes": [{"id": "0x1A","subsystems": [{"id" :1},{"id" :2}]},{"id": "0x2B","subsystems": [{"id" :1}]}]})";
  ASSERT_TRUE(fake_.send(R"({"req_type": "start_session", "session_id": 7, )" + pairs));
  EXPECT_EQ(fake_.receive().value_or(""),
            R"({"req_type":"start_session","Result":"Success","session_id":7,"opcodes":[{"id":"0x1A","subsystems":[{"id":1}]},{"id":"0x2B","subsystems":[{"id":1}]}]})");
  for (int session : {8, 9}) {
    ASSERT_TRUE(fake_.send(R"({"req_type": "start_session", "session_id": )" +
                           std::to_string(session) + ", " + pairs));
    const Json::Value answer = sdk_parse_json(fake_.receive().value_or(""));
    EXPECT_EQ(answer["Result"].asString(), "Failure");
    EXPECT_EQ(answer["session_id"].asInt(), session);
  }
  ASSERT_TRUE(fake_.send(R"({"req_type":"end_session","session_id": 42})"));
  EXPECT_EQ(fake_.receive().value_or(""), R"({"req_type":"end_session","Result":"Success"})");
  EXPECT_EQ(ended.load(), 42u);  // the hook ran before the acknowledgement
}

TEST_F(SdkLink, TasksReachTheHandlerAndAnswersCarryTheirIds) {
  PluginHooks hooks;
  hooks.on_task = [](const TaskRequest& task) -> Json::Value {
    if (task.function == "boom") throw std::runtime_error("boom failed");
    Json::Value result;
    result["opcode"] = task.opcode_text;
    result["op"] = task.opcode;
    result["subsys_id"] = task.subsystem;
    result["name"] = task.function;
    result["nargs"] = task.args.size();
    result["session_id"] = 999;  // the SDK keeps the task's own
    result["status"] = 0;
    return result;
  };
  start(hooks);
  ASSERT_TRUE(fake_.send(task_text(5, 11, "0x1001", 1, "add",
                                   R"([{"type":"int","value":3},{"type":"int","value":4}])")));
  Json::Value answer = fake_.receive_json();
  EXPECT_EQ(answer["req_type"].asString(), "exec_task");
  EXPECT_EQ(answer["session_id"].asUInt(), 5u);
  EXPECT_EQ(answer["transac_id"].asUInt(), 11u);
  EXPECT_EQ(answer["opcode"].asString(), "0x1001");
  EXPECT_EQ(answer["op"].asUInt(), 0x1001u);
  EXPECT_EQ(answer["subsys_id"].asUInt(), 1u);
  EXPECT_EQ(answer["name"].asString(), "add");
  EXPECT_EQ(answer["nargs"].asUInt(), 2u);

  ASSERT_TRUE(fake_.send(task_text(5, 12, "0x1001", 1, "boom", "[]")));
  answer = fake_.receive_json();
  EXPECT_EQ(answer["transac_id"].asUInt(), 12u);
  EXPECT_EQ(answer["status"].asInt(), -1);
  EXPECT_EQ(answer["error"].asString(), "boom failed");

  // Malformed: answered with an error when its ids are usable, else dropped.
  ASSERT_TRUE(fake_.send(R"({"session_id":5,"transac_id":13,"opcode":"0x1001","subsys_id":1,"func":{"args":[]}})"));
  answer = fake_.receive_json();
  EXPECT_EQ(answer["transac_id"].asUInt(), 13u);
  EXPECT_EQ(answer["status"].asInt(), -1);
  EXPECT_NE(answer["error"].asString().find("malformed"), std::string::npos);
  ASSERT_TRUE(fake_.send(R"({"session_id":5,"transac_id":"x","func":{}})"));
  ASSERT_TRUE(fake_.send(task_text(5, 14, "0x1001", 1, "add", "[]")));
  EXPECT_EQ(fake_.receive_json()["transac_id"].asUInt(), 14u);
}

TEST_F(SdkLink, SynchronousCallCompletesWhileTasksProbesAndNoticesArrive) {
  PluginHooks hooks;
  hooks.on_task = [](const TaskRequest& task) {
    Json::Value result;
    result["name"] = task.function;
    return result;
  };
  start(hooks);
  auto perms = std::async(std::launch::async, [&] {
    return plugin_->permission(7, {kFine, "android.permission.CAMERA"});
  });
  const Json::Value request = fake_.receive_json();
  ASSERT_EQ(request["req_type"].asString(), "PERMISSION");
  // Before the reply: a probe, a task and a session start.
  ASSERT_TRUE(fake_.send("PING "));
  ASSERT_TRUE(fake_.send(task_text(7, 21, "0x2002", 3, "getLocation", "[]")));
  ASSERT_TRUE(fake_.send(
      R"({"req_type": "start_session", "session_id": 8, "opcodes": [{"id": "0x2002","subsystems": [{"id" :3}]}]})"));
  ASSERT_TRUE(fake_.send(R"({"req_type":"PERMISSION","status": 0,"PermRes":["1","0"]} )"));
  EXPECT_EQ(perms.get(), (std::vector<bool>{true, false}));
  // The probe got no answer: the next two messages answer the task and the notice.
  const Json::Value task_answer = fake_.receive_json();
  EXPECT_EQ(task_answer["req_type"].asString(), "exec_task");
  EXPECT_EQ(task_answer["transac_id"].asUInt(), 21u);
  const Json::Value start_answer = fake_.receive_json();
  EXPECT_EQ(start_answer["req_type"].asString(), "start_session");
  EXPECT_EQ(start_answer["Result"].asString(), "Success");
  EXPECT_FALSE(fake_.receive(200ms).has_value());
}

TEST_F(SdkLink, TaskHandlerMayAskTheManagerBeforeAnswering) {
  PluginHooks hooks;
  hooks.on_task = [this](const TaskRequest& task) {
    Json::Value result;
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
  ASSERT_TRUE(fake_.send(task_text(6, 31, "0x2002", 3, "getLocation", "[]")));
  const Json::Value query = fake_.receive_json();
  ASSERT_EQ(query["req_type"].asString(), "INFO_QUERY");
  EXPECT_EQ(query["Session_Id"].asString(), "6");
  ASSERT_TRUE(fake_.send(
      R"({"req_type":"INFO_QUERY","QueryInfosRes":"SUCCESS:com.example.maps","ERROR:Query failed"} )"));
  ASSERT_EQ(fake_.receive_json()["req_type"].asString(), "PERMISSION");
  ASSERT_TRUE(fake_.send(R"({"req_type":"PERMISSION","status": 0,"PermRes":["1"]} )"));
  const Json::Value answer = fake_.receive_json();
  EXPECT_EQ(answer["transac_id"].asUInt(), 31u);
  EXPECT_TRUE(answer["known"].asBool());
  EXPECT_EQ(answer["package"].asString(), "com.example.maps");
  EXPECT_EQ(answer["uid"].asString(), "ERROR:Query failed");
  EXPECT_TRUE(answer["granted"].asBool());
}

TEST_F(SdkLink, TimedOutCallFailsAndItsLateReplyIsNotTakenForTheNext) {
  start({}, 300ms);
  const auto begin = std::chrono::steady_clock::now();
  auto first = std::async(std::launch::async, [&] { return plugin_->permission(7, {kFine}); });
  ASSERT_EQ(fake_.receive_json()["req_type"].asString(), "PERMISSION");
  EXPECT_EQ(error_kind(first), Kind::Timeout);
  const auto waited = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(waited, 250ms);
  EXPECT_LT(waited, 3s);

  ASSERT_TRUE(fake_.send(R"({"req_type":"PERMISSION","status": 0,"PermRes":["0"]} )"));  // late
  auto second = std::async(std::launch::async, [&] { return plugin_->permission(7, {kFine}); });
  ASSERT_EQ(fake_.receive_json()["req_type"].asString(), "PERMISSION");
  ASSERT_TRUE(fake_.send(R"({"req_type":"PERMISSION","status": 0,"PermRes":["1"]} )"));
  EXPECT_EQ(second.get(), std::vector<bool>{true});
}

TEST_F(SdkLink, CallsFailPromptlyWhenTheManagerGoesAway) {
  start();
  auto pending = std::async(std::launch::async, [&] { return plugin_->info_query(7, {"app.id.pid"}); });
  ASSERT_EQ(fake_.receive_json()["req_type"].asString(), "INFO_QUERY");
  const auto begin = std::chrono::steady_clock::now();
  fake_.close_plugin();
  EXPECT_EQ(error_kind(pending), Kind::Disconnected);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
  EXPECT_TRUE(plugin_->wait_closed(2s));
  EXPECT_FALSE(plugin_->connected());
  auto later = std::async(std::launch::async, [&] { return plugin_->init(); });
  EXPECT_EQ(error_kind(later), Kind::Disconnected);
  EXPECT_TRUE(logged("the manager closed the connection"));
}

TEST_F(SdkLink, BadLocalRequestsAreRefusedWithoutSendingAnything) {
  Plugin unconnected;
  try {
    unconnected.connect(fake_.socket_path() + ".missing");
    ADD_FAILURE() << "connected to a missing socket";
  } catch (const PluginError& e) {
    EXPECT_EQ(e.kind(), Kind::Io);
    EXPECT_NE(std::string(e.what()).find(".missing"), std::string::npos);
  }
  start();
  const Json::Value calc = load_api_def(LUMOKIT_SOURCE_DIR "/examples/api/calculator.json");
  try {
    plugin_->register_auth(0x1001, calc, "00");
    ADD_FAILURE() << "registered before init";
  } catch (const PluginError& e) {
    EXPECT_EQ(e.kind(), Kind::State);
  }
  init();
  struct Case {
    uint32_t opcode;
    std::string token;
  } cases[] = {{0x1002, "00"}, {0x1001, ""}};
  for (const Case& c : cases) {
    try {
      plugin_->register_auth(c.opcode, calc, c.token);
      ADD_FAILURE() << "accepted opcode " << c.opcode << " token '" << c.token << "'";
    } catch (const PluginError& e) {
      EXPECT_EQ(e.kind(), Kind::Invalid);
    }
  }
  EXPECT_THROW(plugin_->connect(fake_.socket_path()), PluginError);
  EXPECT_FALSE(fake_.receive(200ms).has_value());
}

TEST_F(SdkLink, AnswersGrowToTheManagersLargerLimitAfterTheFirstSessionStart) {
  PluginHooks hooks;
  hooks.on_task = [](const TaskRequest& task) {
    Json::Value result;
    result["return"] = std::string(task.transac_id * 1000, 'x');
    return result;
  };
  start(hooks);
  // 200,000 characters: more than the manager reads before a session start.
  ASSERT_TRUE(fake_.send(task_text(1, 200, "0x1001", 1, "big", "[]")));
  Json::Value answer = fake_.receive_json();
  EXPECT_EQ(answer["status"].asInt(), -1);
  EXPECT_NE(answer["error"].asString().find("102400"), std::string::npos);

  ASSERT_TRUE(fake_.send(
      R"({"req_type": "start_session", "session_id": 1, "opcodes": [{"id": "0x1001","subsystems": [{"id" :1}]}]})"));
  ASSERT_EQ(fake_.receive_json()["Result"].asString(), "Success");
  ASSERT_TRUE(fake_.send(task_text(1, 200, "0x1001", 1, "big", "[]")));
  answer = fake_.receive_json();
  EXPECT_EQ(answer["return"].asString().size(), 200000u);
  ASSERT_TRUE(fake_.send(task_text(1, 600, "0x1001", 1, "big", "[]")));
  answer = fake_.receive_json();
  EXPECT_EQ(answer["transac_id"].asUInt(), 600u);
  EXPECT_NE(answer["error"].asString().find("524288"), std::string::npos);
}

TEST_F(SdkLink, PermissionChangesReachTheHookAndMalformedOnesDoNot) {
  std::mutex mtx;
  std::vector<PermissionChange> seen;
  std::promise<void> two;
  PluginHooks hooks;
  hooks.on_permission_change = [&](const PermissionChange& change) {
    std::lock_guard<std::mutex> lock(mtx);
    seen.push_back(change);
    if (seen.size() == 2) two.set_value();
  };
  start(hooks);
  const std::string head = R"({"req_type":"permission_change", "opcode":"8194", "ss_id":"3", "session_id":"7", "permission":")";
  ASSERT_TRUE(fake_.send(head + kFine + R"(", "status":"0"})"));
  ASSERT_TRUE(fake_.send(head + kFine + R"(", "status":"maybe"})"));
  ASSERT_TRUE(fake_.send(head + "android.permission.CAMERA" + R"(", "status":"1"})"));
  ASSERT_EQ(two.get_future().wait_for(5s), std::future_status::ready);
  std::lock_guard<std::mutex> lock(mtx);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].opcode, 0x2002u);
  EXPECT_EQ(seen[0].subsystem, 3u);
  EXPECT_EQ(seen[0].session_id, 7u);
  EXPECT_EQ(seen[0].permission, kFine);
  EXPECT_FALSE(seen[0].granted);
  EXPECT_EQ(seen[1].permission, "android.permission.CAMERA");
  EXPECT_TRUE(seen[1].granted);
  EXPECT_TRUE(logged("malformed permission_change"));
}

TEST_F(SdkLink, AdoptsAConnectedSocketPair) {
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
  Plugin plugin;
  plugin.adopt(fds[0]);
  auto id = std::async(std::launch::async, [&] { return plugin.init(); });
  char buffer[256];
  const ssize_t n = recv(fds[1], buffer, sizeof buffer, 0);
  ASSERT_GT(n, 0);
  EXPECT_EQ(sdk_parse_json(std::string(buffer, n))["req_type"].asString(), "INIT");
  const std::string reply = R"({"req_type": "INIT", "service_id": 103} )";
  ASSERT_EQ(send(fds[1], reply.data(), reply.size(), 0), static_cast<ssize_t>(reply.size()));
  EXPECT_EQ(id.get(), 103);
  plugin.stop();
  close(fds[1]);
  int stream[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, stream), 0);
  Plugin other;
  EXPECT_THROW(other.adopt(stream[0]), PluginError);
  close(stream[0]);
  close(stream[1]);
}

// ---- the example plugin as a process ----------------------------------------

const std::string kExample = std::string(LUMOKIT_BIN_DIR) + "/lumokit-example-plugin";

std::string location_task(uint32_t session, uint32_t transac) {
  return task_text(session, transac, "0x2002", 3, "getLocation", "[]");
}

// INIT, the two registrations and the two REDY messages of the example.
void answer_registration(SdkFakeManager& fake, const char* kind, std::vector<Json::Value>* regs) {
  ASSERT_TRUE(fake.accept_plugin());
  ASSERT_EQ(fake.receive_json()["req_type"].asString(), "INIT");
  ASSERT_TRUE(fake.send(R"({"req_type": "INIT", "service_id": 102} )"));
  for (int i = 0; i < 2; ++i) {
    const Json::Value msg = fake.receive_json();
    ASSERT_EQ(msg["req_type"].asString(), kind);
    regs->push_back(msg);
    ASSERT_TRUE(fake.send(std::string(R"({"req_type": ")") + kind + R"(","opcode": ")" +
                          msg["Opcode"].asString() + R"(", "result": 0} )"));
  }
  for (const char* opcode : {"4097", "8194"}) {
    const Json::Value msg = fake.receive_json();
    ASSERT_EQ(msg["req_type"].asString(), "REDY");
    ASSERT_EQ(msg["Opcode"].asString(), opcode);
    ASSERT_TRUE(fake.send(std::string(R"({"req_type": "REDY","opcode": ")") + opcode +
                          R"(", "result": 0} )"));
  }
}

TEST(SdkExamplePlugin, ServesCalculatorAndLocationAndLeavesOnSigterm) {
  SdkFakeManager fake;
  SdkChildProcess child;
  ASSERT_TRUE(child.start(kExample, {"--legacy", "--socket", fake.socket_path()}));
  std::vector<Json::Value> regs;
  answer_registration(fake, "REGS", &regs);
  EXPECT_EQ(regs[0]["Opcode"].asString(), "4097");
  EXPECT_EQ(regs[0]["api_def"], load_api_def(LUMOKIT_SOURCE_DIR "/examples/api/calculator.json"));
  EXPECT_EQ(regs[1]["Opcode"].asString(), "8194");
  ASSERT_TRUE(child.wait_for_line("serving").has_value());

  // Only the pairs it serves are accepted.
  ASSERT_TRUE(fake.send(
      R"({"req_type": "start_session", "session_id": 5, "opcodes": [{"id": "0x1001","subsystems": [{"id" :1},{"id" :2}]},{"id": "0x2002","subsystems": [{"id" :3}]},{"id": "0x3003","subsystems": [{"id" :1}]}]})"));
  EXPECT_EQ(fake.receive().value_or(""),
            R"({"req_type":"start_session","Result":"Success","session_id":5,"opcodes":[{"id":"0x1001","subsystems":[{"id":1}]},{"id":"0x2002","subsystems":[{"id":3}]}]})");

  struct CalcCase {
    std::string func;
    std::string args;
    int status;
    long long value;
  } calc_cases[] = {
      {"add", R"([{"type":"int","value":3},{"type":"int","value":"4"}])", 0, 7},
      {"multiply", R"([{"type":"int","value":-6},{"type":"int","value":7}])", 0, -42},
      {"multiply", R"([{"type":"int","value":4611686018427387904},{"type":"int","value":2}])", -3, 0},
      {"add", R"([{"type":"string","value":"3"},{"type":"int","value":1}])", -1, 0},
      {"divide", R"([{"type":"int","value":1},{"type":"int","value":1}])", -2, 0},
  };
  uint32_t transac = 1;
  for (const CalcCase& c : calc_cases) {
    ASSERT_TRUE(fake.send(task_text(5, transac, "0x1001", 1, c.func, c.args)));
    const Json::Value answer = fake.receive_json();
    EXPECT_EQ(answer["transac_id"].asUInt(), transac) << c.func << c.args;
    EXPECT_EQ(answer["status"].asInt(), c.status) << c.func << c.args;
    if (c.status == 0) {
      EXPECT_EQ(answer["return"].asInt64(), c.value) << c.func << c.args;
    }
    ++transac;
  }

  // getLocation asks for the permission once per session and the package each time.
  Json::Value first_position;
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(fake.send(location_task(5, 100 + round)));
    Json::Value msg = fake.receive_json();
    if (round == 0) {
      ASSERT_EQ(msg["req_type"].asString(), "PERMISSION");
      EXPECT_EQ(msg["Session_Id"].asString(), "5");
      EXPECT_EQ(msg["Permissions"][0].asString(), kFine);
      ASSERT_TRUE(fake.send(R"({"req_type":"PERMISSION","status": 0,"PermRes":["1"]} )"));
      msg = fake.receive_json();
    }
    ASSERT_EQ(msg["req_type"].asString(), "INFO_QUERY");
    EXPECT_EQ(msg["QueryInfos"][0].asString(), "app.name.package");
    ASSERT_TRUE(fake.send(R"({"req_type":"INFO_QUERY","QueryInfosRes":"SUCCESS:com.example.maps"} )"));
    const Json::Value answer = fake.receive_json();
    EXPECT_EQ(answer["status"].asInt(), 0);
    EXPECT_EQ(answer["package"].asString(), "com.example.maps");
    const Json::Value& pos = answer["return"];
    EXPECT_LE(std::llabs(pos["latitude_e6"].asInt64()), 85000000);
    EXPECT_LE(std::llabs(pos["longitude_e6"].asInt64()), 180000000);
    if (round == 0) first_position = pos;
    EXPECT_EQ(pos, first_position);
  }

  // A revocation is remembered: no question, a refusal.
  ASSERT_TRUE(fake.send(std::string(R"({"req_type":"permission_change", "opcode":"8194", "ss_id":"3", "session_id":"5", "permission":")") +
                        kFine + R"(", "status":"0"})"));
  ASSERT_TRUE(fake.send(location_task(5, 102)));
  Json::Value answer = fake.receive_json();
  EXPECT_EQ(answer["transac_id"].asUInt(), 102u);
  EXPECT_EQ(answer["status"].asInt(), -4);

  // A session that never started this pair is refused.
  ASSERT_TRUE(fake.send(location_task(6, 103)));
  answer = fake.receive_json();
  EXPECT_EQ(answer["status"].asInt(), -5);

  ASSERT_TRUE(fake.send(R"({"req_type":"end_session","session_id": 5})"));
  EXPECT_EQ(fake.receive().value_or(""), R"({"req_type":"end_session","Result":"Success"})");
  ASSERT_TRUE(fake.send(task_text(5, 104, "0x1001", 1, "add", R"([{"type":"int","value":1}])")));
  EXPECT_EQ(fake.receive_json()["status"].asInt(), -5);

  ASSERT_TRUE(child.signal(SIGTERM));
  const Json::Value dint = fake.receive_json();
  EXPECT_EQ(dint["req_type"].asString(), "DINT");
  EXPECT_EQ(dint["Service_Id"].asInt(), 102);
  ASSERT_TRUE(fake.send("1 "));
  fake.close_plugin();
  EXPECT_EQ(child.wait_exit(), 0);
}

TEST(SdkExamplePlugin, RegistersWithTokenFilesAndStopsWhenRefused) {
  char dir_template[] = "/tmp/lumokit-sdk-tokens-XXXXXX";
  ASSERT_NE(mkdtemp(dir_template), nullptr);
  const std::string dir = dir_template;
  const auto write = [](const std::string& path, const std::string& text) {
    FILE* f = std::fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs(text.c_str(), f);
    std::fclose(f);
  };
  write(dir + "/calculator.token", "00aa11\n");
  write(dir + "/location.token", "ffff\n");
  write(dir + "/override.token", "  0123\n4567 \n");

  {
    SdkFakeManager fake;
    SdkChildProcess child;
    ASSERT_TRUE(child.start(kExample, {"--socket", fake.socket_path(), "--token-dir", dir,
                                       "--token", "0x2002=" + dir + "/override.token"}));
    std::vector<Json::Value> regs;
    answer_registration(fake, "AUTH", &regs);
    EXPECT_EQ(regs[0]["Token"].asString(), "00aa11");
    EXPECT_EQ(regs[1]["Token"].asString(), "01234567");
    ASSERT_TRUE(child.signal(SIGINT));
    ASSERT_EQ(fake.receive_json()["req_type"].asString(), "DINT");
    ASSERT_TRUE(fake.send("1 "));
    fake.close_plugin();
    EXPECT_EQ(child.wait_exit(), 0);
  }
  {
    SdkFakeManager fake;
    SdkChildProcess child;
    ASSERT_TRUE(child.start(kExample, {"--socket", fake.socket_path(), "--token-dir", dir}));
    ASSERT_TRUE(fake.accept_plugin());
    ASSERT_EQ(fake.receive_json()["req_type"].asString(), "INIT");
    ASSERT_TRUE(fake.send(R"({"req_type": "INIT", "service_id": 102} )"));
    ASSERT_EQ(fake.receive_json()["req_type"].asString(), "AUTH");
    ASSERT_TRUE(fake.send(R"({"req_type": "AUTH","opcode": "4097", "result": -1} )"));
    EXPECT_TRUE(child.wait_for_line("refused").has_value());
    EXPECT_EQ(child.wait_exit(), 1);
  }
  {
    // No token for a service: refused before connecting.
    SdkFakeManager fake;
    SdkChildProcess child;
    ASSERT_TRUE(child.start(kExample, {"--socket", fake.socket_path(), "--token",
                                       "calculator=" + dir + "/calculator.token"}));
    EXPECT_EQ(child.wait_exit(), 2);
    EXPECT_FALSE(fake.accept_plugin(200ms));
  }
  for (const char* name : {"calculator.token", "location.token", "override.token"}) {
    unlink((dir + "/" + name).c_str());
  }
  rmdir(dir.c_str());
}

}  // namespace
}  // namespace lumokit
