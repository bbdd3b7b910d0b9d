// Building the plugin's messages. Members are written in a fixed order with
// "req_type" first, so a logged message reads the way the protocol lists it.
#include <cinttypes>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "lumokit/plugin_wire.h"

namespace lumokit::wire {
namespace {

std::string compact(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

using Members = std::vector<std::pair<std::string, Json::Value>>;

std::string ordered_object(const Members& members) {
  std::string out = "{";
  for (size_t i = 0; i < members.size(); ++i) {
    if (i != 0) out += ',';
    out += compact(Json::Value(members[i].first));
    out += ':';
    out += compact(members[i].second);
  }
  out += '}';
  return out;
}

Json::Value string_array(const std::vector<std::string>& items) {
  Json::Value array(Json::arrayValue);
  for (const std::string& item : items) array.append(item);
  return array;
}

}  // namespace

std::string opcode_hex(uint32_t opcode) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%02" PRIX32, opcode);
  return text;
}

std::string init_request() { return ordered_object({{"req_type", "INIT"}}); }

std::string auth_request(int32_t service_id, uint32_t opcode, const std::string& token,
                         const Json::Value& api_def) {
  return ordered_object({{"req_type", "AUTH"},
                         {"Opcode", std::to_string(opcode)},
                         {"Service_Id", service_id},
                         {"Token", token},
                         {"api_def", api_def}});
}

std::string regs_request(int32_t service_id, uint32_t opcode, const Json::Value& api_def) {
  return ordered_object({{"req_type", "REGS"},
                         {"Opcode", std::to_string(opcode)},
                         {"Service_Id", service_id},
                         {"api_def", api_def}});
}

std::string redy_request(int32_t service_id, uint32_t opcode) {
  return ordered_object(
      {{"req_type", "REDY"}, {"Service_Id", service_id}, {"Opcode", std::to_string(opcode)}});
}

std::string dint_request(int32_t service_id) {
  return ordered_object({{"req_type", "DINT"}, {"Service_Id", service_id}});
}

std::string permission_request(uint32_t session_id, const std::vector<std::string>& permissions) {
  return ordered_object({{"req_type", "PERMISSION"},
                         {"Session_Id", std::to_string(session_id)},
                         {"Permissions", string_array(permissions)}});
}

std::string info_query_request(uint32_t session_id, const std::vector<std::string>& keys) {
  return ordered_object({{"req_type", "INFO_QUERY"},
                         {"Session_Id", std::to_string(session_id)},
                         {"QueryInfos", string_array(keys)}});
}

std::string start_session_answer(uint32_t session_id,
                                 const std::vector<OpcodeSubsystem>& accepted) {
  if (accepted.empty()) {
    return ordered_object({{"req_type", "start_session"},
                           {"Result", "Failure"},
                           {"session_id", session_id}});
  }
  // Group by opcode, keeping the order in which opcodes first appear.
  std::vector<uint32_t> order;
  std::vector<Json::Value> subsystems;
  for (const OpcodeSubsystem& pair : accepted) {
    size_t i = 0;
    while (i < order.size() && order[i] != pair.opcode) ++i;
    if (i == order.size()) {
      order.push_back(pair.opcode);
      subsystems.emplace_back(Json::arrayValue);
    }
    Json::Value sub(Json::objectValue);
    sub["id"] = pair.subsystem;
    subsystems[i].append(sub);
  }
  std::string list = "[";
  for (size_t i = 0; i < order.size(); ++i) {
    if (i != 0) list += ',';
    list += ordered_object({{"id", opcode_hex(order[i])}, {"subsystems", subsystems[i]}});
  }
  list += ']';
  std::string head = ordered_object({{"req_type", "start_session"},
                                     {"Result", "Success"},
                                     {"session_id", session_id}});
  head.pop_back();  // reopen the object for the list
  return head + ",\"opcodes\":" + list + "}";
}

std::string end_session_answer() {
  return ordered_object({{"req_type", "end_session"}, {"Result", "Success"}});
}

std::string exec_task_answer(uint32_t session_id, uint32_t transac_id, const Json::Value& result) {
  Members members{{"req_type", "exec_task"}, {"session_id", session_id}, {"transac_id", transac_id}};
  if (result.isObject()) {
    for (const std::string& name : result.getMemberNames()) {
      if (name == "req_type" || name == "session_id" || name == "transac_id") continue;
      members.emplace_back(name, result[name]);
    }
  }
  return ordered_object(members);
}

}  // namespace lumokit::wire
