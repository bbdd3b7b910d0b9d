// Starting and stopping lumokitd and the example plugin: one daemon per
// runtime directory, stale sockets, clean shutdown, command-line errors, and
// the plugin's ways of leaving.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include <gtest/gtest.h>

#include "e2e_rig.h"
#include "ipc/seqpacket.h"

namespace lumokit::e2e {
namespace {

using std::chrono::seconds;

unsigned mode_of(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return 0;
  return st.st_mode & 07777;
}

TEST(DaemonLifecycle, OneDaemonPerDirectoryAndCleanStop) {
  Rig rig;
  ASSERT_EQ(mkdir(rig.runtime_dir().c_str(), 0700), 0);
  // A socket file with nobody listening, as a crashed daemon leaves behind.
  std::string error;
  const int stale = ipc::bind_seqpacket(rig.socket("client"), 0600, false, &error);
  ASSERT_GE(stale, 0) << error;
  close(stale);
  rig.start_daemon();

  EXPECT_EQ(mode_of(rig.runtime_dir()), 0700u);
  EXPECT_EQ(mode_of(rig.socket("lumo")), 0666u);
  EXPECT_EQ(mode_of(rig.socket("client")), 0666u);
  EXPECT_EQ(mode_of(rig.socket("admin")), 0600u);

  std::string output;
  int rc = run_to_end(bin_path("lumokitd"), {"--runtime-dir", rig.runtime_dir()}, &output);
  EXPECT_NE(rc, 0);
  EXPECT_NE(output.find("already running"), std::string::npos) << output;
  // The refused daemon left the running one's sockets alone.
  EXPECT_EQ(rig.status()["op"], "status");

  // Stopped with a plugin and a client's session attached.
  rig.start_plugin();
  auto client = rig.client();
  open_session(*client, 1, 10123);
  rig.daemon().signal(SIGTERM);
  ASSERT_EQ(rig.daemon().wait_exit(seconds(15)), 0) << rig.daemon_log();
  for (const char* name : {"lumo", "client", "admin", "lumokitd.lock"}) {
    EXPECT_FALSE(exists(rig.runtime_dir() + "/" + name)) << name;
  }
}

// The example plugin leaves the manager in order when interrupted (no
// crash), stops with status 1 when a registration is refused (its
// location service given the calculator's token, over the folder's own),
// and with status 2 before connecting when a service has no token.
TEST(DaemonLifecycle, ExamplePluginLeavesInOrderOrStopsWhenRefused) {
  Rig rig;
  rig.start_daemon();
  rig.start_plugin();
  rig.plugin().signal(SIGINT);
  ASSERT_EQ(rig.plugin().wait_exit(seconds(15)), 0) << rig.plugin_log();
  EXPECT_TRUE(rig.wait_status([](const Json::Value& s) { return s["state"]["plugins"].empty(); }));
  EXPECT_EQ(rig.daemon_log().find("Service Plugin crash"), std::string::npos) << rig.daemon_log();

  const std::string tokens = rig.dir() + "/tokens/";
  const std::vector<std::string> common = {"--socket", rig.socket("lumo"), "--api-dir",
                                           source_path("examples/api")};
  const struct {
    std::vector<std::string> args;
    int status;
    const char* output;
  } runs[] = {
      {{"--token-dir", tokens, "--token", "0x2002=" + tokens + "calculator.token"}, 1, "refused"},
      {{"--token", "calculator=" + tokens + "calculator.token"}, 2, "no token for location"},
  };
  for (const auto& run : runs) {
    std::vector<std::string> args = common;
    args.insert(args.end(), run.args.begin(), run.args.end());
    std::string output;
    EXPECT_EQ(run_to_end(bin_path("lumokit-example-plugin"), args, &output), run.status) << output;
    EXPECT_NE(output.find(run.output), std::string::npos) << output;
  }
}

TEST(DaemonLifecycle, CommandLineAndPolicyErrors) {
  TempDir dir;
  const std::string run = dir.path() + "/run", open_run = dir.path() + "/open";
  const std::string bad_policy = dir.path() + "/policy.json";
  std::ofstream(bad_policy) << "{\"declard\": true}";
  // Whoever may write the runtime folder could put an admin socket of their
  // own there and watch what the daemon's user does.
  ASSERT_EQ(mkdir(open_run.c_str(), 0700), 0);
  ASSERT_EQ(chmod(open_run.c_str(), 0777), 0);

  struct Case {
    std::vector<std::string> args;
    int status;
    const char* expected;
  };
  const Case cases[] = {
      {{"--runtime-dir", run, "--bogus"}, 2, "unknown argument"},
      {{"--runtime-dir"}, 2, "needs"},
      {{"--runtime-dir", run, "--boot-completed", "yes"}, 2, "0 or 1"},
      {{"--runtime-dir", run, "--sys-policy", dir.path() + "/missing.json"}, 2, "missing.json"},
      {{"--runtime-dir", run, "--sys-policy", bad_policy}, 2, "declard"},
      {{"--runtime-dir", run, "--log-file", dir.path() + "/no/such/dir/log"}, 2, "log file"},
      {{"--runtime-dir", dir.path() + "/" + std::string(120, 'd')}, 1, "longer than"},
      {{"--runtime-dir", open_run}, 1, "may be written by other users (mode 0777)"},
  };
  for (const Case& c : cases) {
    std::string output;
    EXPECT_EQ(run_to_end(bin_path("lumokitd"), c.args, &output), c.status) << output;
    EXPECT_NE(output.find(c.expected), std::string::npos) << output;
  }
  // None of them created sockets.
  EXPECT_FALSE(exists(run + "/client"));
  EXPECT_FALSE(exists(open_run + "/admin"));
}

}  // namespace
}  // namespace lumokit::e2e
