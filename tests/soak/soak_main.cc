// lumokit-soak [--seconds N] [--seed N] [--keep] [--no-rss]: the chaos soak.
// lumokitd serves plugins that are SIGKILLed and restarted and clients that
// come and go, while its system service dies and comes back; then the crash
// notices, the state left behind, the daemon's threads, descriptors and
// memory, its stop and the sanitizer logs are checked. One summary line.
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <thread>

#include "e2e_rig.h"
#include "ipc/json_text.h"
#include "soak.h"

namespace {

using namespace lumokit::soak;
namespace e2e = lumokit::e2e;
using lumokit::e2e::eventually;
using lumokit::ipc::write_json;

constexpr int64_t kRssBoundKib = 8 * 1024;
const char* const kChecks[] = {"daemon alive", "routing", "crash notices",
                               "no leftovers", "memory",  "sanitizers"};

// One run of a plugin process in a slot: its service id once ready; gone:
// when that left the state dump after the kill.
struct Life {
  Time spawn{}, kill{}, gone{};
  int32_t service_id = -1;
};

int64_t proc_value(pid_t pid, const std::string& name) {  // "Threads:", "VmRSS:" (KiB)
  std::istringstream in(e2e::read_file("/proc/" + std::to_string(pid) + "/status"));
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

// The plugins and the system service, driven by the main thread. Admin
// calls throw when the daemon does not answer.
class Chaos {
 public:
  Chaos(e2e::Rig& rig, Soak& soak) : rig_(rig), soak_(soak), rng_(soak.seed) {}

  void start() {
    for (int s = 0; s < kSlots; ++s) {
      std::ofstream(path(s, "json")) << R"([{"opcode":")" << opcode_text(s)
                                     << R"(","subsystems":[{"id":1,"functions":[{"name":"echo",)"
                                     << R"("num_of_args":1,"args":[{"type":"string"}]}]}]}])";
      e2e::sign_token(LUMOKIT_SOAK_SIGNING_KEY, opcode_text(s), path(s, "json"), path(s, "token"));
    }
    rig_.start_daemon();
    admin_ = rig_.admin();
    if (!eventually(seconds(30), [&] { return step(false); })) throw std::runtime_error("no start");
    kill_at_ = Clock::now() + jitter(1500);
    sys_at_ = Clock::now() + jitter(7000);
  }

  // Starts the slots that are due and notes the plugins that became ready;
  // with `chaos` it also kills a plugin and toggles the system service now
  // and then. True when every slot's plugin is ready and the service up.
  bool step(bool chaos) {
    const Time now = Clock::now();
    const Json::Value plugins = call("status")["state"]["plugins"];
    bool ready = !sys_down_;
    std::vector<int> killable;
    for (int s = 0; s < kSlots; ++s) {
      Life* life = processes_[s].running() ? &lives[s].back() : nullptr;
      if (life == nullptr && now >= restart_at_[s]) spawn(s);
      for (const Json::Value& p : plugins) {
        if (life != nullptr && slot_of(p["pairs"][0]["opcode"]) == s &&
            p["pairs"][0]["ready"].asBool()) {
          life->service_id = p["service_id"].asInt();
        }
      }
      const bool up = life != nullptr && life->service_id >= 0;
      ready = ready && up;
      if (s >= kSteadySlots && up && now - life->spawn > milliseconds(500)) killable.push_back(s);
    }
    if (chaos && now >= kill_at_ && !killable.empty()) {
      kill(killable[rng_() % killable.size()]);
      kill_at_ = now + jitter(1500);
    }
    if ((chaos || sys_down_) && now >= sys_at_) {
      const char* op = sys_down_ ? "sys_start" : "sys_kill";
      if (call(op)["alive"] != sys_down_) soak_.fail("daemon alive", op + std::string(" failed"));
      sys_restarts += sys_down_ ? 1 : 0;
      sys_down_ = !sys_down_;
      sys_at_ = now + jitter(sys_down_ ? 1000 : 7000);
    }
    return ready;
  }

  Json::Value call(const char* op) { return admin_->call(e2e::op(op), seconds(10)); }

  std::vector<Life> lives[kSlots];  // of every slot, in order
  uint64_t kills = 0, sys_restarts = 0;

 private:
  std::string path(int slot, const std::string& ext) const {
    return rig_.dir() + "/slot" + std::to_string(slot) + "." + ext;
  }
  milliseconds jitter(int mean) {  // uniform over [mean/2, 3*mean/2]
    return milliseconds(std::uniform_int_distribution<int>(mean / 2, mean + mean / 2)(rng_));
  }

  void spawn(int s) {
    lives[s].push_back(Life{Clock::now()});
    processes_[s].start(e2e::bin_path("lumokit-soak-plugin"),
                        {rig_.socket("lumo"), opcode_text(s), path(s, "json"), path(s, "token")},
                        path(s, std::to_string(lives[s].size()) + ".log"));
  }

  // SIGKILL, then wait until the daemon has forgotten the plugin.
  void kill(int s) {
    Life& life = lives[s].back();
    life.kill = Clock::now();
    processes_[s].kill_now();
    ++kills;
    const bool forgotten = eventually(seconds(10), [&] {
      for (const Json::Value& p : call("status")["state"]["plugins"]) {
        if (p["service_id"].asInt() == life.service_id) return false;
      }
      return true;
    });
    life.gone = forgotten ? Clock::now() : Time{};
    if (!forgotten)
      soak_.fail("no leftovers", "slot " + std::to_string(s) + " listed 10 s after a death");
    restart_at_[s] = Clock::now() + jitter(800);
  }

  e2e::Rig& rig_;
  Soak& soak_;
  std::mt19937_64 rng_;
  std::unique_ptr<e2e::JsonClient> admin_;  // kept: a connection per call adds threads
  e2e::ChildProcess processes_[kSlots];
  Time restart_at_[kSlots] = {}, kill_at_{}, sys_at_{};
  bool sys_down_ = false;
};

// What the state dump still holds once the clients have left, beyond the
// running plugins and the granted-only records that refused creations
// leave by design; empty when nothing.
std::string leftovers(const Json::Value& status, uint64_t refused, const Chaos& chaos) {
  std::set<int32_t> running, listed;
  for (const std::vector<Life>& slot : chaos.lives) running.insert(slot.back().service_id);
  std::set<uint32_t> bare;
  for (const Json::Value& s : status["state"]["sessions"]) {
    if (s["has_callback"].asBool() || s.isMember("pid") || !s["plugins"].empty() ||
        !s["connected"].empty()) {
      return "session " + write_json(s);
    }
    bare.insert(s["session_id"].asUInt());
  }
  for (const Json::Value& p : status["state"]["plugins"]) {
    listed.insert(p["service_id"].asInt());
    for (const Json::Value& id : p["started_sessions"]) {
      if (bare.count(id.asUInt()) == 0) return "plugin " + write_json(p);
    }
  }
  if (listed != running || status["state"]["registry"].size() != kSlots || bare.size() > refused ||
      status["clients"].asUInt() != 0 || status["owned_sessions"].asUInt() != 0) {
    return write_json(status).substr(0, 600) + " after " + std::to_string(refused) +
           " refused creations";
  }
  return "";
}

// A session hears at most once of its plugin of a slot dying (it has one at
// most: nothing re-attaches), and not before a death; it surely hears when
// the slot was listed in its create answer, the plugin then serving it was
// killed after that answer, and forgotten before its find_pid_uid went out.
uint64_t check_notices(Soak& soak, const Chaos& chaos) {
  uint64_t required = 0;
  for (const SessionLog& session : soak.sessions) {
    for (int slot = 0; slot < kSlots; ++slot) {
      std::vector<Time> heard;
      for (const auto& [t, s] : session.notices) {
        if (s == slot) heard.push_back(t);
      }
      bool died = false, must = false;  // died: one that may have started it, before the notice
      for (const Life& life : chaos.lives[slot]) {
        died = died || (life.kill != Time{} && life.kill > session.asked && !heard.empty() &&
                        life.spawn < session.answered && life.kill <= heard[0]);
        must = must ||
               (session.slots.count(slot) && life.spawn < session.asked &&
                session.answered < life.kill && life.gone != Time{} && life.gone < session.barrier);
      }
      const std::string who =
          "session " + std::to_string(session.id) + ", slot " + std::to_string(slot);
      if (heard.size() > 1 || (heard.size() == 1 && !died)) {
        soak.fail("crash notices", who + ": " + std::to_string(heard.size()) + " notices, " +
                                       (died ? "one death" : "no death before them"));
      } else if (must && heard.empty()) {
        soak.fail("crash notices", who + ": no notice of a death it had to hear of");
      }
      required += must ? 1 : 0;
    }
  }
  return required;
}

}  // namespace

int main(int argc, char** argv) {
  int seconds_to_run = 60;
  uint64_t seed = static_cast<uint64_t>(Clock::now().time_since_epoch().count());
  bool keep = false;
  // Sanitizer allocators hold freed memory back; under qemu-user the RSS
  // is the emulator's.
  std::string rss_skip = std::string(LUMOKIT_SOAK_SANITIZE).empty() ? "" : "sanitizer allocator";
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i], value = i + 1 < argc ? argv[i + 1] : "";
    if (arg == "--keep") {
      keep = true;
    } else if (arg == "--no-rss") {
      rss_skip = "--no-rss";
    } else if (arg == "--seconds" && (seconds_to_run = std::atoi(value.c_str())) >= 5) {
      ++i;
    } else if (arg == "--seed" && (seed = std::strtoull(value.c_str(), nullptr, 10)) != 0) {
      ++i;
    } else {
      std::cerr << "usage: lumokit-soak [--seconds N>=5] [--seed N>0] [--keep] [--no-rss]\n";
      return 2;
    }
  }
  signal(SIGPIPE, SIG_IGN);
  if (e2e::read_file(LUMOKIT_SOAK_SIGNING_KEY).find("PRIVATE KEY") == std::string::npos) {
    std::cout << "soak: skipped: " << LUMOKIT_SOAK_SIGNING_KEY
              << " has no private key to sign with\n";
    return 77;
  }
  e2e::Rig rig;
  // glibc gives busy threads arenas of their own and an arena keeps its
  // high-water mark: with the daemon's many short-lived connection threads
  // that alone grows the RSS for minutes. Two arenas keep it a measure of
  // what the daemon holds. The children's sanitizer reports go to files.
  setenv("MALLOC_ARENA_MAX", "2", 0);
  for (const std::string tool : {"ASAN", "UBSAN", "TSAN"}) {
    const char* old = std::getenv((tool + "_OPTIONS").c_str());
    const std::string value = (old != nullptr && *old != '\0' ? std::string(old) + ":" : "") +
                              "log_path=" + rig.dir() + "/sanitizer-" + tool;
    setenv((tool + "_OPTIONS").c_str(), value.c_str(), 1);
  }
  std::cout << "soak: work directory " << rig.dir() << ", seed " << seed << std::endl;

  Soak soak;
  soak.socket = rig.socket("client");
  soak.seed = seed;
  Chaos chaos(rig, soak);
  std::vector<std::thread> clients;
  int64_t growth = 0, threads = -1, fds = -1;
  pid_t pid = -1;
  try {
    chaos.start();
    pid = rig.daemon().pid();
    // The daemon must come back to these once the clients have left.
    const int64_t base_threads = proc_value(pid, "Threads:"), base_fds = open_fds(pid);
    for (int i = 0; i < kClients; ++i) clients.emplace_back(run_client, std::ref(soak), i);
    // The mean RSS over the last third of the chaos against the first.
    const Time start = Clock::now(), end = start + seconds(seconds_to_run);
    int64_t sums[3] = {0, 0, 0}, counts[3] = {0, 0, 0};
    for (Time now = start; now < end; now = Clock::now()) {
      chaos.step(true);
      sums[3 * (now - start) / (end - start)] += proc_value(pid, "VmRSS:");
      ++counts[3 * (now - start) / (end - start)];
      std::this_thread::sleep_for(milliseconds(50));
    }
    growth = sums[2] / std::max<int64_t>(counts[2], 1) - sums[0] / std::max<int64_t>(counts[0], 1);
    if (rss_skip.empty() && growth > kRssBoundKib) {
      soak.fail("memory", "the daemon's RSS grew by " + std::to_string(growth) + " KiB");
    }
    if (!eventually(seconds(30), [&] { return chaos.step(false); }))
      throw std::runtime_error("no calm");
    soak.stop = true;
    for (std::thread& t : clients) t.join();
    clients.clear();
    std::string left;
    if (!eventually(seconds(30), [&] {
          return (left = leftovers(chaos.call("status"), soak.refused_creates, chaos)).empty();
        })) {
      soak.fail("no leftovers", "after the clients left: " + left);
    }
    // A few threads and descriptors come and go with admin connections.
    if (!eventually(seconds(10), [&] {
          threads = proc_value(pid, "Threads:");
          fds = open_fds(pid);
          return threads >= 0 && threads <= base_threads + 3 && fds <= base_fds + 3;
        })) {
      soak.fail("no leftovers", "the daemon's threads and descriptors went from " +
                                    std::to_string(base_threads) + " and " +
                                    std::to_string(base_fds) + " to " + std::to_string(threads) +
                                    " and " + std::to_string(fds));
    }
  } catch (const std::exception& e) {
    soak.fail("daemon alive", e.what());
  }
  soak.stop = true;
  for (std::thread& t : clients) t.join();
  rig.daemon().signal(SIGTERM);
  if (const int code = rig.daemon().wait_exit(seconds(20)); code != 0) {
    soak.fail("daemon alive", code < 0 ? "lumokitd did not stop within 20 s of SIGTERM"
                                       : "lumokitd exited with " + std::to_string(code));
  }

  const uint64_t required = check_notices(soak, chaos);
  uint64_t notices = 0;
  for (const SessionLog& s : soak.sessions) notices += s.notices.size();
  if (soak.answers == 0 || chaos.kills == 0 || notices == 0) {
    soak.fail("routing", "too little happened: no answer, no kill or no crash notice");
  }
  for (const auto& entry : std::filesystem::directory_iterator(rig.dir())) {
    const std::string file = entry.path().filename(), text = e2e::read_file(entry.path());
    if (file.rfind("sanitizer-", 0) == 0 && !text.empty()) {
      soak.fail("sanitizers", file + ": " + text.substr(0, 400));
    }
  }

  // Up to 8 failures per check, then one line: what happened and the verdicts.
  std::ostringstream line;
  line << "soak: " << seconds_to_run << "s, " << soak.sessions.size() << " sessions, " << soak.tasks
       << " tasks, " << chaos.kills << " plugin kills, " << chaos.sys_restarts << " sys restarts, "
       << notices << " crash notices (" << required << " required), RSS " << growth << " KiB grown";
  bool pass = true;
  for (const std::string check : kChecks) {
    const std::vector<std::string>& details = soak.failures[check];
    for (size_t i = 0; i < details.size() && i < 8; ++i) {
      std::cerr << "soak: FAIL [" << check << "] " << details[i] << "\n";
    }
    pass = pass && details.empty();
    const bool skipped = check == "memory" && !rss_skip.empty();
    line << (check == kChecks[0] ? ": " : ", ") << check
         << (skipped           ? " SKIPPED (" + rss_skip + ")"
             : details.empty() ? " OK"
                               : " FAIL");
  }
  std::cout << line.str() << " -> " << (pass ? "PASS" : "FAIL") << std::endl;
  if (!pass || keep) {
    rig.keep_dir();
    std::cout << "soak: kept " << rig.dir() << std::endl;
  }
  return pass ? 0 : 1;
}
