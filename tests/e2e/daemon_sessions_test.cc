// lumokitd with the real manager, the example plugin and JSON clients:
// sessions, tasks, ownership, crashes and disconnects, bad client input, and
// whose process ids the daemon believes.
#include <unistd.h>

#include <gtest/gtest.h>

#include "e2e_rig.h"
#include "ipc/json_text.h"
#include "ipc/seqpacket.h"

namespace lumokit::e2e {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// The plugin's answer text inside a kind 2 callback.
Json::Value answer_body(const Json::Value& callback) {
  EXPECT_EQ(callback["op"], "callback") << ipc::write_json(callback);
  EXPECT_EQ(callback["kind"].asInt(), 2);
  return parse(callback["text"].asString());
}

Json::Value find_ids(uint32_t session_id) {
  Json::Value find = op("find_pid_uid");
  find["session_id"] = session_id;
  return find;
}

size_t session_count(const Json::Value& status) { return status["state"]["sessions"].size(); }

class DaemonSessions : public ::testing::Test {
 protected:
  void SetUp() override {
    rig.start_daemon();
    rig.start_plugin();
  }
  Rig rig;
};

// Pair-by-pair cancellation through the daemon is run by the CLI's shell test.
TEST_F(DaemonSessions, TasksAnswerThroughTheOwningConnection) {
  auto client = rig.client();
  const uint32_t sid = open_session(*client, 4242, 10123);

  // The plugin's answer carries the transaction number as the handle.
  Json::Value added = client->call(perform(sid, task_text(sid, 31, "0x1001", 1, "add", int_args({2, 3}))));
  EXPECT_EQ(added["session_id"].asUInt(), sid);
  EXPECT_EQ(added["handle"].asUInt(), 31u);
  EXPECT_EQ(added["error"].asInt(), 0);
  EXPECT_EQ(answer_body(added)["return"].asInt64(), 5);

  // An error made inside perform_task comes back on the calling connection.
  Json::Value request = parse(task_text(sid, 32, "0x1001", 1, "add", int_args({1})));
  request["func"]["num_of_args"] = 2;
  Json::Value mismatch = client->call(perform(sid, ipc::write_json(request)));
  EXPECT_EQ(mismatch["handle"].asUInt(), 32u);
  EXPECT_EQ(answer_body(mismatch)["status"].asInt(), -1);

  // The manager passes bytes through as they are; the client gets U+FFFD for
  // each that is not UTF-8 (the answer to a pair not granted echoes the opcode).
  std::string message = ipc::write_json(perform(sid, task_text(sid, 33, "0x1001@", 1, "add")));
  message.replace(message.find('@'), 1, "\xff");
  client->send_text(message);
  EXPECT_EQ(answer_body(client->next())["opcode"], "0x1001\xEF\xBF\xBD");

  // The ids stated at create_session are honoured with --trust-client-ids.
  Json::Value ids = client->call(find_ids(sid));
  EXPECT_EQ(ids["op"], "find_pid_uid");
  EXPECT_EQ(ids["found"].asInt(), 1);
  EXPECT_EQ(ids["pid"].asInt(), 4242);
  EXPECT_EQ(ids["uid"].asUInt(), 10123u);
}

// Another connection can neither act on a session nor hear of it: its
// requests are refused, and a plugin's death is told to each owner once.
TEST_F(DaemonSessions, SessionsBelongToTheConnectionThatOpenedThem) {
  auto owner = rig.client();
  auto intruder = rig.client();
  const uint32_t sid = open_session(*owner, 4242, 10123);

  Json::Value cancel = op("cancel_session");
  cancel["session_id"] = sid;
  Json::Value reattach = op("create_session");
  reattach["session_id"] = sid;
  const Json::Value attempts[] = {perform(sid, task_text(sid, 1, "0x1001", 1, "add", int_args({1, 1}))),
                                  find_ids(sid), cancel, reattach};
  for (const Json::Value& attempt : attempts) {
    Json::Value refused = intruder->call(attempt);
    EXPECT_EQ(refused["op"], "error") << ipc::write_json(attempt);
    EXPECT_FALSE(refused["message"].asString().empty());
  }
  // Nothing reached the manager: the owner gets no stray answer and the
  // session is whole.
  EXPECT_TRUE(owner->silent_for(milliseconds(300)));
  Json::Value status = rig.status();
  ASSERT_EQ(session_count(status), 1u);
  EXPECT_EQ(status["state"]["sessions"][0]["connected"].size(), 2u);
  Json::Value product = owner->call(perform(sid, task_text(sid, 2, "0x1001", 1, "multiply", int_args({6, 7}))));
  EXPECT_EQ(answer_body(product)["return"].asInt64(), 42);
  EXPECT_EQ(owner->call(find_ids(sid))["found"].asInt(), 1);

  const uint32_t other = open_session(*intruder, 4243, 10123);
  rig.plugin().kill_now();
  for (const auto& [conn, id] : {std::make_pair(owner.get(), sid), std::make_pair(intruder.get(), other)}) {
    Json::Value notice = conn->next(seconds(15));
    EXPECT_EQ(notice["op"], "callback");
    EXPECT_EQ(notice["kind"].asInt(), 2);
    EXPECT_EQ(notice["error"].asInt(), 1);
    EXPECT_EQ(notice["session_id"].asUInt(), id);
    EXPECT_EQ(parse(notice["text"].asString())["opcodes"].size(), 2u) << notice["text"].asString();
    EXPECT_TRUE(conn->silent_for(milliseconds(1000)));
  }
}

TEST_F(DaemonSessions, ADisconnectedClientsSessionsEnd) {
  auto keeper = rig.client();
  const uint32_t kept = open_session(*keeper, 1, 10123);
  uint32_t left[2];
  {
    auto leaver = rig.client();
    left[0] = open_session(*leaver, 2, 10123, 1);
    left[1] = open_session(*leaver, 2, 10123, 2);
    ASSERT_EQ(session_count(rig.status()), 3u);
  }
  ASSERT_TRUE(rig.wait_status([](const Json::Value& s) {
    return s["state"]["sessions"].size() == 1 && s["owned_sessions"].asUInt() == 1;
  })) << rig.daemon_log();
  Json::Value status = rig.status();
  EXPECT_EQ(status["state"]["sessions"][0]["session_id"].asUInt(), kept);
  // The plugin was told that each of the leaver's sessions ended.
  const std::string plugin_log = rig.plugin_log();
  for (uint32_t sid : left) {
    EXPECT_NE(plugin_log.find("session " + std::to_string(sid) + " ended"), std::string::npos)
        << plugin_log;
  }
  EXPECT_EQ(plugin_log.find("session " + std::to_string(kept) + " ended"), std::string::npos);
}

TEST_F(DaemonSessions, LargeMessagesPassBothWays) {
  auto client = rig.client();
  const uint32_t sid = open_session(*client, 4242, 10123);
  // Quotes grow with each level of escaping: the task text stays within
  // what the manager forwards to a plugin (524287 bytes) while the client
  // message carrying it is well over 512 KiB.
  Json::Value big = int_args({0});
  big[0]["value"] = std::string(200 * 1024, '"');
  const std::string text = task_text(sid, 77, "0x1001", 1, "add", big);
  const Json::Value message = perform(sid, text);
  ASSERT_LT(text.size(), 524287u);
  ASSERT_GT(ipc::write_json(message).size(), 768u * 1024);
  const Json::Value answer = client->call(message, seconds(20));
  EXPECT_EQ(answer["op"], "callback") << answer.toStyledString().substr(0, 300);
  EXPECT_EQ(answer["handle"].asUInt(), 77u);
  Json::Value body = answer_body(answer);
  EXPECT_NE(body["status"].asInt(), 0) << answer["text"].asString();

  // The plugin names an unknown function twice in its refusal, so a long
  // name gives an answer that is large once escaped for the client.
  const std::string name(100 * 1024, '"');
  Json::Value echo = client->call(perform(sid, task_text(sid, 78, "0x1001", 1, name)), seconds(20));
  ASSERT_EQ(echo["handle"].asUInt(), 78u);
  const std::string& echoed = echo["text"].asString();
  EXPECT_GT(echoed.size(), 400u * 1024);
  EXPECT_EQ(answer_body(echo)["name"].asString(), name);
}

TEST_F(DaemonSessions, BadClientInputIsAnsweredAndTheConnectionStays) {
  auto client = rig.client();
  const uint32_t sid = open_session(*client, 4242, 10123);
  const std::string bad_inputs[] = {
      "not json",
      "[1,2,3]",
      "{\"op\":\"create_session\"} trailing",
      "{\"no_op\":1}",
      "{\"op\":42}",
      "{\"op\":\"launch_rockets\"}",
      "{\"op\":\"perform_task\",\"session_id\":\"1\",\"request\":\"{}\"}",
      "{\"op\":\"perform_task\",\"session_id\":-1,\"request\":\"{}\"}",
      "{\"op\":\"perform_task\",\"session_id\":1}",
      "{\"op\":\"perform_task\",\"session_id\":1,\"request\":{}}",
      "{\"op\":\"cancel_session\"}",
      "{\"op\":\"cancel_session\",\"session_id\":1,\"opcode\":\"0x1001\"}",
      "{\"op\":\"find_pid_uid\",\"session_id\":4294967296}",
      "{\"op\":\"create_session\",\"handle\":-7}",
      "{\"op\":\"create_session\",\"pid\":\"me\"}",
      "",
      std::string(100000, '[') + std::string(100000, ']'),  // nested far past any reader's limit
  };
  for (const std::string& input : bad_inputs) {
    client->send_text(input);
    Json::Value reply = client->next();
    EXPECT_EQ(reply["op"], "error") << "input: " << input;
    EXPECT_TRUE(reply["message"].isString() && !reply["message"].asString().empty()) << input;
  }
  // Too large for any message.
  client->send_text(std::string(ipc::kMaxMessage + 1000, ' '));
  Json::Value too_big = client->next();
  EXPECT_EQ(too_big["op"], "error");
  EXPECT_NE(too_big["message"].asString().find("exceeds"), std::string::npos);

  // A task text the manager cannot read is its business: an empty answer.
  Json::Value unreadable = client->call(perform(sid, "{not json"));
  EXPECT_EQ(unreadable["op"], "callback");
  EXPECT_EQ(unreadable["text"].asString(), "");

  EXPECT_EQ(client->call(find_ids(sid))["found"].asInt(), 1);
  EXPECT_EQ(rig.daemon().wait_exit(milliseconds(0)), -1);
}

// Without --trust-client-ids a client cannot claim another process's ids:
// the permission checks and the plugins' questions see the kernel's.
TEST(SecurityClientIds, ComeFromTheKernelUnlessTrusted) {
  Rig rig;
  rig.start_daemon({}, false);
  rig.start_plugin();
  auto client = rig.client();
  const Json::Value ids = client->call(find_ids(open_session(*client, 4242, 10123)));
  EXPECT_EQ(ids["pid"].asInt(), static_cast<int>(getpid()));
  EXPECT_EQ(ids["uid"].asUInt(), static_cast<uint32_t>(getuid()));
}

}  // namespace
}  // namespace lumokit::e2e
