// Hostile and broken plugin input over the real plugin socket: frames the
// reader cannot take, members of the wrong type for every kind, JSON nested
// far past the reader's depth limit, and one plugin flooding the manager
// while another serves a client. After each, a new plugin must still be
// served and the manager's tables must agree with one another.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <iostream>
#include <map>
#include <set>
#include <stdexcept>
#include <thread>

#include "manager_harness.h"
#include "token_signer.h"

namespace lumokit::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int32_t kPid = 4321;
constexpr uint32_t kUid = 10077;

std::string pair_key(const Json::Value& pair) {
  return pair["opcode"].asString() + "/" + std::to_string(pair["subsystem"].asUInt());
}

// Contradictions between the manager's tables; empty when they agree.
std::vector<std::string> table_problems() {
  const Json::Value dump = state_dump();
  std::vector<std::string> problems;
  std::map<int, Json::Value> plugins;
  std::map<std::string, int> owner;  // pair -> the plugin holding it
  for (const Json::Value& p : dump["plugins"]) {
    const int id = p["service_id"].asInt();
    plugins[id] = p;
    for (const Json::Value& pair : p["pairs"]) {
      if (!owner.emplace(pair_key(pair), id).second) {
        problems.push_back(pair_key(pair) + " held by two plugins");
      }
    }
  }
  for (const Json::Value& r : dump["registry"]) {
    const std::string key = pair_key(r);
    auto p = plugins.find(r["service_id"].asInt());
    if (p == plugins.end() || p->second["died"].asBool()) {
      problems.push_back("registry entry " + key + " names a plugin that is gone");
    } else if (owner[key] != r["service_id"].asInt()) {
      problems.push_back("registry entry " + key + " names a plugin without the pair");
    }
  }
  for (const Json::Value& s : dump["sessions"]) {
    const std::string sid = std::to_string(s["session_id"].asUInt());
    if (!s["has_callback"].asBool()) problems.push_back("session " + sid + " has no callback");
    for (const Json::Value& id : s["plugins"]) {
      if (plugins.count(id.asInt()) == 0) {
        problems.push_back("session " + sid + " names unknown plugin " + id.asString());
      }
    }
    std::set<std::string> granted;
    for (const Json::Value& pair : s["granted"]) granted.insert(pair_key(pair));
    for (const Json::Value& pair : s["connected"]) {
      if (granted.count(pair_key(pair)) == 0) {
        problems.push_back("session " + sid + " connected to ungranted " + pair_key(pair));
      }
    }
  }
  return problems;
}

// A plugin arriving now is still served from INIT to goodbye, and the
// tables agree before and after.
void expect_manager_whole(uint32_t opcode) {
  EXPECT_EQ(table_problems(), std::vector<std::string>{});
  RawPlugin newcomer;
  ASSERT_GT(newcomer.init(), 101);
  ASSERT_NO_THROW(bring_up(newcomer, opcode, {1}));
  char expected[24];
  snprintf(expected, sizeof(expected), "0x%X/1", opcode);
  bool listed = false;
  const Json::Value dump = state_dump();
  for (const Json::Value& r : dump["registry"]) {
    listed |= r["service_id"].asInt() == newcomer.service_id() && pair_key(r) == expected;
  }
  EXPECT_TRUE(listed) << expected;
  EXPECT_EQ(newcomer.dint(), "1 ");
  EXPECT_TRUE(newcomer.wait_closed());
  EXPECT_EQ(table_problems(), std::vector<std::string>{});
}

uint32_t open_session(RawPlugin& plugin) {
  clear_callbacks();
  std::thread client([] { create_session("{}", recording_callback(), 0, 1, kPid, kUid); });
  plugin.answer_start_session(true);
  client.join();
  const std::vector<Callback> got = callbacks();
  if (got.size() != 1 || got[0].error_flag != 0) throw std::runtime_error("session not opened");
  clear_callbacks();
  return got[0].session_id;
}

Json::Value plugin_entry(int service_id) {
  const Json::Value dump = state_dump();
  for (const Json::Value& p : dump["plugins"]) {
    if (p["service_id"].asInt() == service_id) return p;
  }
  return Json::Value();
}

std::string nested(size_t depth, const std::string& core = "") {
  return std::string(depth, '[') + core + std::string(depth, ']');
}

