// Plugin records, the service map, registration ownership and teardown.
#include <gtest/gtest.h>

#include "Service.h"
#include "manager_harness.h"
#include "session_tables.h"

using namespace lumokit::test;

namespace {

std::shared_ptr<Service> new_plugin() {
  const int id = generate_service_id();
  auto svc = std::make_shared<Service>(id, -1, SVC_HAL_INITIALISED);
  add_to_service_map(id, svc);
  return svc;
}

Json::Value definition(const std::string& opcode_text, const std::vector<unsigned>& ids,
                       const std::string& name = "api") {
  Json::Value def(Json::objectValue);
  Json::Value entry(Json::objectValue);
  entry["opcode"] = opcode_text;
  entry["name"] = name;
  for (unsigned id : ids) {
    Json::Value sub(Json::objectValue);
    sub["id"] = id;
    sub["doc"] = "x y";
    entry["subsystems"].append(sub);
  }
  def["api_def"].append(entry);
  return def;
}

}  // namespace

TEST(Records, SubsystemStringAndSessionMap) {
  Service svc(1, -1, SVC_HAL_INITIALISED);
  EXPECT_EQ(svc.get_opcodes_subsystems_string(), "[]");
  auto* first = new Sub_System(10, "{}");
  auto* second = new Sub_System(10, "{\"other\":1}");
  svc.add_to_subsystem_map(255, 10, first);
  svc.add_to_subsystem_map(255, 10, second);  // the first stays
  svc.add_to_subsystem_map(0x1a, 2, new Sub_System(2, "{}"));
  EXPECT_EQ(svc.get_subsystem_map()->at({255, 10}), first);
  EXPECT_EQ(svc.get_opcodes_subsystems_string(), "[{0x1a, 2}{0xff, 10}]");
  delete second;

  auto* stored = new OpcodeSubsysSet{{1, 1}};
  svc.add_to_session_started_map(9, stored);
  OpcodeSubsysSet more{{1, 1}, {2, 2}};
  svc.add_to_session_started_map(9, &more);  // merged, caller keeps `more`
  EXPECT_EQ(svc.find_in_session_started_map(9), stored);
  EXPECT_EQ(stored->size(), 2u);
  svc.add_to_session_started_map(3, new OpcodeSubsysSet());
  std::unique_ptr<std::vector<unsigned>> keys(svc.get_keys_of_session_started_map());
  EXPECT_EQ(*keys, (std::vector<unsigned>{3, 9}));
  EXPECT_EQ(svc.find_in_session_started_map(77), nullptr);
  svc.delete_from_session_started_map(77);
  svc.delete_from_session_started_map(9);
  svc.delete_from_session_started_map(3);
  for (auto& e : *svc.get_subsystem_map()) delete e.second;
}

TEST(ServiceMap, IdsLookupAndRemoval) {
  EXPECT_EQ(generate_service_id(), 102);
  EXPECT_EQ(generate_service_id(), 103);
  auto first = std::make_shared<Service>(200, -1, SVC_HAL_INITIALISED);
  add_to_service_map(200, first);
  add_to_service_map(200, std::make_shared<Service>(200, -1, SVC_HAL_READY));
  EXPECT_EQ(find_in_service_map(200), first);
  EXPECT_EQ(find_in_service_map(201), nullptr);
  delete_from_service_map(200);
  delete_from_service_map(200);  // absent: ignored
  EXPECT_EQ(find_in_service_map(200), nullptr);
  EXPECT_TRUE(first->get_svc_hal_died());
  EXPECT_EQ(first->get_svc_hal_state(), SVC_HAL_GONE);
  EXPECT_FALSE(update_subsystem_status(200, 1, 1, true));
}

