// lumokitd as the soak runs it: in the work directory, with the soak's
// policy and log file, trusting the ids clients state.
#pragma once

#include <sys/types.h>

#include <string>

#include "e2e_process.h"
#include "soak_records.h"
#include "soak_setup.h"

namespace lumokit::soak {

class Daemon {
 public:
  // `prefix`: a command (words split at blanks) that runs the daemon, or "".
  Daemon(const WorkDir& dir, std::string bin_dir, std::string prefix, FailureLog& failures)
      : dir_(dir), bin_dir_(std::move(bin_dir)), prefix_(std::move(prefix)), failures_(failures) {}

  // Starts it and waits until its admin socket says it is ready.
  bool start();
  // False (once with a failure) when the daemon has exited.
  bool alive();
  // SIGTERM must end it with status 0.
  void stop();
  // The process started; the daemon itself only without a prefix.
  pid_t pid() const { return process_.pid(); }

 private:
  const WorkDir& dir_;
  std::string bin_dir_;
  std::string prefix_;
  FailureLog& failures_;
  lumokit::e2e::ChildProcess process_;
  bool dead_ = false;
};

}  // namespace lumokit::soak
