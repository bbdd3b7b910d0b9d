// How `lumokit monitor` reads, filters and shows the daemon's event lines.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <json/json.h>

namespace lumokit::cli {

// Empty or unset fields match everything; set ones must all match.
struct MonitorFilter {
  bool by_plugin = false;
  int32_t plugin = 0;
  bool by_session = false;
  uint32_t session = 0;
  bool by_opcode = false;
  uint32_t opcode = 0;
  std::string kind;
};

// What an event is about, from its members and from its text.
struct EventFacts {
  std::string kind;      // the text's "req_type", "task", the call's name, "callback" or "-"
  std::string req_type;  // the text's "req_type", when it has one
  uint32_t session = 0;  // 0: none named
  std::vector<uint32_t> opcodes;
};

EventFacts facts_of(const Json::Value& event);

bool matches(const MonitorFilter& filter, const Json::Value& event, const EventFacts& facts);

// One line: time, arrow, plugin or client, kind, session, size, text (cut
// to a screen line unless `full`).
std::string event_row(const Json::Value& event, const EventFacts& facts, bool full);

}  // namespace lumokit::cli
