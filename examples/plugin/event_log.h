// The example plugin's log: one line per event on stdout, flushed at once so
// that a supervisor or a test reading the pipe sees it as it happens.
#pragma once

#include <string>

namespace example {

void log_line(const std::string& line);

}  // namespace example
