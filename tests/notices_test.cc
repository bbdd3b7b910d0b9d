// The hand-written session-start notice. Over the socket the tests see only
// notices whose every pair is ready; here also the form a plugin receives
// when the first opcode asked has no ready subsystem.
#include <gtest/gtest.h>

#include "Service.h"

namespace {

TEST(Notices, StartSessionTexts) {
  auto svc = std::make_shared<Service>(1, -1, SVC_HAL_READY);
  for (const auto& [pair, ready] : std::vector<std::pair<OpcodeSubsys, bool>>{
           {{0x1A, 1}, true}, {{0x1A, 2}, true}, {{0x2B, 1}, true}, {{0x05, 1}, false}, {{0x0A, 4}, true}}) {
    auto* sub = new Sub_System(pair.second, "{}");
    sub->set_subsystem_status(ready);
    svc->add_to_subsystem_map(pair.first, pair.second, sub);
  }
  const std::pair<OpcodeSubsysSet, const char*> cases[] = {
      {{{0x1A, 1}, {0x1A, 2}, {0x2B, 1}},
       "{\"req_type\": \"start_session\", \"session_id\": 7, \"opcodes\": [{\"id\": \"0x1A\","
       "\"subsystems\": [{\"id\" :1},{\"id\" :2}]},{\"id\": \"0x2B\",\"subsystems\": [{\"id\" :1}]}]}"},
      // The comma follows the key's place in the map, not what was written;
      // pairs the plugin never registered are left out too.
      {{{0x05, 1}, {0x0A, 4}, {0x0A, 9}},
       "{\"req_type\": \"start_session\", \"session_id\": 7, \"opcodes\": [,{\"id\": \"0x0A\","
       "\"subsystems\": [{\"id\" :4}]}]}"},
  };
  for (const auto& [asked, text] : cases) {
    std::unique_ptr<OpcodeMap, void (*)(OpcodeMap*)> map(set_to_map_converison(asked), free_opcode_map);
    EXPECT_EQ(build_start_session_notice(svc, *map, 7), text);
  }
  for (auto& entry : *svc->get_subsystem_map()) delete entry.second;
}

}  // namespace
