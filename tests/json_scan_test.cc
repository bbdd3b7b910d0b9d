// The one-pass JSON scanner: which texts it vouches for, the values it
// picks out (each vouched case is also read with jsoncpp, which must agree),
// and that the manager answers a task and its result the same way whether
// the scanner or jsoncpp reads them.
#include <gtest/gtest.h>

#include <thread>

#include "json_read.h"
#include "json_scan.h"
#include "manager_harness.h"
#include "session_tables.h"

namespace lumokit::test {
namespace {

using namespace std::chrono_literals;

Json::Value library_parse(const std::string& text, bool strict, bool* ok) {
  Json::CharReaderBuilder builder;
  if (strict) Json::CharReaderBuilder::strictMode(&builder.settings_);
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string errors;
  *ok = parse_json_safely(*reader, text.data(), text.data() + text.size(), &root, &errors);
  return root;
}

std::string nested_arrays(int levels) {
  return "{\"a\":" + std::string(static_cast<size_t>(levels), '[') +
         std::string(static_cast<size_t>(levels), ']') + "}";
}

TEST(JsonScan, PluginMessages) {
  struct Case {
    std::string text;
    bool fast;
    const char* req_type;
    uint32_t session_id;
    uint32_t transac_id;
  };
  const Case cases[] = {
      {R"({"req_type":"exec_task","session_id":7,"transac_id":9,"return":"x"})", true, "exec_task", 7, 9},
      {" \r\n{ \"req_type\" : \"exec_task\" ,\t\"session_id\" : 0 }\n", true, "exec_task", 0, 0},
      {"{}", true, "none", 0, 0},
      {R"({"a":[1,{"b":null},true,false],"c":-1.5e-3,"d":"\u00e9\ud83d\ude00\n\/","req_type":"INIT"})",
       true, "INIT", 0, 0},
      {R"({"session_id":4294967295,"transac_id":1})", true, "none", 4294967295u, 1},
      {R"({"x":1,"x":[2],"session_id":3})", true, "none", 3, 0},  // only picked members must be single
      {R"({"a":1e-400,"b":4e-320,"c":-0,"d":0.5E+3})", true, "none", 0, 0},  // tiny: zero, accepted
      {R"({"a":"\u0000\u001f\"\\"})", true, "none", 0, 0},
      {nested_arrays(63), true, "none", 0, 0},
      {nested_arrays(64), false, "", 0, 0},
      {R"({"session_id":4294967296})", false, "", 0, 0},
      {R"({"session_id":07})", false, "", 0, 0},
      {R"({"session_id":-1})", false, "", 0, 0},
      {R"({"session_id":1.0})", false, "", 0, 0},
      {R"({"transac_id":1e2})", false, "", 0, 0},
      {R"({"session_id":"7"})", false, "", 0, 0},
      {R"({"session_id":true})", false, "", 0, 0},
      {R"({"session_id":null})", false, "", 0, 0},
      {R"({"req_type":5})", false, "", 0, 0},
      {R"({"req_type":"exec\u005ftask"})", false, "", 0, 0},
      {R"({"req\u005ftype":"exec_task"})", false, "", 0, 0},
      {R"({"req_type":"INIT","req_type":"exec_task"})", false, "", 0, 0},
      {R"({"session_id":1,"session_id":2})", false, "", 0, 0},
      {"// note\n{\"req_type\":\"exec_task\"}", false, "", 0, 0},
      {R"({"req_type":/* c */"exec_task"})", false, "", 0, 0},
      {R"({"req_type":"exec_task"} x)", false, "", 0, 0},
      {"\xEF\xBB\xBF{\"req_type\":\"exec_task\"}", false, "", 0, 0},
      {std::string("{\"req_type\":\"exec_task\"}\0", 25), false, "", 0, 0},
      {"{\"a\":\"tab\there\"}", false, "", 0, 0},
      {R"({"a":"\ud800"})", false, "", 0, 0},
      {R"({"a":"\udc00"})", false, "", 0, 0},
      {R"({"a":"\ud800\u0041"})", false, "", 0, 0},
      {R"({"a":"\x"})", false, "", 0, 0},
      {R"({"a":"\u12G4"})", false, "", 0, 0},
      {R"({"a":1e400})", false, "", 0, 0},
      {"{\"a\":1" + std::string(400, '0') + "}", false, "", 0, 0},
      {R"({"a":01})", false, "", 0, 0},
      {R"({"a":.5})", false, "", 0, 0},
      {R"({"a":1.})", false, "", 0, 0},
      {R"({"a":+1})", false, "", 0, 0},
      {R"({"a":tru})", false, "", 0, 0},
      {R"({"a":[1,]})", false, "", 0, 0},
      {R"({"a":1,})", false, "", 0, 0},
      {R"({"a" 1})", false, "", 0, 0},
      {R"({"a":1)", false, "", 0, 0},
      {R"(["req_type"])", false, "", 0, 0},
      {"", false, "", 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 80));
    PluginMessageScan scan;
    ASSERT_EQ(scan_plugin_message(c.text.data(), c.text.size(), &scan), c.fast);
    if (!c.fast) continue;
    EXPECT_EQ(scan.req_type, c.req_type);
    EXPECT_EQ(scan.session_id, c.session_id);
    EXPECT_EQ(scan.transac_id, c.transac_id);
    bool parsed = false;
    const Json::Value root = library_parse(c.text, false, &parsed);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(json_text(root, "req_type", "none"), c.req_type);
    EXPECT_EQ(json_uint(root, "session_id", 0), c.session_id);
    EXPECT_EQ(json_uint(root, "transac_id", 0), c.transac_id);
  }
}

