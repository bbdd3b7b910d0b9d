// The emulated `ILumoSys` proxy. Each proxy is bound to the incarnation that
// handed it out and answers from the shared host state while that incarnation
// lives; afterwards every call fails, as on a dead binder.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host_policy.h"
#include "lumo_sys.h"

namespace lumosys::host {

class HostLumoSys : public ILumoSys {
 public:
  explicit HostLumoSys(uint64_t incarnation) : incarnation_(incarnation) {}

  uint64_t incarnation() const { return incarnation_; }

  bool checkGrantedPermissions(int32_t pid, int32_t uid,
                               const std::vector<std::string>& permissions,
                               std::vector<bool>* granted) override;
  bool queryInfo(int32_t pid, int32_t uid, const std::vector<std::string>& keys,
                 std::vector<std::string>* answers) override;
  bool updatePrivacyOperation(const std::string& operation, int32_t pid, int32_t uid, bool stop,
                              int32_t* result) override;
  bool getAPIInfo(std::vector<APIInfo>* infos) override;
  bool setPermissionChangeCallback(const std::shared_ptr<ILumoSysCallback>& callback) override;

 private:
  const uint64_t incarnation_;
};

// The answer of the emulated queryInfo for one key of a known app.
std::string host_query_answer(const HostApp& app, const std::string& key);

}  // namespace lumosys::host
