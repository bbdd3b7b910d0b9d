// lumokit-soak-plugin: one plugin of the chaos soak. Slot N serves opcode
// 0x3000+N, subsystem 1, with "echo" and "gated" (each one string argument).
// Every answer echoes the task's session, transaction and argument and names
// the slot, incarnation and service id, so a misrouted answer shows. The
// events file gets one line per session start or end, with CLOCK_MONOTONIC
// times, so the soak knows which sessions each incarnation really started.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "lumokit/api_def.h"
#include "lumokit/plugin.h"
#include "soak_clock.h"

namespace {

struct Args {
  std::string socket, api_def, token, events;
  uint32_t slot = 0;
  uint32_t incarnation = 0;
};

bool read_uint(const char* text, uint32_t* out) {
  char* end = nullptr;
  errno = 0;
  unsigned long v = std::strtoul(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || v > 0xFFFFu) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

bool parse_args(int argc, char** argv, Args* args) {
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    const char* value = argv[i + 1];
    if (name == "--socket") {
      args->socket = value;
    } else if (name == "--api-def") {
      args->api_def = value;
    } else if (name == "--token") {
      args->token = value;
    } else if (name == "--events") {
      args->events = value;
    } else if (name == "--slot") {
      if (!read_uint(value, &args->slot)) return false;
    } else if (name == "--incarnation") {
      if (!read_uint(value, &args->incarnation)) return false;
    } else {
      return false;
    }
  }
  return argc % 2 == 1 && !args->socket.empty() && !args->api_def.empty() &&
         !args->token.empty() && !args->events.empty();
}

// One write per line on an O_APPEND descriptor: a SIGKILL never leaves half
// a line, and lines of different threads never interleave.
class EventFile {
 public:
  explicit EventFile(const std::string& path)
      : fd_(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {}
  ~EventFile() {
    if (fd_ >= 0) close(fd_);
  }
  bool ok() const { return fd_ >= 0; }
  void write_line(const char* kind, long long value) {
    char line[96];
    int n = std::snprintf(line, sizeof(line), "%lld %s %lld\n",
                          static_cast<long long>(lumokit::soak::mono_ns()), kind, value);
    if (n > 0 && ::write(fd_, line, static_cast<size_t>(n)) != n) {
      std::cerr << "soak-plugin: cannot write the events file\n";
    }
  }

 private:
  int fd_;
};

}  // namespace

int main(int argc, char** argv) {
  Args args;
  if (!parse_args(argc, argv, &args)) {
    std::cerr << "usage: lumokit-soak-plugin --socket PATH --slot N --incarnation K "
                 "--api-def FILE --token FILE --events FILE\n";
    return 2;
  }
  EventFile events(args.events);
  if (!events.ok()) {
    std::cerr << "soak-plugin: cannot open " << args.events << ": " << std::strerror(errno) << "\n";
    return 2;
  }
  // Signals are taken by sigtimedwait below; block them before the SDK's
  // threads exist so that those inherit the mask.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  const uint32_t opcode = 0x3000 + args.slot;
  Json::Value api_def;
  std::string token;
  try {
    api_def = lumokit::load_api_def(args.api_def);
    token = lumokit::load_token(args.token);
  } catch (const lumokit::PluginError& e) {
    std::cerr << "soak-plugin: " << e.what() << "\n";
    return 2;
  }

  lumokit::Plugin* self = nullptr;
  lumokit::PluginHooks hooks;
  hooks.on_session_start = [&events](const lumokit::SessionStart& start,
                                     std::vector<lumokit::OpcodeSubsystem>*) {
    events.write_line("start", start.session_id);
    return true;
  };
  hooks.on_session_end = [&events](uint32_t session_id) { events.write_line("end", session_id); };
  hooks.on_task = [&args, &self, opcode](const lumokit::TaskRequest& task) {
    if (task.function != "echo" && task.function != "gated") {
      throw std::runtime_error("no function " + task.function);
    }
    if (task.opcode != opcode || task.subsystem != 1) {
      throw std::runtime_error("task for another pair: " + task.opcode_text);
    }
    Json::Value result(Json::objectValue);
    result["status"] = 0;
    result["name"] = task.function;
    result["slot"] = args.slot;
    result["incarnation"] = args.incarnation;
    result["service_id"] = self->service_id();
    result["echo_session"] = task.message["session_id"];
    result["echo_transac"] = task.message["transac_id"];
    result["nonce"] = task.args.size() == 1 ? task.args[0]["value"] : Json::Value();
    return result;
  };
  lumokit::PluginOptions options;
  options.log = [](const std::string& line) { std::cout << line << std::endl; };

  lumokit::Plugin plugin(hooks, options);
  self = &plugin;
  try {
    plugin.connect(args.socket);
    events.write_line("init", plugin.init());
    plugin.register_auth(opcode, api_def, token);
    plugin.ready(opcode);
    events.write_line("ready", plugin.service_id());
  } catch (const lumokit::PluginError& e) {
    std::cerr << "soak-plugin: " << e.what() << "\n";
    return 1;
  }

  // Serve until told to stop; a connection the manager closes is a failure.
  const timespec tick{0, 200 * 1000 * 1000};
  for (;;) {
    int sig = sigtimedwait(&stop_signals, nullptr, &tick);
    if (sig == SIGTERM || sig == SIGINT) break;
    if (!plugin.connected()) {
      std::cerr << "soak-plugin: the manager closed the connection\n";
      plugin.stop();
      return 3;
    }
  }
  bool known = false;
  try {
    known = plugin.deinit();
  } catch (const lumokit::PluginError& e) {
    std::cerr << "soak-plugin: DINT failed: " << e.what() << "\n";
  }
  plugin.stop();
  return known ? 0 : 4;
}
