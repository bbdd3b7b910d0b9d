#include "options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "ipc/runtime_paths.h"

namespace lumokitd {

namespace {

constexpr unsigned long long kMinMonitorBytes = kMinMonitorBuffer;
constexpr unsigned long long kMaxMonitorBytes = 1u << 30;

// Splits "--name=value" into its parts; "--name" alone leaves value unset.
void split_option(const char* arg, std::string* name, std::string* value, bool* has_value) {
  const char* eq = std::strchr(arg, '=');
  if (eq == nullptr) {
    *name = arg;
    *has_value = false;
  } else {
    name->assign(arg, static_cast<size_t>(eq - arg));
    *value = eq + 1;
    *has_value = true;
  }
}

// The --log-level names, lowest first.
bool log_priority_of(const std::string& name, int* prio) {
  static const struct {
    const char* name;
    int prio;
  } kLevels[] = {{"verbose", ANDROID_LOG_VERBOSE}, {"debug", ANDROID_LOG_DEBUG},
                 {"info", ANDROID_LOG_INFO},       {"warn", ANDROID_LOG_WARN},
                 {"error", ANDROID_LOG_ERROR}};
  for (const auto& level : kLevels) {
    if (name == level.name) {
      *prio = level.prio;
      return true;
    }
  }
  return false;
}

}  // namespace

bool parse_options(int argc, char** argv, Options* out, std::string* error) {
  Options opts;
  for (int i = 1; i < argc; ++i) {
    std::string name, value;
    bool has_value = false;
    split_option(argv[i], &name, &value, &has_value);

    auto take_value = [&](const char* what) -> bool {
      if (has_value) return true;
      if (i + 1 >= argc) {
        *error = "option " + name + " needs " + what;
        return false;
      }
      value = argv[++i];
      return true;
    };
    auto no_value = [&]() -> bool {
      if (!has_value) return true;
      *error = "option " + name + " takes no value";
      return false;
    };

    if (name == "--help" || name == "-h") {
      if (!no_value()) return false;
      opts.help = true;
    } else if (name == "--runtime-dir") {
      if (!take_value("a directory")) return false;
      if (value.empty()) {
        *error = "option --runtime-dir needs a non-empty directory";
        return false;
      }
      opts.runtime_dir = value;
    } else if (name == "--sys-policy") {
      if (!take_value("a policy file")) return false;
      if (value.empty()) {
        *error = "option --sys-policy needs a non-empty file name";
        return false;
      }
      opts.sys_policy = value;
    } else if (name == "--boot-completed") {
      if (!take_value("0 or 1")) return false;
      if (value != "0" && value != "1") {
        *error = "option --boot-completed takes 0 or 1, not \"" + value + "\"";
        return false;
      }
      opts.boot_completed = value == "1";
    } else if (name == "--trust-client-ids") {
      if (!no_value()) return false;
      opts.trust_client_ids = true;
    } else if (name == "--log-file") {
      if (!take_value("a file name")) return false;
      if (value.empty()) {
        *error = "option --log-file needs a non-empty file name";
        return false;
      }
      opts.log_file = value;
    } else if (name == "--log-level") {
      if (!take_value("a level")) return false;
      if (!log_priority_of(value, &opts.log_priority)) {
        *error = "option --log-level takes verbose, debug, info, warn or error, not \"" + value +
                 "\"";
        return false;
      }
    } else if (name == "--monitor-buffer") {
      if (!take_value("a size in bytes")) return false;
      char* end = nullptr;
      errno = 0;
      const unsigned long long bytes = std::strtoull(value.c_str(), &end, 10);
      if (value.empty() || value[0] == '-' || *end != '\0' || errno != 0 ||
          bytes < kMinMonitorBytes || bytes > kMaxMonitorBytes) {
        *error = "option --monitor-buffer takes bytes from " + std::to_string(kMinMonitorBytes) +
                 " to " + std::to_string(kMaxMonitorBytes) + ", not \"" + value + "\"";
        return false;
      }
      opts.monitor_buffer = static_cast<size_t>(bytes);
    } else {
      *error = "unknown argument \"" + std::string(argv[i]) + "\"";
      return false;
    }
  }
  if (opts.runtime_dir.empty()) opts.runtime_dir = lumokit::ipc::default_runtime_dir();
  *out = opts;
  return true;
}

const char* usage_text() {
  return "usage: lumokitd [options]\n"
         "  --runtime-dir DIR      sockets and lock file (default $XDG_RUNTIME_DIR/lumokit,\n"
         "                         else /tmp/lumokit-$UID); created with mode 0700\n"
         "  --sys-policy FILE      policy of the emulated system service; without it the\n"
         "                         service is not declared\n"
         "  --boot-completed 0|1   initial sys.boot_completed (default 1)\n"
         "  --trust-client-ids     let clients state their pid and uid in create_session\n"
         "  --log-file FILE        append the log to FILE instead of stderr\n"
         "  --log-level LEVEL      lowest priority written: verbose, debug, info, warn or\n"
         "                         error (default info)\n"
         "  --monitor-buffer BYTES events kept for monitors that read slowly (default\n"
         "                         16777216, at least 65536); a monitor that falls\n"
         "                         further behind loses events and is told how many\n"
         "  --help                 show this text\n"
         "Sockets handed over by a supervisor (systemd socket activation: LISTEN_PID,\n"
         "LISTEN_FDS, LISTEN_FDNAMES) are used instead of making them in the runtime\n"
         "directory; each is named lumo, client or admin, or has that file name.\n";
}

}  // namespace lumokitd
