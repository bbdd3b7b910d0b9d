// Client sessions against raw plugins on a real socket: creation across
// plugins, task answers and errors, plugin crashes and re-attaching,
// cancellation, and the 3-second waits.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "manager_harness.h"

namespace lumokit::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int32_t kPid = 4321;
constexpr uint32_t kUid = 10077;

std::thread open_session(uint32_t handle, uint32_t session_id = 0,
                         lumo_callback callback = recording_callback()) {
  return std::thread(
      [=] { create_session("{}", callback, session_id, handle, kPid, kUid); });
}

std::future<uint32_t> cancel_async(uint32_t session_id, uint32_t opcode, uint32_t subsys) {
  return std::async(std::launch::async,
                    [=] { return cancel_session(session_id, opcode, subsys); });
}

void expect_callback(const Callback& cb, lumo_response_t kind, uint32_t session_id,
                     const std::string& text, int32_t error_flag, uint32_t handle) {
  EXPECT_EQ(cb.kind, kind);
  EXPECT_EQ(cb.session_id, session_id);
  EXPECT_EQ(cb.text, text);
  EXPECT_EQ(cb.error_flag, error_flag);
  EXPECT_EQ(cb.handle, handle);
}

std::string error_answer(const std::string& opcode, uint32_t subsys, uint32_t transac, int status) {
  return "{\"opcode\":\"" + opcode + "\",\"name\":\"none\",\"subsys_id\":" + std::to_string(subsys) +
         ",\"transac_id\":" + std::to_string(transac) + ",\"status\":" + std::to_string(status) +
         ",\"return\":0,\"func\": {}}";
}

std::string exec_answer(uint32_t session_id, uint32_t transac_id) {
  return "{\"req_type\":\"exec_task\",\"session_id\":" + std::to_string(session_id) +
         ",\"transac_id\":" + std::to_string(transac_id) + ",\"value\":\"done\"}";
}

Json::Value session_entry(uint32_t session_id) {
  const Json::Value dump = state_dump();
  for (const Json::Value& s : dump["sessions"]) {
    if (s["session_id"].asUInt() == session_id) return s;
  }
  return Json::Value();
}

std::string pairs_text(const Json::Value& pairs) {
  std::string text;
  for (const Json::Value& p : pairs) {
    text += p["opcode"].asString() + "/" + std::to_string(p["subsystem"].asUInt()) + " ";
  }
  return text;
}

// A second client callback, to show which one a session keeps.
std::atomic<int> other_calls{0};
std::mutex other_mtx;
Callback other_last;
void other_callback(lumo_response_t kind, uint32_t session_id, std::string text, int32_t flag,
                    uint32_t handle) {
  std::lock_guard<std::mutex> lock(other_mtx);
  other_last = Callback{kind, session_id, std::move(text), flag, handle};
  ++other_calls;
}

TEST(IntegrationSessions, PluginsAskedInServiceIdOrderAndOneRefuses) {
  // No plugin yet: the creation fails and still uses up a session number.
  create_session("{}", recording_callback(), 0, 50, kPid, kUid);
  ASSERT_EQ(callbacks().size(), 1u);
  expect_callback(callbacks()[0], LUMO_RESPONSE_CREATE_SESSION, 0, "{}", 1, 50);

  // The lower service id serves the higher opcode.
  RawPlugin alpha, beta;
  bring_up(alpha, 0x20, {1, 2}, "alpha");
  bring_up(beta, 0x10, {5}, "beta");
  ASSERT_EQ(alpha.service_id(), 102);
  ASSERT_EQ(beta.service_id(), 103);

  const auto start = Clock::now();
  std::thread client = open_session(51);
  const std::string to_alpha = alpha.recv();
  EXPECT_EQ(to_alpha,
            R"({"req_type": "start_session", "session_id": 2, "opcodes": [{"id": "0x20","subsystems": [{"id" :1},{"id" :2}]}]})");
  EXPECT_EQ(beta.recv(300ms), "");  // asked only once alpha has answered
  alpha.send(start_session_answer(to_alpha, false));
  const std::string to_beta = beta.recv();
  EXPECT_EQ(to_beta,
            R"({"req_type": "start_session", "session_id": 2, "opcodes": [{"id": "0x10","subsystems": [{"id" :5}]}]})");
  beta.send(start_session_answer(to_beta, true));
  client.join();
  EXPECT_LT(Clock::now() - start, 2s);  // a refusal ends the wait too

  ASSERT_EQ(callbacks().size(), 2u);
  expect_callback(callbacks()[1], LUMO_RESPONSE_CREATE_SESSION, 2,
                  R"({"capability": {"version":1,"opcodes": [{"opcode": "0x10", "name": "beta", "subsystems": [{"functions":["f5"],"id":5}]}]}})",
                  0, 51);
  Json::Value session = session_entry(2);
  EXPECT_EQ(session["plugins"].size(), 1u);
  EXPECT_EQ(session["plugins"][0].asInt(), 103);
  EXPECT_EQ(pairs_text(session["connected"]), "0x10/5 ");
  EXPECT_EQ(pairs_text(session["granted"]), "0x10/5 0x20/1 0x20/2 ");
  EXPECT_EQ(session["pid"].asInt(), kPid);
}

