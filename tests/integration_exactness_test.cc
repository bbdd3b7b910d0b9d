// What a plugin or client sees in the corners: members read as the JSON
// library reads them, comments kept in API definitions, the unknown-session
// answer given with no lock held, and one plugin that stops reading holding
// up nobody but itself.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <thread>

#include "LumoManager.h"
#include "manager_harness.h"
#include "token_signer.h"

namespace lumokit::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TEST(Exactness, MembersReadAsTheJsonLibraryReadsThem) {
  RawPlugin plugin;
  const std::string id = std::to_string(plugin.init());
  const std::string def = compact(api_def(0x1001, {1}));
  auto regs = [&](const std::string& opcode) {
    return R"({"req_type":"REGS","Service_Id":)" + id + R"(,"Opcode":)" + opcode + R"(,"api_def":)" +
           def + "}";
  };
  // A token read with the handler's default for the missing "Opcode": "0".
  const Json::Value def0 = api_def(0, {1});
  const std::string auth_without_opcode = R"({"req_type":"AUTH","Service_Id":)" + id +
                                          R"(,"Token":")" + make_token(0, def0) +
                                          R"(","api_def":)" + compact(def0) + "}";
  const std::string info = R"({"req_type":"INFO_QUERY","Session_Id":"0","QueryInfos":)";
  const std::string unknown = "\"ERROR:Invalid session ID\"";
  expect_exchanges(plugin, {
      // null is the empty text, which is no number.
      {regs("null"), registration_reply("REGS", "", -1), "E/LUMOKIT_SESSION_MANAGER: Invalid input, no conversion"},
      // What the library cannot read as text is invalid.
      {regs("[1]"), registration_reply("REGS", "", -1), "E/LUMOKIT_SESSION_MANAGER: Opcode is not valid: "},
      {regs("4097"), registration_reply("REGS", "4097", 0)},
      {auth_without_opcode, registration_reply("AUTH", "0", 0)},
      {R"({"req_type":"PERMISSION","Session_Id":null,"Permissions":[]})",
       R"({"req_type":"PERMISSION","status": -1} )", "E/LUMOKIT_SESSION_MANAGER: Invalid session is "},
      {info + "[5]}", R"({"req_type":"INFO_QUERY","QueryInfosRes":)" + unknown + "} ",
       "I/LUMOKIT_SESSION_MANAGER: i = 0, queried info: 5"},
      {info + "[null,true]}", R"({"req_type":"INFO_QUERY","QueryInfosRes":)" + unknown + "," + unknown + "} ",
       "I/LUMOKIT_SESSION_MANAGER: i = 1, queried info: true"},
  });
}

TEST(Exactness, CommentsInADefinitionAreDigestedAndKept) {
  RawPlugin plugin;
  const int id = plugin.init();
  const char* text = R"([{"opcode":"0x2002","name":"noted","subsystems":[{"id":1, /* approved */ "functions":["f"]}]}])";
  const Json::Value with_comment = parse_json(text);
  std::string bare_text = text;
  bare_text.erase(bare_text.find("/* approved */"), 14);
  const Json::Value bare = parse_json(bare_text);

  // A token over the definition without its comment does not cover it.
  const std::string stale = make_token(0x2002, bare);
  LogCapture log;
  EXPECT_EQ(parse_json(plugin.request(registration_message("AUTH", id, 0x2002, with_comment, &stale)))["result"], -1);
  EXPECT_TRUE(log.contains("E/LUMOKIT_SESSION_MANAGER: Token is not valid for provided json api definition."));

  ASSERT_EQ(plugin.auth(0x2002, with_comment), 0);
  ASSERT_EQ(plugin.redy(0x2002), 0);
  std::thread client = create_session_async(7);
  plugin.answer_start_session(true);
  client.join();
  ASSERT_EQ(callbacks().size(), 1u);
  EXPECT_NE(callbacks()[0].text.find(R"({"functions":["f"],"id":1 /* approved */})"), std::string::npos)
      << callbacks()[0].text;
}

// The unknown-session answer, from a client whose callback calls back in.
std::atomic<uint32_t> cancel_result{0};
std::atomic<bool> answered{false};
std::string* answer_text = new std::string();

void calling_back(lumo_response_t, uint32_t session_id, std::string text, int32_t, uint32_t) {
  *answer_text = std::move(text);
  cancel_result = cancel_session(session_id, 0, 0);
  answered = true;
}

TEST(Exactness, UnknownSessionAnswerLetsTheCallbackCallBackIn) {
  const std::string task = task_request(99, 5, "0x10", 1, "f", {});
  // Detached: on a deadlock the test fails instead of hanging.
  std::thread([task] { perform_task(task, calling_back, 99); }).detach();
  ASSERT_TRUE(wait_until([] { return answered.load(); }, 2000ms));
  EXPECT_EQ(*answer_text,
            R"({"opcode":"0x10","name":"none","subsys_id":1,"transac_id":5,"status":-7,"return":0,"func": {}})");
  EXPECT_EQ(cancel_result.load(), 2u);
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

TEST(Exactness, APluginThatStopsReadingHoldsUpOnlyItsOwnTraffic) {
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
