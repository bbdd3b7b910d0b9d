// The one-pass JSON scanner against jsoncpp, through a live manager: a task
// and its result are answered alike whichever reader takes them. Which texts
// the scanner vouches for, and that jsoncpp reads each of them to the same
// values, is the json_scan fuzzer's check over its seeds (FuzzSeeds.json_scan).
#include <gtest/gtest.h>

#include "json_scan.h"
#include "manager_harness.h"

namespace lumokit::test {
namespace {

using namespace std::chrono_literals;

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  return text.replace(text.find(from), from.size(), to);
}

TEST(JsonScan, ManagerAnswersAlikeForBothReaders) {
  RawPlugin lamp;
  bring_up(lamp, 0x1001, {1, 2}, "lamp");
  ASSERT_EQ(open_session({&lamp}), 1u);

  // A task in the plain shape the scanner reads, and in shapes only jsoncpp
  // reads: every answer, log line and queued text must be the same.
  const std::string plain = task_request(1, 7, "0x1001", 1, "dim", {"int", "string"});
  const std::pair<const char*, std::string> shapes[] = {
      {"plain", plain},
      {"comment", "/* c */ " + plain},
      {"escaped opcode", replaced(plain, "\"0x1001\"", "\"0x\\u0031001\"")},
      {"integral double", replaced(plain, "\"subsys_id\":1", "\"subsys_id\":1.0")},
  };
  std::vector<Callback> first_answers;
  std::vector<std::string> first_logs;
  for (const auto& [shape, text] : shapes) {
    SCOPED_TRACE(shape);
    TaskRequestScan scan;
    EXPECT_EQ(scan_task_request(text.data(), text.size(), &scan), text == plain);
    LogCapture log;
    clear_callbacks();
    perform_task(text, recording_callback(), 1);  // forwarded
    EXPECT_EQ(lamp.recv(), text);
    const std::string miscounted = replaced(text, "\"num_of_args\":2", "\"num_of_args\":3");
    perform_task(miscounted, recording_callback(), 1);  // -1
    perform_task(text, recording_callback(), 9);  // not this session: silent
    perform_task(replaced(text, "\"session_id\":1", "\"session_id\":9"), recording_callback(), 9);  // -7
    ASSERT_TRUE(wait_for_callbacks(2, 3s));
    std::vector<std::string> key_logs;
    for (const std::string& line : log.lines()) {
      if (line.find("API Key: ") != std::string::npos || line.find("mismatched") != std::string::npos) {
        key_logs.push_back(line);
      }
    }
    if (first_answers.empty()) {
      first_answers = callbacks();
      first_logs = key_logs;
      ASSERT_EQ(first_answers.size(), 2u);
      EXPECT_EQ(first_answers[0].handle, 7u);
      EXPECT_NE(first_answers[0].text.find("\"status\":-1"), std::string::npos);
      EXPECT_NE(first_answers[1].text.find("\"status\":-7"), std::string::npos);
      ASSERT_EQ(key_logs.size(), 2u);
      EXPECT_NE(key_logs[0].find("API Key: dim:1:2:int:string"), std::string::npos);
    } else {
      EXPECT_EQ(callbacks(), first_answers);
      EXPECT_EQ(key_logs, first_logs);
    }
  }

  // The plugin's result: plain (the scanner's), and in shapes only jsoncpp reads.
  const std::string results[] = {
      R"({"req_type":"exec_task","session_id":1,"transac_id":7,"value":"done"})",
      R"({"req_type":"exec_task", /* c */ "session_id":1,"transac_id":7,"value":"done"})",
      R"({"req_type":"exec\u005ftask","session_id":1,"transac_id":7.0,"value":"done"} trailing)",
      R"({"req_type":"exec_task","session_id":2,"session_id":1,"transac_id":7})",
  };
  PluginMessageScan scan;
  EXPECT_TRUE(scan_plugin_message(results[0].data(), results[0].size(), &scan));
  for (const std::string& result : results) {
    clear_callbacks();
    lamp.send(result);
    ASSERT_TRUE(wait_for_callbacks(1, 3s));
    EXPECT_EQ(callbacks()[0], (Callback{LUMO_RESPONSE_TASK, 1, result, 0, 7}));
  }
}

}  // namespace
}  // namespace lumokit::test
