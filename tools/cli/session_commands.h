// Commands that hold a session on the client socket: open, task, watch and
// the interactive shell.
#pragma once

#include <string>
#include <vector>

#include "client_session.h"

namespace lumokit::cli {

// `handled` false when the words name none of these commands.
int run_session_command(const Settings& settings, const std::vector<std::string>& words,
                        bool* handled);

// The shell reads commands from stdin until end of input or "quit".
int run_shell(const Settings& settings, const Identity& who);

const char* session_usage();

}  // namespace lumokit::cli
