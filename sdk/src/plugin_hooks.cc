// The event thread's jobs: run the plugin's hook for one message of the
// manager and send the answer.
#include <algorithm>
#include <exception>
#include <string>
#include <vector>

#include "lumokit/plugin.h"
#include "lumokit/plugin_wire.h"
#include "plugin_impl.h"

namespace lumokit {
namespace {

std::string pairs_text(const std::vector<OpcodeSubsystem>& pairs) {
  std::string out;
  for (const OpcodeSubsystem& p : pairs) {
    if (!out.empty()) out += ' ';
    out += wire::opcode_hex(p.opcode) + "/" + std::to_string(p.subsystem);
  }
  return out.empty() ? "nothing" : out;
}

Json::Value error_result(const std::string& message) {
  Json::Value result(Json::objectValue);
  result["status"] = -1;
  result["error"] = message;
  return result;
}

}  // namespace

void Plugin::Impl::answer(const std::string& what, const std::string& text) {
  try {
    send(text);
  } catch (const PluginError& e) {
    log("could not send the " + what + ": " + e.what());
  }
}

void Plugin::Impl::on_session_start(const SessionStart& start) {
  std::vector<OpcodeSubsystem> accepted = start.requested;
  bool ok = true;
  if (hooks.on_session_start) {
    try {
      ok = hooks.on_session_start(start, &accepted);
    } catch (const std::exception& e) {
      log("session start hook failed: " + std::string(e.what()));
      ok = false;
    } catch (...) {
      log("session start hook failed");
      ok = false;
    }
  }
  // Only pairs that were asked for, each once, in the order asked.
  std::vector<OpcodeSubsystem> answer_pairs;
  if (ok) {
    for (const OpcodeSubsystem& pair : start.requested) {
      const bool kept = std::find(accepted.begin(), accepted.end(), pair) != accepted.end();
      const bool seen =
          std::find(answer_pairs.begin(), answer_pairs.end(), pair) != answer_pairs.end();
      if (kept && !seen) answer_pairs.push_back(pair);
    }
  }
  answer("start_session answer", wire::start_session_answer(start.session_id, answer_pairs));
  {
    // The manager reads larger messages from its first session-start answer on.
    std::lock_guard<std::mutex> lock(send_mtx);
    send_limit = wire::kManagerRecvGrown;
  }
  log("session " + std::to_string(start.session_id) +
      (answer_pairs.empty() ? " refused" : " started: " + pairs_text(answer_pairs)));
}

void Plugin::Impl::on_session_end(uint32_t session_id) {
  if (hooks.on_session_end) {
    try {
      hooks.on_session_end(session_id);
    } catch (const std::exception& e) {
      log("session end hook failed: " + std::string(e.what()));
    } catch (...) {
      log("session end hook failed");
    }
  }
  answer("end_session answer", wire::end_session_answer());
  log("session " + std::to_string(session_id) + " ended");
}

void Plugin::Impl::on_task(const Json::Value& message) {
  TaskRequest task;
  std::string error;
  Json::Value result;
  if (!wire::parse_task_request(message, &task, &error)) {
    if (!message["session_id"].isUInt() || !message["transac_id"].isUInt()) {
      log("task without usable ids dropped: " + error);
      return;
    }
    task.session_id = message["session_id"].asUInt();
    task.transac_id = message["transac_id"].asUInt();
    result = error_result("malformed task request: " + error);
  } else if (!hooks.on_task) {
    result = error_result("this plugin runs no tasks");
  } else {
    try {
      result = hooks.on_task(task);
      if (!result.isObject()) result = error_result("the task handler returned no JSON object");
    } catch (const std::exception& e) {
      result = error_result(e.what());
    } catch (...) {
      result = error_result("the task handler failed");
    }
  }
  const std::string text = wire::exec_task_answer(task.session_id, task.transac_id, result);
  try {
    send(text);
  } catch (const PluginError& e) {
    if (e.kind() != PluginError::Kind::Protocol) {
      log("could not send the exec_task answer: " + std::string(e.what()));
      return;
    }
    // Too large for the manager: tell the client instead of losing the task.
    answer("exec_task answer", wire::exec_task_answer(task.session_id, task.transac_id,
                                                      error_result(e.what())));
  }
}

void Plugin::Impl::on_permission_change(const PermissionChange& change) {
  log("permission " + change.permission + (change.granted ? " granted" : " revoked") +
      " for session " + std::to_string(change.session_id));
  if (!hooks.on_permission_change) return;
  try {
    hooks.on_permission_change(change);
  } catch (const std::exception& e) {
    log("permission change hook failed: " + std::string(e.what()));
  } catch (...) {
    log("permission change hook failed");
  }
}

}  // namespace lumokit
