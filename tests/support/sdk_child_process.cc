#include "sdk_child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

extern char** environ;

namespace lumokit::test {

using Clock = std::chrono::steady_clock;

SdkChildProcess::~SdkChildProcess() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (out_fd_ >= 0) close(out_fd_);
}

bool SdkChildProcess::start(const std::string& program, const std::vector<std::string>& args) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return false;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], STDOUT_FILENO);
  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const int rc = posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipe_fds[1]);
  if (rc != 0) {
    pid_ = -1;
    close(pipe_fds[0]);
    return false;
  }
  out_fd_ = pipe_fds[0];
  return true;
}

bool SdkChildProcess::wait_for_line(const std::string& text, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (true) {
    for (size_t nl; (nl = pending_.find('\n')) != std::string::npos;) {
      const bool found = pending_.substr(0, nl).find(text) != std::string::npos;
      pending_.erase(0, nl + 1);
      if (found) return true;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (out_fd_ < 0 || left.count() <= 0) return false;
    pollfd p{out_fd_, POLLIN, 0};
    const int rc = poll(&p, 1, static_cast<int>(left.count()));
    if (rc < 0 && errno == EINTR) continue;
    char buffer[4096];
    const ssize_t n = rc > 0 ? read(out_fd_, buffer, sizeof buffer) : 0;
    if (n <= 0) return false;
    pending_.append(buffer, static_cast<size_t>(n));
  }
}

bool SdkChildProcess::signal(int sig) { return pid_ > 0 && kill(pid_, sig) == 0; }

int SdkChildProcess::wait_exit(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (pid_ > 0) {
    int status = 0;
    const pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
      pid_ = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    if (r < 0 || Clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return -1;
}

}  // namespace lumokit::test
