// The one-pass JSON scanner: which texts it vouches for, the values it
// picks out (each vouched case is also read with jsoncpp, which must agree),
// and that the manager answers a task and its result the same way whether
// the scanner or jsoncpp reads them.
#include <gtest/gtest.h>

#include "json_read.h"
#include "json_scan.h"
#include "manager_harness.h"
#include "session_tables.h"

namespace lumokit::test {
namespace {

using namespace std::chrono_literals;

bool library_parse(const std::string& text, bool strict, Json::Value* root) {
  Json::CharReaderBuilder builder;
  if (strict) Json::CharReaderBuilder::strictMode(&builder.settings_);
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  return parse_json_safely(*reader, text.data(), text.data() + text.size(), root, &errors);
}

std::string nested_arrays(int levels) {
  return "{\"a\":" + std::string(static_cast<size_t>(levels), '[') +
         std::string(static_cast<size_t>(levels), ']') + "}";
}

TEST(JsonScan, PluginMessages) {
  const struct {
    std::string text;
    const char* req_type;
    uint32_t session_id;
    uint32_t transac_id;
  } vouched[] = {
      {R"({"req_type":"exec_task","session_id":7,"transac_id":9,"return":"x"})", "exec_task", 7, 9},
      {" \r\n{ \"req_type\" : \"exec_task\" ,\t\"session_id\" : 0 }\n", "exec_task", 0, 0},
      {"{}", "none", 0, 0},
      {R"({"a":[1,{"b":null},true,false],"c":-1.5e-3,"d":"\u00e9\ud83d\ude00\n\/","req_type":"INIT"})",
       "INIT", 0, 0},
      {R"({"session_id":4294967295,"transac_id":1})", "none", 4294967295u, 1},
      {R"({"x":1,"x":[2],"session_id":3})", "none", 3, 0},  // only picked members must be single
      {R"({"a":1e-307,"b":0e-400,"c":-0,"d":0.5E+3})", "none", 0, 0},  // no overflow or underflow
      {R"({"a":"\u0000\u001f\"\\"})", "none", 0, 0},
      {nested_arrays(63), "none", 0, 0},
  };
  for (const auto& c : vouched) {
    SCOPED_TRACE(c.text.substr(0, 80));
    PluginMessageScan scan;
    ASSERT_TRUE(scan_plugin_message(c.text.data(), c.text.size(), &scan));
    EXPECT_EQ(scan.req_type, c.req_type);
    EXPECT_EQ(scan.session_id, c.session_id);
    EXPECT_EQ(scan.transac_id, c.transac_id);
    Json::Value root;
    ASSERT_TRUE(library_parse(c.text, false, &root));
    EXPECT_EQ(json_text(root, "req_type", "none"), c.req_type);
    EXPECT_EQ(json_uint(root, "session_id", 0), c.session_id);
    EXPECT_EQ(json_uint(root, "transac_id", 0), c.transac_id);
  }
  const std::string left_to_jsoncpp[] = {
      nested_arrays(64), R"({"session_id":4294967296})", R"({"session_id":07})", R"({"session_id":-1})",
      R"({"session_id":1.0})", R"({"transac_id":1e2})", R"({"session_id":"7"})", R"({"session_id":true})",
      R"({"session_id":null})", R"({"req_type":5})", R"({"req_type":"exec\u005ftask"})",
      R"({"req\u005ftype":"exec_task"})", R"({"req_type":"INIT","req_type":"exec_task"})",
      R"({"session_id":1,"session_id":2})", "// note\n{\"req_type\":\"exec_task\"}",
      R"({"req_type":/* c */"exec_task"})", R"({"req_type":"exec_task"} x)",
      "\xEF\xBB\xBF{\"req_type\":\"exec_task\"}", std::string("{\"req_type\":\"exec_task\"}\0", 25),
      "{\"a\":\"tab\there\"}", R"({"a":"\ud800"})", R"({"a":"\udc00"})", R"({"a":"\ud800\u0041"})",
      R"({"a":"\x"})", R"({"a":"\u12G4"})", R"({"a":1e400})", "{\"a\":1" + std::string(400, '0') + "}",
      // Underflow: libc++'s jsoncpp (Android) refuses what libstdc++'s reads as 0.
      R"({"a":1e-400})", R"({"a":-4e-320})", R"({"a":1e-308})", "{\"a\":0." + std::string(310, '0') + "1}",
      R"({"a":01})", R"({"a":.5})", R"({"a":1.})", R"({"a":+1})", R"({"a":tru})", R"({"a":[1,]})",
      R"({"a":1,})", R"({"a" 1})", R"({"a":1)", R"(["req_type"])", "",
  };
  for (const std::string& text : left_to_jsoncpp) {
    PluginMessageScan scan;
    EXPECT_FALSE(scan_plugin_message(text.data(), text.size(), &scan)) << text.substr(0, 80);
  }
}

std::string task_with(const std::string& args, const std::string& extra = "") {
  return R"({"session_id":5,"transac_id":7,"opcode":"0x1001","subsys_id":2,)" + extra +
         R"("func":{"name":"add","num_of_args":2,"args":)" + args + "}}";
}

TEST(JsonScan, TaskRequests) {
  const std::string two_args = R"([{"type":"int","value":2},{"value":"x","type":"string"}])";
  std::string ten_args = "[";
  for (int i = 0; i < 10; ++i) {
    ten_args += std::string(i ? "," : "") + "{\"type\":\"t" + std::to_string(i) + "\"}";
  }
  ten_args += "]";
  const struct {
    std::string text;
    std::vector<std::string> types;  // the other values are those of task_with
  } vouched[] = {
      {task_with(two_args), {"int", "string"}},
      {task_with("[]"), {}},
      {task_with(ten_args), {"t0", "t1", "t2", "t3", "t4", "t5", "t6", "t7", "t8", "t9"}},
      {task_with(two_args, R"("name":"top","x":{"y":[null,"\u00e9"]},"x":1,)"), {"int", "string"}},
      {R"( {"func":{"args":[{"type":"int"}],"num_of_args":2,"name":"add","z":0},"subsys_id":2,)"
       R"("opcode":"0x1001","transac_id":7,"session_id":5} )",
       {"int"}},
  };
  for (const auto& c : vouched) {
    SCOPED_TRACE(c.text.substr(0, 120));
    TaskRequestScan scan;
    ASSERT_TRUE(scan_task_request(c.text.data(), c.text.size(), &scan));
    EXPECT_EQ(scan.session_id, 5u);
    EXPECT_EQ(scan.transac_id, 7u);
    EXPECT_EQ(scan.opcode, "0x1001");
    EXPECT_EQ(scan.subsys_id, 2u);
    EXPECT_EQ(scan.name, "add");
    EXPECT_EQ(scan.num_of_args, 2u);
    ASSERT_EQ(scan.arg_types.size(), c.types.size());
    for (size_t i = 0; i < c.types.size(); ++i) EXPECT_EQ(scan.arg_types[i], c.types[i]);
    Json::Value root;
    ASSERT_TRUE(library_parse(c.text, false, &root));
    EXPECT_TRUE(sanitizingJson(root));
    EXPECT_EQ(root["func"]["args"].size(), c.types.size());
  }
  // Anything sanitising refuses, or that is not in the plain shape.
  const std::string args0 = R"("func":{"name":"a","num_of_args":0,"args":[]})";
  const std::string left_to_jsoncpp[] = {
      task_with(R"([{"value":1}])"), task_with(R"([{"type":1}])"), task_with(R"([{"type":"a","type":"b"}])"),
      task_with(R"([{"typ\u0065":"int"}])"), task_with(R"([["int"]])"), task_with(R"({"type":"int"})"),
      task_with(R"([{"type":"i\u006et"}])"), task_with("[]", R"("func":{},)"),
      task_with("[]", R"("opcode":"0x2",)"), R"({"session_id":5,"transac_id":7,"opcode":"0x1001","subsys_id":2})",
      R"({"session_id":5,"transac_id":7,"opcode":4097,"subsys_id":2,)" + args0 + "}",
      R"({"session_id":-5,"transac_id":7,"opcode":"1","subsys_id":2,)" + args0 + "}",
      R"({"session_id":5,"transac_id":7.0,"opcode":"1","subsys_id":2,)" + args0 + "}",
      R"({"session_id":5,"transac_id":7,"opcode":"1","subsys_id":2,"func":{"name":"a","num_of_args":0}})",
      R"({"session_id":5,"transac_id":7,"opcode":"1","subsys_id":2,"func":{"name":1,"num_of_args":0,"args":[]}})",
      R"({"session_id":5,"transac_id":7,"opcode":"1","subsys_id":2,"func":[]})",
      task_with(two_args) + "/* trailing */",
  };
  for (const std::string& text : left_to_jsoncpp) {
    TaskRequestScan scan;
    EXPECT_FALSE(scan_task_request(text.data(), text.size(), &scan)) << text;
  }
}

// é, U+1F600 from its surrogate pair, €, the short escapes, and U+0000.
const char kEscapesDecoded[] = "\xC3\xA9" "\xF0\x9F\x98\x80" "\xE2\x82\xAC" "\n\t\r\b\f/\\\"" "\0x";

TEST(JsonScan, FlatObjectsAndStringDecoding) {
  const struct {
    std::string text;
    JsonFlatMember::Kind session_kind;
    std::string request;  // decoded
  } vouched[] = {
      {R"({"op":"perform_task","session_id":3,"request":"{\"a\":1}"})", JsonFlatMember::kNumber, R"({"a":1})"},
      {R"({"request":"\u00e9\ud83d\ude00\u20ac\n\t\r\b\f\/\\\"\u0000x","op":"x"})", JsonFlatMember::kMissing,
       std::string(kEscapesDecoded, sizeof(kEscapesDecoded) - 1)},
      {R"({"session_id":null,"request":""})", JsonFlatMember::kLiteral, ""},
      {"{\"request\":\"\xFF raw bytes pass\"}", JsonFlatMember::kMissing, "\xFF raw bytes pass"},
  };
  for (const auto& c : vouched) {
    SCOPED_TRACE(c.text);
    JsonFlatMember members[] = {{"op"}, {"session_id"}, {"request"}};
    ASSERT_TRUE(scan_flat_object(c.text.data(), c.text.size(), members, 3));
    EXPECT_EQ(members[1].kind, c.session_kind);
    ASSERT_EQ(members[2].kind, JsonFlatMember::kString);
    std::string decoded = "kept:";
    json_decode_string(members[2].text, &decoded);
    EXPECT_EQ(decoded, "kept:" + c.request);
    Json::Value root;
    ASSERT_TRUE(library_parse(c.text, true, &root));
    EXPECT_EQ(root["request"].asString(), c.request);
  }
  const std::string left_to_jsoncpp[] = {
      R"({"op":"perform_task","session_id":3,"request":"x","extra":1})", R"({"op":"a","op":"b"})",
      R"({"request":{}})", R"({"request":["x"]})", R"({"\u006fp":"perform_task"})", R"({"request":"x"}})",
      R"({"request":"\ud83d"})",
  };
  for (const std::string& text : left_to_jsoncpp) {
    JsonFlatMember members[] = {{"op"}, {"session_id"}, {"request"}};
    EXPECT_FALSE(scan_flat_object(text.data(), text.size(), members, 3)) << text;
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
  ASSERT_EQ(open_session({&lamp}), 1u);

  auto replaced = [](std::string text, const std::string& from, const std::string& to) {
    return text.replace(text.find(from), from.size(), to);
  };
  const std::string plain = task_request(1, 7, "0x1001", 1, "dim", {"int", "string"});
  const std::pair<const char*, std::string> shapes[] = {
      {"plain", plain},
      {"comment", "/* c */ " + plain},
      {"escaped opcode", replaced(plain, "\"0x1001\"", "\"0x\\u0031001\"")},
      {"integral double", replaced(plain, "\"subsys_id\":1", "\"subsys_id\":1.0")},
  };
  std::vector<Callback> first_answers;
  std::vector<std::string> first_logs;
  for (const auto& [shape, text] : shapes) {
    SCOPED_TRACE(shape);
    TaskRequestScan scan;
    EXPECT_EQ(scan_task_request(text.data(), text.size(), &scan), text == plain);
    LogCapture log;
    clear_callbacks();
    perform_task(text, recording_callback(), 1);  // forwarded
    EXPECT_EQ(lamp.recv(), text);
    const std::string miscounted = replaced(text, "\"num_of_args\":2", "\"num_of_args\":3");
    perform_task(miscounted, recording_callback(), 1);  // -1
    perform_task(text, recording_callback(), 9);  // not this session: silent
    perform_task(replaced(text, "\"session_id\":1", "\"session_id\":9"), recording_callback(), 9);  // -7
    ASSERT_TRUE(wait_for_callbacks(2, 3s));
    std::vector<std::string> key_logs;
    for (const std::string& line : log.lines()) {
      if (line.find("API Key: ") != std::string::npos || line.find("mismatched") != std::string::npos) {
        key_logs.push_back(line);
      }
    }
    if (first_answers.empty()) {
      first_answers = callbacks();
      first_logs = key_logs;
      ASSERT_EQ(first_answers.size(), 2u);
      EXPECT_EQ(first_answers[0].handle, 7u);
      EXPECT_NE(first_answers[0].text.find("\"status\":-1"), std::string::npos);
      EXPECT_NE(first_answers[1].text.find("\"status\":-7"), std::string::npos);
      ASSERT_EQ(key_logs.size(), 2u);
      EXPECT_NE(key_logs[0].find("API Key: dim:1:2:int:string"), std::string::npos);
    } else {
      EXPECT_EQ(callbacks(), first_answers);
      EXPECT_EQ(key_logs, first_logs);
    }
  }

  // The plugin's result: plain, and in shapes only jsoncpp reads.
  const std::string results[] = {
      R"({"req_type":"exec_task","session_id":1,"transac_id":7,"value":"done"})",
      R"({"req_type":"exec_task", /* c */ "session_id":1,"transac_id":7,"value":"done"})",
      R"({"req_type":"exec\u005ftask","session_id":1,"transac_id":7.0,"value":"done"} trailing)",
      R"({"req_type":"exec_task","session_id":2,"session_id":1,"transac_id":7})",
  };
  for (const std::string& result : results) {
    clear_callbacks();
    lamp.send(result);
    ASSERT_TRUE(wait_for_callbacks(1, 3s));
    EXPECT_EQ(callbacks()[0], (Callback{LUMO_RESPONSE_TASK, 1, result, 0, 7}));
  }
}

}  // namespace
}  // namespace lumokit::test
