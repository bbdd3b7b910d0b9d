// Test helper: runs a program with its stdout on a pipe, reads that output
// line by line with time limits, signals it and collects its exit status.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
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
  // The next line of stdout, without its newline; nothing on timeout or EOF.
  std::optional<std::string> read_line(std::chrono::milliseconds timeout = std::chrono::seconds(5));
  // Reads lines until one contains `text`; that line, or nothing.
  std::optional<std::string> wait_for_line(const std::string& text,
                                           std::chrono::milliseconds timeout = std::chrono::seconds(5));
  // Everything read so far, one line per entry.
  const std::vector<std::string>& lines() const { return lines_; }
  bool signal(int sig);
  // The exit status (WEXITSTATUS), or -1 on timeout or a death by signal.
  int wait_exit(std::chrono::milliseconds timeout = std::chrono::seconds(5));

 private:
  pid_t pid_ = -1;
  int out_fd_ = -1;
  std::string pending_;
  std::vector<std::string> lines_;
};

}  // namespace lumokit::test
