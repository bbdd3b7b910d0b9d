#include "client_wire.h"

#include <cstdio>
#include <cstdlib>

#include "soak_records.h"

namespace lumokit::soak {

std::string opcode_text(uint32_t slot) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%X", kOpcodeBase + slot);
  return text;
}

bool is_uint(const Json::Value& v, uint64_t expected) {
  return v.isUInt64() && v.asUInt64() == expected;
}
bool is_int(const Json::Value& v, int64_t expected) { return v.isInt64() && v.asInt64() == expected; }

bool read_hex(const std::string& text, uint32_t* out) {
  if (text.size() < 3 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X')) return false;
  char* end = nullptr;
  unsigned long long v = std::strtoull(text.c_str() + 2, &end, 16);
  if (*end != '\0' || v > 0xFFFFFFFFull) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

std::string task_message(uint32_t session, uint32_t transac, uint32_t slot, bool gated,
                         const std::string& nonce) {
  char task[320];
  std::snprintf(task, sizeof(task),
                "{\\\"session_id\\\":%u,\\\"transac_id\\\":%u,\\\"opcode\\\":\\\"%s\\\","
                "\\\"subsys_id\\\":%u,\\\"func\\\":{\\\"name\\\":\\\"%s\\\",\\\"num_of_args\\\":1,"
                "\\\"args\\\":[{\\\"type\\\":\\\"string\\\",\\\"value\\\":\\\"%s\\\"}]}}",
                session, transac, opcode_text(slot).c_str(), kSubsystem,
                gated ? "gated" : "echo", nonce.c_str());
  std::string out = "{\"op\":\"perform_task\",\"session_id\":" + std::to_string(session) +
                    ",\"request\":\"";
  out += task;
  out += "\"}";
  return out;
}

}  // namespace lumokit::soak
