// Reading the manager's diagnostic state dump: which pairs a session still
// has connected.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

namespace lumokitd {

using Pair = std::pair<uint32_t, uint32_t>;  // opcode, subsystem

struct SessionView {
  bool present = false;          // the manager still knows the session
  std::vector<Pair> connected;   // ascending
};

// Parses the dump text; false with `error` when it is not the expected JSON.
bool parse_state(const std::string& dump, Json::Value* out, std::string* error);

// The view of one session in a parsed dump.
SessionView find_session(const Json::Value& state, uint32_t session_id);

}  // namespace lumokitd
