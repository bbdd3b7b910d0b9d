#include "private_bus.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "bench_util.h"
#include "spawn.h"

namespace bench {
namespace {

constexpr int kStartTimeoutMs = 10000;

// Both buses get the same permissive policy; dbus-broker takes its socket
// from the launcher and ignores <listen>.
std::string bus_config(const std::string& socket_path) {
  return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
         " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
         "<busconfig>\n"
         "  <type>session</type>\n"
         "  <listen>unix:path=" + socket_path + "</listen>\n"
         "  <auth>EXTERNAL</auth>\n"
         "  <policy context=\"default\">\n"
         "    <allow send_destination=\"*\"/>\n"
         "    <allow receive_sender=\"*\"/>\n"
         "    <allow own=\"*\"/>\n"
         "  </policy>\n"
         "</busconfig>\n";
}

bool in_path(const char* program) {
  const char* path = getenv("PATH");
  std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
  size_t start = 0;
  while (start <= dirs.size()) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    const std::string candidate = dirs.substr(start, end - start) + "/" + program;
    if (access(candidate.c_str(), X_OK) == 0) return true;
    start = end + 1;
  }
  return false;
}

int listen_stream(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (fd < 0 || path.size() >= sizeof(addr.sun_path)) {
    if (fd >= 0) close(fd);
    return -1;
  }
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd, 128) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Reads what a starting bus reports on `fd` until it closes or the time is up.
std::string read_report(int fd) {
  std::string text;
  char buf[512];
  const int64_t deadline = now_ns() + kStartTimeoutMs * 1000000LL;
  for (;;) {
    const int left = static_cast<int>((deadline - now_ns()) / 1000000);
    pollfd p{fd, POLLIN, 0};
    if (left <= 0 || poll(&p, 1, left) <= 0) break;
    const ssize_t n = read(fd, buf, sizeof(buf));
    if (n <= 0) break;
    text.append(buf, static_cast<size_t>(n));
    if (text.find('\n') != std::string::npos) break;
  }
  return text;
}

void report(int fd, const std::string& line) { write_all(fd, line.data(), line.size()); }

std::string errno_text(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

}  // namespace

std::vector<pid_t> process_tree(pid_t root) {
  std::vector<pid_t> out{root};
  for (size_t i = 0; i < out.size(); ++i) {
    // Children are listed per thread that started them.
    const std::string tasks = "/proc/" + std::to_string(out[i]) + "/task";
    DIR* dir = opendir(tasks.c_str());
    if (dir == nullptr) continue;
    while (dirent* entry = readdir(dir)) {
      if (entry->d_name[0] == '.') continue;
      std::ifstream children(tasks + "/" + entry->d_name + "/children");
      long child;
      while (children >> child) out.push_back(static_cast<pid_t>(child));
    }
    closedir(dir);
  }
  return out;
}

PrivateBus::~PrivateBus() { stop(); }

std::vector<pid_t> PrivateBus::processes() const {
  return pid > 0 ? process_tree(pid) : std::vector<pid_t>();
}

void PrivateBus::stop() {
  if (pid > 0) {
    // The launcher and the broker go with the helper, but a broker that is
    // slow to notice must not outlive the run: every process by its id.
    // Launcher before broker, so that neither reports the other's end.
    std::vector<pid_t> tree = process_tree(pid);
    kill(pid, SIGKILL);
    for (size_t i = 1; i < tree.size(); ++i) kill(tree[i], SIGKILL);
    kill_child(pid);
    // The rest were handed to this process (a subreaper): reaped here, their
    // CPU time counts as the run's, not as other processes'.
    for (size_t i = 1; i < tree.size(); ++i) wait_child(tree[i], 2000);
    pid = -1;
  }
  if (!dir.empty()) {
    unlink((dir + "/bus").c_str());
    unlink((dir + "/bus.conf").c_str());
    unlink((dir + "/bus.log").c_str());
    rmdir(dir.c_str());
    dir.clear();
  }
}

bool start_private_bus(BusKind kind, PrivateBus* bus, std::string* why, std::string* error) {
  const char* program = kind == BusKind::kBroker ? "dbus-broker-launch" : "dbus-daemon";
  if (!in_path(program) || (kind == BusKind::kBroker && !in_path("dbus-broker"))) {
    *why = std::string(program) + " is not installed";
    return false;
  }
  char dir[] = "/tmp/lumokit-bench-bus-XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    *error = errno_text("mkdtemp");
    return false;
  }
  bus->dir = dir;
  const std::string socket_path = bus->dir + "/bus";
  bus->address = "unix:path=" + socket_path;
  {
    std::ofstream conf(bus->dir + "/bus.conf");
    conf << bus_config(socket_path);
    if (!conf) {
      *error = "cannot write the bus configuration";
      return false;
    }
  }
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) {
    *error = errno_text("pipe");
    return false;
  }
  // What the bus says on stderr goes to a file, quoted when it fails.
  const std::string log_path = bus->dir + "/bus.log";
  const int log_fd = open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (kind == BusKind::kBroker) {
    const int listener = listen_stream(socket_path);
    if (listener < 0) {
      close(ready[0]);
      close(ready[1]);
      *error = errno_text("bus socket");
      return false;
    }
    SpawnSpec launch;
    launch.argv = {self_exe(), "--role", "broker-launcher", "--dir", bus->dir, "--listen-fd",
                   std::to_string(listener), "--ready-fd", std::to_string(ready[1])};
    launch.keep_fds = {listener, ready[1]};
    launch.stderr_fd = log_fd;
    bus->pid = spawn(launch);
    close(listener);
  } else {
    SpawnSpec launch;
    launch.argv = {program, "--config-file", bus->dir + "/bus.conf", "--nofork",
                   "--print-address=" + std::to_string(ready[1])};
    launch.keep_fds = {ready[1]};
    launch.stderr_fd = log_fd;
    bus->pid = spawn(launch);
  }
  close(ready[1]);
  if (log_fd >= 0) close(log_fd);
  const std::string said = read_report(ready[0]);
  close(ready[0]);
  if (kind == BusKind::kBroker ? said.compare(0, 2, "R\n") == 0
                               : said.compare(0, 10, "unix:path=") == 0) {
    return true;
  }
  std::string log_line;
  {
    std::ifstream log(log_path);
    std::getline(log, log_line);
  }
  bus->stop();
  if (said.compare(0, 2, "N ") == 0) {
    *why = said.substr(2, said.find('\n') - 2);
  } else {
    *error = std::string(program) + " did not start" +
             (said.size() > 2 ? ": " + said.substr(2, said.find('\n') - 2) : std::string()) +
             (log_line.empty() ? std::string() : " (" + log_line + ")");
  }
  return false;
}

