// Building task requests from command-line words.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace lumokit::cli {

struct TaskCall {
  std::string opcode;               // as given, e.g. "0x1001"
  uint32_t subsystem = 0;
  std::string function;
  std::vector<std::string> args;    // TYPE or TYPE:VALUE
};

// Reads OPCODE SUBSYS FUNC [TYPE:VALUE ...] from `words`; false with `error`.
bool parse_task_words(const std::vector<std::string>& words, TaskCall* out, std::string* error);

// The request text for `task` in session `session_id`, transaction `transac_id`.
// A value of an int, long, float or double argument that reads as a number
// is written as a JSON number, of a bool argument "true"/"false" as a boolean;
// everything else as a string.
std::string build_task_request(const TaskCall& task, uint32_t session_id, uint32_t transac_id);

// Parses a number the way the tool's options do; false for anything else.
bool parse_u32(const std::string& text, uint32_t* out);
bool parse_i32(const std::string& text, int32_t* out);

}  // namespace lumokit::cli