std::string task_with(const std::string& args, const std::string& extra = "") {
  return R"({"session_id":5,"transac_id":7,"opcode":"0x1001","subsys_id":2,)" + extra +
         R"("func":{"name":"add","num_of_args":2,"args":)" + args + "}}";
}

TEST(JsonScan, TaskRequests) {
  const std::string two_args = R"([{"type":"int","value":2},{"value":"x","type":"string"}])";
  std::string ten_args = "[";
  for (int i = 0; i < 10; ++i) ten_args += std::string(i ? "," : "") + "{\"type\":\"t" + std::to_string(i) + "\"}";
  ten_args += "]";
  struct Case {
    std::string text;
    bool fast;
    std::vector<std::string> types;  // when fast; the other values are those of task_with
  };
  const Case cases[] = {
      {task_with(two_args), true, {"int", "string"}},
      {task_with("[]"), true, {}},
      {task_with(ten_args), true, {"t0", "t1", "t2", "t3", "t4", "t5", "t6", "t7", "t8", "t9"}},
      {task_with(two_args, R"("name":"top","x":{"y":[null,"\u00e9"]},"x":1,)"), true, {"int", "string"}},
      {R"( {"func":{"args":[{"type":"int"}],"num_of_args":2,"name":"add","z":0},"subsys_id":2,)"
       R"("opcode":"0x1001","transac_id":7,"session_id":5} )",
       true, {"int"}},
      // Anything sanitising refuses, or that is not in the plain shape:
      {task_with(R"([{"value":1}])"), false, {}},
      {task_with(R"([{"type":1}])"), false, {}},
      {task_with(R"([{"type":"a","type":"b"}])"), false, {}},
      {task_with(R"([{"typ\u0065":"int"}])"), false, {}},
      {task_with(R"([["int"]])"), false, {}},
      {task_with(R"({"type":"int"})"), false, {}},
      {task_with(R"([{"type":"i\u006et"}])"), false, {}},
      {task_with("[]", R"("func":{},)"), false, {}},
      {task_with("[]", R"("opcode":"0x2",)"), false, {}},
      {R"({"session_id":5,"transac_id":7,"opcode":"0x1001","subsys_id":2})", false, {}},
      {R"({"session_id":5,"transac_id":7,"opcode":4097,"subsys_id":2,"func":{"name":"a","num_of_args":0,"args":[]}})",
       false, {}},
      {R"({"session_id":-5,"transac_id":7,"opcode":"1","subsys_id":2,"func":{"name":"a","num_of_args":0,"args":[]}})",
       false, {}},
      {R"({"session_id":5,"transac_id":7.0,"opcode":"1","subsys_id":2,"func":{"name":"a","num_of_args":0,"args":[]}})",
       false, {}},
      {R"({"session_id":5,"transac_id":7,"opcode":"1","subsys_id":2,"func":{"name":"a","num_of_args":0}})", false, {}},
      {R"({"session_id":5,"transac_id":7,"opcode":"1","subsys_id":2,"func":{"name":1,"num_of_args":0,"args":[]}})",
       false, {}},
      {R"({"session_id":5,"transac_id":7,"opcode":"1","subsys_id":2,"func":[]})", false, {}},
      {task_with(two_args) + "/* trailing */", false, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 120));
    TaskRequestScan scan;
    ASSERT_EQ(scan_task_request(c.text.data(), c.text.size(), &scan), c.fast);
    if (!c.fast) continue;
    EXPECT_EQ(scan.session_id, 5u);
    EXPECT_EQ(scan.transac_id, 7u);
    EXPECT_EQ(scan.opcode, "0x1001");
    EXPECT_EQ(scan.subsys_id, 2u);
    EXPECT_EQ(scan.name, "add");
    EXPECT_EQ(scan.num_of_args, 2u);
    ASSERT_EQ(scan.arg_types.size(), c.types.size());
    for (size_t i = 0; i < c.types.size(); ++i) EXPECT_EQ(scan.arg_types[i], c.types[i]);
    bool parsed = false;
    const Json::Value root = library_parse(c.text, false, &parsed);
    ASSERT_TRUE(parsed);
    EXPECT_TRUE(sanitizingJson(root));
    EXPECT_EQ(root["func"]["args"].size(), c.types.size());
  }
}

