// Monitors on lumokitd's admin socket: every message of a plugin's life in
// order with its exact text, `lumokit monitor` with filters and a capture
// read back, and a monitor too slow for the traffic.
#include <signal.h>

#include <sstream>

#include <gtest/gtest.h>

#include "e2e_rig.h"
#include "ipc/json_text.h"
#include "lumokit/api_def.h"
#include "lumokit/plugin_wire.h"

namespace lumokit::e2e {
namespace {

using std::chrono::seconds;

std::vector<std::string> lines_of(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The "seq" of each JSON event line in `output`, skipping other lines.
std::vector<uint64_t> seqs_of(const std::string& output) {
  std::vector<uint64_t> seqs;
  for (const std::string& line : lines_of(output)) {
    if (!line.empty() && line[0] == '{') seqs.push_back(parse(line)["seq"].asUInt64());
  }
  return seqs;
}

std::string auth_text(const Rig& rig, uint32_t opcode, const char* name) {
  return wire::auth_request(102, opcode, load_token(rig.dir() + "/tokens/" + name + ".token"),
                            load_api_def(source_path("examples/api/") + name + ".json"));
}

TEST(Monitor, EveryMessageInOrderFiltersAndACaptureReadBack) {
  Rig rig;
  rig.start_daemon();
  auto watcher = rig.admin();
  ASSERT_EQ(watcher->call(op("monitor"))["op"], "monitor");
  const std::string capture = rig.dir() + "/capture";
  const std::string live_log = rig.dir() + "/live.log";
  ChildProcess live;
  live.start(bin_path("lumokit"), {"--runtime-dir", rig.runtime_dir(), "monitor", "--write", capture},
             live_log);
  ASSERT_TRUE(rig.wait_status([](const Json::Value& s) { return s["monitors"] == 2; }));

  rig.start_plugin();
  auto client = rig.client();
  Json::Value create = op("create_session");
  create["handle"] = 7;
  create["pid"] = 4242;
  create["uid"] = 10123;
  create["request"] = "{}";
  const Json::Value opened = client->call(create);
  ASSERT_EQ(opened["session_id"], 1) << opened;
  const std::string task = task_text(1, 5, "0x1001", 1, "add", int_args({2, 3}));
  const Json::Value answered = client->call(perform(1, task));
  rig.plugin().kill_now();
  const Json::Value crash = client->next();
  ASSERT_EQ(crash["error"], 1) << crash;

  const std::string crash_text =
      R"({"opcodes":[{"opcode" : 4097, "subsystems": [{"id" : 1}]},)"
      R"({"opcode" : 8194, "subsystems": [{"id" : 3}]}]})";
  const std::string start_notice =
      R"({"req_type": "start_session", "session_id": 1, "opcodes": [{"id": "0x1001","subsystems": )"
      R"([{"id" :1}]},{"id": "0x2002","subsystems": [{"id" :3}]}]})";
  const std::string start_answer =
      R"({"req_type":"start_session","Result":"Success","session_id":1,"opcodes":[{"id":"0x1001",)"
      R"("subsystems":[{"id":1}]},{"id":"0x2002","subsystems":[{"id":3}]}]})";
  const std::string task_answer =
      R"({"req_type":"exec_task","session_id":1,"transac_id":5,"name":"add","opcode":"0x1001",)"
      R"("return":5,"status":0,"subsys_id":1})";
  struct Row {
    const char* dir;
    std::string text;
    uint32_t session;  // as the event names it (plugin messages name none)
  };
  const std::vector<Row> expected = {
      /*  0 */ {"recv", R"({"req_type":"INIT"})", 0},
      /*  1 */ {"reply", R"({"req_type": "INIT", "service_id": 102} )", 0},
      /*  2 */ {"recv", auth_text(rig, 0x1001, "calculator"), 0},
      /*  3 */ {"reply", R"({"req_type": "AUTH","opcode": "4097", "result": 0} )", 0},
      /*  4 */ {"recv", auth_text(rig, 0x2002, "location"), 0},
      /*  5 */ {"reply", R"({"req_type": "AUTH","opcode": "8194", "result": 0} )", 0},
      /*  6 */ {"recv", R"({"req_type":"REDY","Service_Id":102,"Opcode":"4097"})", 0},
      /*  7 */ {"reply", R"({"req_type": "REDY","opcode": "4097", "result": 0} )", 0},
      /*  8 */ {"recv", R"({"req_type":"REDY","Service_Id":102,"Opcode":"8194"})", 0},
      /*  9 */ {"reply", R"({"req_type": "REDY","opcode": "8194", "result": 0} )", 0},
      /* 10 */ {"call", "{}", 0},
      /* 11 */ {"send", start_notice, 0},
      /* 12 */ {"recv", start_answer, 0},
      /* 13 */ {"callback", opened["text"].asString(), 1},
      /* 14 */ {"call", task, 1},
      /* 15 */ {"send", task, 0},
      /* 16 */ {"recv", task_answer, 0},
      /* 17 */ {"callback", task_answer, 1},
      /* 18 */ {"callback", crash_text, 1},
  };
  EXPECT_EQ(answered["text"], task_answer);
  std::vector<Json::Value> seen;
  for (size_t i = 0; i < expected.size(); ++i) {
    const Json::Value e = watcher->next();
    seen.push_back(e);
    const Row& row = expected[i];
    EXPECT_EQ(e["op"], "event");
    EXPECT_EQ(e["dir"], row.dir) << "event " << i;
    EXPECT_EQ(e["text"], row.text) << "event " << i;
    EXPECT_EQ(e["size"].asUInt64(), row.text.size()) << "event " << i;
    EXPECT_EQ(e["session_id"].asUInt(), row.session) << "event " << i;
    if (i > 0) {
      EXPECT_EQ(e["seq"].asUInt64(), seen[i - 1]["seq"].asUInt64() + 1);
    }
    const std::string dir = row.dir;
    if (dir == "call" || dir == "callback") {
      EXPECT_EQ(e["client"], seen[10]["client"]) << "event " << i;
    } else {
      EXPECT_EQ(e["connection"], dir == "send" ? Json::Value() : Json::Value(1)) << "event " << i;
      EXPECT_EQ(e["service_id"], i == 0 ? Json::Value() : Json::Value(102)) << "event " << i;
    }
  }
  EXPECT_EQ(seen[10]["call"], "create_session");
  EXPECT_EQ(seen[10]["handle"], 7);
  EXPECT_EQ(seen[10]["uid"], 10123);
  EXPECT_EQ(seen[14]["call"], "perform_task");
  EXPECT_EQ(seen[13]["kind"], 1);
  EXPECT_EQ(seen[13]["handle"], 7);
  EXPECT_EQ(seen[17]["kind"], 2);
  EXPECT_EQ(seen[17]["handle"], 5);
  EXPECT_EQ(seen[18]["error"], 1);

  // lumokit monitor has seen the same; an interrupt ends it with its counts.
  ASSERT_TRUE(eventually(seconds(10), [&] { return read_file(live_log).find("\"opcode\" : 8194") != std::string::npos; }))
      << read_file(live_log);
  live.signal(SIGINT);
  EXPECT_EQ(live.wait_exit(seconds(10)), 0);

  std::vector<std::string> live_lines = lines_of(read_file(live_log));
  ASSERT_EQ(live_lines.size(), expected.size() + 2);
  EXPECT_EQ(live_lines[0], "monitoring " + rig.runtime_dir() + "; interrupt to stop");
  EXPECT_EQ(live_lines.back(), "19 events seen, 19 shown, 0 lost");
  // Time, arrow, plugin or client, kind, session, size, text.
  const std::string time_0 = live_lines[1].substr(0, live_lines[1].find(' '));
  EXPECT_EQ(live_lines[1], time_0 + R"( <- conn 1      INIT              session -          19 B  {"req_type":"INIT"})");
  const std::string time_18 = live_lines[19].substr(0, live_lines[19].find(' '));
  std::string client_column = "client " + seen[18]["client"].asString();
  client_column.resize(11, ' ');
  EXPECT_EQ(live_lines[19], time_18 + " -> " + client_column +
                                " callback          session 1         105 B  kind 2 error 1 handle 0: " +
                                crash_text);
  EXPECT_NE(live_lines[3].find(" <- plugin 102  AUTH              session -        1014 B  "
                               R"({"req_type":"AUTH","Opcode":"4097","Service_Id":102,"Token":")"),
            std::string::npos);
  EXPECT_EQ(live_lines[3].size() - live_lines[3].find("  {") - 2, 123u) << "cut to 120 bytes and ...";

  // The capture read back: the same lines, and the filters on it.
  std::string out;
  ASSERT_EQ(run_to_end(bin_path("lumokit"), {"monitor", "--read", capture}, &out), 0) << out;
  EXPECT_EQ(lines_of(out), std::vector<std::string>(live_lines.begin() + 1, live_lines.end()));
  const struct {
    std::vector<std::string> filter;
    std::vector<size_t> rows;
  } cases[] = {
      {{"--plugin", "102", "--kind", "REDY"}, {6, 7, 8, 9}},
      {{"--opcode", "0x2002"}, {4, 5, 8, 9, 11, 12, 13, 18}},
      {{"--session", "1"}, {11, 12, 13, 14, 15, 16, 17, 18}},
      {{"--opcode", "4097", "--kind", "callback"}, {13, 17, 18}},
      {{"--kind", "exec_task"}, {16, 17}},
      {{"--kind", "perform_task"}, {14}},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {"--json", "monitor", "--read", capture};
    args.insert(args.end(), c.filter.begin(), c.filter.end());
    ASSERT_EQ(run_to_end(bin_path("lumokit"), args, &out), 0) << out;
    std::vector<uint64_t> seqs;
    for (size_t row : c.rows) seqs.push_back(seen[row]["seq"].asUInt64());
    EXPECT_EQ(seqs_of(out), seqs) << c.filter[1] << "\n" << out;
    EXPECT_NE(out.find("19 events seen, " + std::to_string(c.rows.size()) + " shown, 0 lost\n"), std::string::npos);
  }
}

// A monitor that reads nothing while 40 tasks of 256 KiB pass: the tasks go
// through as ever, and the monitor is told of every event it lost.
TEST(Monitor, ASlowMonitorLosesEventsNotTheManagersTime) {
  Rig rig;
  rig.start_daemon({"--monitor-buffer", "65536"});
  rig.start_plugin();
  auto slow = rig.admin();
  const Json::Value hello = slow->call(op("monitor"));
  ASSERT_EQ(hello["buffer"], 65536);
  auto client = rig.client();
  const uint32_t session = open_session(*client, 4242, 10123);
  const uint32_t kTasks = 40;
  for (uint32_t i = 1; i <= kTasks; ++i) {
    Json::Value request = parse(task_text(session, i, "0x1001", 1, "add", int_args({1, 1})));
    request["padding"] = std::string(256 * 1024, 'x');
    const Json::Value answer = client->call(perform(session, lumokit::ipc::write_json(request)));
    ASSERT_NE(answer["text"].asString().find("\"return\":2"), std::string::npos) << answer;
  }

  // Every event from the first on is either received or counted as lost.
  uint64_t received = 0, lost = 0;
  const uint64_t first = hello["seq"].asUInt64();
  uint64_t expect_seq = first;
  for (;;) {
    const Json::Value m = slow->next();
    if (m["op"] == "lost") {
      lost += m["count"].asUInt64();
      expect_seq += m["count"].asUInt64();
      continue;
    }
    ASSERT_EQ(m["op"], "event") << m;
    EXPECT_EQ(m["seq"].asUInt64(), expect_seq);
    expect_seq = m["seq"].asUInt64() + 1;
    ++received;
    if (m["dir"] == "callback" && m["text"].asString().find("\"transac_id\":40,") != std::string::npos) {
      break;
    }
  }
  EXPECT_GT(lost, 0u);
  EXPECT_EQ(received + lost, expect_seq - first);
  // create_session: call, notice, answer, callback; each task: call, send, recv, callback.
  EXPECT_EQ(received + lost, 4u + 4u * kTasks);
}

}  // namespace
}  // namespace lumokit::e2e
