#include "monitor_command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "exit_codes.h"
#include "ipc/json_text.h"
#include "ipc/runtime_paths.h"
#include "ipc/seqpacket.h"
#include "monitor_view.h"
#include "printing.h"
#include "task_request.h"

namespace lumokit::cli {

namespace {

struct MonitorOptions {
  MonitorFilter filter;
  bool json = false;
  bool full = false;
  std::string write_path;
  std::string read_path;
};

bool parse_monitor_options(const std::vector<std::string>& words, MonitorOptions* o,
                           std::string* error) {
  for (size_t i = 1; i < words.size(); ++i) {
    const std::string& w = words[i];
    if (w == "--json") {
      o->json = true;
      continue;
    }
    if (w == "--full") {
      o->full = true;
      continue;
    }
    if (w != "--plugin" && w != "--session" && w != "--opcode" && w != "--kind" &&
        w != "--write" && w != "--read") {
      *error = "monitor: unknown option \"" + w + "\"";
      return false;
    }
    if (i + 1 >= words.size() || words[i + 1].empty()) {
      *error = "monitor: " + w + " needs a value";
      return false;
    }
    const std::string& v = words[++i];
    bool ok = true;
    if (w == "--plugin") {
      ok = o->filter.by_plugin = parse_i32(v, &o->filter.plugin);
    } else if (w == "--session") {
      ok = o->filter.by_session = parse_u32(v, &o->filter.session);
    } else if (w == "--opcode") {
      ok = o->filter.by_opcode = parse_u32(v, &o->filter.opcode);
    } else if (w == "--kind") {
      o->filter.kind = v;
    } else if (w == "--write") {
      o->write_path = v;
    } else {
      o->read_path = v;
    }
    if (!ok) {
      *error = "monitor: " + w + " needs a number, not \"" + v + "\"";
      return false;
    }
  }
  if (!o->read_path.empty() && !o->write_path.empty()) {
    *error = "monitor: --read and --write do not go together";
    return false;
  }
  return true;
}

// Shows the daemon's lines and counts them, live or from a capture alike.
class Presenter {
 public:
  explicit Presenter(const MonitorOptions& o) : o_(o) {}
  ~Presenter() {
    if (capture_ != nullptr) std::fclose(capture_);
  }

