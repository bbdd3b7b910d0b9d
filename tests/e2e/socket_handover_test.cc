// lumokitd started the way systemd starts a socket-activated service, with
// no systemd: listening sockets on descriptors 3 and up, and LISTEN_PID,
// LISTEN_FDS and LISTEN_FDNAMES in its environment.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "e2e_rig.h"
#include "ipc/seqpacket.h"

namespace lumokit::e2e {
namespace {

using std::chrono::seconds;

// What systemd makes for ListenSequentialPacket=PATH.
int listening_socket(const std::string& path) {
  std::string error;
  int fd = lumokit::ipc::bind_seqpacket(path, 0666, true, &error);
  if (fd < 0) throw std::runtime_error(error);
  return fd;
}

// lumokitd on `run` with `fds` as descriptors 3, 4, ... named `names`, and
// LISTEN_PID naming lumokitd (the shell's pid, which exec keeps) or, unless
// `for_this_process`, another process.
void start_handed(ChildProcess& daemon, const std::string& run, const std::vector<int>& fds,
                  const std::string& names, bool for_this_process = true) {
  const std::string pid = for_this_process ? "$$" : std::to_string(getpid());
  daemon.start("/bin/sh",
               {"-c",
                "export LISTEN_PID=" + pid + " LISTEN_FDS=" + std::to_string(fds.size()) +
                    " LISTEN_FDNAMES=" + names + "; exec \"$0\" \"$@\"",
                bin_path("lumokitd"), "--runtime-dir", run, "--sys-policy",
                source_path("docs/examples/demo-policy.json")},
               run + ".log", "", "", fds);
}

// A plugin's INIT; the service id it is given. The reply may
// wait for the daemon's start: the socket listens before the daemon runs.
int32_t plugin_init(JsonClient& plugin) {
  plugin.send_text(R"({"req_type":"INIT"})");
  return plugin.next(seconds(15))["service_id"].asInt();
}

TEST(SocketHandover, ServesEverythingOnHandedSocketsAndLeavesThemInPlace) {
  TempDir dir;
  const std::string handed = dir.path() + "/systemd", run = dir.path() + "/run";
  ASSERT_EQ(mkdir(handed.c_str(), 0755), 0);
  const int client = listening_socket(handed + "/client");
  const int lumo = listening_socket(handed + "/lumo");
  const int admin = listening_socket(handed + "/admin");
  ChildProcess daemon;
  // Named by role, or by the socket unit (then the path tells the role).
  start_handed(daemon, run, {client, lumo, admin}, "client:lumokitd.socket:admin");
  const auto log = [&] { return read_file(run + ".log"); };

  // Already listening: plugins and clients connect before the daemon is up.
  JsonClient plugin(handed + "/lumo");
  EXPECT_GE(plugin_init(plugin), 102);
  JsonClient session_client(handed + "/client");
  Json::Value opened = session_client.call(parse(R"({"op":"create_session","handle":7})"));
  EXPECT_EQ(opened["op"], "callback") << opened;
  EXPECT_EQ(opened["kind"].asInt(), 1) << opened;
  EXPECT_EQ(await_status(handed + "/admin", daemon)["state"]["plugins"].size(), 1u) << log();

  for (const char* name : {"/lumo", "/client", "/admin"}) EXPECT_FALSE(exists(run + name)) << name;
  EXPECT_TRUE(exists(run + "/lumokitd.lock"));
  EXPECT_NE(log().find("handed over by the supervisor: lumo client admin"), std::string::npos) << log();

  plugin.close_now();
  session_client.close_now();
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.wait_exit(seconds(15)), 0) << log();
  // The supervisor's socket files outlive the daemon; its own lock does not.
  EXPECT_TRUE(exists(handed + "/lumo"));
  EXPECT_TRUE(exists(handed + "/client"));
  EXPECT_FALSE(exists(run + "/lumokitd.lock"));
  for (int fd : {client, lumo, admin}) close(fd);
}

// It makes the sockets not handed over, ignores sockets meant for another
// process, and refuses to start with a descriptor that is none of its own.
TEST(SocketHandover, MakesWhatIsNotHandedOverAndRefusesForeignDescriptors) {
  TempDir dir;
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  const int lumo = listening_socket(dir.path() + "/handed-lumo");
  const int other = listening_socket(dir.path() + "/other");
  const struct {
    int fd;
    const char* name;
    bool for_this_process;
    const char* refusal;  // none: it runs
  } cases[] = {
      {lumo, "lumo", true, nullptr},  // only the plugin socket, as Android's init hands it
      {lumo, "lumo", false, nullptr},
      {pair[0], "lumo", true, "is not a local seqpacket socket"},
      {other, "other", true, "is none of lumo, client and admin"},
  };
  int index = 0;
  for (const auto& c : cases) {
    const std::string run = dir.path() + "/run" + std::to_string(++index);
    SCOPED_TRACE(run);
    ChildProcess daemon;
    start_handed(daemon, run, {c.fd}, c.name, c.for_this_process);
    if (c.refusal != nullptr) {
      EXPECT_EQ(daemon.wait_exit(seconds(10)), 1);
      EXPECT_NE(read_file(run + ".log").find(c.refusal), std::string::npos) << read_file(run + ".log");
      continue;
    }
    EXPECT_EQ(await_status(run + "/admin", daemon)["op"], "status") << read_file(run + ".log");
    EXPECT_TRUE(exists(run + "/client"));
    EXPECT_EQ(exists(run + "/lumo"), !c.for_this_process);
    JsonClient plugin(c.for_this_process ? dir.path() + "/handed-lumo" : run + "/lumo");
    EXPECT_GE(plugin_init(plugin), 102);
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait_exit(seconds(15)), 0) << read_file(run + ".log");
  }
  for (int fd : {pair[0], pair[1], lumo, other}) close(fd);
}

}  // namespace
}  // namespace lumokit::e2e
