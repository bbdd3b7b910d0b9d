// The interactive shell: one session kept open while commands run on it;
// callbacks that arrive between commands are printed as they come.
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <sstream>
#include <thread>

#include "admin_commands.h"
#include "printing.h"
#include "session_commands.h"

namespace lumokit::cli {

namespace {

const char* shell_help() {
  return "  call OPCODE SUBSYS FUNC [TYPE:VALUE ...]   run a task and wait for its answer\n"
         "  send JSON                    send a task text (zero/missing session_id filled in)\n"
         "  cancel [OPCODE SUBSYS]       cancel one pair, or the whole session\n"
         "  attach                       re-attach the session to plugins that came back\n"
         "  pid                          the pid and uid the manager holds for the session\n"
         "  await-crash [SECONDS]        wait for a plugin crash notice (default 5)\n"
         "  echo TEXT                    print TEXT\n"
         "  sleep SECONDS                pause\n"
         "  quit                         close the session and leave\n"
         "admin commands work here too:\n";
}

std::vector<std::string> split_words(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  std::string w;
  while (in >> w) words.push_back(w);
  return words;
}

// The text after the first word, leading blanks removed.
std::string rest_of_line(const std::string& line) {
  size_t start = line.find_first_not_of(" \t");
  if (start == std::string::npos) return "";
  size_t gap = line.find_first_of(" \t", start);
  if (gap == std::string::npos) return "";
  size_t text = line.find_first_not_of(" \t", gap);
  return text == std::string::npos ? "" : line.substr(text);
}

bool parse_seconds(const std::string& text, double* out) {
  char* end = nullptr;
  double v = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || v < 0 || v > 3600) return false;
  *out = v;
  return true;
}

void report(bool ok, const std::string& error) {
  if (!ok) print_line("error: " + error);
}

}  // namespace

int run_shell(const Settings& settings, const Identity& who) {
  ClientSession session(settings);
  std::string error;
  if (!session.connect(&error)) {
    std::fprintf(stderr, "lumokit: %s (is lumokitd running?)\n", error.c_str());
    return 1;
  }
  if (!session.open(who, 0, &error)) print_line("error: " + error + "; use attach to retry");
  const bool interactive = isatty(STDIN_FILENO) != 0;

  std::string line;
  for (;;) {
    if (interactive) {
      std::fputs("lumokit> ", stdout);
      std::fflush(stdout);
    }
    if (!std::getline(std::cin, line)) break;
    std::vector<std::string> words = split_words(line);
    if (words.empty() || words[0][0] == '#') continue;
    const std::string cmd = words[0];
    if (cmd == "quit" || cmd == "exit") break;
    if (session.link().closed()) {
      print_line("error: the daemon closed the connection");
      return 1;
    }
    if (cmd == "help") {
      print_line(std::string(shell_help()) + admin_usage());
    } else if (cmd == "echo") {
      print_line(rest_of_line(line));
    } else if (cmd == "sleep") {
      double seconds = 0;
      if (words.size() != 2 || !parse_seconds(words[1], &seconds)) {
        print_line("error: usage: sleep SECONDS");
      } else {
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
      }
    } else if (cmd == "call") {
      TaskCall task;
      std::vector<std::string> args(words.begin() + 1, words.end());
      if (!parse_task_words(args, &task, &error)) {
        print_line("error: " + error);
      } else {
        report(session.run_task(task, &error), error);
      }
    } else if (cmd == "send") {
      report(session.run_raw(rest_of_line(line), &error), error);
    } else if (cmd == "cancel") {
      uint32_t opcode = 0;
      uint32_t subsys = 0;
      if (words.size() == 3 && parse_u32(words[1], &opcode) && parse_u32(words[2], &subsys)) {
        report(session.cancel(opcode, subsys, &error), error);
      } else if (words.size() == 1) {
        report(session.cancel(0, 0, &error), error);
      } else {
        print_line("error: usage: cancel [OPCODE SUBSYS]");
      }
    } else if (cmd == "attach") {
      report(session.open(who, session.session_id(), &error), error);
    } else if (cmd == "pid") {
      report(session.find_pid_uid(&error), error);
    } else if (cmd == "await-crash") {
      double seconds = 5;
      if (words.size() > 2 || (words.size() == 2 && !parse_seconds(words[1], &seconds))) {
        print_line("error: usage: await-crash [SECONDS]");
      } else {
        auto timeout = std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
        report(session.await_crash(timeout, &error), error);
      }
    } else {
      bool handled = false;
      run_admin_command(settings, words, &handled);
      if (!handled) print_line("error: unknown command \"" + cmd + "\" (try help)");
    }
  }
  return 0;
}

}  // namespace lumokit::cli
