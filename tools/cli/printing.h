// Human-readable rendering of what the daemon sends, and the one place the
// tool writes to stdout (serialised, since the reader thread prints too).
#pragma once

#include <string>

#include <json/json.h>

#include "daemon_link.h"

namespace lumokit::cli {

// Writes one line (a newline is added) under the output lock.
void print_line(const std::string& line);

// One callback or reply, as a short description.
std::string describe_message(const Message& msg);

// The capability report of a create_session answer: "0x1001 calculator [1]".
std::string describe_capability(const std::string& report);

// The admin "status" reply, several lines.
std::string describe_status(const Json::Value& status);

// Either the raw JSON (json_mode) or the description.
void print_message(const Message& msg, bool json_mode);

}  // namespace lumokit::cli