// The next packet as received, probes included; empty on timeout.
std::string recv_raw(int fd, std::chrono::milliseconds timeout) {
  pollfd p{fd, POLLIN, 0};
  if (poll(&p, 1, static_cast<int>(timeout.count())) <= 0) return "";
  char buf[256];
  ssize_t n = ::recv(fd, buf, sizeof(buf), 0);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

TEST(BadInput, UnreadableFramesAreDroppedAndTheConnectionStays) {
  LogCapture log;
  RawPlugin plugin;
  const std::string refused = "{\"req_type\":\"PERMISSION\",\"status\": -1} ";
  const std::string unknown_session =
      "{\"req_type\":\"PERMISSION\",\"status\": 0,\"PermRes\":[\"0\"]} ";
  // An INIT long enough to be cut by the 102,400-byte receive: cut, it is
  // no JSON at all and must not act.
  const std::string long_init =
      R"({"req_type":"INIT","pad":")" + std::string(150000, 'p') + "\"}";
  struct Case {
    const char* what;
    std::string bytes;
    std::string reply;  // empty: no reply
    bool parse_failure;
  };
  const Case cases[] = {
      {"truncated object", R"({"req_type":"INIT")", "", true},
      {"truncated inside a string", R"({"req_type":"IN)", "", true},
      {"cut by the receive limit", long_init, "", true},
      {"lone surrogate escape", R"({"req_type":"INIT","x":"\ud800"})", "", true},
      {"non-UTF-8 kind", "{\"req_type\":\"INIT\xff\"}", "", false},
      {"non-UTF-8 permission names",
       "{\"req_type\":\"PERMISSION\",\"Session_Id\":\"5\",\"Permissions\":[\"\xc3\x28\",\"\xff\xfe\"]}",
       "{\"req_type\":\"PERMISSION\",\"status\": 0,\"PermRes\":[\"0\",\"0\"]} ", false},
      // The decimal conversion stops at the first byte that is no digit.
      {"non-UTF-8 after a session id", "{\"req_type\":\"PERMISSION\",\"Session_Id\":\"1\xff\"}",
       unknown_session, false},
      {"NUL after a session id",
       std::string("{\"req_type\":\"PERMISSION\",\"Session_Id\":\"1") + '\0' + "2\"}",
       unknown_session, false},
      {"array instead of object", R"([{"req_type":"INIT"}])", "", false},
      {"bare string", R"("INIT")", "", false},
      // The reader stops after the first value; what follows is not looked at.
      {"trailing text", R"({"req_type":"PERMISSION","Session_Id":"x"} and more)", refused, false},
  };
  size_t parse_failures = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    plugin.send(c.bytes);
    EXPECT_EQ(plugin.recv(c.reply.empty() ? 300ms : 3000ms), c.reply);
    parse_failures += c.parse_failure;
    EXPECT_EQ(log.count("W/LUMOKIT_SESSION_MANAGER: Parsing failed!!"), parse_failures);
  }
  // None of them made a record.
  EXPECT_EQ(state_dump()["plugins"].size(), 0u);

  // An empty packet reads as "nothing received": the manager probes and goes on.
  plugin.send("");
  EXPECT_EQ(recv_raw(plugin.fd(), 3000ms), "PING ");
  EXPECT_EQ(plugin.init(), 102);
  expect_manager_whole(0x7001);
}

