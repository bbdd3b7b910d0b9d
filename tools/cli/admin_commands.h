// Commands that go to the daemon's admin socket: status, properties,
// permissions, the emulated system service, ending a session.
#pragma once

#include <string>
#include <vector>

#include "client_session.h"

namespace lumokit::cli {

// Runs one admin command given as words ("prop", "get", NAME ...).
// Prints the result; returns the process exit status (0 ok, 1 refused or
// failed, 2 bad usage). `handled` is false when the words name no admin
// command.
int run_admin_command(const Settings& settings, const std::vector<std::string>& words,
                      bool* handled);

const char* admin_usage();

}  // namespace lumokit::cli
