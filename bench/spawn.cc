#include "spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "bench_util.h"

namespace bench {

std::string self_exe() {
  char buf[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  if (n <= 0) return "lumokit_bench";
  return std::string(buf, static_cast<size_t>(n));
}

pid_t spawn(const SpawnSpec& launch) {
  std::vector<char*> argv;
  for (const std::string& a : launch.argv) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const pid_t parent = getpid();
  pid_t pid = fork();
  if (pid != 0) return pid;
  if (launch.die_with_parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
  }
  for (int fd : launch.keep_fds) {
    int flags = fcntl(fd, F_GETFD);
    if (flags >= 0) fcntl(fd, F_SETFD, flags & ~FD_CLOEXEC);
  }
  if (launch.stdout_fd >= 0) dup2(launch.stdout_fd, STDOUT_FILENO);
  if (launch.stderr_fd >= 0) dup2(launch.stderr_fd, STDERR_FILENO);
  execvp(argv[0], argv.data());
  _exit(127);
}

pid_t spawn_self(const std::vector<std::string>& args, const std::vector<int>& keep_fds) {
  SpawnSpec launch;
  launch.argv.push_back(self_exe());
  launch.argv.insert(launch.argv.end(), args.begin(), args.end());
  launch.keep_fds = keep_fds;
  return spawn(launch);
}

int wait_child(pid_t pid, int timeout_ms) {
  const int64_t deadline = now_ns() + static_cast<int64_t>(timeout_ms) * 1000000;
  for (;;) {
    int status = 0;
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (r < 0) return -1;
    if (now_ns() > deadline) {
      kill_child(pid);
      return -1;
    }
    usleep(2000);
  }
}

void kill_child(pid_t pid) {
  if (pid <= 0) return;
  kill(pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
}

}  // namespace bench
