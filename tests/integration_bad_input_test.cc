// Hostile and broken plugin input over the real plugin socket: frames the
// reader cannot take, members of the wrong type for every kind, JSON nested
// far past the reader's depth limit, one plugin flooding the manager while
// another serves a client, and one that stops reading. After each, a new
// plugin must still be served and the manager's tables must agree.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iterator>
#include <memory>
#include <thread>

#include "LumoManager.h"
#include "Service.h"
#include "fuzz_tables.h"
#include "manager_harness.h"
#include "token_signer.h"

namespace lumokit::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

const std::string kRefused = "{\"req_type\":\"PERMISSION\",\"status\": -1} ";
const std::string kPermRes = "{\"req_type\":\"PERMISSION\",\"status\": 0,\"PermRes\":";

// A plugin arriving now is still served from INIT to goodbye, and the
// tables agree before and after.
void expect_manager_whole(uint32_t opcode) {
  EXPECT_EQ(check_table_consistency(), "");
  RawPlugin newcomer;
  ASSERT_NO_THROW(bring_up(newcomer, opcode, {1}));
  const Json::Value dump = state_dump();
  EXPECT_TRUE(std::any_of(dump["registry"].begin(), dump["registry"].end(), [&](const Json::Value& r) {
    return r["service_id"].asInt() == newcomer.service_id() && r["opcode"] == uint32_to_hexstring(opcode);
  })) << opcode;
  EXPECT_EQ(newcomer.dint(), "1 ");
  EXPECT_TRUE(newcomer.wait_closed());
  EXPECT_EQ(check_table_consistency(), "");
}

std::string nested(size_t depth, const std::string& core = "") {
  return std::string(depth, '[') + core + std::string(depth, ']');
}

TEST(BadInput, UnreadableFramesAreDroppedAndTheConnectionStays) {
  RawPlugin plugin;
  const std::string permission = R"({"req_type":"PERMISSION","Session_Id":")";
  expect_exchanges(plugin, {
      {R"({"req_type":"INIT")", "", kUnreadable},
      {R"({"req_type":"IN)", "", kUnreadable},
      // An INIT long enough to be cut by the 102,400-byte receive: cut, it is
      // no JSON at all and must not act.
      {R"({"req_type":"INIT","pad":")" + std::string(150000, 'p') + "\"}", "", kUnreadable},
      {R"({"req_type":"INIT","x":"\ud800"})", "", kUnreadable},
      {"{\"req_type\":\"INIT\xff\"}"},
      {permission + "5\",\"Permissions\":[\"\xc3\x28\",\"\xff\xfe\"]}", kPermRes + "[\"0\",\"0\"]} "},
      // The decimal conversion stops at the first byte that is no digit.
      {permission + "1\xff\"}", kPermRes + "[\"0\"]} "},
      {permission + "1" + '\0' + "2\"}", kPermRes + "[\"0\"]} "},
      {R"([{"req_type":"INIT"}])"},
      {R"("INIT")"},
      // The reader stops after the first value; what follows is not looked at.
      {permission + R"(x"} and more)", kRefused},
  });
  EXPECT_EQ(state_dump()["plugins"].size(), 0u);  // none of them made a record

  // An empty packet reads as "nothing received": the manager probes and goes on.
  plugin.send("");
  EXPECT_EQ(plugin.recv(3000ms, true), "PING ");
  EXPECT_EQ(plugin.init(), 102);
  expect_manager_whole(0x7001);
}