// The first line written to `ready_fd`: "R" when the bus is up, "N reason"
// when this machine cannot run it this way, "E reason" when it failed.
int run_broker_launcher(const std::string& dir, int listen_fd, int ready_fd) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // A mount namespace of our own: the tmpfs and the journal socket below
  // exist only for the launcher and the broker.
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    report(ready_fd, "N cannot make a private mount namespace (" + std::string(std::strerror(errno)) + ")\n");
    return 1;
  }
  struct stat st{};
  const bool has_systemd_dir = stat("/run/systemd", &st) == 0 && S_ISDIR(st.st_mode);
  const char* target = has_systemd_dir ? "/run/systemd" : "/run";
  if (mount("tmpfs", target, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0) {
    report(ready_fd, "N cannot mount a private tmpfs on " + std::string(target) + " (" +
                         std::strerror(errno) + ")\n");
    return 1;
  }
  mkdir("/run/systemd", 0755);
  mkdir("/run/systemd/journal", 0755);
  const int journal = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  static const char kJournal[] = "/run/systemd/journal/socket";
  memcpy(addr.sun_path, kJournal, sizeof(kJournal));
  if (journal < 0 || bind(journal, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    report(ready_fd, "E " + errno_text("journal socket") + "\n");
    return 1;
  }

  const pid_t child = fork();
  if (child < 0) {
    report(ready_fd, "E " + errno_text("fork") + "\n");
    return 1;
  }
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // Socket activation: the listening socket as descriptor 3, for us.
    if (listen_fd != 3) {
      dup2(listen_fd, 3);
      close(listen_fd);
    } else {
      fcntl(3, F_SETFD, 0);
    }
    if (ready_fd != 3) close(ready_fd);
    setenv("LISTEN_FDS", "1", 1);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    unsetenv("LISTEN_FDNAMES");
    // With --scope user the launcher talks to its own bus through this.
    setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + dir + "/bus").c_str(), 1);
    const std::string conf = dir + "/bus.conf";
    execlp("dbus-broker-launch", "dbus-broker-launch", "--scope", "user", "--config-file",
           conf.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(listen_fd);

  // Drain the journal (the launcher and broker must never block on it) and
  // wait for the launcher's "Ready".
  bool reported = false;
  std::string last_message;
  std::vector<char> buf(1 << 16);
  const int64_t deadline = now_ns() + kStartTimeoutMs * 1000000LL;
  for (;;) {
    pollfd p{journal, POLLIN, 0};
    poll(&p, 1, 200);
    for (;;) {
      const ssize_t n = recv(journal, buf.data(), buf.size(), 0);
      if (n <= 0) break;
      const std::string entry(buf.data(), static_cast<size_t>(n));
      const size_t at = entry.find("MESSAGE=");
      if (at == std::string::npos) continue;
      last_message = entry.substr(at + 8, entry.find('\n', at) - at - 8);
      if (!reported && last_message == "Ready") {
        report(ready_fd, "R\n");
        reported = true;
      }
    }
    int status = 0;
    if (waitpid(child, &status, WNOHANG) == child) {
      if (!reported) report(ready_fd, "E launcher ended: " + last_message + "\n");
      return 1;
    }
    if (!reported && now_ns() > deadline) {
      report(ready_fd, "E no Ready from the launcher within 10 s\n");
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
      return 1;
    }
  }
}

}  // namespace bench
