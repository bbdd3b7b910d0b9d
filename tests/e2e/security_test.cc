// What lumokitd adds to the manager's protection (the manager's own is shown
// in tests/integration_security_test.cc): clients' ids come from the kernel,
// what reaches a client is valid UTF-8, and input nested deeper than any
// reader's recursion should follow is refused by the daemon and the tools.
#include <unistd.h>

#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "e2e_rig.h"
#include "ipc/json_text.h"

namespace lumokit::e2e {
namespace {

using std::chrono::milliseconds;

std::string nested(size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

Json::Value perform(uint32_t session_id, const std::string& text) {
  Json::Value v(Json::objectValue);
  v["op"] = "perform_task";
  v["session_id"] = session_id;
  v["request"] = text;
  return v;
}

// Without --trust-client-ids a client cannot claim another process's ids:
// the permission checks and the plugins' questions see the kernel's.
TEST(SecurityClientIds, ComeFromTheKernelUnlessTrusted) {
  Rig rig;
  rig.daemon().start(bin_path("lumokitd"),
                     {"--runtime-dir", rig.runtime_dir(), "--sys-policy",
                      source_path("docs/examples/demo-policy.json")},
                     rig.dir() + "/daemon.log");
  for (int tries = 0;; ++tries) {
    try {
      JsonClient probe(rig.socket("admin"));
      break;
    } catch (const std::exception&) {
      ASSERT_LT(tries, 400) << rig.daemon_log();
      std::this_thread::sleep_for(milliseconds(25));
    }
  }
  rig.start_plugin();
  auto client = rig.client();
  Json::Value find = parse(R"({"op":"find_pid_uid"})");
  find["session_id"] = open_session(*client, 4242, 10123);
  const Json::Value ids = client->call(find);
  EXPECT_EQ(ids["pid"].asInt(), static_cast<int>(getpid()));
  EXPECT_EQ(ids["uid"].asUInt(), static_cast<uint32_t>(getuid()));
}

// The manager passes bytes through as they are; the daemon's client gets
// U+FFFD for each that is not UTF-8. (The manager's answer to a task for a
// pair not granted echoes the task's opcode text.)
TEST(SecurityClientTexts, BytesThatAreNotUtf8BecomeReplacementCharacters) {
  Rig rig;
  rig.start_daemon();
  rig.start_plugin();
  auto client = rig.client();
  const uint32_t sid = open_session(*client, 4242, 10123);
  std::string message = ipc::write_json(perform(sid, task_text(sid, 3, "0x1001@", 1, "add", Json::Value())));
  message.replace(message.find('@'), 1, "\xff");
  client->send_text(message);
  const Json::Value answer = client->next();
  EXPECT_EQ(parse(answer["text"].asString())["opcode"], "0x1001\xEF\xBF\xBD") << answer;
}

// Input nested far deeper than any sane message: refused, never a crash.
TEST(SecurityDeepInput, ClientAdminAndTaskMessages) {
  Rig rig;
  rig.start_daemon();
  rig.start_plugin();
  auto client = rig.client();
  auto admin = rig.admin();
  const uint32_t sid = open_session(*client, 4242, 10123);
  // The task is an ordinary string for the daemon; only the manager reads
  // its structure, and answers what it cannot read with an empty text.
  std::string task = task_text(sid, 3, "0x1001", 1, "add", Json::Value(Json::arrayValue));
  task.insert(task.size() - 1, ",\"deep\":" + nested(100000));
  const struct {
    JsonClient* conn;
    std::string text;
    const char* reply_op;
  } cases[] = {
      {client.get(), nested(100000), "error"},
      {admin.get(), "{\"op\":\"status\",\"x\":" + nested(100000) + "}", "error"},
      {client.get(), ipc::write_json(perform(sid, task)), "callback"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reply_op);
    c.conn->send_text(c.text);
    try {
      EXPECT_EQ(c.conn->next()["op"], c.reply_op);
    } catch (const std::exception& e) {
      ADD_FAILURE() << e.what();
    }
    int status = 0;
    if (rig.daemon().wait_exit(milliseconds(200), &status)) {
      const std::string log = rig.daemon_log();
      FAIL() << "lumokitd ended with wait status " << status << "; log ends:\n"
             << log.substr(log.size() > 600 ? log.size() - 600 : 0);
    }
  }
}

TEST(SecurityDeepInput, DefinitionFileOfTheTokenTool) {
  TempDir dir;
  const std::string deep = dir.path() + "/deep.json";
  std::ofstream(deep, std::ios::binary) << "{\"apis\":" + nested(100000) + "}";
  std::string out;
  EXPECT_EQ(run_to_end(bin_path("lumokit-token"),
                       {"sign", "--key", source_path("keys/dev-token-key.pem"), "--opcode", "0x1001",
                        "--api-def", deep},
                       &out),
            2)
      << out;
  EXPECT_NE(out.find("not valid JSON"), std::string::npos) << out;
}

}  // namespace
}  // namespace lumokit::e2e