TEST(BadInput, DeepNestingIsRefusedWithoutACrash) {
  LogCapture log;
  RawPlugin plugin;
  bring_up(plugin, 0x1001, {1});
  const uint32_t session = open_session({&plugin});
  // From the plugin: 100,000 nested arrays alone, and under a member of a
  // kind the manager answers; and one level past the reader's limit of
  // 1,000. Each would exhaust a recursive reader. 1,000 levels are ordinary
  // JSON: that answer reaches the client as sent.
  const std::string deep_answer = R"({"req_type":"exec_task","session_id":1,"r":)" + nested(999) + "}";
  expect_exchanges(plugin, {
      {nested(100000), "", kUnreadable},
      {R"({"req_type":"PERMISSION","Session_Id":"1","Permissions":)" + nested(100000, "\"p\"") + "}", "",
       kUnreadable},
      {R"({"req_type":"exec_task","session_id":1,"transac_id":3,"r":)" + nested(1000) + "}", "", kUnreadable},
      {deep_answer, "", "", deep_answer},
      {R"({"req_type":"PERMISSION","Session_Id":"x"})", kRefused},
  });

  // From the client, inside a task argument: an empty answer, nothing forwarded.
  std::string task = task_request(session, 9, "0x1001", 1, "f", {"int"});
  task.insert(task.find("\"value\":0") + 8, nested(100000, "0") + ",\"deep\":");
  clear_callbacks();
  perform_task(task, recording_callback(), session);
  EXPECT_EQ(callbacks(), (std::vector<Callback>{{LUMO_RESPONSE_TASK, session, "", 0, 0}}));
  EXPECT_EQ(plugin.recv(300ms), "");
  EXPECT_TRUE(log.contains("W/LUMOKIT_MANAGER: Parsing Failed!!!"));
  expect_manager_whole(0x7002);
}

