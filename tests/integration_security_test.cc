// What a hostile plugin can and cannot do against the manager on its real
// socket: tokens, the separation of plugins' traffic, the pairs a session may
// reach, and the service ids that plugins state about themselves. Each gap of
// docs/security.md is shown happening here.
#include <gtest/gtest.h>

#include <thread>

#include "manager_harness.h"

namespace lumokit::test {
namespace {

using namespace std::chrono_literals;

// The service id that the registry routes (opcode, 1) to; 0 for none.
int routed_to(const char* opcode_hex) {
  const Json::Value dump = state_dump();
  for (const Json::Value& r : dump["registry"]) {
    if (r["opcode"].asString() == opcode_hex && r["subsystem"].asUInt() == 1) return r["service_id"].asInt();
  }
  return 0;
}

// "REGS" (no token) and "REDY" of (opcode, 1) in the name of `service_id`;
// the two results.
std::string serve_legacy(RawPlugin& plugin, uint32_t opcode, int service_id) {
  auto result = [&](const std::string& text) { return parse_json(plugin.request(text))["result"].asString(); };
  const std::string registered =
      result(registration_message("REGS", service_id, opcode, api_def(opcode, {1}), nullptr));
  return registered + " " +
         result("{\"req_type\":\"REDY\",\"Service_Id\":" + std::to_string(service_id) + ",\"Opcode\":\"" +
                std::to_string(opcode) + "\"}");
}

TEST(Security, TokensProveTheDefinitionButNotThePlugin) {
  RawPlugin owner, intruder;
  bring_up(owner, 0x1001, {1}, "calc");
  intruder.init();
  // The owner's token and definition, as any plugin could copy them, pass;
  // while the owner is connected the pair stays the owner's.
  EXPECT_EQ(intruder.auth(0x1001, api_def(0x1001, {1}, "calc")), 0);
  EXPECT_EQ(routed_to("0x1001"), owner.service_id());
  EXPECT_EQ(plugin_state(intruder.service_id())["pairs"].size(), 0u);

  // Once the owner has left, the copy registers the API for the intruder,
  // and the clients' tasks go to it.
  EXPECT_EQ(owner.dint(), "1 ");
  EXPECT_TRUE(owner.wait_closed());
  EXPECT_EQ(intruder.auth(0x1001, api_def(0x1001, {1}, "calc")), 0);
  EXPECT_EQ(intruder.redy(0x1001), 0);
  const uint32_t session = open_session({&intruder});
  const std::string task = task_request(session, 5, "0x1001", 1, "add", {"int"});
  perform_task(task, recording_callback(), session);
  EXPECT_EQ(intruder.recv(), task);
}

TEST(Security, PluginsSeeOnlyTheirTrafficButMayAnswerForAnySession) {
  RawPlugin owner, intruder;
  bring_up(owner, 0x1001, {1});
  intruder.init();
  // The legacy registration needs no token at all.
  ASSERT_EQ(serve_legacy(intruder, 0x3003, intruder.service_id()), "0 0");
  const uint32_t mine = open_session({&owner, &intruder});
  // Another client's session, which the intruder refuses.
  std::thread creation = create_session_async(2, 0, recording_callback(), 4243, 10078);
  owner.answer_start_session(true);
  intruder.answer_start_session(false);
  creation.join();
  ASSERT_EQ(callbacks().size(), 1u);
  const uint32_t other = callbacks()[0].session_id;

  // Tasks for the owner's pair never reach the intruder.
  const std::string task = task_request(mine, 1, "0x1001", 1, "f", {});
  perform_task(task, recording_callback(), mine);
  EXPECT_EQ(owner.recv(), task);
  EXPECT_EQ(intruder.recv(300ms), "");

  // A pair registered after the session opened was never granted to it.
  ASSERT_EQ(serve_legacy(intruder, 0x4004, intruder.service_id()), "0 0");
  clear_callbacks();
  perform_task(task_request(mine, 2, "0x4004", 1, "f", {}), recording_callback(), mine);
  ASSERT_EQ(callbacks().size(), 1u);
  EXPECT_NE(callbacks()[0].text.find("\"status\":-8"), std::string::npos);
  EXPECT_EQ(intruder.recv(300ms), "");

  // Not protected: an answer goes, as sent, to whichever session it names,
  // even one that the plugin refused to start.
  clear_callbacks();
  const std::string forged = "{\"req_type\":\"exec_task\",\"session_id\":" + std::to_string(other) +
                             ",\"transac_id\":77,\"return\":\"forged\xff\"}";
  intruder.send(forged);
  ASSERT_TRUE(wait_for_callbacks(1, 3s));
  EXPECT_EQ(callbacks()[0], (Callback{LUMO_RESPONSE_TASK, other, forged, 0, 77}));
  // Not protected: questions about any session's client are answered.
  EXPECT_EQ(intruder.request("{\"req_type\":\"INFO_QUERY\",\"Session_Id\":\"" + std::to_string(other) +
                             "\",\"QueryInfos\":[\"app.id.pid\",\"app.id.uid\"]}"),
            "{\"req_type\":\"INFO_QUERY\",\"QueryInfosRes\":\"SUCCESS:4243\",\"SUCCESS:10078\"} ");
}

TEST(Security, ServiceIdsInPluginMessagesAreTakenOnTrust) {
  RawPlugin victim, intruder;
  bring_up(victim, 0x1001, {1});
  bring_up(victim, 0x1002, {3});
  intruder.init();
  ASSERT_EQ(serve_legacy(intruder, 0x3003, intruder.service_id()), "0 0");
  const uint32_t session = open_session({&victim, &intruder});

  // A pair registered and readied in the victim's name: the victim's record
  // gains it and the registry routes it to the victim.
  ASSERT_EQ(serve_legacy(intruder, 0x5005, victim.service_id()), "0 0");
  EXPECT_EQ(pair_list(plugin_state(victim.service_id())["pairs"]), "0x1001/1 0x1002/3 0x5005/1 ");
  EXPECT_EQ(routed_to("0x5005"), victim.service_id());

  // An unasked session-start answer naming the victim's pair, then a goodbye
  // naming the victim's id: the victim's record goes while the victim stays
  // connected, and the session loses both plugins' pairs it had started.
  intruder.send("{\"req_type\":\"start_session\",\"Result\":\"Success\",\"session_id\":" +
                std::to_string(session) + ",\"opcodes\":[{\"id\":\"0x1001\",\"subsystems\":[{\"id\":1}]}]}");
  EXPECT_EQ(intruder.request("{\"req_type\":\"DINT\",\"Service_Id\":" + std::to_string(victim.service_id()) + "}"),
            "1 ");
  // The client hears of the intruder's pairs only.
  ASSERT_TRUE(wait_for_callbacks(1, 3s));
  EXPECT_EQ(callbacks()[0], (Callback{LUMO_RESPONSE_TASK, session,
                                      R"({"opcodes":[{"opcode" : 12291, "subsystems": [{"id" : 1}]}]})", 1, 0}));
  EXPECT_TRUE(plugin_state(victim.service_id()).isNull());
  EXPECT_EQ(routed_to("0x1001"), victim.service_id());  // the registry still names it
  // The intruder's own record stays filed under its id, gone and emptied,
  // as after a goodbye whose id does not read (it reads 0).
  const Json::Value intruder_record = plugin_state(intruder.service_id());
  EXPECT_TRUE(intruder_record["died"].asBool());
  EXPECT_EQ(intruder_record["pairs"].size(), 0u);
  EXPECT_EQ(routed_to("0x3003"), 0);
  const Json::Value state = session_state(session);
  EXPECT_EQ(state["plugins"], parse_json("[" + std::to_string(intruder.service_id()) + "]"));
  EXPECT_EQ(pair_list(state["connected"]), "0x1002/3 ");

  // Tasks for the victim's pairs now vanish without an answer, although the
  // victim is still connected.
  clear_callbacks();
  perform_task(task_request(session, 9, "0x1001", 1, "f", {}), recording_callback(), session);
  EXPECT_EQ(victim.recv(300ms), "");
  EXPECT_TRUE(callbacks().empty());
}

}  // namespace
}  // namespace lumokit::test
