// A session held by the tool on the daemon's client socket: open it, run
// tasks on it, cancel it. Callbacks nobody waits for are printed.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "daemon_link.h"
#include "task_request.h"

namespace lumokit::cli {

struct Identity {
  bool stated = false;  // send pid/uid (honoured by a daemon run with --trust-client-ids)
  int32_t pid = 0;
  uint32_t uid = 0;
};

struct Settings {
  std::string runtime_dir;
  bool json = false;
  std::chrono::milliseconds timeout{5000};
};

class ClientSession {
 public:
  explicit ClientSession(const Settings& settings) : settings_(settings) {}

  // Connects to the client socket; unasked messages are printed.
  bool connect(std::string* error);
  // Opens a session (or re-attaches `session_id`); the answer is printed.
  bool open(const Identity& who, uint32_t session_id, std::string* error);
  // Runs one task and prints its answer; false when none came in time.
  bool run_task(const TaskCall& task, std::string* error);
  // Sends a raw task text and waits for the answer with its "transac_id".
  // A missing or zero "session_id" is filled in; otherwise the text goes as is.
  bool run_raw(const std::string& request, std::string* error);
  bool cancel(uint32_t opcode, uint32_t subsys, std::string* error);
  bool find_pid_uid(std::string* error);
  // Waits until a crash notice arrives (or one came since the last wait).
  bool await_crash(std::chrono::milliseconds timeout, std::string* error);

  uint32_t session_id() const { return session_id_; }
  bool has_session() const { return session_id_ != 0; }
  DaemonLink& link() { return link_; }

 private:
  bool wait_answer(const std::string& text, uint32_t transac_id, std::string* error);
  void on_unasked(const Message& msg);

  Settings settings_;
  DaemonLink link_;
  uint32_t session_id_ = 0;
  uint32_t next_transac_ = 1;
  uint32_t next_handle_ = 1;
  std::atomic<int> crashes_{0};
  int crashes_seen_ = 0;
};

}  // namespace lumokit::cli