TEST(BadInput, WrongMemberTypesForEveryKind) {
  RawPlugin plugin;
  bring_up(plugin, 0x1001, {1});
  ASSERT_EQ(plugin.service_id(), 102);
  const uint32_t session = open_session({&plugin});
  ASSERT_EQ(session, 1u);
  const Json::Value lamp = api_def(0x1001, {1});
  auto auth = [&](const std::string& members) {
    return R"({"req_type":"AUTH",)" + members + ",\"api_def\":" + compact(lamp) + "}";
  };
  auto regs_lamp = [&](const std::string& opcode) {
    return R"({"req_type":"REGS","Service_Id":102,"Opcode":)" + opcode + ",\"api_def\":" + compact(lamp) + "}";
  };
  // A token read with the handler's default for the missing "Opcode": "0".
  const Json::Value def0 = api_def(0, {1});
  const std::string auth_without_opcode = R"({"req_type":"AUTH","Service_Id":102,"Token":")" +
                                          make_token(0, def0) + R"(","api_def":)" + compact(def0) + "}";
  const auto reply = registration_reply;
  const std::string bad_token = "E/LUMOKIT_SESSION_MANAGER: Invalid token.";
  const std::string no_entry = "E/LUMOKIT_SESSION_MANAGER: No entry for this session_id";
  const std::string regs = R"({"req_type":"REGS","Opcode":"8193","Service_Id":)";
  const std::string redy = R"({"req_type":"REDY","Service_Id":)";
  const std::string start = R"({"req_type":"start_session","Result":)";
  const std::string exec = R"({"req_type":"exec_task","session_id":)";
  const std::string permission = R"({"req_type":"PERMISSION","Session_Id":)";
  const std::string info = R"({"req_type":"INFO_QUERY","Session_Id":)";
  expect_exchanges(plugin, {
      {R"({"req_type":["INIT"]})"},
      {R"({"req_type":7})"},
      // An opcode that cannot be text ({}) is invalid. Numbers read as their
      // text: 1e30 reads "1e+30" (converted as 1), which passes, and only the
      // token refuses it.
      {auth(R"("Opcode":{},"Service_Id":102,"Token":"x")"), reply("AUTH", "", -1),
       "E/LUMOKIT_SESSION_MANAGER: Opcode is not valid: "},
      {auth(R"("Opcode":1e30,"Service_Id":102)"), reply("AUTH", "1e+30", -1), bad_token},
      {auth(R"("Opcode":"4097","Service_Id":102,"Token":12345)"), reply("AUTH", "4097", -1), bad_token},
      {auth(R"("Opcode":"4097","Service_Id":[],"Token":")" + make_token(0x1001, lamp) + "\""),
       reply("AUTH", "4097", -1)},
      {auth_without_opcode, reply("AUTH", "0", 0)},
      // null is the empty text, which is no number; what cannot be text is invalid.
      {regs_lamp("null"), reply("REGS", "", -1), "E/LUMOKIT_SESSION_MANAGER: Invalid input, no conversion"},
      {regs_lamp("[1]"), reply("REGS", "", -1), "E/LUMOKIT_SESSION_MANAGER: Opcode is not valid: "},
      {regs_lamp("4097"), reply("REGS", "4097", 0)},
      // Service ids that are not numbers of the right kind read as 0.
      {regs + R"("102","api_def":[]})", reply("REGS", "8193", -1)},
      {regs + R"(1e30,"api_def":[]})", reply("REGS", "8193", -1)},
      {regs + R"(102,"api_def":[{"opcode":8193}]})", reply("REGS", "8193", -1),
       "E/LUMOKIT_SESSION_MANAGER: Opcode is not valid: 8193"},
      {regs + R"(102,"api_def":"y"})", reply("REGS", "8193", 0)},
      {regs + R"(102,"api_def":[{"opcode":"0x2001","subsystems":"y"}]})", reply("REGS", "8193", 0)},
      // Ids that are not unsigned numbers all read as subsystem 0.
      {R"({"req_type":"REGS","Opcode":"8194","Service_Id":102,"api_def":[{"opcode":"0x2002",)"
       R"("subsystems":[{"id":"1"},{"id":-1},{"id":1e30},5,"s"]}]})",
       reply("REGS", "8194", 0)},
      {redy + R"([],"Opcode":"4097"})", reply("REDY", "4097", -1)},
      {redy + R"("102","Opcode":"4097"})", reply("REDY", "4097", -1)},
      {redy + R"(102,"Opcode":{}})", reply("REDY", "", -1)},
      {start + R"(["Success"],"session_id":77,"opcodes":[]})"},
      {start + R"("Success","session_id":-1,"opcodes":5})"},
      {start + R"("Success","session_id":1,"opcodes":[{"id":5,"subsystems":"y"},{"id":"zz","subsystems":[]}]})"},
      {R"({"req_type":"end_session","Result":true})"},
      {exec + R"("1","transac_id":1})"},
      {exec + R"(4294967297,"transac_id":1})"},
      {exec + R"(1,"transac_id":1e30,"v":1})", "", "", exec + R"(1,"transac_id":1e30,"v":1})"},
      {exec + R"(1,"transac_id":-5,"v":2})", "", "", exec + R"(1,"transac_id":-5,"v":2})"},
      {permission + R"([],"Permissions":["p.A"]})", kRefused, "E/LUMOKIT_SESSION_MANAGER: Invalid session is "},
      {permission + R"(null,"Permissions":[]})", kRefused, "E/LUMOKIT_SESSION_MANAGER: Invalid session is "},
      {permission + R"("4294967296","Permissions":["p.A"]})", kPermRes + "[\"0\"]} ", no_entry},
      {permission + R"("99999999999999999999","Permissions":["p.A"]})", kRefused,
       "E/LUMOKIT_SESSION_MANAGER: Invalid session is 99999999999999999999"},
      {permission + R"(1,"Permissions":"x"})", kPermRes + "[\"1\"]} "},
      {permission + R"("1","Permissions":[1,null,{}]})", kPermRes + "[\"0\",\"0\",\"0\"]} "},
      {info + R"({},"QueryInfos":["app.id.pid"]})",
       "{\"req_type\":\"INFO_QUERY\",\"QueryInfosRes\":\"ERROR:Invalid session ID\"} "},
      // Items read as text: the keys "5", "" and "true", which nobody knows.
      {info + R"("1","QueryInfos":[5,null,true,"app.id.uid"]})",
       "{\"req_type\":\"INFO_QUERY\",\"QueryInfosRes\":\"\",\"\",\"\",\"SUCCESS:10077\"} ",
       "I/LUMOKIT_SESSION_MANAGER: i = 2, queried info: true"},
  });

  // What the plugin's record holds now: its own pair, opcode 0 (from the
  // token for the missing "Opcode"), subsystem 0 of 0x2002 (from the
  // mistyped ids), and sessions 0 and 1 marked started (from the unsolicited
  // answers) next to the real session.
  const Json::Value entry = plugin_state(102);
  EXPECT_EQ(pair_list(entry["pairs"]), "0x00/1 0x1001/1 0x2002/0 ");
  EXPECT_EQ(entry["started_sessions"], parse_json("[0,1]"));
  // A ready plugin that registers more stays ready (3); its sender keeps
  // running, and the client's session is untouched and still served.
  EXPECT_EQ(entry["state"].asInt(), 3);
  const std::string task = task_request(session, 8, "0x1001", 1, "f", {});
  perform_task(task, recording_callback(), session);
  EXPECT_EQ(plugin.recv(), task);
  expect_manager_whole(0x7003);
}

