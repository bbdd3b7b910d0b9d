// The plugin side of the manager over a real seqpacket socket: the exact
// direct replies, registration and readiness (comments in a definition
// included), the sender thread, and the message size limits both ways.
#include <gtest/gtest.h>
#include <lumokit/host_platform.h>

#include <filesystem>
#include <iterator>
#include <thread>

#include "manager_harness.h"
#include "token_signer.h"

namespace lumokit::test {
namespace {

using namespace std::chrono_literals;

// Threads of earlier connections may still be ending; wait for a steady count.
int settled_thread_count() {
  auto count = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
  };
  auto last = count();
  for (int i = 0; i < 50; ++i) {
    std::this_thread::sleep_for(20ms);
    const auto now = count();
    if (now == last) break;
    last = now;
  }
  return static_cast<int>(last);
}

// A JSON text of exactly `size` bytes: `head`, a string of filler, `tail`.
std::string padded(const std::string& head, size_t size, const std::string& tail) {
  return head + std::string(size - head.size() - tail.size(), 'p') + tail;
}

TEST(IntegrationPluginLink, WholeLifeWithExactReplies) {
  LogCapture log;
  RawPlugin plugin(start_manager());
  EXPECT_EQ(lumokit::host::get_property("vendor.lumokit.ready"), "1");
  EXPECT_TRUE(log.contains("I/LUMOKIT_SESSION_MANAGER: setting vendor.lumokit.ready"));

  EXPECT_EQ(plugin.request(R"({"req_type":"INIT"})"),
            "{\"req_type\": \"INIT\", \"service_id\": 102} ");
  const Json::Value lamp = api_def(0x1001, {1, 2}, "lamp");
  const std::string token = make_token(0x1001, lamp);
  EXPECT_EQ(plugin.request(registration_message("AUTH", 102, 0x1001, lamp, &token)),
            "{\"req_type\": \"AUTH\",\"opcode\": \"4097\", \"result\": 0} ");
  EXPECT_EQ(plugin.request(registration_message("REGS", 102, 0x1002, api_def(0x1002, {3}), nullptr)),
            "{\"req_type\": \"REGS\",\"opcode\": \"4098\", \"result\": 0} ");
  EXPECT_TRUE(log.contains("E/LUMOKIT_SESSION_MANAGER: Warning: Recieved useage of "
                           "lumo_svc_register.API will be deprecated in favor of "
                           "lumo_svc_register_auth API"));
  EXPECT_EQ(plugin.request(R"({"req_type":"REDY","Service_Id":102,"Opcode":"4097"})"),
            "{\"req_type\": \"REDY\",\"opcode\": \"4097\", \"result\": 0} ");
  EXPECT_EQ(plugin_state(102)["state"].asInt(), 3);

  ASSERT_EQ(open_session({&plugin}), 1u);

  // Goodbye: "1", the connection closes, the session hears of every pair the
  // plugin had registered, ready or not.
  EXPECT_EQ(plugin.request(R"({"req_type":"DINT","Service_Id":102})"), "1 ");
  EXPECT_TRUE(plugin.wait_closed());
  ASSERT_TRUE(wait_for_callbacks(1, 3s));
  EXPECT_EQ(callbacks(), (std::vector<Callback>{{LUMO_RESPONSE_TASK, 1,
      R"({"opcodes":[{"opcode" : 4097, "subsystems": [{"id" : 1},{"id" : 2}]},{"opcode" : 4098, "subsystems": [{"id" : 3}]}]})",
      1, 0}}));
  EXPECT_EQ(state_dump()["plugins"].size(), 0u);
  EXPECT_EQ(state_dump()["registry"].size(), 0u);

  // A connection that never said INIT is told "0".
  RawPlugin stranger;
  EXPECT_EQ(stranger.request(R"({"req_type":"DINT"})"), "0 ");
  EXPECT_TRUE(stranger.wait_closed());
}

TEST(IntegrationPluginLink, CommentsInADefinitionAreDigestedAndKept) {
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

TEST(IntegrationPluginLink, ReadyPropertyAlreadySetIsLeftAlone) {
  LogCapture log;
  // Any non-zero value counts as set; a rewrite would turn it into "1".
  lumokit::host::set_property("vendor.lumokit.ready", "01");
  RawPlugin plugin(start_manager());
  EXPECT_EQ(plugin.init(), 102);
  EXPECT_EQ(lumokit::host::get_property("vendor.lumokit.ready"), "01");
  EXPECT_FALSE(log.contains("setting vendor.lumokit.ready"));
}

TEST(IntegrationPluginLink, IgnoredAndRefusedMessages) {
  LogCapture log;
  RawPlugin plugin;
  ASSERT_EQ(plugin.init(), 102);
  const Json::Value def = api_def(0x2001, {1});
  const std::string empty_token;
  const std::string refused = registration_reply("AUTH", "8193", -1);
  const std::string e = "E/LUMOKIT_SESSION_MANAGER: ";
  const std::string huge = "123456789012345678901234";
  expect_exchanges(plugin, {
      {R"({"Opcode":"1","Service_Id":102})"},
      {R"({"req_type":"HELLO"})"},
      {R"({"req_type":"AUTH","Opcode":"abc","Service_Id":102})", registration_reply("AUTH", "abc", -1),
       e + "Opcode is not valid: abc"},
      {R"({"req_type":"REGS","Opcode":"","Service_Id":102})", registration_reply("REGS", "", -1)},
      {registration_message("REGS", 102, 0x2001, api_def(0x2002, {1}), nullptr), registration_reply("REGS", "8193", -1),
       "W/LUMOKIT_SESSION_MANAGER: Registration Failed!!!"},
      {registration_message("AUTH", 102, 0x2001, def, &empty_token), refused, e + "Invalid token."},
      {registration_message("AUTH", 102, 0x2001, def, nullptr), refused, e + "Failed to authenticate the LUMOKIT ONE token."},
      {R"({"req_type":"REDY","Service_Id":102,"Opcode":")" + huge + "\"}", registration_reply("REDY", huge, -1),
       e + "Invalid input, out of range input"},
  });
  EXPECT_EQ(log.count("Failed to authenticate the LUMOKIT ONE token."), 2u);
  EXPECT_TRUE(log.contains(e + "Invalid input, no conversion"));
  // Nothing was registered by any of it.
  const Json::Value entry = plugin_state(102);
  EXPECT_EQ(entry["state"].asInt(), 1);
  EXPECT_EQ(entry["pairs"].size(), 0u);
}

TEST(IntegrationPluginLink, FirstRefusedRedyMeansNoSenderEver) {
  LogCapture log;
  RawPlugin plugin;
  plugin.init();
  EXPECT_EQ(plugin.redy(0x2001), -1);  // nothing registered yet
  EXPECT_EQ(plugin.auth(0x2001, api_def(0x2001, {1})), 0);
  EXPECT_EQ(plugin.redy(0x2001), 0);  // accepted, yet no sender is started
  EXPECT_EQ(plugin_state(plugin.service_id())["state"].asInt(), 2);
  EXPECT_TRUE(plugin_state(plugin.service_id())["pairs"][0]["ready"].asBool());

  // The session-start notice is queued but never sent: the client waits out
  // its 3 seconds and the plugin hears nothing.
  const auto start = std::chrono::steady_clock::now();
  create_session("{}", recording_callback(), 0, 5, kClientPid, kClientUid);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, 2900ms);
  EXPECT_LT(waited, 4500ms);
  EXPECT_EQ(plugin.recv(300ms), "");
  EXPECT_EQ(callbacks(), (std::vector<Callback>{{LUMO_RESPONSE_CREATE_SESSION, 0, "{}", 1, 5}}));
  EXPECT_TRUE(log.contains("I/LUMOKIT_SESSION_MANAGER: Session not started !!"));
  EXPECT_EQ(plugin_state(plugin.service_id())["queued"].asUInt(), 1u);
}

