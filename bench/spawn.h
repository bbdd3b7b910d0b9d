// Starting and reaping the processes of a run: this binary in another mode,
// the host daemon, and `taskset` for the pinned runs.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

// Path of this executable.
std::string self_exe();

struct SpawnSpec {
  std::vector<std::string> argv;  // argv[0] is the program; searched in PATH
  std::vector<int> keep_fds;      // stay open across exec
  int stdout_fd = -1;             // -1: inherited
  int stderr_fd = -1;             // -1: inherited
  bool die_with_parent = true;    // SIGKILL when the spawning thread's process ends
};

// fork + exec; -1 when fork fails. Only async-signal-safe calls run in the
// child before exec, so it is safe from a process with threads.
pid_t spawn(const SpawnSpec& launch);

// This binary with the given arguments.
pid_t spawn_self(const std::vector<std::string>& args, const std::vector<int>& keep_fds);

// Waits up to `timeout_ms`; past it the child is killed. The exit status, or
// -1 when it was killed or died of a signal.
int wait_child(pid_t pid, int timeout_ms);
void kill_child(pid_t pid);

}  // namespace bench
