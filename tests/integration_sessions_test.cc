// Client sessions against raw plugins on a real socket: creation across
// plugins, task answers and errors (alike for both JSON readers, the
// unknown-session one given with no lock held), plugin crashes and
// re-attaching, and cancellation with its 3-second wait.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>

#include "json_scan.h"
#include "manager_harness.h"

namespace lumokit::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::string error_answer(const std::string& opcode, uint32_t subsys, uint32_t transac, int status) {
  return "{\"opcode\":\"" + opcode + "\",\"name\":\"none\",\"subsys_id\":" + std::to_string(subsys) +
         ",\"transac_id\":" + std::to_string(transac) + ",\"status\":" + std::to_string(status) +
         ",\"return\":0,\"func\": {}}";
}

// A second client callback, to show which one a session keeps.
std::mutex other_mtx;
std::vector<Callback> other_calls;
void other_callback(lumo_response_t kind, uint32_t session_id, std::string text, int32_t flag,
                    uint32_t handle) {
  std::lock_guard<std::mutex> lock(other_mtx);
  other_calls.push_back(Callback{kind, session_id, std::move(text), flag, handle});
}

TEST(IntegrationSessions, PluginsAskedInServiceIdOrderAndOneRefuses) {
  // No plugin yet: the creation fails and still uses up a session number.
  create_session("{}", recording_callback(), 0, 50, kClientPid, kClientUid);
  EXPECT_EQ(callbacks(), (std::vector<Callback>{{LUMO_RESPONSE_CREATE_SESSION, 0, "{}", 1, 50}}));

  // The lower service id serves the higher opcode.
  RawPlugin alpha, beta;
  bring_up(alpha, 0x20, {1, 2}, "alpha");
  bring_up(beta, 0x10, {5}, "beta");
  ASSERT_EQ(beta.service_id(), 103);

  clear_callbacks();
  const auto start = Clock::now();
  std::thread client = create_session_async(51);
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

  EXPECT_EQ(callbacks(), (std::vector<Callback>{{LUMO_RESPONSE_CREATE_SESSION, 2,
      R"({"capability": {"version":1,"opcodes": [{"opcode": "0x10", "name": "beta", "subsystems": [{"functions":["f5"],"id":5}]}]}})",
      0, 51}}));
  const Json::Value session = session_state(2);
  EXPECT_EQ(session["plugins"], parse_json("[103]"));
  EXPECT_EQ(pair_list(session["connected"]), "0x10/5 ");
  EXPECT_EQ(pair_list(session["granted"]), "0x10/5 0x20/1 0x20/2 ");
  EXPECT_EQ(session["pid"].asInt(), kClientPid);

  // A plugin that goes away while the client waits for its answer ends the
  // wait at once, and the next plugin is asked.
  clear_callbacks();
  const auto again = Clock::now();
  std::thread second = create_session_async(52);
  EXPECT_NE(alpha.recv().find("\"session_id\": 3"), std::string::npos);
  alpha.close_socket();
  beta.answer_start_session(true);
  second.join();
  EXPECT_LT(Clock::now() - again, 2s);
  ASSERT_EQ(callbacks().size(), 1u);
  EXPECT_EQ(callbacks()[0].session_id, 3u);
}