TEST(IntegrationPluginLink, SecondRedyStartsNoSecondSender) {
  RawPlugin plugin;
  plugin.init();
  ASSERT_EQ(plugin.auth(0x2001, api_def(0x2001, {1})), 0);
  const int before = settled_thread_count();
  ASSERT_EQ(plugin.redy(0x2001), 0);
  const int with_sender = settled_thread_count();
  EXPECT_EQ(with_sender, before + 1);
  ASSERT_EQ(plugin.redy(0x2001), 0);
  EXPECT_EQ(settled_thread_count(), with_sender);

  // Queued messages reach the plugin once each, in order, as separate sends.
  open_session({&plugin});
  const std::string first = task_request(1, 1, "0x2001", 1, "a", {});
  const std::string second = task_request(1, 2, "0x2001", 1, "b", {});
  perform_task(first, recording_callback(), 1);
  perform_task(second, recording_callback(), 1);
  EXPECT_EQ(plugin.recv(), first);
  EXPECT_EQ(plugin.recv(), second);
  EXPECT_EQ(plugin.recv(300ms), "");
}

TEST(IntegrationPluginLink, MessageSizeLimits) {
  RawPlugin plugin;
  const std::string head = R"({"req_type":"PERMISSION","Session_Id":"x","pad":")";
  const std::string refused = "{\"req_type\":\"PERMISSION\",\"status\": -1} ";
  auto limit_is = [&](size_t limit) {
    expect_exchanges(plugin, {{padded(head, limit, "\"}"), refused},
                              {padded(head, limit + 1, "\"}"), "", kUnreadable}});
  };
  // Before the first start_session answer of a ready plugin: 102,400 bytes.
  limit_is(102400);

  // From then on 524,288 bytes, also for a plugin that registered a second
  // opcode after its first "REDY".
  bring_up(plugin, 0x3001, {1});
  bring_up(plugin, 0x3002, {1});
  open_session({&plugin});
  const std::string big =
      padded(R"({"req_type":"exec_task","session_id":1,"transac_id":9,"blob":")", 200000, "\"}");
  plugin.send(big);
  ASSERT_TRUE(wait_for_callbacks(1, 3s));
  EXPECT_EQ(callbacks()[0].text, big);
  EXPECT_EQ(callbacks()[0].handle, 9u);
  limit_is(524288);

  // Queued messages are cut to 524,287 bytes.
  for (size_t size : {size_t{524287}, size_t{524288}, size_t{600000}}) {
    SCOPED_TRACE(size);
    std::string task = task_request(1, static_cast<uint32_t>(size), "0x3001", 1, "upload", {"bytes"});
    task.pop_back();  // the closing brace
    task = padded(task + ",\"pad\":\"", size, "\"}");
    perform_task(task, recording_callback(), 1);
    const std::string got = plugin.recv();
    EXPECT_EQ(got.size(), 524287u);
    EXPECT_TRUE(got == task.substr(0, 524287));
  }
}

}  // namespace
}  // namespace lumokit::test