TEST(BadInput, DeepNestingFromAPluginIsRefusedWithoutACrash) {
  LogCapture log;
  RawPlugin plugin;
  bring_up(plugin, 0x1001, {1});
  ASSERT_EQ(open_session(plugin), 1u);

  // Plugin messages: 100,000 nested arrays alone, and under a member of a
  // kind the manager answers; and one level past the reader's limit of
  // 1,000. Each would exhaust a recursive reader.
  const std::string messages[] = {
      nested(100000),
      R"({"req_type":"PERMISSION","Session_Id":"1","Permissions":)" + nested(100000, "\"p\"") + "}",
      R"({"req_type":"exec_task","session_id":1,"transac_id":3,"r":)" + nested(1000) + "}",
  };
  for (const std::string& message : messages) {
    plugin.send(message);
    EXPECT_EQ(plugin.recv(300ms), "");
  }
  EXPECT_EQ(log.count("W/LUMOKIT_SESSION_MANAGER: Parsing failed!!"), 3u);
  EXPECT_TRUE(callbacks().empty());

  // 1,000 levels are ordinary JSON: the answer reaches the client as sent.
  const std::string deep_answer =
      R"({"req_type":"exec_task","session_id":1,"transac_id":4,"r":)" + nested(999) + "}";
  plugin.send(deep_answer);
  ASSERT_TRUE(wait_for_callbacks(1, 3s));
  EXPECT_EQ(callbacks()[0].text, deep_answer);
  EXPECT_EQ(callbacks()[0].handle, 4u);
  EXPECT_EQ(plugin.request(R"({"req_type":"PERMISSION","Session_Id":"x"})"),
            "{\"req_type\":\"PERMISSION\",\"status\": -1} ");
  expect_manager_whole(0x7002);
}

TEST(BadInput, DeepNestingInATaskIsRefusedWithoutACrash) {
  LogCapture log;
  RawPlugin plugin;
  bring_up(plugin, 0x1001, {1});
  const uint32_t session = open_session(plugin);
  // An empty answer, nothing forwarded.
  std::string task = task_request(session, 9, "0x1001", 1, "f", {"int"});
  task.insert(task.find("\"value\":0") + 8, nested(100000, "0") + ",\"deep\":");
  perform_task(task, recording_callback(), session);
  ASSERT_EQ(callbacks().size(), 1u);
  EXPECT_EQ(callbacks()[0].kind, LUMO_RESPONSE_TASK);
  EXPECT_EQ(callbacks()[0].text, "");
  EXPECT_EQ(plugin.recv(300ms), "");
  EXPECT_TRUE(log.contains("W/LUMOKIT_MANAGER: Parsing Failed!!!"));
  expect_manager_whole(0x7006);
}

