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
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
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

std::optional<std::string> SdkChildProcess::read_line(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    const size_t nl = pending_.find('\n');
    if (nl != std::string::npos) {
      std::string line = pending_.substr(0, nl);
      pending_.erase(0, nl + 1);
      lines_.push_back(line);
      return line;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (out_fd_ < 0 || left.count() <= 0) return std::nullopt;
    pollfd p{out_fd_, POLLIN, 0};
    const int rc = poll(&p, 1, static_cast<int>(left.count()));
    if (rc < 0 && errno == EINTR) continue;
    if (rc <= 0) return std::nullopt;
    char buffer[4096];
    const ssize_t n = read(out_fd_, buffer, sizeof buffer);
    if (n <= 0) return std::nullopt;
    pending_.append(buffer, static_cast<size_t>(n));
  }
}

std::optional<std::string> SdkChildProcess::wait_for_line(const std::string& text,
                                                          std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    std::optional<std::string> line = read_line(left);
    if (!line) return std::nullopt;
    if (line->find(text) != std::string::npos) return line;
  }
}

bool SdkChildProcess::signal(int sig) { return pid_ > 0 && kill(pid_, sig) == 0; }

int SdkChildProcess::wait_exit(std::chrono::milliseconds timeout) {
  if (pid_ <= 0) return -1;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    int status = 0;
    const pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
      pid_ = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    if (r < 0 || std::chrono::steady_clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace lumokit::test
