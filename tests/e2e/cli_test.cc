// The lumokit command-line client against a running daemon and plugin.
#include <gtest/gtest.h>

#include <fstream>

#include "e2e_rig.h"

namespace lumokit::e2e {
namespace {

class Cli : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    rig = new Rig();
    rig->start_daemon();
    rig->start_plugin();
  }
  static void TearDownTestSuite() {
    delete rig;
    rig = nullptr;
  }
  int lumokit(std::vector<std::string> args, std::string* output) {
    args.insert(args.begin(), {"--runtime-dir", rig->runtime_dir()});
    return run_to_end(bin_path("lumokit"), args, output);
  }
  static Rig* rig;
};
Rig* Cli::rig = nullptr;

TEST_F(Cli, TaskAndStatus) {
  std::string out;
  ASSERT_EQ(lumokit({"task", "--pid", "4242", "--uid", "10123", "0x1001", "1", "add", "int:2",
                     "int:3"},
                    &out),
            0)
      << out;
  EXPECT_NE(out.find("calculator"), std::string::npos) << out;
  EXPECT_NE(out.find("return 5"), std::string::npos) << out;

  ASSERT_EQ(lumokit({"--json", "status"}, &out), 0) << out;
  Json::Value status = parse(out);
  EXPECT_EQ(status["op"], "status");
  EXPECT_EQ(status["state"]["plugins"].size(), 1u);

  ASSERT_EQ(lumokit({"status"}, &out), 0) << out;
  EXPECT_NE(out.find("0x2002/3 ready"), std::string::npos) << out;
}

TEST_F(Cli, AdminCommandsAndErrors) {
  std::string out;
  ASSERT_EQ(lumokit({"prop", "set", "debug.demo", "42"}, &out), 0) << out;
  ASSERT_EQ(lumokit({"prop", "get", "debug.demo"}, &out), 0) << out;
  EXPECT_EQ(out, "debug.demo=42\n");
  EXPECT_EQ(lumokit({"perm", "grant", "1", "10124", "android.permission.CAMERA"}, &out), 0) << out;
  EXPECT_NE(out.find("granted android.permission.CAMERA"), std::string::npos) << out;

  EXPECT_EQ(lumokit({"launch"}, &out), 2);
  EXPECT_NE(out.find("unknown command"), std::string::npos) << out;
  EXPECT_EQ(lumokit({"perm", "grant", "x", "1", "p"}, &out), 2);
  EXPECT_EQ(lumokit({"task", "0x1001"}, &out), 2);
  EXPECT_NE(out.find("OPCODE SUBSYS FUNC"), std::string::npos) << out;

  std::string missing;
  EXPECT_EQ(run_to_end(bin_path("lumokit"), {"--runtime-dir", "/nonexistent/lumokit", "status"},
                       &missing),
            1);
  EXPECT_NE(missing.find("is lumokitd running"), std::string::npos) << missing;
}

TEST_F(Cli, ShellKeepsOneSessionAcrossCommands) {
  const std::string script = rig->dir() + "/shell-script";
  std::ofstream(script) << "echo -- start\ncall 0x1001 1 multiply int:6 int:7\ncall 0x2002 3 getLocation\n"
                           "pid\ncancel 4097 1\npid\nbogus\ncancel 8194 3\npid\nquit\n";
  const std::string log = rig->dir() + "/shell.log";
  ChildProcess shell;
  shell.start(bin_path("lumokit"),
              {"--runtime-dir", rig->runtime_dir(), "shell", "--pid", "555", "--uid", "10123"}, log,
              script);
  ASSERT_EQ(shell.wait_exit(std::chrono::seconds(30)), 0);
  const std::string out = read_file(log);
  EXPECT_NE(out.find("-- start"), std::string::npos) << out;
  EXPECT_NE(out.find("return 42"), std::string::npos) << out;
  EXPECT_NE(out.find("latitude_e6"), std::string::npos) << out;
  // Stated ids are used, and the session outlives the cancel of its first
  // pair but not of its last.
  const size_t ids = out.find("pid 555, uid 10123");
  ASSERT_NE(ids, std::string::npos) << out;
  EXPECT_NE(out.find("pid 555, uid 10123", ids + 1), std::string::npos) << out;
  EXPECT_NE(out.find("unknown command \"bogus\""), std::string::npos) << out;
  EXPECT_NE(out.find("is not known to the manager"), std::string::npos) << out;
}

}  // namespace
}  // namespace lumokit::e2e