TEST(BadInput, WrongMemberTypesForEveryKind) {
  LogCapture log;
  RawPlugin plugin;
  bring_up(plugin, 0x1001, {1});
  ASSERT_EQ(plugin.service_id(), 102);
  const uint32_t session = open_session(plugin);
  ASSERT_EQ(session, 1u);
  const Json::Value lamp = api_def(0x1001, {1});
  const std::string lamp_token = make_token(0x1001, lamp);
  auto auth_with = [&](const std::string& members) {
    return R"({"req_type":"AUTH",)" + members + ",\"api_def\":" +
           Json::writeString(Json::StreamWriterBuilder(), lamp) + "}";
  };
  // The registration and readiness replies differ only in their kind.
  auto reply = [](const char* kind, const std::string& opcode, int result) {
    return std::string("{\"req_type\": \"") + kind + "\",\"opcode\": \"" + opcode +
           "\", \"result\": " + std::to_string(result) + "} ";
  };
  auto auth_reply = [&](const std::string& opcode, int result) {
    return reply("AUTH", opcode, result);
  };
  auto regs_reply = [&](const std::string& opcode, int result) {
    return reply("REGS", opcode, result);
  };
  auto redy_reply = [&](const std::string& opcode, int result) {
    return reply("REDY", opcode, result);
  };
  const std::string exec_big_transac =
      R"({"req_type":"exec_task","session_id":1,"transac_id":1e30,"v":1})";
  const std::string exec_negative_transac =
      R"({"req_type":"exec_task","session_id":1,"transac_id":-5,"v":2})";
  struct Case {
    const char* what;
    std::string message;
    std::string reply;      // empty: no reply
    std::string callback;   // text the client receives; empty: none
    const char* log;        // a line that must have been logged, or null
  };
  const Case cases[] = {
      {"kind is an array", R"({"req_type":["INIT"]})", "", "", nullptr},
      {"kind is a number", R"({"req_type":7})", "", "", nullptr},
      {"AUTH, opcode an object", auth_with(R"("Opcode":{},"Service_Id":102,"Token":"x")"),
       auth_reply("0", -1), "", "E/LUMOKIT_SESSION_MANAGER: Invalid token."},
      // Opcode texts convert like strtoul: "1e+30" reads as 1, "-1" as
      // 0xFFFFFFFF; both pass, and only the missing token refuses them.
      {"AUTH, opcode 1e30", auth_with(R"("Opcode":1e30,"Service_Id":102)"), auth_reply("1e+30", -1),
       "", "E/LUMOKIT_SESSION_MANAGER: Invalid token."},
      {"AUTH, negative opcode text", auth_with(R"("Opcode":"-1","Service_Id":102)"),
       auth_reply("-1", -1), "", "E/LUMOKIT_SESSION_MANAGER: Invalid token."},
      {"AUTH, token a number", auth_with(R"("Opcode":"4097","Service_Id":102,"Token":12345)"),
       auth_reply("4097", -1), "", "E/LUMOKIT_SESSION_MANAGER: Invalid token."},
      {"AUTH, service id an array",
       auth_with(R"("Opcode":"4097","Service_Id":[],"Token":")" + lamp_token + "\""),
       auth_reply("4097", -1), "", nullptr},
      {"REGS, service id a string",
       R"({"req_type":"REGS","Opcode":"8193","Service_Id":"102","api_def":[]})",
       regs_reply("8193", -1), "", nullptr},
      {"REGS, service id negative",
       R"({"req_type":"REGS","Opcode":"8193","Service_Id":-102,"api_def":[]})",
       regs_reply("8193", -1), "", nullptr},
      {"REGS, service id 1e30",
       R"({"req_type":"REGS","Opcode":"8193","Service_Id":1e30,"api_def":[]})",
       regs_reply("8193", -1), "", nullptr},
      {"REGS, entry opcode a number",
       R"({"req_type":"REGS","Opcode":"8193","Service_Id":102,"api_def":[{"opcode":8193}]})",
       regs_reply("8193", -1), "", "E/LUMOKIT_SESSION_MANAGER: Opcode is not valid: 8193"},
      {"REGS, api_def a string", R"({"req_type":"REGS","Opcode":"8193","Service_Id":102,"api_def":"y"})",
       regs_reply("8193", 0), "", nullptr},
      {"REGS, subsystems a string",
       R"({"req_type":"REGS","Opcode":"8193","Service_Id":102,"api_def":[{"opcode":"0x2001","subsystems":"y"}]})",
       regs_reply("8193", 0), "", nullptr},
      // Ids that are not unsigned numbers all read as subsystem 0.
      {"REGS, subsystem ids of every wrong type",
       R"({"req_type":"REGS","Opcode":"8194","Service_Id":102,"api_def":[{"opcode":"0x2002","subsystems":[{"id":"1"},{"id":-1},{"id":1e30},5,"s"]}]})",
       regs_reply("8194", 0), "", nullptr},
      {"REDY, service id an array", R"({"req_type":"REDY","Service_Id":[],"Opcode":"4097"})",
       redy_reply("4097", -1), "", nullptr},
      {"REDY, service id a string", R"({"req_type":"REDY","Service_Id":"102","Opcode":"4097"})",
       redy_reply("4097", -1), "", nullptr},
      {"REDY, opcode an object", R"({"req_type":"REDY","Service_Id":102,"Opcode":{}})",
       redy_reply("0", 0), "", nullptr},
      {"start_session, result an array",
       R"({"req_type":"start_session","Result":["Success"],"session_id":77,"opcodes":[]})", "", "",
       nullptr},
      {"start_session, opcodes a number",
       R"({"req_type":"start_session","Result":"Success","session_id":-1,"opcodes":5})", "", "",
       nullptr},
      {"start_session, subsystems a string",
       R"({"req_type":"start_session","Result":"Success","session_id":1,"opcodes":[{"id":5,"subsystems":"y"},{"id":"zz","subsystems":[]}]})",
       "", "", nullptr},
      {"end_session, result a boolean", R"({"req_type":"end_session","Result":true})", "", "",
       nullptr},
      {"exec_task, session id a string", R"({"req_type":"exec_task","session_id":"1","transac_id":1})",
       "", "", nullptr},
      {"exec_task, session id beyond 32 bits",
       R"({"req_type":"exec_task","session_id":4294967297,"transac_id":1})", "", "", nullptr},
      {"exec_task, transaction 1e30", exec_big_transac, "", exec_big_transac, nullptr},
      {"exec_task, negative transaction", exec_negative_transac, "", exec_negative_transac, nullptr},
      {"PERMISSION, session id an array",
       R"({"req_type":"PERMISSION","Session_Id":[],"Permissions":["p.A"]})",
       "{\"req_type\":\"PERMISSION\",\"status\": 0,\"PermRes\":[\"0\"]} ", "",
       "E/LUMOKIT_SESSION_MANAGER: No entry for this session_id"},
      {"PERMISSION, session id wraps to 0",
       R"({"req_type":"PERMISSION","Session_Id":"4294967296","Permissions":["p.A"]})",
       "{\"req_type\":\"PERMISSION\",\"status\": 0,\"PermRes\":[\"0\"]} ", "",
       "E/LUMOKIT_SESSION_MANAGER: No entry for this session_id"},
      {"PERMISSION, session id beyond 64 bits",
       R"({"req_type":"PERMISSION","Session_Id":"99999999999999999999","Permissions":["p.A"]})",
       "{\"req_type\":\"PERMISSION\",\"status\": -1} ", "",
       "E/LUMOKIT_SESSION_MANAGER: Invalid session is 99999999999999999999"},
      {"PERMISSION, permissions a string", R"({"req_type":"PERMISSION","Session_Id":1,"Permissions":"x"})",
       "{\"req_type\":\"PERMISSION\",\"status\": 0,\"PermRes\":[\"1\"]} ", "", nullptr},
      {"PERMISSION, permission names not strings",
       R"({"req_type":"PERMISSION","Session_Id":"1","Permissions":[1,null,{}]})",
       "{\"req_type\":\"PERMISSION\",\"status\": 0,\"PermRes\":[\"0\",\"0\",\"0\"]} ", "", nullptr},
      {"INFO_QUERY, session id an object",
       R"({"req_type":"INFO_QUERY","Session_Id":{},"QueryInfos":["app.id.pid"]})",
       "{\"req_type\":\"INFO_QUERY\",\"QueryInfosRes\":\"ERROR:Invalid session ID\"} ", "", nullptr},
      {"INFO_QUERY, items not strings",
       R"({"req_type":"INFO_QUERY","Session_Id":"1","QueryInfos":[5,"app.id.uid"]})",
       "{\"req_type\":\"INFO_QUERY\",\"QueryInfosRes\":\"\",\"SUCCESS:10077\"} ",
       "", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    clear_callbacks();
    plugin.send(c.message);
    EXPECT_EQ(plugin.recv(c.reply.empty() ? 300ms : 3000ms), c.reply);
    if (c.callback.empty()) {
      EXPECT_TRUE(callbacks().empty());
    } else {
      ASSERT_TRUE(wait_for_callbacks(1, 3s));
      EXPECT_EQ(callbacks()[0].text, c.callback);
      EXPECT_EQ(callbacks()[0].handle, 0u);  // an unreadable number is 0
    }
    if (c.log != nullptr) {
      EXPECT_TRUE(log.contains(c.log));
    }
  }

  // What the plugin's record holds now: its own pair, subsystem 0 of 0x2002
  // (from the mistyped ids), and sessions 0 and 1 marked started (from the
  // unsolicited answers) next to the real session.
  const Json::Value entry = plugin_entry(102);
  std::vector<std::string> pairs;
  for (const Json::Value& p : entry["pairs"]) pairs.push_back(pair_key(p));
  EXPECT_EQ(pairs, (std::vector<std::string>{"0x1001/1", "0x2002/0"}));
  // A ready plugin that registers more stays ready (3); its sender keeps
  // running, as the task below shows.
  EXPECT_EQ(entry["state"].asInt(), 3);
  ASSERT_EQ(entry["started_sessions"].size(), 2u);
  EXPECT_EQ(entry["started_sessions"][0].asUInt(), 0u);
  EXPECT_EQ(entry["started_sessions"][1].asUInt(), 1u);
  // The client's session is untouched and still served.
  const std::string task = task_request(session, 8, "0x1001", 1, "f", {});
  perform_task(task, recording_callback(), session);
  EXPECT_EQ(plugin.recv(), task);
  expect_manager_whole(0x7003);
}

