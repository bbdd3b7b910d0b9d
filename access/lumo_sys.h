// The one seam between the manager and the platform's system service
// `ILumoSys` (and the service manager that hands it out). The access-control
// code is written against this header only; a binder backend (Android) and a
// host backend (in-process emulator) implement it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace lumosys {

// Instance name of the system service for every look-up.
inline constexpr const char* kLumoSysInstance = "vendor.brx.lumosys.ILumoSys/default";

// One catalogue record, the seven texts of the parcelable in declaration order.
struct APIInfo {
  std::string id;
  std::string permissions;
  std::string start_op;
  std::string stop_op;
  std::string extra1;
  std::string extra2;
  std::string subsystem;
};

// The manager's side of `ILumoSysCallback`.
class ILumoSysCallback {
 public:
  virtual ~ILumoSysCallback() = default;
  // The result mirrors a binder status: true is OK.
  virtual bool onpermissionchanged(int32_t pid, int32_t uid, const std::string& permission,
                                   bool status) = 0;
};

// A proxy of `ILumoSys`. Each call returns true when the binder status is
// present and OK; outputs are only meaningful then (but may have been written).
class ILumoSys {
 public:
  virtual ~ILumoSys() = default;
  virtual bool checkGrantedPermissions(int32_t pid, int32_t uid,
                                       const std::vector<std::string>& permissions,
                                       std::vector<bool>* granted) = 0;
  virtual bool queryInfo(int32_t pid, int32_t uid, const std::vector<std::string>& keys,
                         std::vector<std::string>* answers) = 0;
  // `stop` false starts the operation, true stops it.
  virtual bool updatePrivacyOperation(const std::string& operation, int32_t pid, int32_t uid,
                                      bool stop, int32_t* result) = 0;
  virtual bool getAPIInfo(std::vector<APIInfo>* infos) = 0;
  virtual bool setPermissionChangeCallback(const std::shared_ptr<ILumoSysCallback>& callback) = 0;
};

// Platform service manager.
bool isDeclared(const char* instance);
// Blocks until the service is registered.
std::shared_ptr<ILumoSys> waitForService(const char* instance);
// Null when the service is not registered now.
std::shared_ptr<ILumoSys> getService(const char* instance);

// Death notification. A recipient is created once per link and never freed
// (as the binder handle is kept for the process's life).
using DeathCallback = void (*)(void* cookie);
struct DeathRecipient;
DeathRecipient* newDeathRecipient(DeathCallback callback);
// True when linked; `cookie` is handed to the callback when the service dies.
bool linkToDeath(const std::shared_ptr<ILumoSys>& service, DeathRecipient* recipient, void* cookie);

// Starts the thread pool on which death notices and callbacks arrive.
void startThreadPool();

}  // namespace lumosys