TEST(IntegrationSessions, TaskAnswersAndErrors) {
  LogCapture log;
  RawPlugin lamp, fan;
  bring_up(lamp, 0x1001, {1, 2}, "lamp");
  bring_up(fan, 0x2002, {1}, "fan");
  std::thread client = open_session(1);
  lamp.answer_start_session(true);
  fan.answer_start_session(true);
  client.join();
  ASSERT_EQ(callbacks().size(), 1u);
  ASSERT_EQ(callbacks()[0].session_id, 1u);
  // The fan leaves: its pair stays granted to the session but has no plugin.
  EXPECT_EQ(fan.dint(), "1 ");
  ASSERT_TRUE(wait_for_callbacks(2, 3s));
  clear_callbacks();

  const std::string task = task_request(1, 7, "0x1001", 1, "dim", {"int"});
  perform_task(task, recording_callback(), 1);
  EXPECT_EQ(lamp.recv(), task);
  lamp.send(exec_answer(1, 7));
  ASSERT_TRUE(wait_for_callbacks(1, 3s));
  expect_callback(callbacks()[0], LUMO_RESPONSE_TASK, 1, exec_answer(1, 7), 0, 7);

  std::string miscounted = task_request(1, 11, "0x1001", 1, "dim", {"int"});
  miscounted.replace(miscounted.find("\"num_of_args\":1"), 15, "\"num_of_args\":2");
  struct Case {
    const char* what;
    std::string request;
    uint32_t session;
    bool answered;
    std::string text;
    uint32_t handle;
  };
  const Case cases[] = {
      {"argument count", miscounted, 1, true, error_answer("0x1001", 1, 11, -1), 11},
      {"plugin gone", task_request(1, 12, "0x2002", 1, "spin", {}), 1, true,
       error_answer("0x2002", 1, 12, -5), 12},
      {"unknown session", task_request(9, 13, "0x1001", 1, "dim", {}), 9, true,
       error_answer("0x1001", 1, 13, -7), 13},
      {"pair not granted", task_request(1, 14, "0x1001", 9, "dim", {}), 1, true,
       error_answer("0x1001", 9, 14, -8), 14},
      {"not JSON", R"({"session_id":1,"transac_id":15,)", 1, true, "", 0},
      {"opcode is a number",
       R"({"session_id":1,"transac_id":16,"opcode":4097,"subsys_id":1,"func":{"name":"dim","num_of_args":0,"args":[]}})",
       1, true, "", 0},
      {"another session's request", task_request(1, 17, "0x1001", 1, "dim", {}), 2, false, "", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    clear_callbacks();
    perform_task(c.request, recording_callback(), c.session);
    if (!c.answered) std::this_thread::sleep_for(200ms);
    ASSERT_EQ(callbacks().size(), c.answered ? 1u : 0u);
    if (c.answered) {
      expect_callback(callbacks()[0], LUMO_RESPONSE_TASK, c.session, c.text, 0, c.handle);
    }
  }
  EXPECT_EQ(lamp.recv(300ms), "");  // none of them reached the plugin
  EXPECT_TRUE(log.contains("W/LUMOKIT_MANAGER: Parsing Failed!!!"));
  EXPECT_TRUE(log.contains("W/LUMOKIT_MANAGER: Sanitizing Failed!!! Input is not aligned with the criteria"));
  EXPECT_TRUE(log.contains("E/LUMOKIT_MANAGER: Number of arguments mismatched!!!"));

  // An answer for a session without a callback is dropped.
  clear_callbacks();
  lamp.send(exec_answer(42, 1));
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(callbacks().size(), 0u);
}

TEST(IntegrationSessions, CrashNoticesAndReattach) {
  LogCapture log;
  RawPlugin doomed, steady;
  bring_up(doomed, 0x30, {1, 2}, "cam");
  bring_up(steady, 0x40, {1}, "mic");
  for (uint32_t handle : {1u, 2u}) {
    std::thread client = open_session(handle);
    doomed.answer_start_session(true);
    steady.answer_start_session(true);
    client.join();
  }
  ASSERT_EQ(callbacks().size(), 2u);
  clear_callbacks();

  doomed.close_socket();
  ASSERT_TRUE(log.wait_for("E/LUMOKIT_SESSION_MANAGER: LUMOKIT has detected a Service Plugin "
                           "crash: [{0x30, 1}{0x30, 2}]. LUMOKIT continues to run",
                           3s));
  ASSERT_TRUE(wait_for_callbacks(2, 3s));
  std::this_thread::sleep_for(200ms);
  ASSERT_EQ(callbacks().size(), 2u);  // one notice per session
  const std::string crash =
      R"({"opcodes":[{"opcode" : 48, "subsystems": [{"id" : 1},{"id" : 2}]}]})";
  expect_callback(callbacks()[0], LUMO_RESPONSE_TASK, 1, crash, 1, 0);
  expect_callback(callbacks()[1], LUMO_RESPONSE_TASK, 2, crash, 1, 0);
  for (uint32_t id : {1u, 2u}) {
    Json::Value session = session_entry(id);
    EXPECT_EQ(session["plugins"].size(), 1u);
    EXPECT_EQ(session["plugins"][0].asInt(), 103);
    EXPECT_EQ(pairs_text(session["connected"]), "0x40/1 ");
  }
  EXPECT_EQ(pairs_text(state_dump()["registry"]), "0x40/1 ");

  // The crashed plugin's pairs are free again for another plugin.
  RawPlugin successor;
  bring_up(successor, 0x30, {1, 2}, "cam");
  ASSERT_EQ(successor.service_id(), 104);
  EXPECT_EQ(pairs_text(state_dump()["registry"]), "0x30/1 0x30/2 0x40/1 ");

  // Re-attaching session 1 asks only for what it lost; the first callback stays.
  clear_callbacks();
  std::thread reattach = open_session(99, 1, other_callback);
  EXPECT_EQ(successor.answer_start_session(true),
            R"({"req_type": "start_session", "session_id": 1, "opcodes": [{"id": "0x30","subsystems": [{"id" :1},{"id" :2}]}]})");
  reattach.join();
  ASSERT_EQ(other_calls.load(), 1);
  expect_callback(other_last, LUMO_RESPONSE_CREATE_SESSION, 1,
                  R"({"capability": {"version":1,"opcodes": [{"opcode": "0x30", "name": "cam", "subsystems": [{"functions":["f1"],"id":1},{"functions":["f2"],"id":2}]}]}})",
                  0, 99);
  EXPECT_EQ(pairs_text(session_entry(1)["connected"]), "0x30/1 0x30/2 0x40/1 ");

  const std::string task = task_request(1, 5, "0x30", 2, "snap", {});
  perform_task(task, recording_callback(), 1);
  EXPECT_EQ(successor.recv(), task);
  successor.send(exec_answer(1, 5));
  ASSERT_TRUE(wait_for_callbacks(1, 3s));
  expect_callback(callbacks()[0], LUMO_RESPONSE_TASK, 1, exec_answer(1, 5), 0, 5);
  EXPECT_EQ(other_calls.load(), 1);

  // Nothing left to re-attach: failure at once, nothing asked.
  create_session("{}", other_callback, 1, 98, kPid, kUid);
  EXPECT_EQ(other_calls.load(), 2);
  expect_callback(other_last, LUMO_RESPONSE_CREATE_SESSION, 0, "{}", 1, 98);
  EXPECT_EQ(successor.recv(300ms), "");
}

TEST(IntegrationSessions, CancelPairsAndWholeSessions) {
  RawPlugin a, b;
  bring_up(a, 0x50, {1, 2});
  bring_up(b, 0x60, {1});
  std::thread client = open_session(1);
  a.answer_start_session(true);
  b.answer_start_session(true);
  client.join();
  ASSERT_EQ(callbacks().size(), 1u);
  const std::string end = R"({"req_type":"end_session","session_id": 1})";

  EXPECT_EQ(cancel_session(1, 0x50, 7), 2u);  // no plugin serves the pair
  EXPECT_EQ(a.recv(200ms), "");

  // Whole session with three pairs: every plugin is told, in service-id
  // order, yet the session keeps its pairs and its callback.
  auto whole = cancel_async(1, 0, 0);
  EXPECT_EQ(b.recv(300ms), "");
  EXPECT_EQ(a.answer_end_session(), end);
  EXPECT_EQ(whole.wait_for(0ms), std::future_status::timeout);
  EXPECT_EQ(b.answer_end_session(), end);
  EXPECT_EQ(whole.get(), 0u);
  Json::Value session = session_entry(1);
  EXPECT_TRUE(session["has_callback"].asBool());
  EXPECT_EQ(session["plugins"].size(), 0u);
  EXPECT_EQ(pairs_text(session["connected"]), "0x50/1 0x50/2 0x60/1 ");
  b.send(exec_answer(1, 3));
  ASSERT_TRUE(wait_for_callbacks(2, 3s));
  EXPECT_EQ(callbacks()[1].text, exec_answer(1, 3));

  // Pair by pair; the last pair ends the session.
  const struct {
    RawPlugin* plugin;
    uint32_t opcode, subsys;
    const char* left;
  } steps[] = {{&a, 0x50, 1, "0x50/2 0x60/1 "}, {&a, 0x50, 2, "0x60/1 "}, {&b, 0x60, 1, ""}};
  for (const auto& step : steps) {
    SCOPED_TRACE(step.left);
    auto one = cancel_async(1, step.opcode, step.subsys);
    EXPECT_EQ(step.plugin->answer_end_session(), end);
    EXPECT_EQ(one.get(), 0u);
    EXPECT_EQ(pairs_text(session_entry(1)["connected"]), step.left);
  }
  EXPECT_TRUE(session_entry(1).isNull());  // no table knows it any more
  b.send(exec_answer(1, 4));
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(callbacks().size(), 2u);

  EXPECT_EQ(cancel_session(1, 0, 0), 2u);  // already ended
}

TEST(IntegrationSessions, ThreeSecondWaits) {
  LogCapture log;
  RawPlugin plugin;
  bring_up(plugin, 0x70, {1});

  // A start_session notice that is never answered.
  auto start = Clock::now();
  std::thread client = open_session(61);
  EXPECT_NE(plugin.recv().find("\"start_session\""), std::string::npos);
  client.join();
  auto waited = Clock::now() - start;
  EXPECT_GE(waited, 2900ms);
  EXPECT_LT(waited, 4500ms);
  ASSERT_EQ(callbacks().size(), 1u);
  expect_callback(callbacks()[0], LUMO_RESPONSE_CREATE_SESSION, 0, "{}", 1, 61);
  EXPECT_TRUE(log.contains("I/LUMOKIT_SESSION_MANAGER: Session not started !!"));

  // An end_session answered with a failure wakes nobody: the cancel completes
  // once its 3 seconds have run out.
  std::thread second = open_session(62);
  plugin.answer_start_session(true);
  second.join();
  ASSERT_EQ(callbacks().size(), 2u);
  ASSERT_EQ(callbacks()[1].session_id, 2u);
  start = Clock::now();
  auto cancel = cancel_async(2, 0, 0);
  EXPECT_EQ(plugin.answer_end_session(false), R"({"req_type":"end_session","session_id": 2})");
  EXPECT_EQ(cancel.get(), 0u);
  waited = Clock::now() - start;
  EXPECT_GE(waited, 2900ms);
  EXPECT_LT(waited, 4500ms);
  EXPECT_TRUE(session_entry(2).isNull());
}

// A plugin keeps a live session among its started ones while any of its pairs
// is cancelled, and forgets it once the session has ended.
TEST(IntegrationSessions, EndedSessionLeavesNoStartedEntry) {
  RawPlugin plugin;
  bring_up(plugin, 0x58, {1, 2});
  std::thread client = open_session(1);
  plugin.answer_start_session(true);
  client.join();
  auto started = [] {
    std::string ids;
    const Json::Value dump = state_dump();
    for (const Json::Value& p : dump["plugins"]) {
      for (const Json::Value& s : p["started_sessions"]) ids += s.asString() + " ";
    }
    return ids;
  };
  EXPECT_EQ(started(), "1 ");
  auto first = cancel_async(1, 0x58, 1);
  plugin.answer_end_session();
  EXPECT_EQ(first.get(), 0u);
  EXPECT_EQ(started(), "1 ");  // the session lives on with its other pair
  auto last = cancel_async(1, 0x58, 2);
  plugin.answer_end_session();
  EXPECT_EQ(last.get(), 0u);
  EXPECT_EQ(started(), "");
}

}  // namespace
}  // namespace lumokit::test
