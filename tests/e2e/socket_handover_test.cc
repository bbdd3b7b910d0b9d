// lumokitd started the way systemd starts a socket-activated service, with
// no systemd: listening sockets on descriptors 3 and up, and LISTEN_PID,
// LISTEN_FDS and LISTEN_FDNAMES in its environment.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include <gtest/gtest.h>

#include "e2e_rig.h"
#include "ipc/seqpacket.h"
#include "lumokit/plugin.h"

extern char** environ;

namespace lumokit::e2e {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// What systemd makes for ListenSequentialPacket=PATH.
int listening_socket(const std::string& path) {
  std::string error;
  int fd = lumokit::ipc::bind_seqpacket(path, 0666, true, &error);
  if (fd < 0) throw std::runtime_error(error);
  return fd;
}

// lumokitd in `dir`/run with `fds` as descriptors 3, 4, ... and LISTEN_PID
// naming it, or another process when `for_this_process` is false.
class HandedDaemon {
 public:
  HandedDaemon(const std::string& dir, const std::vector<int>& fds, const std::string& names,
               bool for_this_process = true)
      : log_(dir + "/daemon.log") {
    std::vector<std::string> words = {bin_path("lumokitd"), "--runtime-dir", dir + "/run",
                                      "--sys-policy", source_path("docs/examples/demo-policy.json")};
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
      if (std::strncmp(*e, "LISTEN_", 7) != 0) env.push_back(*e);
    }
    env.push_back("LISTEN_FDS=" + std::to_string(fds.size()));
    env.push_back("LISTEN_FDNAMES=" + names);
    // The child writes its own pid into the room left; the test's pid stands
    // for another process.
    env.push_back(for_this_process ? "LISTEN_PID=" + std::string(12, '\0')
                                   : "LISTEN_PID=" + std::to_string(getpid()));
    char* pid_digits = for_this_process ? env.back().data() + std::strlen("LISTEN_PID=") : nullptr;
    std::vector<char*> argv, envp;
    for (std::string& w : words) argv.push_back(w.data());
    for (std::string& e : env) envp.push_back(e.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    // Above the range they are moved to, so that no dup2 overwrites one still to move.
    std::vector<int> high;
    for (int fd : fds) high.push_back(fcntl(fd, F_DUPFD_CLOEXEC, 64));
    int out = open(log_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const pid_t parent = getpid();

    pid_ = fork();
    if (pid_ == 0) {  // only async-signal-safe calls from here
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(127);
      if (pid_digits != nullptr) {
        char digits[12];
        int n = 0;
        for (pid_t v = getpid(); v > 0; v /= 10) digits[n++] = static_cast<char>('0' + v % 10);
        while (n > 0) *pid_digits++ = digits[--n];
      }
      dup2(out, STDOUT_FILENO);
      dup2(out, STDERR_FILENO);
      for (size_t i = 0; i < high.size(); ++i) dup2(high[i], 3 + static_cast<int>(i));
      sigset_t none;
      sigemptyset(&none);
      sigprocmask(SIG_SETMASK, &none, nullptr);
      execve(argv[0], argv.data(), envp.data());
      _exit(125);
    }
    for (int fd : high) close(fd);
    close(out);
  }
  ~HandedDaemon() {
    if (pid_ > 0) kill(pid_, SIGKILL);
    wait_exit(seconds(10));
  }
  // The exit status, or -1 when it did not end within `timeout`.
  int wait_exit(std::chrono::milliseconds timeout) {
    for (auto end = std::chrono::steady_clock::now() + timeout; pid_ > 0;) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      if (std::chrono::steady_clock::now() > end) return -1;
      std::this_thread::sleep_for(milliseconds(10));
    }
    return -1;
  }
  int stop() {
    kill(pid_, SIGTERM);
    return wait_exit(seconds(15));
  }
  std::string log() const { return read_file(log_); }

