#include "soak_options.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <cstdlib>

namespace lumokit::soak {

namespace {

const char kUsage[] =
    "usage: lumokit-soak [options]\n"
    "  --seconds N           chaos phase length (default 60)\n"
    "  --plugins N           plugin processes, 1..64 (default 8)\n"
    "  --sessions N          client sessions (default 100)\n"
    "  --clients N           client connections sharing them (default 10)\n"
    "  --task-interval-ms N  per session, between tasks (default 100)\n"
    "  --window N            outstanding tasks per session (default 2)\n"
    "  --kill-every-ms N     mean time between plugin kills (default 2000)\n"
    "  --sys-every-ms N      mean time between system-service restarts (default 7000)\n"
    "  --client-life-ms N    mean life of a client connection (default 12000)\n"
    "  --denied-every N      every Nth client lacks the gated permission, 0 none (default 5)\n"
    "  --rss-bound-mib N     allowed growth of the daemon's RSS (default 8)\n"
    "  --seed N              random seed (default: from the clock)\n"
    "  --bin-dir DIR         where lumokitd and lumokit-soak-plugin are\n"
    "  --signing-key PEM     key that signs the plugins' tokens\n"
    "  --work-dir DIR        parent of the temporary work directory (default /tmp)\n"
    "  --daemon-prefix CMD   run lumokitd under CMD (words split at blanks), e.g. heaptrack\n"
    "  --keep                keep the work directory after a passing run\n";

bool read_number(const std::string& text, long long low, long long high, long long* out) {
  char* end = nullptr;
  errno = 0;
  long long v = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || text.empty() || *end != '\0' || v < low || v > high) return false;
  *out = v;
  return true;
}

}  // namespace

bool parse_options(int argc, char** argv, Options* options, std::string* error, bool* help) {
  *help = false;
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--help" || name == "-h") {
      *help = true;
      *error = kUsage;
      return false;
    }
    if (name == "--keep") {
      options->keep = true;
      continue;
    }
    static const char* const kValued[] = {
        "--seconds",        "--plugins",       "--sessions",      "--clients",
        "--task-interval-ms", "--window",      "--kill-every-ms", "--sys-every-ms",
        "--client-life-ms", "--denied-every",  "--rss-bound-mib", "--seed",
        "--bin-dir",        "--signing-key",   "--work-dir",      "--daemon-prefix"};
    if (std::find(std::begin(kValued), std::end(kValued), name) == std::end(kValued)) {
      *error = "unknown option " + name + "\n" + kUsage;
      return false;
    }
    if (i + 1 >= argc) {
      *error = name + " needs a value\n" + kUsage;
      return false;
    }
    const std::string value = argv[++i];
    long long n = 0;
    auto number = [&](long long low, long long high) {
      if (read_number(value, low, high, &n)) return true;
      *error = name + " wants a number from " + std::to_string(low) + " to " +
               std::to_string(high) + ", not \"" + value + "\"";
      return false;
    };
    if (name == "--seconds") {
      if (!number(5, 86400)) return false;
      options->seconds = static_cast<int>(n);
    } else if (name == "--plugins") {
      if (!number(1, 64)) return false;
      options->plugins = static_cast<uint32_t>(n);
    } else if (name == "--sessions") {
      if (!number(1, 10000)) return false;
      options->sessions = static_cast<uint32_t>(n);
    } else if (name == "--clients") {
      if (!number(1, 256)) return false;
      options->clients = static_cast<uint32_t>(n);
    } else if (name == "--task-interval-ms") {
      if (!number(1, 60000)) return false;
      options->task_interval_ms = static_cast<int>(n);
    } else if (name == "--window") {
      if (!number(1, 64)) return false;
      options->window = static_cast<uint32_t>(n);
    } else if (name == "--kill-every-ms") {
      if (!number(100, 3600000)) return false;
      options->kill_every_ms = static_cast<int>(n);
    } else if (name == "--sys-every-ms") {
      if (!number(100, 3600000)) return false;
      options->sys_every_ms = static_cast<int>(n);
    } else if (name == "--client-life-ms") {
      if (!number(100, 3600000)) return false;
      options->client_life_ms = static_cast<int>(n);
    } else if (name == "--denied-every") {
      if (!number(0, 1000)) return false;
      options->denied_every = static_cast<uint32_t>(n);
    } else if (name == "--rss-bound-mib") {
      if (!number(1, 65536)) return false;
      options->rss_bound_kib = n * 1024;
    } else if (name == "--seed") {
      if (!number(0, 0x7FFFFFFFFFFFFFFFLL)) return false;
      options->seed = static_cast<uint64_t>(n);
    } else if (name == "--bin-dir") {
      options->bin_dir = value;
    } else if (name == "--signing-key") {
      options->signing_key = value;
    } else if (name == "--daemon-prefix") {
      options->daemon_prefix = value;
    } else if (name == "--work-dir") {
      options->work_parent = value;
    } else {
      *error = "unknown option " + name + "\n" + kUsage;
      return false;
    }
  }
  if (options->clients > options->sessions) {
    *error = "--clients must not exceed --sessions";
    return false;
  }
  return true;
}

}  // namespace lumokit::soak
