// Clients opening sessions and running tasks on several threads while plugins
// connect, answer, crash and come back. Also run under ThreadSanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <set>
#include <thread>

#include "manager_harness.h"

namespace lumokit::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kPluginSlots = 3;
constexpr int kClients = 4;
constexpr auto kClientRun = 2s;

std::atomic<bool> plugins_stop{false};
std::atomic<uint32_t> next_transac{1};
std::atomic<uint32_t> next_handle{1};
std::atomic<int> creations{0};
std::atomic<int> tasks_sent{0};
std::atomic<int> tasks_answered{0};

bool starts_with(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

// A plugin's reaction to one message from the manager. False when the plugin
// is to go right after answering a session start: the moment when a client
// may still be taking that answer as an accepted session.
bool serve(RawPlugin& plugin, const std::string& msg, std::mt19937& rng) {
  if (starts_with(msg, "{\"req_type\": \"start_session\"")) {
    plugin.send(start_session_answer(msg, rng() % 8 != 0));
    return rng() % 10 != 0;
  } else if (starts_with(msg, "{\"req_type\":\"end_session\"")) {
    plugin.send(R"({"req_type":"end_session","Result":"Success"})");
  } else if (msg.find("\"transac_id\"") != std::string::npos && msg[0] == '{') {
    const Json::Value task = parse_json(msg);
    plugin.send(exec_answer(task["session_id"].asUInt(), task["transac_id"].asUInt()));
  }
  return true;
}

// One slot: a plugin for one opcode that lives a short while, then crashes
// or says goodbye, and is replaced by a new connection.
void plugin_slot(int slot) try {
  std::mt19937 rng(1000u + static_cast<unsigned>(slot));
  const uint32_t opcode = 0x100u + static_cast<uint32_t>(slot);
  while (!plugins_stop) {
    RawPlugin plugin;
    plugin.init();
    plugin.auth(opcode, api_def(opcode, {1, 2}));
    // Queued notices may overtake the REDY reply once the sender runs, so the
    // reply is read like any other message.
    plugin.send("{\"req_type\":\"REDY\",\"Service_Id\":" + std::to_string(plugin.service_id()) +
                ",\"Opcode\":\"" + std::to_string(opcode) + "\"}");
    const auto death = Clock::now() + std::chrono::milliseconds(100 + rng() % 300);
    while (Clock::now() < death && !plugins_stop) {
      std::string msg = plugin.recv(10ms);
      if (!msg.empty() && !serve(plugin, msg, rng)) break;
    }
    if (rng() % 2 == 0) {
      plugin.send("{\"req_type\":\"DINT\",\"Service_Id\":" + std::to_string(plugin.service_id()) + "}");
      plugin.wait_closed(3s);
    }  // otherwise the socket just closes: a crash
  }
} catch (const std::exception& e) {
  ADD_FAILURE() << "plugin slot " << slot << ": " << e.what();
}

// The task answers and crash notices seen so far.
struct Seen {
  std::set<uint32_t> answered;  // transaction numbers
  std::set<uint32_t> crashed;   // session ids
};
Seen seen() {
  Seen s;
  for (const Callback& cb : callbacks()) {
    if (cb.kind != LUMO_RESPONSE_TASK) continue;
    if (cb.error_flag == 1) {
      s.crashed.insert(cb.session_id);
    } else {
      s.answered.insert(cb.handle);
    }
  }
  return s;
}

// The pairs of a capability report; an element left empty by a plugin that
// went away while the report was built is skipped.
std::vector<std::pair<std::string, uint32_t>> report_pairs(std::string report) {
  for (const char* bad : {"[,", ",,", ",]"}) {
    const size_t comma = bad[0] == '[' ? 1 : 0;
    for (size_t at; (at = report.find(bad)) != std::string::npos;) report.erase(at + comma, 1);
  }
  std::vector<std::pair<std::string, uint32_t>> pairs;
  Json::Value root = parse_json(report);
  for (const Json::Value& op : root["capability"]["opcodes"]) {
    for (const Json::Value& sub : op["subsystems"]) {
      pairs.emplace_back(op["opcode"].asString(), sub["id"].asUInt());
    }
  }
  return pairs;
}

void client(int index) {
  std::mt19937 rng(2000u + static_cast<unsigned>(index));
  const auto stop = Clock::now() + kClientRun;
  while (Clock::now() < stop) {
    const uint32_t handle = next_handle++;
    create_session("{}", recording_callback(), 0, handle, 5000 + index, 10000u + index);
    ++creations;
    std::vector<Callback> answers;
    for (const Callback& cb : callbacks()) {
      if (cb.kind == LUMO_RESPONSE_CREATE_SESSION && cb.handle == handle) answers.push_back(cb);
    }
    ASSERT_EQ(answers.size(), 1u) << "create_session with handle " << handle;
    if (answers[0].error_flag != 0) continue;
    const uint32_t session = answers[0].session_id;

    std::vector<uint32_t> sent;
    for (const auto& pair : report_pairs(answers[0].text)) {
      const uint32_t transac = next_transac++;
      perform_task(task_request(session, transac, pair.first, pair.second, "work", {"int"}),
                   recording_callback(), session);
      sent.push_back(transac);
      ++tasks_sent;
    }
    // Each task is answered (by its plugin or with an error), unless the
    // session heard that a plugin of it crashed.
    const auto deadline = Clock::now() + 3s;
    for (;;) {
      Seen s = seen();
      size_t open = 0;
      for (uint32_t t : sent) open += s.answered.count(t) == 0;
      if (open == 0 || s.crashed.count(session) != 0) {
        tasks_answered += static_cast<int>(sent.size() - open);
        break;
      }
      ASSERT_LT(Clock::now(), deadline) << open << " task(s) of session " << session << " lost";
      std::this_thread::sleep_for(5ms);
    }
    if (rng() % 3 == 0) cancel_session(session, 0, 0);
  }
}

TEST(ConcurrencySessions, ClientsAndPluginsComeAndGo) {
  start_manager();
  std::vector<std::thread> plugins;
  for (int i = 0; i < kPluginSlots; ++i) plugins.emplace_back(plugin_slot, i);
  std::this_thread::sleep_for(50ms);
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i) clients.emplace_back(client, i);
  for (auto& t : clients) t.join();
  plugins_stop = true;
  for (auto& t : plugins) t.join();

  // Every plugin is gone: once the manager has noticed, nothing refers to one.
  Json::Value dump;
  for (auto until = Clock::now() + 5s; Clock::now() < until; std::this_thread::sleep_for(20ms)) {
    dump = state_dump();
    if (dump["plugins"].empty()) break;
  }
  EXPECT_EQ(dump["plugins"].size(), 0u) << dump.toStyledString();
  EXPECT_EQ(dump["registry"].size(), 0u);
  const Seen final_seen = seen();
  for (const Json::Value& session : dump["sessions"]) {
    const uint32_t id = session["session_id"].asUInt();
    EXPECT_EQ(session["plugins"].size(), 0u)
        << "session " << id << " still refers to a dead plugin (" << session["plugins"][0].asInt()
        << "); crash notice received: " << final_seen.crashed.count(id);
  }

  size_t created = 0;
  for (const Callback& cb : callbacks()) created += cb.kind == LUMO_RESPONSE_CREATE_SESSION;
  EXPECT_EQ(created, static_cast<size_t>(creations.load()));
  EXPECT_GT(creations.load(), kClients);
  EXPECT_GT(tasks_answered.load(), 0);
  std::printf("sessions: %d, tasks sent: %d, answered: %d\n", creations.load(), tasks_sent.load(),
              tasks_answered.load());
}

}  // namespace
}  // namespace lumokit::test
