// lumokit-soak-plugin SOCKET SLOT TOKEN EVENTS: one plugin of the chaos soak,
// serving slot SLOT with the signed TOKEN. Every answer echoes the task's
// session, transaction and argument and names the slot, so a misrouted answer
// shows. EVENTS gets one line per INIT, REDY, session start and session end
// with its time, so the soak knows which sessions this process started. On
// SIGTERM it leaves with DINT and exits 0 only when the manager knew it.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <stdexcept>

#include "lumokit/plugin.h"
#include "soak.h"

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: lumokit-soak-plugin SOCKET SLOT TOKEN EVENTS\n";
    return 2;
  }
  const uint32_t slot = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10));
  const uint32_t opcode = lumokit::soak::kOpcodeBase + slot;
  // One write per line with O_APPEND: a SIGKILL never leaves half a line.
  const int events = open(argv[4], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  auto note = [events](const char* kind, long long value) {
    char line[96];
    const int n = std::snprintf(line, sizeof(line), "%lld %s %lld\n",
                                static_cast<long long>(lumokit::soak::mono_ns()), kind, value);
    if (write(events, line, static_cast<size_t>(n)) != n) std::perror("events file");
  };
  // Blocked before the SDK's threads exist, so that they inherit the mask.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  lumokit::PluginHooks hooks;
  hooks.on_session_start = [&](const lumokit::SessionStart& start, auto*) {
    note("start", start.session_id);
    return true;
  };
  hooks.on_session_end = [&](uint32_t session_id) { note("end", session_id); };
  hooks.on_task = [&](const lumokit::TaskRequest& task) {
    if (task.opcode != opcode || task.subsystem != lumokit::soak::kSubsystem ||
        (task.function != "echo" && task.function != "gated") || task.args.size() != 1) {
      throw std::runtime_error("unexpected task " + task.opcode_text + " " + task.function);
    }
    Json::Value result(Json::objectValue);
    result["status"] = 0;
    result["name"] = task.function;
    result["slot"] = slot;
    result["echo_session"] = task.message["session_id"];
    result["echo_transac"] = task.message["transac_id"];
    result["nonce"] = task.args[0]["value"];
    return result;
  };
  lumokit::PluginOptions options;
  options.log = [](const std::string& line) { std::cout << line << std::endl; };
  lumokit::Plugin plugin(hooks, options);
  try {
    plugin.connect(argv[1]);
    note("init", plugin.init());
    plugin.register_auth(opcode, lumokit::soak::api_def(slot), argv[3]);
    plugin.ready(opcode);
    note("ready", plugin.service_id());
    // A connection the manager drops before this shows as a failed DINT.
    int sig = 0;
    sigwait(&stop_signals, &sig);
    const bool known = plugin.deinit();
    plugin.stop();
    return known ? 0 : 4;
  } catch (const lumokit::PluginError& e) {
    std::cerr << "soak-plugin: " << e.what() << "\n";
    return 1;
  }
}
