#include "soak_daemon.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <thread>
#include <vector>

#include "soak_clock.h"
#include "soak_link.h"

namespace lumokit::soak {

namespace {

std::string find_on_path(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::istringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    const std::string candidate = dir + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return name;
}

}  // namespace

bool Daemon::start() {
  std::vector<std::string> words;
  std::istringstream prefix(prefix_);
  for (std::string word; prefix >> word;) words.push_back(word);
  words.push_back(bin_dir_ + "/lumokitd");
  for (const char* arg : {"--runtime-dir", dir_.runtime.c_str(), "--sys-policy",
                          dir_.policy.c_str(), "--trust-client-ids", "--log-file",
                          dir_.daemon_log.c_str()}) {
    words.push_back(arg);
  }
  const std::string program = words.front();
  words.erase(words.begin());
  try {
    // A prefix names its tool as found on PATH.
    process_.start(program.find('/') == std::string::npos ? find_on_path(program) : program,
                   words, dir_.daemon_out);
  } catch (const std::exception& e) {
    failures_.add("daemon alive", std::string("cannot start lumokitd: ") + e.what());
    return false;
  }
  AdminLink admin(dir_.runtime + "/admin");
  const int64_t deadline = mono_ns() + 30 * kSec;
  while (mono_ns() < deadline) {
    if (!alive()) return false;
    Json::Value request(Json::objectValue), reply;
    request["op"] = "status";
    std::string error;
    if (admin.call(request, &reply, &error, 2000) && reply["ready"].asBool()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  failures_.add("daemon alive", "lumokitd did not come up within 30 s; see " + dir_.daemon_out);
  return false;
}

bool Daemon::alive() {
  if (dead_) return false;
  int status = 0;
  if (process_.wait_exit(std::chrono::milliseconds(0), &status)) {
    dead_ = true;
    failures_.add("daemon alive", "lumokitd exited during the soak (wait status " +
                                      std::to_string(status) + "); see " + dir_.daemon_out);
    return false;
  }
  return true;
}

void Daemon::stop() {
  if (!alive()) return;
  process_.signal(SIGTERM);
  int status = 0;
  if (!process_.wait_exit(std::chrono::seconds(20), &status)) {
    failures_.add("daemon alive", "lumokitd did not stop within 20 s of SIGTERM");
    process_.kill_now();
  } else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    failures_.add("daemon alive",
                  "lumokitd stopped with wait status " + std::to_string(status) + " on SIGTERM");
  }
  dead_ = true;
}

}  // namespace lumokit::soak