  // The capture holds every line, whatever the filters: they apply when
  // it is read. It is private to its owner: it holds tokens and tasks.
  bool open_capture(std::string* error) {
    const int fd = ::open(o_.write_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    capture_ = fd < 0 ? nullptr : fdopen(fd, "w");
    if (capture_ == nullptr) {
      *error = "cannot write " + o_.write_path + ": " + std::strerror(errno);
      if (fd >= 0) close(fd);
      return false;
    }
    return true;
  }

  // False for a line that is not one of the daemon's monitor lines.
  bool take(const std::string& raw) {
    Json::Value msg;
    std::string error;
    if (!lumokit::ipc::parse_json(raw, &msg, &error) || !msg.isObject()) return false;
    const Json::Value& op = msg["op"];
    if (op != "event" && op != "lost") return false;
    if (capture_ != nullptr) {
      std::fwrite(raw.data(), 1, raw.size(), capture_);
      std::fputc('\n', capture_);
      std::fflush(capture_);
    }
    if (op == "lost") {
      const uint64_t count = msg["count"].asUInt64();
      lost_ += count;
      print_line(o_.json ? raw : "-- " + std::to_string(count) + " events lost --");
      return true;
    }
    ++seen_;
    const EventFacts facts = facts_of(msg);
    if (!matches(o_.filter, msg, facts)) return true;
    ++shown_;
    print_line(o_.json ? raw : event_row(msg, facts, o_.full));
    return true;
  }

  void print_counts() const {
    std::fprintf(stderr, "%" PRIu64 " events seen, %" PRIu64 " shown, %" PRIu64 " lost\n", seen_,
                 shown_, lost_);
  }

 private:
  const MonitorOptions& o_;
  FILE* capture_ = nullptr;
  uint64_t seen_ = 0;
  uint64_t shown_ = 0;
  uint64_t lost_ = 0;
};

int failure(const std::string& message) {
  std::fprintf(stderr, "lumokit: %s\n", message.c_str());
  return kFailed;
}

int read_capture(const MonitorOptions& o) {
  std::ifstream in(o.read_path);
  if (!in) return failure("cannot read " + o.read_path + ": " + std::strerror(errno));
  Presenter show(o);
  std::string line;
  for (size_t number = 1; std::getline(in, line); ++number) {
    if (line.empty()) continue;
    if (!show.take(line)) {
      return failure(o.read_path + ":" + std::to_string(number) + ": not a monitor line");
    }
  }
  show.print_counts();
  return kOk;
}

// Waits for the daemon's greeting; false with `error` on anything else.
bool await_greeting(int fd, std::chrono::milliseconds timeout, std::string* error) {
  pollfd p{fd, POLLIN, 0};
  lumokit::ipc::RecvBuffer buffer;
  size_t length = 0;
  if (poll(&p, 1, static_cast<int>(timeout.count())) <= 0 ||
      lumokit::ipc::recv_message(fd, buffer, &length) != lumokit::ipc::RecvStatus::kMessage) {
    *error = "no answer from lumokitd";
    return false;
  }
  Json::Value reply;
  if (!lumokit::ipc::parse_json(buffer.data.get(), length, &reply, error)) return false;
  if (reply["op"] == "monitor") return true;
  *error = reply["op"] == "error" ? reply["message"].asString() : "unexpected answer from lumokitd";
  return false;
}

int watch_live(const Settings& settings, const MonitorOptions& o) {
  // Taken from a descriptor, so that an interrupt ends the loop in order.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  sigprocmask(SIG_BLOCK, &stop, nullptr);
  const int signal_fd = signalfd(-1, &stop, SFD_CLOEXEC);
  if (signal_fd < 0) return failure(std::string("cannot watch signals: ") + std::strerror(errno));

  Presenter show(o);
  std::string error;
  if (!o.write_path.empty() && !show.open_capture(&error)) return failure(error);
  const std::string path =
      lumokit::ipc::runtime_file(settings.runtime_dir, lumokit::ipc::kAdminSocketName);
  const int fd = lumokit::ipc::connect_seqpacket(path, &error);
  if (fd < 0) return failure(error + " (is lumokitd running?)");
  if (!lumokit::ipc::send_message(fd, lumokit::ipc::ObjectWriter().str("op", "monitor").done()) ||
      !await_greeting(fd, settings.timeout, &error)) {
    close(fd);
    return failure("cannot monitor: " + (error.empty() ? std::strerror(errno) : error));
  }
  std::fprintf(stderr, "monitoring %s; interrupt to stop\n", settings.runtime_dir.c_str());

  int rc = kOk;
  lumokit::ipc::RecvBuffer buffer;
  pollfd fds[2] = {{signal_fd, POLLIN, 0}, {fd, POLLIN, 0}};
  for (;;) {
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      rc = failure(std::string("poll failed: ") + std::strerror(errno));
      break;
    }
    if (fds[0].revents != 0) break;
    size_t length = 0;
    const lumokit::ipc::RecvStatus status = lumokit::ipc::recv_message(fd, buffer, &length);
    if (status == lumokit::ipc::RecvStatus::kMessage) {
      show.take(std::string(buffer.data.get(), length));
    } else if (status != lumokit::ipc::RecvStatus::kTooLarge) {
      rc = failure("lumokitd closed the connection");
      break;
    }
  }
  close(fd);
  close(signal_fd);
  show.print_counts();
  return rc;
}

}  // namespace

const char* monitor_usage() {
  return "  monitor [--plugin ID] [--session ID] [--opcode OPCODE] [--kind KIND] [--full]\n"
         "          [--json] [--write FILE | --read FILE]\n"
         "                               every message between the manager, its plugins\n"
         "                               and its clients, one line each, until interrupted\n";
}

int run_monitor_command(const Settings& settings, const std::vector<std::string>& words,
                        bool* handled) {
  *handled = !words.empty() && words[0] == "monitor";
  if (!*handled) return kUsage;
  MonitorOptions o;
  o.json = settings.json;
  std::string error;
  if (!parse_monitor_options(words, &o, &error)) return usage_error(error);
  return o.read_path.empty() ? watch_live(settings, o) : read_capture(o);
}

}  // namespace lumokit::cli
