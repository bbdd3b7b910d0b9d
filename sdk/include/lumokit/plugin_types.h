// Records that the plugin SDK hands to a plugin's hooks: what a session asks
// for, a task to run, a change of a client's permission.
#pragma once

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include <json/json.h>

namespace lumokit {

struct OpcodeSubsystem {
  uint32_t opcode = 0;
  uint32_t subsystem = 0;

  bool operator==(const OpcodeSubsystem& o) const {
    return opcode == o.opcode && subsystem == o.subsystem;
  }
  bool operator<(const OpcodeSubsystem& o) const {
    return std::tie(opcode, subsystem) < std::tie(o.opcode, o.subsystem);
  }
};

// A client session wants these pairs of this plugin.
struct SessionStart {
  uint32_t session_id = 0;
  std::vector<OpcodeSubsystem> requested;  // in the manager's order
};

// One call of a client, forwarded unchanged by the manager.
struct TaskRequest {
  uint32_t session_id = 0;
  uint32_t transac_id = 0;
  std::string opcode_text;  // as the client wrote it, e.g. "0x1001"
  uint32_t opcode = 0;      // opcode_text read as hexadecimal; 0 when unreadable
  uint32_t subsystem = 0;
  std::string function;     // "func"."name"
  Json::Value args;         // "func"."args": array of objects with "type" (and the plugin's own members)
  Json::Value message;      // the whole request
};

// The client behind a session gained or lost an Android permission.
struct PermissionChange {
  uint32_t opcode = 0;
  uint32_t subsystem = 0;
  uint32_t session_id = 0;
  std::string permission;
  bool granted = false;
};

}  // namespace lumokit