 private:
  std::string log_;
  pid_t pid_ = -1;
};

// Says "INIT" on `socket` and returns the service id (102 and up). The
// reply may wait for the daemon to start: the socket listens before it runs.
int32_t plugin_init(lumokit::Plugin& plugin, const std::string& socket) {
  plugin.connect(socket);
  return plugin.init();
}
lumokit::PluginOptions waiting_for_start() {
  lumokit::PluginOptions options;
  options.reply_timeout = seconds(15);
  return options;
}

Json::Value status_on(const std::string& admin_socket) {
  for (auto end = std::chrono::steady_clock::now() + seconds(10);;) {
    try {
      JsonClient admin(admin_socket);
      return admin.call(parse(R"({"op":"status"})"));
    } catch (const std::exception&) {
      if (std::chrono::steady_clock::now() > end) throw;
      std::this_thread::sleep_for(milliseconds(25));
    }
  }
}

TEST(SocketHandover, ServesEverythingOnHandedSocketsAndLeavesThemInPlace) {
  TempDir dir;
  const std::string handed = dir.path() + "/systemd";
  ASSERT_EQ(mkdir(handed.c_str(), 0755), 0);
  const int client = listening_socket(handed + "/client");
  const int lumo = listening_socket(handed + "/lumo");
  const int admin = listening_socket(handed + "/admin");
  // Named by role, or by the socket unit (then the path tells the role).
  HandedDaemon daemon(dir.path(), {client, lumo, admin}, "client:lumokitd.socket:admin");

  // Already listening: plugins and clients connect before the daemon is up.
  lumokit::Plugin plugin({}, waiting_for_start());
  EXPECT_GE(plugin_init(plugin, handed + "/lumo"), 102);
  JsonClient session_client(handed + "/client");
  Json::Value opened = session_client.call(parse(R"({"op":"create_session","handle":7})"));
  EXPECT_EQ(opened["op"], "callback") << opened;
  EXPECT_EQ(opened["kind"].asInt(), 1) << opened;
  EXPECT_EQ(status_on(handed + "/admin")["state"]["plugins"].size(), 1u) << daemon.log();

  EXPECT_FALSE(exists(dir.path() + "/run/lumo"));
  EXPECT_FALSE(exists(dir.path() + "/run/client"));
  EXPECT_FALSE(exists(dir.path() + "/run/admin"));
  EXPECT_TRUE(exists(dir.path() + "/run/lumokitd.lock"));
  EXPECT_NE(daemon.log().find("handed over by the supervisor: lumo client admin"), std::string::npos)
      << daemon.log();

  plugin.stop();
  session_client.close_now();
  EXPECT_EQ(daemon.stop(), 0) << daemon.log();
  // The supervisor's socket files outlive the daemon; its own lock does not.
  EXPECT_TRUE(exists(handed + "/lumo"));
  EXPECT_TRUE(exists(handed + "/client"));
  EXPECT_FALSE(exists(dir.path() + "/run/lumokitd.lock"));
  for (int fd : {client, lumo, admin}) close(fd);
}

TEST(SocketHandover, MakesWhatIsNotHandedOverAndIgnoresAnotherProcesssSockets) {
  struct Case {
    const char* what;
    bool for_this_process;
  };
  for (const Case& c : {Case{"only the plugin socket, as Android's init hands it", true},
                        Case{"sockets meant for another process", false}}) {
    SCOPED_TRACE(c.what);
    TempDir dir;
    const int lumo = listening_socket(dir.path() + "/handed-lumo");
    HandedDaemon daemon(dir.path(), {lumo}, "lumo", c.for_this_process);
    const std::string run = dir.path() + "/run";
    EXPECT_EQ(status_on(run + "/admin")["op"], "status") << daemon.log();
    EXPECT_TRUE(exists(run + "/client"));
    EXPECT_EQ(exists(run + "/lumo"), !c.for_this_process);
    lumokit::Plugin plugin({}, waiting_for_start());
    EXPECT_GE(plugin_init(plugin, c.for_this_process ? dir.path() + "/handed-lumo" : run + "/lumo"),
              102);
    plugin.stop();
    EXPECT_EQ(daemon.stop(), 0) << daemon.log();
    close(lumo);
  }
}

TEST(SocketHandover, RefusesADescriptorThatIsNotOneOfItsSockets) {
  TempDir dir;
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  const int other = listening_socket(dir.path() + "/other");
  const struct {
    int fd;
    const char* name;
    const char* why;
  } cases[] = {{pair[0], "lumo", "is not a local seqpacket socket"},
               {other, "other", "is none of lumo, client and admin"}};
  for (const auto& c : cases) {
    HandedDaemon daemon(dir.path(), {c.fd}, c.name);
    EXPECT_EQ(daemon.wait_exit(seconds(10)), 1) << daemon.log();
    EXPECT_NE(daemon.log().find(c.why), std::string::npos) << daemon.log();
  }
  for (int fd : {pair[0], pair[1], other}) close(fd);
}

}  // namespace
}  // namespace lumokit::e2e
