// Opcode 0x2002 "location", subsystem 3: "getLocation" answers a fake
// position that is fixed for a session (derived from its id), after asking
// the manager whether the client holds the fine-location permission (cached
// per session and kept current by permission changes) and which package it is.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>

#include "service.h"

namespace example {

inline constexpr uint32_t kLocationOpcode = 0x2002;
inline constexpr uint32_t kLocationSubsystem = 3;
inline constexpr const char* kFineLocation = "android.permission.ACCESS_FINE_LOCATION";

struct FakePosition {
  int64_t latitude_e6;   // micro-degrees, -85e6 .. 85e6
  int64_t longitude_e6;  // micro-degrees, -180e6 .. 180e6
};

// The same session id always gives the same position.
FakePosition fake_position(uint32_t session_id);

class Location : public Service {
 public:
  explicit Location(ClientQueries queries) : queries_(std::move(queries)) {}
  uint32_t opcode() const override { return kLocationOpcode; }
  const char* name() const override { return "location"; }
  Json::Value run(const lumokit::TaskRequest& task) override;
  void session_ended(uint32_t session_id) override;
  void permission_changed(const lumokit::PermissionChange& change) override;

 private:
  ClientQueries queries_;
  std::mutex mtx_;
  std::map<uint32_t, bool> granted_;  // per session, once asked
};

}  // namespace example
