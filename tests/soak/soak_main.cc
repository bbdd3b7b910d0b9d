// lumokit-soak [--seconds N] [--bin-dir DIR] [--seed N] [--keep]: the chaos
// soak. Runs lumokitd with plugin processes and client sessions under load
// while plugins are SIGKILLed and restarted, clients drop their connections
// and the system service dies and comes back; then checks crash notices,
// answer routing, the state left behind and the daemon's memory, and prints
// one summary line. The work directory stays after a failure or with --keep.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <thread>

#include "e2e_process.h"
#include "e2e_rig.h"
#include "ipc/json_text.h"
#include "soak.h"
#include "token_key.h"
#include "token_sign.h"

namespace {

using namespace lumokit::soak;
using lumokit::ipc::write_json;

constexpr int kKillEveryMs = 2000;             // mean time between plugin kills
constexpr int kSysEveryMs = 7000;              // mean time between system-service restarts
constexpr uint32_t kMinReady = 3;              // never kill below this many ready plugins
constexpr int64_t kMinLifeNs = 300 * kMs;      // a plugin is not killed younger than this
constexpr int64_t kStartLimitNs = 20 * kSec;   // a plugin must be ready by then
constexpr int64_t kForgetLimitNs = 10 * kSec;  // a dead plugin must leave the dump by then
constexpr int64_t kRssBoundKib = 8 * 1024;
// Sanitizer allocators hold freed memory back (ASan's quarantine keeps up to
// 256 MiB) and shadow it, so the RSS says nothing about leaks there; TSan
// runs everything several times slower.
const std::string kSanitize = LUMOKIT_SOAK_SANITIZE;

// Checks named in the summary, in its order.
const char* const kChecks[] = {"daemon alive", "crash notices", "routing", "tasks",
                               "gate",         "no leftovers",  "memory",  "plugins",
                               "protocol",     "sanitizers"};

// Uid 10500 holds the permission that the catalogue asks for "gated"; 10501 not.
const char kPolicy[] =
    R"({"declared":true,"apis":[{"id":"gated:1:string","permissions":"lumokit.permission.SOAK",)"
    R"("subsystem":"1"}],"apps":[{"uid":10500,"package":"com.example.soak","granted":)"
    R"(["lumokit.permission.SOAK"]},{"uid":10501,"package":"com.example.soak.denied",)"
    R"("granted":[]}]})";

// A "Name:" line of /proc/PID/status, e.g. VmRSS in KiB; -1 when unreadable.
int64_t proc_status(pid_t pid, const std::string& name) {
  std::istringstream in(lumokit::e2e::read_file("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(name, 0) == 0) return std::stoll(line.substr(name.size()));
  }
  return -1;
}

int64_t open_fds(pid_t pid) {
  std::error_code ec;
  std::filesystem::directory_iterator it("/proc/" + std::to_string(pid) + "/fd", ec);
  return ec ? -1 : std::distance(it, std::filesystem::directory_iterator());
}

std::string exit_text(int status) {
  return WIFEXITED(status) ? "exit status " + std::to_string(WEXITSTATUS(status))
                           : "signal " + std::to_string(WTERMSIG(status));
}

void read_events(Incarnation* inc) {
  std::istringstream in(lumokit::e2e::read_file(inc->events_path));
  long long t = 0, value = 0;
  std::string kind;
  inc->starts.clear();
  while (in >> t >> kind >> value) {
    if (kind == "init") inc->service_id = static_cast<int32_t>(value);
    if (kind == "ready") inc->t_ready = t;
    if (kind == "start") inc->starts[static_cast<uint32_t>(value)].push_back(t);
    if (kind == "end") inc->ends.insert(static_cast<uint32_t>(value));
  }
}

// The system under test and the chaos done to it: lumokitd in a work
// directory of its own, its plugin processes (one slot per opcode, one
// incarnation at a time) and the emulated system service. Used by the main
// thread only.
class Rig {
 public:
  Rig(std::string bin_dir, uint64_t seed, Failures& failures)
      : bin_dir_(std::move(bin_dir)), failures_(failures), rng_(seed), slots_(kPlugins) {}

  // The work directory with the policy and a freshly signed token per slot:
  // 0, 77 (a skip for ctest) when the key cannot sign, 1 on other errors.
  int prepare(std::string* error) {
    char templ[] = "/tmp/lumokit-soak.XXXXXX";
    *error = "mkdtemp failed";
    if (mkdtemp(templ) == nullptr) return 1;
    root = templ;
    std::ofstream(root + "/policy.json") << kPolicy;
    mkdir((root + "/plugins").c_str(), 0700);
    mkdir((root + "/sanitizer").c_str(), 0700);
    auto key =
        lumokit::token::load_key(LUMOKIT_SOAK_SIGNING_KEY, lumokit::token::KeyUse::kSigning, error);
    for (uint32_t slot = 0; key && slot < kPlugins; ++slot) {
      lumokit::token::TokenContent content;
      content.op_json[kOpcodeBase + slot] =
          lumokit::token::sha1_hex(lumokit::token::compact_api_def(api_def(slot)));
      tokens_.emplace_back();
      if (!lumokit::token::sign_token(key.get(), content, &tokens_.back(), error)) return 1;
    }
    return key ? 0 : 77;
  }

  // Starts the daemon and every plugin; true when all are ready and listed.
  // (Starting a process throws only when fork fails: the soak ends there.)
  bool start() {
    daemon.start(bin_dir_ + "/lumokitd",
                 {"--runtime-dir", root + "/run", "--sys-policy", root + "/policy.json",
                  "--trust-client-ids"},
                 root + "/daemon.log");
    const int64_t deadline = mono_ns() + 30 * kSec;
    for (Json::Value reply; !(admin("status", &reply, true) && reply["ready"].asBool());) {
      if (!daemon_alive()) return false;
      if (mono_ns() > deadline) {
        failures_.add("daemon alive", "lumokitd did not come up within 30 s");
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return run(mono_ns() + 60 * kSec, false);
  }

  bool daemon_alive() {
    int status = 0;
    if (!daemon_dead_ && daemon.wait_exit(std::chrono::milliseconds(0), &status)) {
      daemon_dead_ = true;
      failures_.add("daemon alive", "lumokitd ended during the soak: " + exit_text(status));
    }
    return !daemon_dead_;
  }

  // SIGTERM must end the daemon with status 0.
  void stop_daemon() {
    int status = 0;
    if (!daemon_alive()) return;
    daemon_dead_ = true;
    daemon.signal(SIGTERM);
    if (!daemon.wait_exit(std::chrono::seconds(20), &status)) {
      failures_.add("daemon alive", "lumokitd did not stop within 20 s of SIGTERM");
    } else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      failures_.add("daemon alive", "lumokitd stopped with " + exit_text(status) + " on SIGTERM");
    }
  }

  // Admin status with its state dump; a failure of "daemon alive" when none.
  bool status(Json::Value* reply) {
    if (!admin("status", reply)) return false;
    const Json::Value& state = (*reply)["state"];
    if (state["plugins"].isArray() && state["sessions"].isArray()) return true;
    failures_.add("daemon alive", "admin status answered " + write_json(*reply).substr(0, 300));
    return false;
  }

  // With `chaos`: kills and restarts plugins and the system service until
  // `t_end`, probing and sampling the daemon's RSS. Without: brings back the
  // system service and every plugin, true once all are ready and listed.
  bool run(int64_t t_end, bool chaos) {
    int64_t kill_at = mono_ns() + jitter(kKillEveryMs), probe_at = 0;
    sys_toggle_at_ = chaos ? mono_ns() + jitter(kSysEveryMs) : 0;
    for (int64_t now = mono_ns(); now < t_end && daemon_alive(); now = mono_ns()) {
      Json::Value reply;
      if (chaos && now >= probe_at) {  // the daemon must keep answering under load
        probe_at = now + 250 * kMs;
        status(&reply);
        const int64_t kib = proc_status(daemon.pid(), "VmRSS:");
        if (kib >= 0) rss.emplace_back(now, kib);
      }
      for (Slot& slot : slots_) slot.restart_at = chaos ? slot.restart_at : now;
      poll_plugins();
      if ((chaos || sys_down_) && mono_ns() >= sys_toggle_at_) toggle_sys();
      std::set<int32_t> ids;
      auto up = [&](Slot& s) {
        return s.state == State::kReady && ids.count(s.history.back().service_id) != 0;
      };
      if (!chaos && !sys_down_ && listed(&ids) && std::all_of(slots_.begin(), slots_.end(), up)) {
        return true;
      }
      std::vector<uint32_t> ready, old_enough;
      for (uint32_t i = 0; i < kPlugins; ++i) {
        if (slots_[i].state != State::kReady) continue;
        ready.push_back(i);
        if (now - slots_[i].history.back().t_ready >= kMinLifeNs) old_enough.push_back(i);
      }
      if (chaos && now >= kill_at && ready.size() > kMinReady && !old_enough.empty()) {
        kill(old_enough[rng_() % old_enough.size()]);
        ++kills;
      }
      kill_at = now >= kill_at ? now + jitter(kKillEveryMs) : kill_at;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!chaos) failures_.add("plugins", "not every plugin was ready and listed in time");
    return chaos;
  }

  // SIGTERM to every plugin; each must leave with a clean DINT.
  void stop_plugins() {
    for (Slot& slot : slots_) slot.process.signal(SIGTERM);  // none runs in a slot that is down
    for (Slot& slot : slots_) {
      int status = 0;
      const bool up = slot.state != State::kDown;
      const bool ended = up && slot.process.wait_exit(std::chrono::seconds(15), &status);
      if (up && (!ended || !WIFEXITED(status) || WEXITSTATUS(status) != 0)) {
        failures_.add("plugins",
                      slot.history.back().name() + " left without a clean DINT: " +
                          (ended ? exit_text(status) : "still there 15 s after SIGTERM"));
      }
      slot.process.kill_now();
      slot.state = State::kDown;
    }
  }

  // Checks the state dump with the drained clients connected, or after they
  // left: once it holds, or as it is after 60 s (the daemon ends the sessions
  // of departed clients in the background). The dump stays in the work
  // directory.
  void check_dump(std::vector<ClientState>& clients, bool connected) {
    DumpExpectation expect;
    expect.label = connected ? "with clients" : "after the clients left";
    for (ClientState& c : clients) {
      std::lock_guard<std::mutex> lock(c.mtx);
      const auto& open = connected ? c.open_sessions : std::vector<SessionRecord>();
      expect.open_sessions.insert(expect.open_sessions.end(), open.begin(), open.end());
      expect.refused_creates += c.creates_refused;
      expect.clients += connected && c.connected ? 1 : 0;
    }
    Json::Value reply;
    for (const int64_t deadline = mono_ns() + 60 * kSec;;) {
      if (!status(&reply)) return;
      // The plugins log the session ends waited for: read them each time.
      expect.incarnations = incarnations();
      Failures scratch;
      check_state_dump(reply, expect, scratch);
      if (scratch.items.empty() || mono_ns() > deadline) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::ofstream(root + "/status-" + (connected ? "with" : "after") + "-clients.json")
        << write_json(reply) << "\n";
    check_state_dump(reply, expect, failures_);
  }

  // Every incarnation so far, with its events file read.
  Incarnations incarnations() const {
    Incarnations out;
    for (const Slot& slot : slots_) {
      out.push_back(slot.history);
      for (Incarnation& inc : out.back()) read_events(&inc);
    }
    return out;
  }

  std::string root;  // the work directory
  lumokit::e2e::ChildProcess daemon;
  uint32_t kills = 0, sys_restarts = 0;
  std::vector<Outage> outages;
  std::vector<std::pair<int64_t, int64_t>> rss;  // (mono_ns, KiB)

 private:
  enum class State { kDown, kStarting, kReady };
  struct Slot {
    State state = State::kDown;
    std::vector<Incarnation> history;
    lumokit::e2e::ChildProcess process;
    int64_t restart_at = 0;  // 0: none planned
  };

  int64_t jitter(int mean_ms) {  // uniform over [mean/2, 3*mean/2]
    return std::uniform_int_distribution<int64_t>(mean_ms / 2, mean_ms + mean_ms / 2)(rng_) * kMs;
  }

  // One admin request on a connection kept open between calls.
  bool admin(const char* op, Json::Value* reply, bool quiet = false) {
    Json::Value request(Json::objectValue);
    request["op"] = op;
    try {
      if (!admin_) admin_ = std::make_unique<lumokit::e2e::JsonClient>(root + "/run/admin");
      *reply = admin_->call(request, std::chrono::seconds(10));
      return true;
    } catch (const std::exception& e) {
      admin_.reset();  // a failed call does not poison the next
      if (!quiet) failures_.add("daemon alive", std::string("admin ") + op + ": " + e.what());
      return false;
    }
  }

  // The service ids the state dump lists.
  bool listed(std::set<int32_t>* ids) {
    Json::Value reply;
    if (!status(&reply)) return false;
    for (const Json::Value& p : reply["state"]["plugins"]) ids->insert(p["service_id"].asInt());
    return true;
  }

  void spawn(uint32_t index) {
    Slot& slot = slots_[index];
    Incarnation inc;
    inc.slot = index;
    inc.number = static_cast<uint32_t>(slot.history.size()) + 1;
    const std::string stem =
        root + "/plugins/slot" + std::to_string(index) + "." + std::to_string(inc.number);
    inc.events_path = stem + ".events";
    slot.process.start(bin_dir_ + "/lumokit-soak-plugin",
                       {root + "/run/lumo", std::to_string(index), tokens_[index], inc.events_path},
                       stem + ".log");
    inc.t_spawn = mono_ns();
    slot.history.push_back(std::move(inc));
    slot.state = State::kStarting;
    slot.restart_at = 0;
  }

  // Reaps plugins that ended by themselves, promotes started ones that are
  // ready, gives up on starts that take too long, and restarts what is due.
  void poll_plugins() {
    const int64_t now = mono_ns();
    for (uint32_t i = 0; i < kPlugins; ++i) {
      Slot& slot = slots_[i];
      if (slot.state == State::kDown) {
        if (slot.restart_at == 0) slot.restart_at = now + jitter(800);
        if (now >= slot.restart_at) spawn(i);
        continue;
      }
      Incarnation& inc = slot.history.back();
      int status = 0;
      if (slot.process.wait_exit(std::chrono::milliseconds(0), &status)) {
        failures_.add("plugins", inc.name() + " ended by itself: " + exit_text(status));
        kill(i);
      } else if (slot.state == State::kStarting) {
        read_events(&inc);
        slot.state = inc.t_ready != 0 ? State::kReady : State::kStarting;
        if (slot.state == State::kStarting && now - inc.t_spawn > kStartLimitNs) {
          failures_.add("plugins", inc.name() + " not ready after 20 s");
          kill(i);
        }
      }
    }
  }

  // SIGKILL (or the death already seen), then wait until the daemon forgets it.
  void kill(uint32_t index) {
    Slot& slot = slots_[index];
    Incarnation& inc = slot.history.back();
    inc.t_kill = mono_ns();
    slot.process.kill_now();
    slot.state = State::kDown;
    slot.restart_at = mono_ns() + jitter(800);
    read_events(&inc);
    inc.t_gone = inc.service_id < 0 ? inc.t_kill : 0;  // without a service id nothing to forget
    for (std::set<int32_t> ids; inc.t_gone == 0 && listed(&ids); ids.clear()) {
      if (ids.count(inc.service_id) == 0) inc.t_gone = mono_ns();
      if (inc.t_gone == 0 && mono_ns() - inc.t_kill > kForgetLimitNs) {
        return failures_.add("no leftovers", inc.name() + " still listed 10 s after its death");
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  void toggle_sys() {
    const char* op = sys_down_ ? "sys_start" : "sys_kill";
    Json::Value reply;
    if (!admin(op, &reply)) return;
    if (reply["op"] != op || reply["alive"] != sys_down_) {
      failures_.add("daemon alive", std::string(op) + " answered " + write_json(reply));
    }
    if (sys_down_) {
      outages.back().second = mono_ns();
      ++sys_restarts;
    } else {
      outages.emplace_back(mono_ns(), 0);
    }
    sys_down_ = !sys_down_;
    sys_toggle_at_ = mono_ns() + jitter(sys_down_ ? 1000 : kSysEveryMs);
  }

  const std::string bin_dir_;
  Failures& failures_;
  std::mt19937_64 rng_;
  std::vector<std::string> tokens_;  // per slot
  bool daemon_dead_ = false;
  std::unique_ptr<lumokit::e2e::JsonClient> admin_;
  std::vector<Slot> slots_;
  int64_t sys_toggle_at_ = 0;
  bool sys_down_ = false;
};

// Mean RSS over the last third of [from, to] minus that over the first.
bool rss_growth(const std::vector<std::pair<int64_t, int64_t>>& samples, int64_t from, int64_t to,
                int64_t* growth_kib) {
  const int64_t third = (to - from) / 3;
  int64_t sums[2] = {0, 0}, counts[2] = {0, 0};
  for (const auto& [t, kib] : samples) {
    if (t > from + third && t < to - third) continue;  // the middle third
    sums[t > from + third] += kib;
    ++counts[t > from + third];
  }
  if (counts[0] < 3 || counts[1] < 3) return false;
  *growth_kib = sums[1] / counts[1] - sums[0] / counts[0];
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  int seconds = 60;
  std::string bin_dir = LUMOKIT_BIN_DIR;
  uint64_t seed = static_cast<uint64_t>(mono_ns());
  bool keep = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : "";
    if (arg == "--keep") {
      keep = true;
    } else if (arg == "--bin-dir" && *value != '\0') {
      bin_dir = argv[++i];
    } else if (arg == "--seconds" && (seconds = std::atoi(value)) >= 5) {
      ++i;
    } else if (arg == "--seed" && (seed = std::strtoull(value, nullptr, 10)) != 0) {
      ++i;
    } else {
      std::cerr << "usage: lumokit-soak [--seconds N>=5] [--bin-dir DIR] [--seed N>0] [--keep]\n";
      return 2;
    }
  }
  signal(SIGPIPE, SIG_IGN);
  Failures failures;
  Rig rig(bin_dir, seed, failures);
  std::string error;
  if (const int rc = rig.prepare(&error); rc != 0) {
    std::cerr << "soak: cannot prepare the work directory: " << error << "\n";
    if (!rig.root.empty()) std::filesystem::remove_all(rig.root);
    return rc;
  }
  // The children's sanitizer logs go into the work directory, after options
  // already set. glibc gives busy threads arenas of their own, up to eight
  // per core, and an arena keeps its high-water mark: with the daemon's many
  // short-lived connection threads that alone adds tens of MiB over the
  // first minutes and then stops. Two arenas keep the RSS a measure of what
  // the daemon holds; an explicit setting wins.
  setenv("MALLOC_ARENA_MAX", "2", 0);
  for (const std::string tool : {"ASAN", "UBSAN", "TSAN"}) {
    const char* old = std::getenv((tool + "_OPTIONS").c_str());
    const std::string value = (old != nullptr && *old != '\0' ? std::string(old) + ":" : "") +
                              "log_path=" + rig.root + "/sanitizer/" + tool;
    setenv((tool + "_OPTIONS").c_str(), value.c_str(), 1);
  }
  std::cout << "soak: work directory " << rig.root << ", seed " << seed << std::endl;

  std::atomic<int> phase{static_cast<int>(Phase::kRun)};
  std::vector<ClientState> clients(kClients);
  std::vector<std::thread> threads;
  int64_t growth_kib = 0;
  const bool up = rig.start();
  if (up) {
    // Threads and descriptors with every plugin up and no client: the
    // daemon must come back to these once the clients have left.
    const int64_t base_threads = proc_status(rig.daemon.pid(), "Threads:");
    const int64_t base_fds = open_fds(rig.daemon.pid());
    for (uint32_t i = 0; i < kClients; ++i) {
      clients[i].socket = rig.root + "/run/client";
      clients[i].interval_ms = kSanitize.find("thread") != std::string::npos ? 400 : 100;
      clients[i].seed = seed * 7919 + i + 1;
      threads.emplace_back(run_client, i, std::cref(phase), std::ref(clients[i]),
                           std::ref(failures));
    }
    const int64_t t_start = mono_ns();
    rig.run(t_start + seconds * kSec, true);
    if (!rss_growth(rig.rss, t_start, mono_ns(), &growth_kib)) {
      failures.add("memory", "too few RSS samples of the daemon");
    } else if (kSanitize.empty() && growth_kib > kRssBoundKib) {
      failures.add("memory", "the daemon's RSS grew by " + std::to_string(growth_kib) + " KiB");
    }

    // Quiet down: every plugin back, tasks settled, then look at the state
    // with the clients connected and silent.
    if (rig.daemon_alive() && rig.run(mono_ns() + 60 * kSec, false)) {
      phase = static_cast<int>(Phase::kDrain);
      auto drained = [&] {
        return std::all_of(clients.begin(), clients.end(),
                           [](ClientState& c) { return c.drained.load(); });
      };
      for (int64_t deadline = mono_ns() + kTaskTimeoutNs + 30 * kSec;
           !drained() && mono_ns() < deadline && rig.daemon_alive();) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
      if (drained()) {
        rig.check_dump(clients, true);
      } else {
        failures.add("daemon alive", "clients could not settle their tasks in time");
      }
    }
    phase = static_cast<int>(Phase::kClose);
    for (std::thread& t : threads) t.join();

    if (rig.daemon_alive()) {
      rig.check_dump(clients, false);
      // A few threads and descriptors come and go with admin connections
      // and system-service notices; anything beyond stays behind.
      int64_t threads_now = -1, fds_now = -1;
      auto back = [&] { return threads_now <= base_threads + 3 && fds_now <= base_fds + 3; };
      for (const int64_t deadline = mono_ns() + 10 * kSec; !back() && mono_ns() < deadline;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        threads_now = proc_status(rig.daemon.pid(), "Threads:");
        fds_now = open_fds(rig.daemon.pid());
      }
      if (!back()) {
        failures.add("no leftovers",
                     "threads and descriptors of the daemon went from " +
                         std::to_string(base_threads) + " and " + std::to_string(base_fds) +
                         " to " + std::to_string(threads_now) + " and " + std::to_string(fds_now));
      }
    }
  }
  rig.stop_plugins();
  rig.stop_daemon();

  // Verdicts from the records.
  uint64_t tasks = 0, answered = 0, gated = 0, disconnects = 0, notices = 0, required = 0;
  for (ClientState& c : clients) {
    tasks += c.tasks_sent;
    answered += c.answered;
    gated += c.gated_answered;
    disconnects += c.disconnects;
    for (const SessionRecord& s : c.records) notices += s.notices.size();
  }
  if (up) {
    const Incarnations incarnations = rig.incarnations();
    required = check_crash_notices(incarnations, clients, failures);
    check_task_misses(incarnations, clients, rig.outages, failures);
    if (answered == 0 || rig.kills == 0) failures.add("tasks", "no task answered or no kill");
    if (gated == 0) failures.add("gate", "no gated task was ever answered");
    if (rig.kills != 0 && notices == 0) failures.add("crash notices", "none after the kills");
  }
  std::error_code ec;  // the children's sanitizer reports
  for (const auto& entry : std::filesystem::directory_iterator(rig.root + "/sanitizer", ec)) {
    const std::string text = lumokit::e2e::read_file(entry.path());
    if (!text.empty())
      failures.add("sanitizers", entry.path().string() + ": " + text.substr(0, 400));
  }

  // Up to 8 failures per check on stderr, all in failures.txt.
  std::ofstream all(rig.root + "/failures.txt");
  std::string verdicts;
  bool pass = true;
  for (const std::string check : kChecks) {
    const std::vector<std::string>& details = failures.items[check];
    for (size_t i = 0; i < details.size(); ++i) {
      all << "[" << check << "] " << details[i] << "\n";
      if (i < 8) std::cerr << "soak: FAIL [" << check << "] " << details[i] << "\n";
    }
    pass = pass && details.empty();
    std::string verdict = details.empty() ? " OK" : " FAIL";
    const std::string delta = (growth_kib >= 0 ? "+" : "") + std::to_string(growth_kib) + " KiB";
    if (check == "crash notices") {
      verdict +=
          " (" + std::to_string(notices) + " received, " + std::to_string(required) + " required)";
    } else if (check == "memory" && !kSanitize.empty() && details.empty()) {
      verdict = " SKIPPED (" + delta + ", sanitizer allocator)";
    } else if (check == "memory") {
      verdict += " (" + delta + ", bound " + std::to_string(kRssBoundKib) + " KiB)";
    }
    verdicts += (verdicts.empty() ? "" : ", ") + check + verdict;
  }
  std::cout << "soak: " << seconds << "s, " << kPlugins << " plugins, " << kSessions
            << " sessions, " << tasks << " tasks, " << rig.kills << " plugin kills, " << disconnects
            << " disconnects, " << rig.sys_restarts << " sys restarts: " << verdicts << " -> "
            << (pass ? "PASS" : "FAIL") << std::endl;
  if (pass && !keep) std::filesystem::remove_all(rig.root);
  if (!pass || keep) std::cout << "soak: kept " << rig.root << std::endl;
  return pass ? 0 : 1;
}
