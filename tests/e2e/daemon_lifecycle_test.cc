// Starting and stopping lumokitd: one daemon per runtime directory, stale
// sockets, clean shutdown, and command-line errors.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include <gtest/gtest.h>

#include "e2e_rig.h"

namespace lumokit::e2e {
namespace {

using std::chrono::seconds;

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

unsigned mode_of(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return 0;
  return st.st_mode & 07777;
}

// A socket file with nobody listening, as a crashed daemon leaves behind.
void make_stale_socket(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  close(fd);
}

TEST(DaemonLifecycle, OneDaemonPerDirectoryAndCleanStop) {
  Rig rig;
  ASSERT_EQ(mkdir(rig.runtime_dir().c_str(), 0700), 0);
  make_stale_socket(rig.socket("client"));
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

  rig.daemon().signal(SIGTERM);
  int status = 0;
  ASSERT_TRUE(rig.daemon().wait_exit(seconds(15), &status));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  for (const char* name : {"lumo", "client", "admin", "lumokitd.lock"}) {
    EXPECT_FALSE(exists(rig.runtime_dir() + "/" + name)) << name;
  }
}

TEST(DaemonLifecycle, StopsOnInterruptWithClientsAndPluginAttached) {
  Rig rig;
  rig.start_daemon();
  rig.start_plugin();
  auto client = rig.client();
  open_session(*client, 1, 10123);
  rig.daemon().signal(SIGINT);
  int status = 0;
  ASSERT_TRUE(rig.daemon().wait_exit(seconds(15), &status));
  ASSERT_TRUE(WIFEXITED(status)) << rig.daemon_log();
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_FALSE(exists(rig.socket("client")));
  // The client sees the end of its connection.
  EXPECT_THROW(client->next(seconds(5)), std::runtime_error);
}

TEST(DaemonLifecycle, CommandLineAndPolicyErrors) {
  TempDir dir;
  const std::string run = dir.path() + "/run";
  const std::string bad_policy = dir.path() + "/policy.json";
  FILE* f = fopen(bad_policy.c_str(), "w");
  ASSERT_NE(f, nullptr);
  fputs("{\"declard\": true}", f);
  fclose(f);

  struct Case {
    std::vector<std::string> args;
    const char* expected;
  };
  const Case cases[] = {
      {{"--runtime-dir", run, "--bogus"}, "unknown argument"},
      {{"--runtime-dir"}, "needs"},
      {{"--runtime-dir", run, "--boot-completed", "yes"}, "0 or 1"},
      {{"--runtime-dir", run, "--sys-policy", dir.path() + "/missing.json"}, "missing.json"},
      {{"--runtime-dir", run, "--sys-policy", bad_policy}, "declard"},
      {{"--runtime-dir", run, "--log-file", dir.path() + "/no/such/dir/log"}, "log file"},
  };
  for (const Case& c : cases) {
    std::string output;
    int rc = run_to_end(bin_path("lumokitd"), c.args, &output);
    EXPECT_EQ(rc, 2) << output;
    EXPECT_NE(output.find(c.expected), std::string::npos) << output;
  }
  // None of them created sockets.
  EXPECT_FALSE(exists(run + "/client"));

  std::string too_long(120, 'd');
  std::string output;
  EXPECT_NE(run_to_end(bin_path("lumokitd"), {"--runtime-dir", dir.path() + "/" + too_long}, &output), 0);
  EXPECT_NE(output.find("longer than"), std::string::npos) << output;
}

}  // namespace
}  // namespace lumokit::e2e