TEST(BadInput, TaskTextsWithHostileValues) {
  RawPlugin plugin;
  bring_up(plugin, 0x1001, {1});
  const uint32_t session = open_session({&plugin});
  const std::string base = task_request(session, 5, "0x1001", 1, "f", {"int"});
  auto with = [&](const std::string& from, const std::string& to) {
    std::string text = base;
    return text.replace(text.find(from), from.size(), to);
  };
  // Bytes inside strings are not the manager's business: those texts reach
  // the plugin byte for byte. The others are answered with an empty text.
  const std::string forwarded[] = {with("\"name\":\"f\"", "\"name\":\"f\xff\xfe\""),
                                   with("\"value\":0", "\"value\":\"\xc0\xaf\"")};
  const std::string refused[] = {
      with("\"transac_id\":5", "\"transac_id\":4294967296"),
      with("\"transac_id\":5", "\"transac_id\":1e30"),
      with("\"session_id\":1", "\"session_id\":1.5"), with("\"type\":\"int\"", "\"type\":5"),
      with("\"args\":[", "\"args\":{\"a\":[") + "}", with("\"value\":0", "\"value\":1e999999")};
  for (const std::string& text : forwarded) {
    perform_task(text, recording_callback(), session);
    EXPECT_EQ(plugin.recv(), text);
  }
  // The sender writes C strings: a NUL inside a string ends what the plugin gets.
  const std::string with_nul = with("\"name\":\"f\"", std::string("\"name\":\"f\0g\"", 12));
  perform_task(with_nul, recording_callback(), session);
  EXPECT_EQ(plugin.recv(), with_nul.substr(0, with_nul.find('\0')));
  EXPECT_TRUE(callbacks().empty());
  for (const std::string& text : refused) {
    clear_callbacks();
    perform_task(text, recording_callback(), session);
    EXPECT_EQ(callbacks(), (std::vector<Callback>{{LUMO_RESPONSE_TASK, session, "", 0, 0}})) << text;
  }
  EXPECT_EQ(plugin.recv(200ms), "");
  expect_manager_whole(0x7004);
}

TEST(BadInput, FloodFromOnePluginLeavesOthersServed) {
  constexpr int kFlood = 20000;
  RawPlugin worker, flooder;
  bring_up(worker, 0x1001, {1});
  bring_up(flooder, 0x2002, {1});
  const uint32_t session = open_session({&worker, &flooder});

  // The flooder's messages, cycling through junk and questions; the
  // questions (1 and 4) are answered on its own socket, the rest is dropped.
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

  std::atomic<int> sent{0};
  std::thread sender([&] {
    for (int i = 0; i < kFlood; ++i, ++sent) flooder.send(cycle[i % kCycle]);
  });

  // One task of the client on the other plugin, answered; false on failure
  // (no early return while the flood threads run).
  Clock::duration worst{};
  uint32_t transac = 0;
  auto round_trip = [&] {
    ++transac;
    const auto start = Clock::now();
    const std::string task = task_request(session, transac, "0x1001", 1, "f", {});
    perform_task(task, recording_callback(), session);
    if (worker.recv(5s) != task) {
      ADD_FAILURE() << "task " << transac << " did not reach its plugin";
      return false;
    }
    worker.send(exec_answer(session, transac));
    if (!wait_for_callbacks(transac, 5s)) {
      ADD_FAILURE() << "task " << transac << " was not answered";
      return false;
    }
    worst = std::max(worst, Clock::now() - start);
    return true;
  };
  // At first the flooder reads none of its replies: the manager's handler
  // for it soon blocks on its full socket, and the flood stops there.
  bool served = true;
  while (served && transac < 10) served = round_trip();
  EXPECT_LT(sent.load(), kFlood) << "the flooder's handler never blocked on its unread replies";

  // Then it reads them, and the flood runs as fast as the manager takes it;
  // the last reply means the manager has worked through it.
  std::atomic<int> replies{0};
  std::atomic<bool> flood_handled{false};
  std::thread reader([&] {
    while (replies < expected_replies && !flooder.recv(10s).empty()) ++replies;
    flood_handled = true;
  });
  while (served && (!flood_handled || transac < 20)) served = round_trip();
  sender.join();
  reader.join();

  EXPECT_EQ(replies.load(), expected_replies);
  // Each plugin has its own handler thread: the flood may slow the machine,
  // and a blocked handler its own plugin, but a task of another plugin is
  // never held for long (one that waited for the flooder would wait forever).
  EXPECT_LT(worst, 1s) << std::chrono::duration_cast<std::chrono::milliseconds>(worst).count()
                       << " ms over " << transac << " tasks";
  // Only the tasks' answers reached the client; the flooder's stray answers
  // for an unknown session were dropped.
  const std::vector<Callback> got = callbacks();
  ASSERT_EQ(got.size(), transac);
  for (uint32_t i = 0; i < transac; ++i) EXPECT_EQ(got[i].handle, i + 1);

  // The flooder itself is still served, and so is everyone else.
  EXPECT_EQ(flooder.request(R"({"req_type":"PERMISSION","Session_Id":"x"})"), kRefused);
  expect_manager_whole(0x7005);
}

