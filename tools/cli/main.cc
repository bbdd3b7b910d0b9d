// lumokit: command-line client of lumokitd. Opens sessions and runs tasks
// on the client socket, and drives the admin socket.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "admin_commands.h"
#include "ipc/runtime_paths.h"
#include "monitor_command.h"
#include "session_commands.h"

namespace {

using namespace lumokit::cli;

void print_usage(FILE* out) {
  std::fprintf(out,
               "usage: lumokit [--runtime-dir DIR] [--json] [--timeout SECONDS] COMMAND ...\n"
               "  --runtime-dir DIR   where lumokitd's sockets are (default "
               "$XDG_RUNTIME_DIR/lumokit,\n"
               "                      else /tmp/lumokit-$UID)\n"
               "  --json              print the daemon's JSON messages, one per line\n"
               "  --timeout SECONDS   how long to wait for an answer (default 5)\n"
               "commands:\n%s%s%s",
               session_usage(), admin_usage(), monitor_usage());
}

int usage_error(const std::string& message) {
  std::fprintf(stderr, "lumokit: %s\n", message.c_str());
  print_usage(stderr);
  return 2;
}

int run(int argc, char** argv) {
  Settings settings;
  settings.runtime_dir = lumokit::ipc::default_runtime_dir();
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    const std::string opt = argv[i];
    if (opt == "--help" || opt == "-h") {
      print_usage(stdout);
      return 0;
    } else if (opt == "--json") {
      settings.json = true;
    } else if (opt == "--runtime-dir" || opt == "--timeout") {
      if (i + 1 >= argc || argv[i + 1][0] == '\0') return usage_error(opt + " needs a value");
      const std::string value = argv[++i];
      if (opt == "--runtime-dir") {
        settings.runtime_dir = value;
      } else {
        char* end = nullptr;
        double seconds = std::strtod(value.c_str(), &end);
        if (*end != '\0' || seconds <= 0 || seconds > 3600) {
          return usage_error("--timeout needs seconds between 0 and 3600, not \"" + value + "\"");
        }
        settings.timeout = std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
      }
    } else {
      return usage_error("unknown option " + opt);
    }
  }
  std::vector<std::string> words(argv + i, argv + argc);
  if (words.empty()) return usage_error("no command given");

  bool handled = false;
  int rc = run_session_command(settings, words, &handled);
  if (handled) return rc;
  rc = run_admin_command(settings, words, &handled);
  if (handled) return rc;
  rc = run_monitor_command(settings, words, &handled);
  if (handled) return rc;
  return usage_error("unknown command \"" + words[0] + "\"");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    // Malformed daemon messages make the JSON library throw; say so plainly.
    std::fprintf(stderr, "lumokit: unexpected message from the daemon: %s\n", e.what());
    return 1;
  }
}
