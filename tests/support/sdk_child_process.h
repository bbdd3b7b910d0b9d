// Test helper: runs a program with its stdout on a pipe, waits for a line of
// that output with a time limit, signals it and collects its exit status.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace lumokit::test {

class SdkChildProcess {
 public:
  SdkChildProcess() = default;
  ~SdkChildProcess();  // kills and reaps a child still running
  SdkChildProcess(const SdkChildProcess&) = delete;
  SdkChildProcess& operator=(const SdkChildProcess&) = delete;

  bool start(const std::string& program, const std::vector<std::string>& args);
  // Reads stdout until a line contains `text`; false on timeout or EOF.
  bool wait_for_line(const std::string& text,
                     std::chrono::milliseconds timeout = std::chrono::seconds(5));
  bool signal(int sig);
  // The exit status (WEXITSTATUS), or -1 on timeout or a death by signal.
  int wait_exit(std::chrono::milliseconds timeout = std::chrono::seconds(5));

 private:
  pid_t pid_ = -1;
  int out_fd_ = -1;
  std::string pending_;  // output read but not yet matched
};

}  // namespace lumokit::test
