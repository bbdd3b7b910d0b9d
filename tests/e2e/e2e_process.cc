#include "e2e_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace lumokit::e2e {

ChildProcess::~ChildProcess() { kill_now(); }

void ChildProcess::start(const std::string& program, const std::vector<std::string>& args,
                         const std::string& log_path, const std::string& stdin_path,
                         const std::string& err_path, const std::vector<int>& handed_fds) {
  if (running()) throw std::runtime_error("process already started");
  // Everything the child needs is prepared before fork: after it, only
  // async-signal-safe calls are allowed in a threaded parent.
  std::vector<std::string> words;
  words.push_back(program);
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  const std::string in_path = stdin_path.empty() ? "/dev/null" : stdin_path;
  const std::string errors = err_path.empty() ? log_path : err_path;
  // Above the range they move to, so that no dup2 overwrites one still to move.
  std::vector<int> high;
  for (int fd : handed_fds) high.push_back(fcntl(fd, F_DUPFD_CLOEXEC, 64));
  const pid_t parent = getpid();

  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    int in = open(in_path.c_str(), O_RDONLY | O_CLOEXEC);
    int out = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    int err = open(errors.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (in < 0 || out < 0 || err < 0) _exit(126);
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    for (size_t i = 0; i < high.size(); ++i) dup2(high[i], 3 + static_cast<int>(i));
    // The test runner may block signals; the child starts clean.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(program.c_str(), argv.data());
    _exit(125);
  }
  for (int fd : high) close(fd);
  pid_ = pid;
}

void ChildProcess::signal(int sig) {
  if (running()) ::kill(pid_, sig);
}

int ChildProcess::wait_exit(std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (running()) {
    int status = 0;
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
      pid_ = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    if ((r < 0 && errno != EINTR) || std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return -1;
}

void ChildProcess::kill_now() {
  if (!running()) return;
  ::kill(pid_, SIGKILL);
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

int run_to_end(const std::string& program, const std::vector<std::string>& args,
               std::string* output, std::string* errors, std::chrono::milliseconds timeout) {
  TempDir dir;
  ChildProcess child;
  child.start(program, args, dir.path() + "/out", "", errors ? dir.path() + "/err" : "");
  int code = child.wait_exit(timeout);
  if (code < 0) {
    child.kill_now();
    code = 128 + SIGKILL;
  }
  *output = read_file(dir.path() + "/out");
  if (errors) *errors = read_file(dir.path() + "/err");
  return code;
}

TempDir::TempDir() {
  char templ[] = "/tmp/lumokit-e2e.XXXXXX";
  if (mkdtemp(templ) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = templ;
}

TempDir::~TempDir() {
  if (keep_) return;
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

}  // namespace lumokit::e2e
