// Texts of the plugin link: building the plugin's messages and reading the
// manager's. Pure functions; the Plugin class is built on them, and they are
// public for tools that speak the link themselves.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <json/json.h>

#include "lumokit/plugin_types.h"

namespace lumokit::wire {

// Largest message the manager takes from a plugin before its first answer to
// a session start, and after it.
inline constexpr size_t kManagerRecvInitial = 102400;
inline constexpr size_t kManagerRecvGrown = 524288;
// Largest message the manager sends to a plugin.
inline constexpr size_t kManagerSendMax = 524287;

// ---- plugin to manager -------------------------------------------------

std::string init_request();
// "Opcode" travels as decimal text.
std::string auth_request(int32_t service_id, uint32_t opcode, const std::string& token,
                         const Json::Value& api_def);
std::string regs_request(int32_t service_id, uint32_t opcode, const Json::Value& api_def);
std::string redy_request(int32_t service_id, uint32_t opcode);
std::string dint_request(int32_t service_id);
// "Session_Id" travels as decimal text.
std::string permission_request(uint32_t session_id, const std::vector<std::string>& permissions);
std::string info_query_request(uint32_t session_id, const std::vector<std::string>& keys);

// Answer to a session start: "Success" with the accepted pairs grouped by
// opcode (in order of first appearance), or "Failure" when `accepted` is empty.
std::string start_session_answer(uint32_t session_id, const std::vector<OpcodeSubsystem>& accepted);
std::string end_session_answer();
// The handler's members, then "req_type", "session_id" and "transac_id",
// which always carry the task's values.
std::string exec_task_answer(uint32_t session_id, uint32_t transac_id, const Json::Value& result);

// "0x1A": upper-case digits, at least two.
std::string opcode_hex(uint32_t opcode);

// ---- manager to plugin -------------------------------------------------

// What one received message is, before any JSON is trusted.
enum class Incoming {
  Ping,        // the manager's liveness probe; needs no answer
  Digit,       // a bare number: the answer to "DINT"
  Json,        // an object, possibly repaired (see repair_empty_list_commas)
  Unreadable,  // anything else; `error` says why
};

struct Classified {
  Incoming kind = Incoming::Unreadable;
  std::string req_type;  // from the object, or scanned from unreadable text
  Json::Value message;   // for Json
  long long digit = 0;   // for Digit
  std::string error;     // for Unreadable
};

Classified classify(const std::string& text);

// Removes a comma that directly follows '[' (blanks between allowed) outside
// string literals: the manager writes "[,{" when the first opcode of a
// session start has nothing ready.
std::string repair_empty_list_commas(const std::string& text);

// Finds the "req_type" text of a message without parsing it as JSON; empty
// when there is none.
std::string scan_req_type(const std::string& text);

// Reads the number after `key` in a reply, e.g. "service_id" or "result".
bool read_int_member(const Json::Value& reply, const char* key, long long* out);

// "PermRes": ["1","0"] -> {true,false}.
bool parse_perm_res(const Json::Value& reply, std::vector<bool>* out, std::string* error);

// "QueryInfosRes" as the manager writes it: quoted answers joined by commas
// with no brackets, which is not JSON once there are two. Answers are taken
// literally (the manager does not escape them); a bracketed array is read as
// JSON.
bool parse_query_infos_res(const std::string& reply_text, std::vector<std::string>* out,
                           std::string* error);

bool parse_session_start(const Json::Value& msg, SessionStart* out, std::string* error);
bool parse_end_session(const Json::Value& msg, uint32_t* session_id, std::string* error);
// A task request is recognised by its "transac_id" and "func" members.
bool is_task_request(const Json::Value& msg);
bool parse_task_request(const Json::Value& msg, TaskRequest* out, std::string* error);
bool parse_permission_change(const Json::Value& msg, PermissionChange* out, std::string* error);

// Reads "0x..." (or bare hex digits) into 32 bits; false when not hex or too large.
bool parse_hex_u32(const std::string& text, uint32_t* out);

}  // namespace lumokit::wire