TEST(Registration, DefinitionsOwnershipAndRelease) {
  LogCapture log;
  auto a = new_plugin();
  auto b = new_plugin();

  // Empty or missing api_def registers nothing and succeeds.
  EXPECT_EQ(register_client(a->get_svc_id(), 0x10, Json::Value(Json::objectValue)), 0);
  EXPECT_EQ(a->get_svc_hal_state(), SVC_HAL_REGISTERED);

  EXPECT_EQ(register_client(a->get_svc_id(), 0x10, definition("0x10", {1, 2, 2})), 0);
  EXPECT_EQ(a->get_subsystem_map()->size(), 2u);
  EXPECT_EQ(a->get_subsystem_map()->at({0x10, 1})->get_functions(), "{\"doc\":\"x y\",\"id\":1}");
  EXPECT_EQ(opcode_name_map.at(0x10), "api");

  // Another plugin may "register" the same pair, but the first owns it.
  EXPECT_EQ(register_client(b->get_svc_id(), 0x10, definition("0x10", {2, 3}, "renamed")), 0);
  EXPECT_EQ(b->get_subsystem_map()->size(), 1u);
  EXPECT_EQ(b->get_subsystem_map()->count({0x10, 3}), 1u);
  EXPECT_EQ(opcode_name_map.at(0x10), "api");

  // Failures: wrong opcode, malformed opcode, unknown plugin, gone plugin.
  EXPECT_EQ(register_client(a->get_svc_id(), 0x10, definition("0x11", {5})), -1);
  EXPECT_TRUE(log.contains("W/LUMOKIT_SESSION_MANAGER: Registration Failed!!!"));
  EXPECT_EQ(register_client(a->get_svc_id(), 0x10, definition("16", {5})), -1);
  EXPECT_TRUE(log.contains("E/LUMOKIT_SESSION_MANAGER: Opcode is not valid: 16"));
  EXPECT_EQ(register_client(9999, 0x10, definition("0x10", {5})), -1);

  EXPECT_TRUE(update_subsystem_status(a->get_svc_id(), 0x10, 1, true));
  EXPECT_FALSE(update_subsystem_status(a->get_svc_id(), 0x10, 3, true));  // b's pair

  // Teardown frees a's pairs for b.
  EXPECT_EQ(de_register_client(a->get_svc_id(), a), 1);
  EXPECT_TRUE(a->get_subsystem_map()->empty());
  EXPECT_EQ(register_client(a->get_svc_id(), 0x10, definition("0x10", {9})), -1);  // gone
  EXPECT_EQ(register_client(b->get_svc_id(), 0x10, definition("0x10", {1, 2})), 0);
  EXPECT_EQ(b->get_subsystem_map()->size(), 3u);
  EXPECT_EQ(de_register_client(b->get_svc_id(), b), 1);
}

namespace {
std::vector<std::pair<uint32_t, std::string>>* crash_calls = new std::vector<std::pair<uint32_t, std::string>>();
void crash_cb(lumo_response_t kind, uint32_t session, std::string text, int32_t flag, uint32_t handle) {
  EXPECT_EQ(kind, LUMO_RESPONSE_TASK);
  EXPECT_EQ(flag, 1);
  EXPECT_EQ(handle, 0u);
  crash_calls->emplace_back(session, std::move(text));
}
}  // namespace

TEST(Registration, TeardownTellsEachSessionOnceInOrder) {
  auto a = new_plugin();
  ASSERT_EQ(register_client(a->get_svc_id(), 26, definition("0x1a", {1, 2})), 0);
  auto entry = definition("0x2b", {1});
  ASSERT_EQ(register_client(a->get_svc_id(), 43, entry), 0);
  for (unsigned session : {7u, 3u, 5u}) {
    a->add_to_session_started_map(session, new OpcodeSubsysSet{{26, 1}});
    connectedOpcodesubsysMap[session] = new OpcodeSubsysSet{{26, 1}, {99, 1}};
    session_cb_map[session] = crash_cb;
  }
  session_cb_map.erase(5);  // no callback: not told
  de_register_client(a->get_svc_id(), a);
  const std::string notice =
      "{\"opcodes\":[{\"opcode\" : 26, \"subsystems\": [{\"id\" : 1},{\"id\" : 2}]},"
      "{\"opcode\" : 43, \"subsystems\": [{\"id\" : 1}]}]}";
  ASSERT_EQ(crash_calls->size(), 2u);
  EXPECT_EQ((*crash_calls)[0], std::make_pair(3u, notice));
  EXPECT_EQ((*crash_calls)[1], std::make_pair(7u, notice));
  EXPECT_EQ(connectedOpcodesubsysMap.at(3)->count({26, 1}), 0u);
  EXPECT_EQ(find_in_service_map(a->get_svc_id()), nullptr);
}
