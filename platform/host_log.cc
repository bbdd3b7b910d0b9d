#include <android/log.h>
#include <lumokit/host_platform.h>

#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <condition_variable>
#include <map>
#include <mutex>
#include <vector>

namespace {

struct LogState {
  std::mutex mtx;
  FILE* file = nullptr;  // null: stderr
  // Read without the lock so that a record nobody wants costs no formatting.
  std::atomic<int> min_prio{ANDROID_LOG_VERBOSE};
  std::atomic<int> hook_count{0};
  int next_hook = 1;
  std::map<int, lumokit::host::LogHook> hooks;
  int calls_in_flight = 0;  // hook calls running outside the lock
  std::condition_variable idle;
};

LogState& state() {
  static auto* s = new LogState();  // outlives every thread that may still log at exit
  return *s;
}

char priority_letter(int prio) {
  switch (prio) {
    case ANDROID_LOG_VERBOSE: return 'V';
    case ANDROID_LOG_DEBUG: return 'D';
    case ANDROID_LOG_INFO: return 'I';
    case ANDROID_LOG_WARN: return 'W';
    case ANDROID_LOG_ERROR: return 'E';
    case ANDROID_LOG_FATAL: return 'F';
    default: return 'I';
  }
}

// Writes "P/TAG: message\n" with one system call, so that a line costs no
// formatting or buffering beyond the message itself.
void write_line(int fd, int prio, const char* tag, const char* msg, size_t msg_len) {
  char head[2] = {priority_letter(prio), '/'};
  iovec parts[] = {{head, sizeof(head)},
                   {const_cast<char*>(tag), strlen(tag)},
                   {const_cast<char*>(": "), 2},
                   {const_cast<char*>(msg), msg_len},
                   {const_cast<char*>("\n"), 1}};
  iovec* part = parts;
  int left = sizeof(parts) / sizeof(parts[0]);
  while (left > 0) {
    ssize_t n = writev(fd, part, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    // A short write: go on after what went out.
    while (left > 0 && static_cast<size_t>(n) >= part->iov_len) {
      n -= static_cast<ssize_t>(part->iov_len);
      ++part;
      --left;
    }
    if (left > 0) {
      part->iov_base = static_cast<char*>(part->iov_base) + n;
      part->iov_len -= static_cast<size_t>(n);
    }
  }
}

}  // namespace

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  LogState& s = state();
  if (prio < s.min_prio.load(std::memory_order_relaxed) &&
      s.hook_count.load(std::memory_order_relaxed) == 0) {
    return 0;
  }
  char small[512];
  std::string large;
  const char* msg = small;
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(small, sizeof(small), fmt, ap);
  va_end(ap);
  if (n < 0) return -1;
  if (static_cast<size_t>(n) >= sizeof(small)) {
    large.resize(static_cast<size_t>(n) + 1);
    va_start(ap, fmt);
    vsnprintf(&large[0], large.size(), fmt, ap);
    va_end(ap);
    large.resize(static_cast<size_t>(n));
    msg = large.c_str();
  }
  // The written line ends the message at a zero byte, as "%s" would.
  const size_t msg_len = strnlen(msg, static_cast<size_t>(n));
  if (tag == nullptr) tag = "";

  std::vector<lumokit::host::LogHook> hooks;
  {
    std::lock_guard<std::mutex> lock(s.mtx);
    if (prio >= s.min_prio) {
      write_line(s.file ? fileno(s.file) : STDERR_FILENO, prio, tag, msg, msg_len);
    }
    if (!s.hooks.empty()) {
      hooks.reserve(s.hooks.size());
      for (auto& h : s.hooks) hooks.push_back(h.second);
      ++s.calls_in_flight;
    }
  }
  if (hooks.empty()) return n;
  // Hooks run unlocked so that one may log.
  const std::string tag_text = tag;
  const std::string text(msg, static_cast<size_t>(n));
  for (auto& h : hooks) h(prio, tag_text, text);
  {
    std::lock_guard<std::mutex> lock(s.mtx);
    if (--s.calls_in_flight == 0) s.idle.notify_all();
  }
  return n;
}

namespace lumokit::host {

bool set_log_file(const std::string& path) {
  FILE* f = fopen(path.c_str(), "a");
  if (f == nullptr) return false;
  LogState& s = state();
  std::lock_guard<std::mutex> lock(s.mtx);
  if (s.file) fclose(s.file);
  s.file = f;
  return true;
}

void set_log_to_stderr() {
  LogState& s = state();
  std::lock_guard<std::mutex> lock(s.mtx);
  if (s.file) fclose(s.file);
  s.file = nullptr;
}

void set_log_min_priority(int prio) {
  LogState& s = state();
  std::lock_guard<std::mutex> lock(s.mtx);
  s.min_prio = prio;
}

int add_log_hook(LogHook hook) {
  LogState& s = state();
  std::lock_guard<std::mutex> lock(s.mtx);
  int id = s.next_hook++;
  s.hooks.emplace(id, std::move(hook));
  s.hook_count.store(static_cast<int>(s.hooks.size()));
  return id;
}

void remove_log_hook(int id) {
  LogState& s = state();
  std::unique_lock<std::mutex> lock(s.mtx);
  s.hooks.erase(id);
  s.hook_count.store(static_cast<int>(s.hooks.size()));
  // The hook's owner may go right after this returns: wait out running calls.
  s.idle.wait(lock, [&s] { return s.calls_in_flight == 0; });
}

}  // namespace lumokit::host
