// The hand-written texts sent to plugins and clients, and the start wait.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "LumoManager.h"
#include "Service.h"
#include "manager_harness.h"

using namespace lumokit::test;

namespace {

std::shared_ptr<Service> plugin_with(const std::vector<std::pair<OpcodeSubsys, bool>>& pairs) {
  const int id = generate_service_id();
  auto svc = std::make_shared<Service>(id, -1, SVC_HAL_READY);
  for (const auto& p : pairs) {
    auto* sub = new Sub_System(p.first.second, "{}");
    sub->set_subsystem_status(p.second);
    svc->add_to_subsystem_map(p.first.first, p.first.second, sub);
  }
  add_to_service_map(id, svc);
  return svc;
}

std::string notice_for(const std::shared_ptr<Service>& svc, const OpcodeSubsysSet& asked,
                       unsigned session) {
  std::unique_ptr<OpcodeMap, void (*)(OpcodeMap*)> map(set_to_map_converison(asked), free_opcode_map);
  return build_start_session_notice(svc, *map, session);
}

}  // namespace

TEST(Notices, StartSessionTexts) {
  auto svc = plugin_with({{{0x1A, 1}, true}, {{0x1A, 2}, true}, {{0x2B, 1}, true},
                          {{0x05, 1}, false}, {{0x30, 4}, true}});
  struct Case {
    OpcodeSubsysSet asked;
    unsigned session;
    const char* text;
  } cases[] = {
      {{{0x1A, 1}, {0x1A, 2}, {0x2B, 1}}, 7,
       "{\"req_type\": \"start_session\", \"session_id\": 7, \"opcodes\": [{\"id\": \"0x1A\","
       "\"subsystems\": [{\"id\" :1},{\"id\" :2}]},{\"id\": \"0x2B\",\"subsystems\": [{\"id\" :1}]}]}"},
      // Nothing ready: an empty list, still a notice.
      {{{0x05, 1}}, 3, "{\"req_type\": \"start_session\", \"session_id\": 3, \"opcodes\": []}"},
      // First key without a ready subsystem: the second object keeps its comma.
      {{{0x05, 1}, {0x30, 4}}, 4,
       "{\"req_type\": \"start_session\", \"session_id\": 4, \"opcodes\": [,{\"id\": \"0x30\","
       "\"subsystems\": [{\"id\" :4}]}]}"},
      // Pairs the plugin never registered are left out.
      {{{0x1A, 9}, {0x2B, 1}}, 5,
       "{\"req_type\": \"start_session\", \"session_id\": 5, \"opcodes\": [,{\"id\": \"0x2B\","
       "\"subsystems\": [{\"id\" :1}]}]}"},
  };
  for (const Case& c : cases) EXPECT_EQ(notice_for(svc, c.asked, c.session), c.text);
}

TEST(Notices, CrashTexts) {
  std::vector<unsigned> a{1, 2}, b{1};
  EXPECT_EQ(create_crash_response({{26, &a}, {43, &b}}),
            "{\"opcodes\":[{\"opcode\" : 26, \"subsystems\": [{\"id\" : 1},{\"id\" : 2}]},"
            "{\"opcode\" : 43, \"subsystems\": [{\"id\" : 1}]}]}");
  EXPECT_EQ(create_crash_response({}), "{\"opcodes\":[]}");
}

TEST(Notices, StartSessionWaitEndsOnAnswerTimeoutOrDeath) {
  LogCapture log;
  auto svc = plugin_with({{{1, 1}, true}});
  OpcodeSubsysSet asked{{1, 1}};

  // The plugin records the session and wakes the waiter.
  std::thread answer([svc] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::lock_guard<std::mutex> lock(*svc->get_svc_hal_mtx());
    svc->add_to_session_started_map(11, new OpcodeSubsysSet{{1, 1}});
    svc->set_start_session_cv(true);
    svc->get_svc_hal_cv()->notify_all();
  });
  std::unique_ptr<OpcodeSubsysSet> started(get_response_for_start_session(svc->get_svc_id(), &asked, 11));
  answer.join();
  ASSERT_TRUE(started);
  EXPECT_EQ(*started, asked);
  EXPECT_FALSE(svc->get_start_session_cv());
  EXPECT_EQ(svc->get_svc_hal_queue()->size(), 1u);  // no sender on this record

  // No answer: 3 s, then null and the log line.
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(get_response_for_start_session(svc->get_svc_id(), &asked, 12), nullptr);
  auto waited = std::chrono::steady_clock::now() - t0;
  EXPECT_GE(waited, std::chrono::milliseconds(2900));
  EXPECT_LT(waited, std::chrono::milliseconds(4500));
  EXPECT_TRUE(log.contains("I/LUMOKIT_SESSION_MANAGER: Session not started !!"));

  // Removal during the wait ends it at once.
  std::thread remove([svc] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    delete_from_service_map(svc->get_svc_id());
  });
  t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(start_session(svc, const_cast<char*>("{}"), 13), nullptr);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(1500));
  remove.join();
  EXPECT_EQ(get_response_for_start_session(svc->get_svc_id(), &asked, 14), nullptr);  // gone
  for (auto& e : *svc->get_subsystem_map()) delete e.second;
  svc->delete_from_session_started_map(11);
}
