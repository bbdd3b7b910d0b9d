// Child processes for the end-to-end tests: started with their output in a
// file, killed with the test process if it dies, reaped with a deadline.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace lumokit::e2e {

class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Runs `program` with `args`, stdout and stderr appended to `log_path`
  // (stderr to `err_path` when given), stdin from /dev/null unless
  // `stdin_path` names a file, and `handed_fds` as its descriptors 3, 4, ...
  // Throws on failure.
  void start(const std::string& program, const std::vector<std::string>& args,
             const std::string& log_path, const std::string& stdin_path = "",
             const std::string& err_path = "", const std::vector<int>& handed_fds = {});
  pid_t pid() const { return pid_; }
  bool running() const { return pid_ > 0; }
  void signal(int sig);
  // Waits for the exit: its code (128 + signal when killed), or -1 when the
  // process still runs after `timeout`.
  int wait_exit(std::chrono::milliseconds timeout);
  // SIGKILL and reap (no-op when already reaped).
  void kill_now();

 private:
  pid_t pid_ = -1;
};

// Runs `program` to completion (at most `timeout`); returns its exit code
// (or 128 + signal), with stdout and stderr in `output`, or stderr apart in
// `errors` when given.
int run_to_end(const std::string& program, const std::vector<std::string>& args,
               std::string* output, std::string* errors = nullptr,
               std::chrono::milliseconds timeout = std::chrono::seconds(30));

std::string read_file(const std::string& path);
bool exists(const std::string& path);  // also a dangling link or a socket

// Polls `done` every 20 ms until it holds; false when `timeout` passed first.
template <typename Done>
bool eventually(std::chrono::milliseconds timeout, Done done) {
  for (const auto deadline = std::chrono::steady_clock::now() + timeout; !done();) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// A fresh directory under /tmp, removed with its contents at destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  void keep() { keep_ = true; }  // not removed at destruction

 private:
  std::string path_;
  bool keep_ = false;
};

}  // namespace lumokit::e2e