TEST(IntegrationSessions, TaskAnswersAndErrors) {
  LogCapture log;
  RawPlugin lamp, fan;
  bring_up(lamp, 0x1001, {1, 2}, "lamp");
  bring_up(fan, 0x2002, {1}, "fan");
  ASSERT_EQ(open_session({&lamp, &fan}), 1u);
  // The fan leaves: its pair stays granted to the session but has no plugin.
  EXPECT_EQ(fan.dint(), "1 ");
  ASSERT_TRUE(wait_for_callbacks(1, 3s));
  clear_callbacks();

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
  // Each text in the plain shape that the one-pass scanner reads, and in two
  // that only jsoncpp reads: behind a comment, and with an escaped key and an
  // integral double. Tasks, answers and API keys must not differ.
  auto replaced = [](std::string text, const std::string& from, const std::string& to) {
    const size_t at = text.find(from);
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
  };
  const std::function<std::string(const std::string&)> shapes[] = {
      [](const std::string& text) { return text; },
      [](const std::string& text) { return "/* c */ " + text; },
      [&](const std::string& text) {
        return replaced(replaced(text, "\"transac_id\"", "\"transac\\u005fid\""), "\"subsys_id\":1,",
                        "\"subsys_id\":1.0,");
      },
  };
  const std::string plain = task_request(1, 7, "0x1001", 1, "dim", {"int"});
  TaskRequestScan scan;
  EXPECT_TRUE(scan_task_request(plain.data(), plain.size(), &scan));  // the fast path is taken
  for (const auto& shape : shapes) {
    SCOPED_TRACE(shape("shape"));
    clear_callbacks();
    const std::string task = shape(plain);
    perform_task(task, recording_callback(), 1);
    EXPECT_EQ(lamp.recv(), task);
    lamp.send(shape(exec_answer(1, 7)));
    ASSERT_TRUE(wait_for_callbacks(1, 3s));
    EXPECT_EQ(callbacks()[0], (Callback{LUMO_RESPONSE_TASK, 1, shape(exec_answer(1, 7)), 0, 7}));
    for (const Case& c : cases) {
      SCOPED_TRACE(c.what);
      clear_callbacks();
      perform_task(shape(c.request), recording_callback(), c.session);
      if (!c.answered) std::this_thread::sleep_for(200ms);
      std::vector<Callback> expected;
      if (c.answered) expected.push_back({LUMO_RESPONSE_TASK, c.session, c.text, 0, c.handle});
      EXPECT_EQ(callbacks(), expected);
    }
  }
  EXPECT_EQ(lamp.recv(300ms), "");  // none of them reached the plugin
  EXPECT_EQ(log.count("I/LUMOKIT_MANAGER: API Key: dim:1:1:int"), 3u);
  EXPECT_TRUE(log.contains("W/LUMOKIT_MANAGER: Parsing Failed!!!"));
  EXPECT_TRUE(log.contains("W/LUMOKIT_MANAGER: Sanitizing Failed!!! Input is not aligned with the criteria"));
  EXPECT_TRUE(log.contains("E/LUMOKIT_MANAGER: Number of arguments mismatched!!!"));
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

TEST(IntegrationSessions, UnknownSessionAnswerLetsTheCallbackCallBackIn) {
  const std::string task = task_request(99, 5, "0x10", 1, "f", {});
  // Detached: on a deadlock the test fails instead of hanging.
  std::thread([task] { perform_task(task, calling_back, 99); }).detach();
  ASSERT_TRUE(wait_until([] { return answered.load(); }, 2000ms));
  EXPECT_EQ(*answer_text,
            R"({"opcode":"0x10","name":"none","subsys_id":1,"transac_id":5,"status":-7,"return":0,"func": {}})");
  EXPECT_EQ(cancel_result.load(), 2u);
}

TEST(IntegrationSessions, CrashNoticesAndReattach) {
  LogCapture log;
  RawPlugin doomed, steady;
  bring_up(doomed, 0x30, {1, 2}, "cam");
  bring_up(steady, 0x40, {1}, "mic");
  for (uint32_t handle : {1u, 2u}) ASSERT_EQ(open_session({&doomed, &steady}, handle), handle);

  doomed.close_socket();
  ASSERT_TRUE(log.wait_for("E/LUMOKIT_SESSION_MANAGER: LUMOKIT has detected a Service Plugin "
                           "crash: [{0x30, 1}{0x30, 2}]. LUMOKIT continues to run",
                           3s));
  ASSERT_TRUE(wait_for_callbacks(2, 3s));
  std::this_thread::sleep_for(200ms);
  // One notice per session.
  const std::string crash =
      R"({"opcodes":[{"opcode" : 48, "subsystems": [{"id" : 1},{"id" : 2}]}]})";
  EXPECT_EQ(callbacks(), (std::vector<Callback>{{LUMO_RESPONSE_TASK, 1, crash, 1, 0},
                                                {LUMO_RESPONSE_TASK, 2, crash, 1, 0}}));
  for (uint32_t id : {1u, 2u}) {
    const Json::Value session = session_state(id);
    EXPECT_EQ(session["plugins"], parse_json("[103]"));
    EXPECT_EQ(pair_list(session["connected"]), "0x40/1 ");
  }
  EXPECT_EQ(pair_list(state_dump()["registry"]), "0x40/1 ");

  // The crashed plugin's pairs are free again for another plugin.
  RawPlugin successor;
  bring_up(successor, 0x30, {1, 2}, "cam");
  EXPECT_EQ(pair_list(state_dump()["registry"]), "0x30/1 0x30/2 0x40/1 ");

  // Re-attaching session 1 asks only for what it lost; the first callback stays.
  clear_callbacks();
  std::thread reattach = create_session_async(99, 1, other_callback);
  EXPECT_EQ(successor.answer_start_session(true),
            R"({"req_type": "start_session", "session_id": 1, "opcodes": [{"id": "0x30","subsystems": [{"id" :1},{"id" :2}]}]})");
  reattach.join();
  const Callback reattached{LUMO_RESPONSE_CREATE_SESSION, 1,
      R"({"capability": {"version":1,"opcodes": [{"opcode": "0x30", "name": "cam", "subsystems": [{"functions":["f1"],"id":1},{"functions":["f2"],"id":2}]}]}})",
      0, 99};
  EXPECT_EQ(other_calls, std::vector<Callback>{reattached});
  EXPECT_EQ(pair_list(session_state(1)["connected"]), "0x30/1 0x30/2 0x40/1 ");

  const std::string task = task_request(1, 5, "0x30", 2, "snap", {});
  perform_task(task, recording_callback(), 1);
  EXPECT_EQ(successor.recv(), task);
  successor.send(exec_answer(1, 5));
  ASSERT_TRUE(wait_for_callbacks(1, 3s));
  EXPECT_EQ(callbacks(), (std::vector<Callback>{{LUMO_RESPONSE_TASK, 1, exec_answer(1, 5), 0, 5}}));

  // Nothing left to re-attach: failure at once, nothing asked.
  create_session("{}", other_callback, 1, 98, kClientPid, kClientUid);
  EXPECT_EQ(other_calls,
            (std::vector<Callback>{reattached, {LUMO_RESPONSE_CREATE_SESSION, 0, "{}", 1, 98}}));
  EXPECT_EQ(successor.recv(300ms), "");
}

TEST(IntegrationSessions, CancelPairsAndWholeSessions) {
  RawPlugin a, b;
  bring_up(a, 0x50, {1, 2});
  bring_up(b, 0x60, {1});
  ASSERT_EQ(open_session({&a, &b}), 1u);
  auto end = [](int sid) {
    return "{\"req_type\":\"end_session\",\"session_id\": " + std::to_string(sid) + "}";
  };
  // Sessions the plugins count as started with them.
  auto started = [] {
    std::string ids;
    const Json::Value dump = state_dump();
    for (const Json::Value& p : dump["plugins"]) {
      for (const Json::Value& s : p["started_sessions"]) ids += s.asString() + " ";
    }
    return ids;
  };
  EXPECT_EQ(cancel_session(1, 0x50, 7), 2u);  // no plugin serves the pair
  EXPECT_EQ(a.recv(200ms), "");

  // Whole session with three pairs: every plugin is told, in service-id
  // order, yet the session keeps its pairs and its callback.
  auto whole = cancel_async(1);
  EXPECT_EQ(b.recv(300ms), "");
  EXPECT_EQ(a.answer_end_session(), end(1));
  EXPECT_EQ(whole.wait_for(0ms), std::future_status::timeout);
  EXPECT_EQ(b.answer_end_session(), end(1));
  EXPECT_EQ(whole.get(), 0u);
  const Json::Value session = session_state(1);
  EXPECT_TRUE(session["has_callback"].asBool());
  EXPECT_EQ(session["plugins"].size(), 0u);
  EXPECT_EQ(pair_list(session["connected"]), "0x50/1 0x50/2 0x60/1 ");
  b.send(exec_answer(1, 3));
  ASSERT_TRUE(wait_for_callbacks(1, 3s));
  EXPECT_EQ(callbacks()[0].text, exec_answer(1, 3));

  // Pair by pair: the plugins count the session as started until it ends.
  ASSERT_EQ(open_session({&a, &b}, 2), 2u);
  EXPECT_EQ(started(), "2 2 ");
  EXPECT_EQ(cancel_answered(a, 2, 0x50, 1), 0u);
  EXPECT_EQ(pair_list(session_state(2)["connected"]), "0x50/2 0x60/1 ");
  EXPECT_EQ(started(), "2 2 ");
  EXPECT_EQ(cancel_answered(a, 2, 0x50, 2), 0u);
  EXPECT_EQ(pair_list(session_state(2)["connected"]), "0x60/1 ");

  // The last pair ends the session, even though its plugin answers with a
  // failure: that wakes nobody, and the cancel completes after 3 seconds.
  const auto start = Clock::now();
  auto last = cancel_async(2, 0x60, 1);
  EXPECT_EQ(b.answer_end_session(false), end(2));
  EXPECT_EQ(last.get(), 0u);
  EXPECT_GE(Clock::now() - start, 2900ms);
  EXPECT_LT(Clock::now() - start, 4500ms);
  EXPECT_TRUE(session_state(2).isNull());  // no table knows it any more
  EXPECT_EQ(started(), "");
  b.send(exec_answer(2, 4));
  std::this_thread::sleep_for(300ms);
  EXPECT_TRUE(callbacks().empty());
  EXPECT_EQ(cancel_session(2, 0, 0), 2u);  // already ended
}

}  // namespace
}  // namespace lumokit::test