// é, U+1F600 from its surrogate pair, €, the short escapes, and U+0000.
const char kEscapesDecoded[] = "\xC3\xA9" "\xF0\x9F\x98\x80" "\xE2\x82\xAC" "\n\t\r\b\f/\\\"" "\0x";

TEST(JsonScan, FlatObjectsAndStringDecoding) {
  struct Case {
    std::string text;
    bool fast;
    JsonFlatMember::Kind session_kind;
    std::string request;  // decoded, when fast
  };
  const Case cases[] = {
      {R"({"op":"perform_task","session_id":3,"request":"{\"a\":1}"})", true, JsonFlatMember::kNumber,
       R"({"a":1})"},
      {R"({"request":"\u00e9\ud83d\ude00\u20ac\n\t\r\b\f\/\\\"\u0000x","op":"x"})", true,
       JsonFlatMember::kMissing, std::string(kEscapesDecoded, sizeof(kEscapesDecoded) - 1)},
      {R"({"session_id":null,"request":""})", true, JsonFlatMember::kLiteral, ""},
      {"{\"request\":\"\xFF raw bytes pass\"}", true, JsonFlatMember::kMissing, "\xFF raw bytes pass"},
      {R"({"op":"perform_task","session_id":3,"request":"x","extra":1})", false, JsonFlatMember::kMissing, ""},
      {R"({"op":"a","op":"b"})", false, JsonFlatMember::kMissing, ""},
      {R"({"request":{}})", false, JsonFlatMember::kMissing, ""},
      {R"({"request":["x"]})", false, JsonFlatMember::kMissing, ""},
      {R"({"\u006fp":"perform_task"})", false, JsonFlatMember::kMissing, ""},
      {R"({"request":"x"}})", false, JsonFlatMember::kMissing, ""},
      {R"({"request":"\ud83d"})", false, JsonFlatMember::kMissing, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    JsonFlatMember members[] = {{"op"}, {"session_id"}, {"request"}};
    ASSERT_EQ(scan_flat_object(c.text.data(), c.text.size(), members, 3), c.fast);
    if (!c.fast) continue;
    EXPECT_EQ(members[1].kind, c.session_kind);
    ASSERT_EQ(members[2].kind, JsonFlatMember::kString);
    std::string decoded = "kept:";
    json_decode_string(members[2].text, &decoded);
    EXPECT_EQ(decoded, "kept:" + c.request);
    bool parsed = false;
    const Json::Value root = library_parse(c.text, true, &parsed);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(root["request"].asString(), c.request);
  }
}

TEST(JsonScan, PlainUint32) {
  const struct {
    const char* token;
    bool ok;
    uint32_t value;
  } cases[] = {{"0", true, 0},         {"4294967295", true, 4294967295u}, {"17", true, 17},
               {"4294967296", false, 0}, {"00", false, 0}, {"-1", false, 0}, {"1.0", false, 0},
               {"", false, 0},         {"99999999999", false, 0}};
  for (const auto& c : cases) {
    uint32_t value = 12345;
    EXPECT_EQ(json_plain_uint32(c.token, &value), c.ok) << c.token;
    EXPECT_EQ(value, c.ok ? c.value : 12345u) << c.token;
  }
}

