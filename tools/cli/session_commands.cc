#include "session_commands.h"

#include <cstdio>
#include <thread>

#include "exit_codes.h"
#include "printing.h"

namespace lumokit::cli {

namespace {

int failure(const std::string& message) {
  std::fprintf(stderr, "lumokit: %s\n", message.c_str());
  return kFailed;
}

// Takes "--pid N" and "--uid N" out of `words`; false with `error` on a bad value.
bool take_identity(std::vector<std::string>* words, Identity* who, std::string* error) {
  std::vector<std::string> rest;
  for (size_t i = 0; i < words->size(); ++i) {
    const std::string& w = (*words)[i];
    if (w != "--pid" && w != "--uid") {
      rest.push_back(w);
      continue;
    }
    if (i + 1 >= words->size()) {
      *error = w + " needs a number";
      return false;
    }
    const std::string& value = (*words)[++i];
    bool ok = w == "--pid" ? parse_i32(value, &who->pid) : parse_u32(value, &who->uid);
    if (!ok) {
      *error = w + " needs a number, not \"" + value + "\"";
      return false;
    }
    who->stated = true;
  }
  *words = rest;
  return true;
}

int open_session(ClientSession& session, const Identity& who) {
  std::string error;
  if (!session.connect(&error)) return failure(error + " (is lumokitd running?)");
  if (!session.open(who, 0, &error)) return failure(error);
  return kOk;
}

}  // namespace

const char* session_usage() {
  return "  open [--pid P --uid U]       open a session, show what it offers, close it\n"
         "  task [--pid P --uid U] OPCODE SUBSYS FUNC [TYPE:VALUE ...]\n"
         "                               run one task in a fresh session\n"
         "  task [--pid P --uid U] --request JSON\n"
         "                               send a task text (a zero or missing session_id is filled in)\n"
         "  watch [--pid P --uid U]      open a session and print callbacks until interrupted\n"
         "  shell [--pid P --uid U]      interactive session (type help)\n";
}

int run_session_command(const Settings& settings, const std::vector<std::string>& words,
                        bool* handled) {
  *handled = true;
  const std::string cmd = words.empty() ? "" : words[0];
  std::vector<std::string> rest(words.begin() + (words.empty() ? 0 : 1), words.end());
  Identity who;
  std::string error;
  if (cmd != "open" && cmd != "task" && cmd != "watch" && cmd != "shell") {
    *handled = false;
    return kUsage;
  }
  if (!take_identity(&rest, &who, &error)) return usage_error(error);

  if (cmd == "shell") {
    if (!rest.empty()) return usage_error("shell takes only --pid and --uid");
    return run_shell(settings, who);
  }
  ClientSession session(settings);
  if (cmd == "open") {
    if (!rest.empty()) return usage_error("open takes only --pid and --uid");
    return open_session(session, who);
  }
  if (cmd == "watch") {
    if (!rest.empty()) return usage_error("watch takes only --pid and --uid");
    int rc = open_session(session, who);
    if (rc != kOk) return rc;
    if (!settings.json) print_line("watching session " + std::to_string(session.session_id()) +
                                   "; interrupt to stop");
    while (!session.link().closed()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return failure("the daemon closed the connection");
  }
  // task
  TaskCall task;
  std::string raw;
  if (rest.size() == 2 && rest[0] == "--request") {
    raw = rest[1];
  } else if (!parse_task_words(rest, &task, &error)) {
    return usage_error(error);
  }
  int rc = open_session(session, who);
  if (rc != kOk) return rc;
  bool ok = raw.empty() ? session.run_task(task, &error) : session.run_raw(raw, &error);
  if (!ok) return failure(error);
  return kOk;
}

}  // namespace lumokit::cli
