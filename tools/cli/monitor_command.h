// `lumokit monitor`: every message between lumokitd's manager, its plugins
// and its clients, live from the admin socket or from a capture file.
#pragma once

#include <string>
#include <vector>

#include "client_session.h"

namespace lumokit::cli {

// Runs "monitor ..." given as words; `handled` is false for other commands.
int run_monitor_command(const Settings& settings, const std::vector<std::string>& words,
                        bool* handled);

const char* monitor_usage();

}  // namespace lumokit::cli