long resident_kib() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return 0;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kPlainAllocator = false;  // quarantine and shadow memory hide the figure
#else
constexpr bool kPlainAllocator = true;
#endif

TEST(BadInput, APluginThatStopsReadingHoldsUpOnlyItsOwnTraffic) {
  RawPlugin hung, serving;
  bring_up(hung, 0x5001, {1});
  bring_up(serving, 0x5002, {1});
  const uint32_t session = open_session({&hung, &serving});
  LogCapture log;

  // From here on `hung` never reads. 100 MB of tasks for it: its socket fills,
  // then its queue up to its bound, and the rest is dropped.
  const long resident_before = resident_kib();
  auto flooded = std::make_shared<std::atomic<bool>>(false);
  std::string big = task_request(session, 1, "0x5001", 1, "f", {});
  big.insert(big.size() - 1, ",\"pad\":\"" + std::string(500000, 'x') + "\"");
  // Detached: a client stuck behind the hung plugin fails the test instead of hanging it.
  std::thread([big, session, flooded] {
    for (int i = 0; i < 200; ++i) perform_task(big, recording_callback(), session);
    *flooded = true;
  }).detach();
  ASSERT_TRUE(wait_until([&] { return flooded->load(); }, 30s));
  EXPECT_GT(log.count("E/LUMOKIT_SESSION_MANAGER: Manager not able to send msg, error - No buffer space available"),
            150u);
  EXPECT_LE(plugin_state(hung.service_id())["queued_bytes"].asUInt64(), kPluginQueueMaxBytes);
  if (kPlainAllocator) {
    EXPECT_LT(resident_kib() - resident_before, 40 * 1024);
  }

  // Another client opens a session: the hung plugin (the lower id, asked
  // first) costs its 3 seconds, then the serving plugin's pairs are granted.
  clear_callbacks();
  const auto start = Clock::now();
  std::thread client = create_session_async(2, 0, recording_callback(), kClientPid + 1);
  // Meanwhile the serving plugin's tasks go round as usual.
  for (uint32_t transac = 10; transac < 13; ++transac) {
    const auto sent = Clock::now();
    const std::string task = task_request(session, transac, "0x5002", 1, "f", {});
    perform_task(task, recording_callback(), session);
    ASSERT_EQ(serving.recv(1000ms), task);
    serving.send(exec_answer(session, transac));
    ASSERT_TRUE(wait_until([&] { return callbacks().size() == transac - 9; }, 1000ms));
    EXPECT_LT(Clock::now() - sent, 1000ms);
  }
  const std::string notice = serving.recv(5000ms);
  serving.send(start_session_answer(notice, true));
  client.join();
  const auto waited = Clock::now() - start;
  EXPECT_GE(waited, 2900ms);
  EXPECT_LT(waited, 4500ms);
  ASSERT_EQ(callbacks().size(), 4u);
  const Callback created = callbacks()[3];
  EXPECT_EQ(created.error_flag, 0);
  EXPECT_NE(created.text.find("\"opcode\": \"0x5002\""), std::string::npos) << created.text;
  EXPECT_EQ(created.text.find("0x5001"), std::string::npos) << created.text;

  // Its goodbye still ends it at once, although it has read nothing.
  hung.send(R"({"req_type":"DINT","Service_Id":)" + std::to_string(hung.service_id()) + "}");
  EXPECT_TRUE(wait_until([&] { return plugin_state(hung.service_id()).isNull(); }, 1000ms));
  EXPECT_TRUE(hung.wait_closed(5000ms));
}

}  // namespace
}  // namespace lumokit::test
