#include "options.h"

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "lumokit/plugin_wire.h"

#ifndef LUMOKIT_EXAMPLE_API_DIR
#define LUMOKIT_EXAMPLE_API_DIR "api"
#endif
#ifndef LUMOKIT_EXAMPLE_INSTALLED_API_DIR
#define LUMOKIT_EXAMPLE_INSTALLED_API_DIR "../share/lumokit/examples/api"
#endif

namespace example {
bool token_key_matches(const std::string& key, uint32_t opcode, const std::string& name) {
  if (key == name) return true;
  uint32_t value = 0;
  if (key.size() > 2 && key[0] == '0' && (key[1] == 'x' || key[1] == 'X')) {
    return lumokit::wire::parse_hex_u32(key, &value) && value == opcode;
  }
  return !key.empty() && key.find_first_not_of("0123456789") == std::string::npos &&
         key.size() <= 10 && std::strtoull(key.c_str(), nullptr, 10) == opcode;
}

std::string default_socket_path() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && *runtime != '\0') return std::string(runtime) + "/lumokit/lumo";
  return "/tmp/lumokit-" + std::to_string(getuid()) + "/lumo";
}

// The definitions installed beside the program (relative to its folder),
// else the ones in the source tree it was built from.
std::string default_api_dir() {
  char exe[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
  if (n > 0) {
    std::string dir(exe, static_cast<size_t>(n));
    dir = dir.substr(0, dir.rfind('/') + 1) + LUMOKIT_EXAMPLE_INSTALLED_API_DIR;
    struct stat st;
    if (stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return dir;
  }
  return LUMOKIT_EXAMPLE_API_DIR;
}

const char* usage() {
  return "Usage: lumokit-example-plugin [--socket PATH] [--api-dir DIR]\n"
         "                              (--token-dir DIR | --token KEY=FILE ... | --legacy)\n"
         "\n"
         "Serves opcode 0x1001 \"calculator\" (subsystem 1: add, multiply) and opcode\n"
         "0x2002 \"location\" (subsystem 3: getLocation) to the lumokit service manager.\n"
         "\n"
         "  --socket PATH     the manager's plugin socket (default\n"
         "                    $XDG_RUNTIME_DIR/lumokit/lumo, else /tmp/lumokit-$UID/lumo)\n"
         "  --api-dir DIR     where calculator.json and location.json are (default\n"
         "                    ../share/lumokit/examples/api beside the program when\n"
         "                    installed, else the source tree's examples/api)\n"
         "  --token-dir DIR   registers with DIR/calculator.token and DIR/location.token\n"
         "  --token KEY=FILE  the token for one service; KEY is its name, or its opcode\n"
         "                    as 0x1001 or 4097; overrides --token-dir\n"
         "  --legacy          registers without tokens (\"REGS\")\n"
         "\n"
         "Tokens come from: lumokit-token sign --key PEM --opcode 0x1001 --api-def FILE\n"
         "Logs one line per event on stdout. SIGINT or SIGTERM leaves the manager (\"DINT\").\n";
}

bool parse_options(int argc, char** argv, Options* out, std::string* error) {
  Options options;
  options.socket_path = default_socket_path();
  options.api_dir = default_api_dir();
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      options.help = true;
      continue;
    }
    if (arg == "--legacy") {
      options.legacy = true;
      continue;
    }
    if (arg != "--socket" && arg != "--api-dir" && arg != "--token-dir" && arg != "--token") {
      *error = "unknown option " + arg;
      return false;
    }
    if (i + 1 >= argc || argv[i + 1][0] == '\0') {
      *error = arg + " needs a value";
      return false;
    }
    const std::string value = argv[++i];
    if (arg == "--socket") {
      options.socket_path = value;
    } else if (arg == "--api-dir") {
      options.api_dir = value;
    } else if (arg == "--token-dir") {
      options.token_dir = value;
    } else {
      const size_t eq = value.find('=');
      if (eq == std::string::npos || eq == 0 || eq + 1 == value.size()) {
        *error = "--token wants KEY=FILE, got " + value;
        return false;
      }
      options.tokens.emplace_back(value.substr(0, eq), value.substr(eq + 1));
    }
  }
  if (options.legacy && (!options.token_dir.empty() || !options.tokens.empty())) {
    *error = "--legacy registers without tokens; drop --token-dir and --token";
    return false;
  }
  *out = std::move(options);
  return true;
}

std::string token_file(const Options& options, uint32_t opcode, const std::string& name) {
  for (const auto& [key, file] : options.tokens) {
    if (token_key_matches(key, opcode, name)) return file;
  }
  if (!options.token_dir.empty()) return options.token_dir + "/" + name + ".token";
  return "";
}

}  // namespace example
