// Which (opcode, subsystem) pairs each session has started with this plugin.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include "lumokit/plugin_types.h"

namespace example {

class SessionBook {
 public:
  void start(uint32_t session_id, const std::vector<lumokit::OpcodeSubsystem>& pairs);
  void end(uint32_t session_id);
  bool has(uint32_t session_id, const lumokit::OpcodeSubsystem& pair) const;

 private:
  mutable std::mutex mtx_;
  std::map<uint32_t, std::set<lumokit::OpcodeSubsystem>> sessions_;
};

}  // namespace example
