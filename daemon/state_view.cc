#include "state_view.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "ipc/json_text.h"

namespace lumokitd {

namespace {

// "0x1001" (or plain hex) to a number; false when not a 32-bit hex value.
bool parse_hex(const std::string& text, uint32_t* out) {
  const char* p = text.c_str();
  if (text.size() > 2 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) p += 2;
  if (*p == '\0') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long v = std::strtoull(p, &end, 16);
  if (errno != 0 || *end != '\0' || v > 0xFFFFFFFFull) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

}  // namespace

bool parse_state(const std::string& dump, Json::Value* out, std::string* error) {
  if (!lumokit::ipc::parse_json(dump, out, error)) return false;
  if (!out->isObject() || !(*out)["sessions"].isArray() || !(*out)["plugins"].isArray()) {
    *error = "state dump lacks the \"plugins\" and \"sessions\" arrays";
    return false;
  }
  return true;
}

SessionView find_session(const Json::Value& state, uint32_t session_id) {
  SessionView view;
  for (const Json::Value& s : state["sessions"]) {
    if (!s.isObject() || !s["session_id"].isUInt() || s["session_id"].asUInt() != session_id) {
      continue;
    }
    view.present = true;
    for (const Json::Value& pair : s["connected"]) {
      uint32_t opcode = 0;
      if (!pair.isObject() || !pair["opcode"].isString() || !pair["subsystem"].isUInt() ||
          !parse_hex(pair["opcode"].asString(), &opcode)) {
        continue;
      }
      view.connected.emplace_back(opcode, pair["subsystem"].asUInt());
    }
    std::sort(view.connected.begin(), view.connected.end());
    break;
  }
  return view;
}

}  // namespace lumokitd