TEST(BadInput, GoodbyeWithAnUnreadableServiceIdLeavesADeadRecordOnly) {
  RawPlugin plugin;
  bring_up(plugin, 0x1001, {1});
  EXPECT_EQ(plugin.request(R"({"req_type":"DINT","Service_Id":"x"})"), "1 ");
  EXPECT_TRUE(plugin.wait_closed());
  // The record stays filed under its id, marked gone and emptied, so
  // nothing can be routed to it; its pairs are free again.
  const Json::Value entry = plugin_entry(102);
  EXPECT_TRUE(entry["died"].asBool());
  EXPECT_EQ(entry["state"].asInt(), 0);
  EXPECT_EQ(entry["pairs"].size(), 0u);
  EXPECT_EQ(state_dump()["registry"].size(), 0u);
  RawPlugin successor;
  bring_up(successor, 0x1001, {1});
  EXPECT_EQ(state_dump()["registry"][0]["service_id"].asInt(), successor.service_id());
  EXPECT_EQ(table_problems(), std::vector<std::string>{});
}

TEST(BadInput, TaskTextsWithHostileValues) {
  RawPlugin plugin;
  bring_up(plugin, 0x1001, {1});
  const uint32_t session = open_session(plugin);
  const std::string base = task_request(session, 5, "0x1001", 1, "f", {"int"});
  auto with = [&](const std::string& from, const std::string& to) {
    std::string text = base;
    text.replace(text.find(from), from.size(), to);
    return text;
  };
  struct Case {
    const char* what;
    std::string text;
    bool forwarded;  // otherwise answered with an empty text
  };
  const Case cases[] = {
      {"transaction beyond 32 bits", with("\"transac_id\":5", "\"transac_id\":4294967296"), false},
      {"transaction 1e30", with("\"transac_id\":5", "\"transac_id\":1e30"), false},
      {"fractional session id", with("\"session_id\":1", "\"session_id\":1.5"), false},
      {"argument type a number", with("\"type\":\"int\"", "\"type\":5"), false},
      {"args an object", with("\"args\":[", "\"args\":{\"a\":[") + "}", false},
      // Bytes inside strings are not the manager's business: the text
      // reaches the plugin byte for byte.
      {"non-UTF-8 function name", with("\"name\":\"f\"", "\"name\":\"f\xff\xfe\""), true},
      {"non-UTF-8 argument value", with("\"value\":0", "\"value\":\"\xc0\xaf\""), true},
      {"number beyond a double", with("\"value\":0", "\"value\":1e999999"), false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    clear_callbacks();
    perform_task(c.text, recording_callback(), session);
    if (c.forwarded) {
      EXPECT_EQ(plugin.recv(), c.text);
      EXPECT_TRUE(callbacks().empty());
    } else {
      ASSERT_EQ(callbacks().size(), 1u);
      EXPECT_EQ(callbacks()[0].text, "");
      EXPECT_EQ(callbacks()[0].handle, 0u);
      EXPECT_EQ(plugin.recv(200ms), "");
    }
  }
  expect_manager_whole(0x7004);
}

TEST(BadInput, FloodFromOnePluginLeavesOthersServed) {
  constexpr int kFlood = 20000;
  RawPlugin worker, flooder;
  bring_up(worker, 0x1001, {1});
  bring_up(flooder, 0x2002, {1});
  clear_callbacks();
  std::thread opener([] { create_session("{}", recording_callback(), 0, 1, kPid, kUid); });
  worker.answer_start_session(true);
  flooder.answer_start_session(true);
  opener.join();
  ASSERT_EQ(callbacks().size(), 1u);
  const uint32_t session = callbacks()[0].session_id;
  clear_callbacks();

  // The flooder's messages, cycling through junk and questions; the
  // questions are answered on its own socket, the rest is dropped.
  const std::string sid = std::to_string(session);
  const std::string cycle[] = {
      "not json at all",
      R"({"req_type":"PERMISSION","Session_Id":")" + sid + R"(","Permissions":["p.A","p.B"]})",
      R"({"req_type":"HELLO","n":1})",
      R"({"req_type":"exec_task","session_id":999,"transac_id":1})",
      R"({"req_type":"INFO_QUERY","Session_Id":")" + sid + R"(","QueryInfos":["app.id.pid"]})",
      R"({"req_type":"start_ses)",
  };
  const int kCycle = static_cast<int>(std::size(cycle));
  int expected_replies = 0;
  for (int i = 0; i < kFlood; ++i) expected_replies += (i % kCycle == 1 || i % kCycle == 4);

  std::atomic<int> replies{0};
  std::atomic<bool> flood_handled{false};
  const auto flood_start = Clock::now();
  Clock::duration flood_time{};
  std::thread reader([&] {
    // Reads the direct replies so that the manager never blocks on them;
    // the last one means the manager has worked through the whole flood.
    while (replies < expected_replies) {
      std::string reply = flooder.recv(10s);
      if (reply.empty()) break;
      ++replies;
    }
    flood_time = Clock::now() - flood_start;
    flood_handled = true;
  });
  std::thread sender([&] {
    for (int i = 0; i < kFlood; ++i) flooder.send(cycle[i % kCycle]);
  });

  // Meanwhile the client's tasks on the other plugin keep being answered.
  std::vector<Clock::duration> round_trips;
  uint32_t transac = 0;
  while (!flood_handled || round_trips.size() < 20) {
    ++transac;
    const auto start = Clock::now();
    const std::string task = task_request(session, transac, "0x1001", 1, "f", {});
    perform_task(task, recording_callback(), session);
    // No early return while the flood threads run: a failure ends the loop.
    if (worker.recv(5s) != task) {
      ADD_FAILURE() << "task " << transac << " did not reach its plugin";
      break;
    }
    worker.send("{\"req_type\":\"exec_task\",\"session_id\":" + sid + ",\"transac_id\":" +
                std::to_string(transac) + "}");
    if (!wait_for_callbacks(transac, 5s)) {
      ADD_FAILURE() << "task " << transac << " was not answered";
      break;
    }
    round_trips.push_back(Clock::now() - start);
  }
  sender.join();
  reader.join();

  EXPECT_EQ(replies.load(), expected_replies);
  ASSERT_FALSE(round_trips.empty());
  const auto worst = *std::max_element(round_trips.begin(), round_trips.end());
  // Each plugin has its own handler thread: the flood may slow the machine
  // but must never hold a task of another plugin for long.
  EXPECT_LT(worst, 1s) << "worst round trip "
                       << std::chrono::duration_cast<std::chrono::milliseconds>(worst).count()
                       << " ms over " << round_trips.size() << " tasks";
  EXPECT_LT(flood_time, 60s);
  std::cout << "[ flood    ] " << kFlood << " messages handled in "
            << std::chrono::duration_cast<std::chrono::milliseconds>(flood_time).count()
            << " ms; " << round_trips.size() << " tasks, worst round trip "
            << std::chrono::duration_cast<std::chrono::milliseconds>(worst).count() << " ms\n";
  // Only the tasks' answers reached the client; the flooder's stray answers
  // for an unknown session were dropped.
  const std::vector<Callback> got = callbacks();
  ASSERT_EQ(got.size(), transac);
  for (uint32_t i = 0; i < transac; ++i) EXPECT_EQ(got[i].handle, i + 1);

  // The flooder itself is still served, and so is everyone else.
  EXPECT_EQ(flooder.request(R"({"req_type":"PERMISSION","Session_Id":"x"})"),
            "{\"req_type\":\"PERMISSION\",\"status\": -1} ");
  expect_manager_whole(0x7005);
}


}  // namespace

// A plugin that registers a second opcode after its first "REDY" keeps the
// large receive limit once it has answered a session start.
TEST(BadInput, RegisteringAgainKeepsAReadyPluginReady) {
  RawPlugin plugin;
  bring_up(plugin, 0x1001, {1});
  bring_up(plugin, 0x2002, {1});
  std::thread client([] { create_session("", recording_callback(), 0, 5, 10, 10010); });
  plugin.answer_start_session(true);
  client.join();
  ASSERT_TRUE(wait_for_callbacks(1, 3s));
  const uint32_t session = callbacks()[0].session_id;
  ASSERT_NE(session, 0u);
  const std::string answer = "{\"req_type\":\"exec_task\",\"session_id\":" + std::to_string(session) +
                             ",\"transac_id\":4,\"blob\":\"" + std::string(200000, 'b') + "\"}";
  plugin.send(answer);
  ASSERT_TRUE(wait_for_callbacks(2, 3s));
  EXPECT_EQ(callbacks()[1].text, answer);
}

}  // namespace lumokit::test