// A task and its result through a live manager, once in the plain shape the
// scanner reads and once in shapes only jsoncpp reads: every answer, log
// line and queued text must be the same.
TEST(JsonScan, ManagerAnswersAlikeForBothReaders) {
  RawPlugin lamp;
  bring_up(lamp, 0x1001, {1, 2}, "lamp");
  std::thread client([] { create_session("{}", recording_callback(), 0, 1, 4321, 10077); });
  lamp.answer_start_session(true);
  client.join();
  ASSERT_TRUE(wait_for_callbacks(1, 3s));
  clear_callbacks();

  // Each shape turns a plain task text into one the scanner leaves to jsoncpp.
  const std::vector<std::pair<const char*, std::string (*)(const std::string&)>> shapes = {
      {"plain", [](const std::string& t) { return t; }},
      {"comment", [](const std::string& t) { return "/* c */ " + t; }},
      {"escaped opcode",
       [](const std::string& t) {
         std::string s = t;
         s.replace(s.find("\"0x1001\""), 8, "\"0x\\u0031001\"");
         return s;
       }},
      {"integral double",
       [](const std::string& t) {
         std::string s = t;
         s.replace(s.find("\"subsys_id\":1"), 13, "\"subsys_id\":1.0");
         return s;
       }},
  };
  struct Outcome {
    std::vector<Callback> answers;
    std::vector<std::string> key_logs;
    std::string queued;
  };
  std::vector<Outcome> outcomes;
  for (const auto& shape : shapes) {
    SCOPED_TRACE(shape.first);
    const std::string plain = task_request(1, 7, "0x1001", 1, "dim", {"int", "string"});
    const std::string text = shape.second(plain);
    TaskRequestScan scan;
    EXPECT_EQ(scan_task_request(text.data(), text.size(), &scan), text == plain);

    Outcome out;
    LogCapture log;
    clear_callbacks();
    perform_task(text, recording_callback(), 1);                       // forwarded
    out.queued = lamp.recv();
    EXPECT_EQ(out.queued, text);
    std::string miscounted = text;
    miscounted.replace(miscounted.find("\"num_of_args\":2"), 15, "\"num_of_args\":3");
    perform_task(miscounted, recording_callback(), 1);                 // -1
    perform_task(text, recording_callback(), 9);                       // not this session: silent
    std::string other_pair = text;
    other_pair.replace(other_pair.find("\"session_id\":1"), 14, "\"session_id\":9");
    perform_task(other_pair, recording_callback(), 9);                 // -7
    ASSERT_TRUE(wait_for_callbacks(2, 3s));
    out.answers = callbacks();
    for (const std::string& line : log.lines()) {
      if (line.find("API Key: ") != std::string::npos || line.find("mismatched") != std::string::npos) {
        out.key_logs.push_back(line);
      }
    }
    outcomes.push_back(out);
  }
  ASSERT_EQ(outcomes[0].answers.size(), 2u);
  EXPECT_EQ(outcomes[0].answers[0].handle, 7u);
  EXPECT_NE(outcomes[0].answers[0].text.find("\"status\":-1"), std::string::npos);
  EXPECT_NE(outcomes[0].answers[1].text.find("\"status\":-7"), std::string::npos);
  ASSERT_EQ(outcomes[0].key_logs.size(), 2u);
  EXPECT_NE(outcomes[0].key_logs[0].find("API Key: dim:1:2:int:string"), std::string::npos);
  for (size_t i = 1; i < outcomes.size(); ++i) {
    SCOPED_TRACE(shapes[i].first);
    ASSERT_EQ(outcomes[i].answers.size(), outcomes[0].answers.size());
    for (size_t j = 0; j < outcomes[0].answers.size(); ++j) {
      EXPECT_EQ(outcomes[i].answers[j].kind, outcomes[0].answers[j].kind);
      EXPECT_EQ(outcomes[i].answers[j].session_id, outcomes[0].answers[j].session_id);
      EXPECT_EQ(outcomes[i].answers[j].text, outcomes[0].answers[j].text);
      EXPECT_EQ(outcomes[i].answers[j].handle, outcomes[0].answers[j].handle);
    }
    EXPECT_EQ(outcomes[i].key_logs, outcomes[0].key_logs);
  }

  // The plugin's result: plain, and in shapes only jsoncpp reads.
  const std::string results[] = {
      R"({"req_type":"exec_task","session_id":1,"transac_id":7,"value":"done"})",
      R"({"req_type":"exec_task", /* c */ "session_id":1,"transac_id":7,"value":"done"})",
      R"({"req_type":"exec\u005ftask","session_id":1,"transac_id":7.0,"value":"done"} trailing)",
      R"({"req_type":"exec_task","session_id":2,"session_id":1,"transac_id":7})",
  };
  for (const std::string& result : results) {
    SCOPED_TRACE(result);
    clear_callbacks();
    lamp.send(result);
    ASSERT_TRUE(wait_for_callbacks(1, 3s));
    const Callback cb = callbacks()[0];
    EXPECT_EQ(cb.kind, LUMO_RESPONSE_TASK);
    EXPECT_EQ(cb.session_id, 1u);
    EXPECT_EQ(cb.text, result);
    EXPECT_EQ(cb.handle, 7u);
  }
}

}  // namespace
}  // namespace lumokit::test
